// Damaged files and hostile trees: database files that are empty, truncated,
// of another format or a directory; a checksum file with any one line
// damaged; a tree of 100,000 empty directories. The listing logs and skips
// what it cannot read and goes on; recovery refuses damaged shadows and sets
// them aside.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "reliability_fixture.h"

namespace {

using appdb::app_catalog_item;

struct bad_db_case {
    const char* name;
    std::function<void(const std::string& file)> damage;
    const char* logged;  // a fragment of the error line about it
};

class BadDatabaseFileTest : public ::testing::TestWithParam<bad_db_case> {
protected:
    kt::TempDir tmp;
    kt::LogCapture log;
    kt::SleepCounter sleeps;
};

// A good catalog beside the damaged one: the damaged one is skipped with
// an error, the good one is listed in full, the walk ends with status 0.
TEST_P(BadDatabaseFileTest, ListingSkipsItAndListsTheRest) {
    const std::string dbroot = tmp.file("db");
    {
        appdb::catalog_application_impl plain(1, dbroot + "/databases", 5);
        for (const char* c : {"bad", "good"}) {
            for (int i = 0; i < 40; ++i) {
                ASSERT_EQ(0u, plain.update_catalog("alice", 4,
                                                   catt::make_item(c, "pol", "f" + std::to_string(i), "bid")
                                                       .to_string()));
            }
        }
    }
    GetParam().damage(dbroot + "/databases/application/1/bad/pol/app.db");
    log.clear();
    cr_status_t status = 1;
    const std::string out = relt::list_pool(dbroot, tmp.file("out.txt"), "*", &status);
    EXPECT_EQ(0u, status);
    EXPECT_NE(std::string::npos, out.find("/application/1/good/pol]\n")) << out;
    EXPECT_NE(std::string::npos, out.find("total app catalog 40\n")) << out;
    EXPECT_EQ(1u, log.count_containing("operator(): find catalog failed by backup_id|bad,pol,*")) << log.dump();
    EXPECT_LE(1u, log.count_containing(GetParam().logged)) << log.dump();
}

void truncate_to(const std::string& file, off_t size) { ASSERT_EQ(0, truncate(file.c_str(), size)); }

INSTANTIATE_TEST_SUITE_P(
    Reliability, BadDatabaseFileTest,
    ::testing::Values(
        bad_db_case{"Truncated",
                    [](const std::string& f) {
                        struct stat st;
                        ASSERT_EQ(0, stat(f.c_str(), &st));
                        truncate_to(f, st.st_size / 2 + 100);
                    },
                    "do_db_query: failed to query db"},
        bad_db_case{"OtherFormat",
                    [](const std::string& f) { kt::write_file(f, std::string(8192, '\x7f') + "ELF not a db"); },
                    "file is not a database"},
        bad_db_case{"Directory",
                    [](const std::string& f) {
                        ASSERT_EQ(0, unlink(f.c_str()));
                        ASSERT_EQ(0, mkdir(f.c_str(), 0755));
                    },
                    "could not open db"}),
    [](const ::testing::TestParamInfo<bad_db_case>& info) { return std::string(info.param.name); });

// An empty database file (a creation that failed half-way) holds no rows:
// the listing shows it with none, logs no error, and does not write it.
TEST(BadDatabaseFile, EmptyFileListsNoRecordsAndStaysEmpty) {
    kt::TempDir tmp;
    kt::LogCapture log;
    kt::SleepCounter sleeps;
    const std::string dbroot = tmp.file("db");
    {
        appdb::catalog_application_impl plain(1, dbroot + "/databases", 5);
        ASSERT_EQ(0u, plain.update_catalog("alice", 4, catt::make_item("good", "pol", "f", "bid").to_string()));
        ASSERT_EQ(0u, plain.update_catalog("alice", 4, catt::make_item("bad", "pol", "f", "bid").to_string()));
    }
    const std::string bad = dbroot + "/databases/application/1/bad/pol/app.db";
    truncate_to(bad, 0);
    log.clear();
    cr_status_t status = 1;
    const std::string out = relt::list_pool(dbroot, tmp.file("out.txt"), "*", &status);
    EXPECT_EQ(0u, status);
    EXPECT_NE(std::string::npos, out.find("/application/1/bad/pol]\ntotal app catalog 0\n")) << out;
    EXPECT_NE(std::string::npos, out.find("/application/1/good/pol]\n")) << out;
    for (const auto& r : log.records()) EXPECT_NE(dct::log_level::error, r.level) << r.message;
    struct stat st;
    ASSERT_EQ(0, stat(bad.c_str(), &st));
    EXPECT_EQ(0, st.st_size);
}

// Every line of a checksum file damaged in turn (one changed character):
// the file fails its own checksum, recovery refuses the shadow with a status
// instead of trusting it, the damaged history is set aside in a "#corrupt_"
// directory and the real database is left as it was.
TEST(BadChecksumFile, EveryDamagedLineIsRefusedAndSetAside) {
    kt::TempDir tmp;
    kt::LogCapture log;
    kt::SleepCounter sleeps;
    shadowt::pool_layout pool(tmp.path());
    pool.prepare();
    const std::string dir = pool.db_dir(2, "cli", "pol");
    const std::string shadow = pool.shadow_dir(2, "cli", "pol");
    std::string original;
    {
        auto ctx = pool.context();
        auto app = shadowt::make_shadow_app(pool, ctx.get());
        ASSERT_EQ(0u, app->update_catalog("alice", 4, catt::make_item("cli", "pol", "f1", "b").to_string()));
        ASSERT_EQ(0u, ctx->backup(dir, "appdb"));
        ASSERT_EQ(0u, app->update_catalog("alice", 4, catt::make_item("cli", "pol", "f2", "b").to_string()));
    }
    original = kt::read_file(shadow + "/.chksum.appdb");
    const std::string db = kt::read_file(dir + "/app.db");
    std::vector<size_t> starts{0};
    for (size_t i = 0; i + 1 < original.size(); ++i) {
        if (original[i] == '\n') starts.push_back(i + 1);
    }
    ASSERT_GE(starts.size(), 10u);
    // Versions and journals as they were, to put back before each case.
    std::map<std::string, std::string> files;
    for (const std::string& name : kt::list_dir(shadow)) {
        if (name[0] != '#') files[name] = kt::read_file(shadow + "/" + name);
    }
    for (size_t line = 0; line < starts.size(); ++line) {
        SCOPED_TRACE("damaged line " + std::to_string(line + 1));
        wa_deletetree(shadow);
        wa_createtree(shadow, 0755);
        for (const auto& f : files) kt::write_file(shadow + "/" + f.first, f.second);
        std::string damaged = original;
        char& c = damaged[starts[line]];
        c = c == 'x' ? 'y' : 'x';
        kt::write_file(shadow + "/.chksum.appdb", damaged);
        log.clear();
        auto ctx = pool.context();
        const cr_status_t status = ctx->recover(dir, "appdb", 0);
        EXPECT_NE(0u, status) << log.dump();
        EXPECT_EQ(1u, log.count_containing("failed to load chksum file " + shadow + "/.chksum.appdb")) << log.dump();
        bool set_aside = false;
        for (const std::string& name : kt::list_dir(shadow)) set_aside |= name.compare(0, 15, "#corrupt_appdb_") == 0;
        EXPECT_TRUE(set_aside);
        EXPECT_EQ(db, kt::read_file(dir + "/app.db"));
    }
}

// 100,000 empty directories below the database root: the walk visits them
// all and lists nothing, logs nothing (100 data-store directories with 999
// client directories each, none with a policy directory).
TEST(HugeTree, HundredThousandEmptyDirectoriesAreWalkedQuickly) {
    kt::TempDir tmp;
    kt::LogCapture log;
    const std::string app_root = tmp.file("db/databases/application");
    long made = 0;
    for (int d = 0; d < 100; ++d) {
        const std::string ds = app_root + "/" + std::to_string(d);
        ASSERT_EQ(0, wa_createtree(ds, 0755));
        ++made;
        for (int c = 0; c < 999; ++c) {
            ASSERT_EQ(0, mkdir((ds + "/c" + std::to_string(c)).c_str(), 0755));
            ++made;
        }
    }
    ASSERT_EQ(100000, made);
    const auto start = std::chrono::steady_clock::now();
    cr_status_t status = 1;
    const std::string out = relt::list_pool(tmp.file("db"), tmp.file("out.txt"), "*", &status);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(0u, status);
    EXPECT_EQ("", out);
    EXPECT_EQ(0u, log.records().size()) << log.dump().substr(0, 2000);
    printf("[ huge tree ] %ld empty directories walked in %.2f s\n", made, seconds);
}

}  // namespace
