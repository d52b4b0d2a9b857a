// kavrel listings, end to end, over catalog trees built in a temporary
// directory by a writer independent of the catalog library.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "raw_catalog.h"
#include "tool_test_util.h"

namespace {

std::string labelled(const std::string& label, const std::string& value) {
    return label + std::string(25 - label.size(), ' ') + value + "\n";
}

// Names in a directory in the order readdir gives them.
std::vector<std::string> readdir_order(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return names;
    while (struct dirent* e = readdir(d)) {
        std::string n = e->d_name;
        if (n != "." && n != "..") names.push_back(n);
    }
    closedir(d);
    return names;
}

class KavrelListingTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(kt::kavrel_binary().empty()) << "KAVREL_BINARY_DIR is not set";
        ASSERT_EQ(0, access(kt::kavrel_binary().c_str(), X_OK)) << kt::kavrel_binary() << " is not built";
    }

    // Writes rows into dsid/client/policy and returns its directory.
    std::string catalog(unsigned dsid, const std::string& client, const std::string& policy,
                        const std::vector<kt::RawRow>& rows) {
        const std::string dir = pool_.catalog_dir(dsid, client, policy);
        kt::make_dirs(dir);
        EXPECT_EQ("", kt::raw_write_catalog(dir + "/app.db", rows));
        return dir;
    }

    static std::string block(const std::string& dir, const std::vector<kt::RawRow>& rows,
                             const std::string& client, const std::string& policy) {
        std::string s = "[" + dir + "]\n";
        for (const auto& r : rows) s += kt::raw_line_form(r, client, policy) + "\n";
        return s + "total app catalog " + std::to_string(rows.size()) + "\n\n";
    }

    static kt::RawRow row(const std::string& file, const std::string& bid, int64_t start) {
        kt::RawRow r;
        r.file_name = file;
        r.backup_id = bid;
        r.backup_start_time = start;
        r.backup_stop_time = start + 60;
        return r;
    }

    kt::TestPool pool_;
};

TEST_F(KavrelListingTest, OneCatalogLineFormIsExact) {
    kt::RawRow a;
    a.file_name = "vol0.img";
    a.file_len = 1048576;
    a.backup_id = "clientA_1700000000";
    a.policy_type = 4;
    a.schedule_type = 2;
    a.frag_nums = 3;
    a.app_id = "orcl";
    a.data_object = "vol0";
    a.app_expire_time = 1800000000;
    a.orvo_expire_time = 1800000100;
    a.backup_start_time = 1700000000;
    a.backup_stop_time = 1700000600;
    a.owner = "svc";
    a.owner_role = 4;
    a.description = "nightly";
    a.reserver[0] = "r0";
    a.reserver[9] = "r9";
    kt::RawRow b;
    b.version = 2;
    b.file_name = "ctl.img";
    b.backup_id = "clientA_1690000000";
    b.backup_start_time = 1690000000;
    b.owner = "root";
    b.owner_role = 1;
    // Stored out of start-time order: the listing is ordered by it.
    const std::string dir = catalog(7, "c1", "p1", {a, b});

    kt::RunResult r = pool_.run({"-listall"});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ("[" + dir + "]\n"
              "2|ctl.img|0|clientA_1690000000|p1|4|0|0|c1|||0|0|1690000000|0|root|1||||||||||||\n"
              "1|vol0.img|1048576|clientA_1700000000|p1|4|2|3|c1|orcl|vol0|1800000000|1800000100|"
              "1700000000|1700000600|svc|4|nightly|r0|||||||||r9|\n"
              "total app catalog 2\n"
              "\n",
              r.out);
    EXPECT_EQ(std::string::npos, r.err.find("ERROR")) << r.err;
}

TEST_F(KavrelListingTest, OneCatalogVerboseFormIsExact) {
    kt::RawRow a;
    a.file_name = "vol0.img";
    a.file_len = 42;
    a.backup_id = "B1";
    a.frag_nums = 1;
    a.app_id = "orcl";
    a.data_object = "obj";
    a.app_expire_time = -5;
    a.backup_start_time = 1700000000;
    a.backup_stop_time = 1700000600;
    a.owner = "svc";
    a.owner_role = 2;
    a.description = "d";
    a.reserver[3] = "x";
    const std::string dir = catalog(7, "c1", "p1", {a});

    std::string item = "{\n";
    item += labelled("version:", "1");
    item += labelled("file name:", "vol0.img");
    item += labelled("file len:", "42");
    item += labelled("backup id:", "B1");
    item += labelled("policy:", "p1");
    item += labelled("policy type:", "4");
    item += labelled("schedule type:", "0");
    item += labelled("fragment numbers:", "1");
    item += labelled("client:", "c1");
    item += labelled("appid:", "orcl");
    item += labelled("data object:", "obj");
    item += labelled("app expire time:", "-5");
    item += labelled("orvo expire time:", "0");
    item += labelled("backup start time:", "1700000000");
    item += labelled("backup stop time:", "1700000600");
    item += labelled("owner:", "svc");
    item += labelled("owner role:", "unknown role");
    item += labelled("description:", "d");
    for (int i = 0; i < 10; ++i) item += labelled("reserver" + std::to_string(i) + ":", i == 3 ? "x" : "");
    item += "}\n";

    for (const auto& args : {std::vector<std::string>{"-v", "-listall"}, std::vector<std::string>{"-listall", "-v"}}) {
        kt::RunResult r = pool_.run(args);
        EXPECT_EQ(0, r.exit_status) << r.err;
        EXPECT_EQ("[" + dir + "]\n" + item + "total app catalog 1\n\n", r.out);
    }

    // The line form of the same item prints the negative time unsigned.
    kt::RunResult line = pool_.run({"-listall"});
    EXPECT_NE(std::string::npos, line.out.find("|18446744073709551611|0|1700000000|"));
}

TEST_F(KavrelListingTest, VerboseShowsRoleWords) {
    kt::RawRow admin = row("a", "B1", 1);
    admin.owner_role = 1;
    kt::RawRow app = row("b", "B1", 2);
    app.owner_role = 4;
    catalog(3, "c", "p", {admin, app});
    kt::RunResult r = pool_.run({"-v", "-listall"});
    EXPECT_NE(std::string::npos, r.out.find(labelled("owner role:", "admin")));
    EXPECT_NE(std::string::npos, r.out.find(labelled("owner role:", "app")));
}

TEST_F(KavrelListingTest, SeveralCatalogsListedAsBlocks) {
    std::multiset<std::string> expected;
    int n = 0;
    for (unsigned dsid : {1u, 2u}) {
        for (const std::string client : {"cA", "cB"}) {
            for (const std::string policy : {"daily", "weekly"}) {
                std::vector<kt::RawRow> rows;
                for (int i = 0; i < 3; ++i) {
                    rows.push_back(row("f" + std::to_string(n) + "_" + std::to_string(i),
                                       client + "_" + std::to_string(1700000000 + n), 1700000000 + 10 * n + i));
                }
                ++n;
                expected.insert(block(catalog(dsid, client, policy, rows), rows, client, policy));
            }
        }
    }
    // An empty catalog, a policy directory without a database, and
    // directories that are not catalog directories at all.
    const std::string empty = catalog(2, "cC", "none", {});
    expected.insert("[" + empty + "]\ntotal app catalog 0\n\n");
    const std::string no_db = pool_.catalog_dir(2, "cC", "nodb");
    kt::make_dirs(no_db);
    expected.insert("[" + no_db + "]\ntotal app catalog 0\n\n");
    kt::make_dirs(pool_.root() + "/databases/other/1/cA/daily");
    kt::make_dirs(pool_.root() + "/misc/databases/x");
    kt::write_file(pool_.catalog_dir(1, "cA", "daily") + "/notes.txt", "not a directory\n");
    kt::write_file(pool_.app_root(1) + "/cA/file-at-policy-level", "");

    kt::RunResult r = pool_.run({"-listall"});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ(expected, kt::listing_block_set(r.out));
    EXPECT_EQ(std::string::npos, r.err.find("ERROR")) << r.err;
}

TEST_F(KavrelListingTest, OnlyCatalogDirectoriesAreListedOthersTraced) {
    const std::string dir = catalog(7, "c1", "p1", {row("f", "B1", 1)});
    kt::make_dirs(dir + "/deeper");
    kt::RunOptions o;
    o.set_env["DCT_TRACE"] = "1";
    kt::RunResult r = pool_.run({"-listall"}, o);
    EXPECT_EQ(0, r.exit_status);
    EXPECT_EQ(block(dir, {row("f", "B1", 1)}, "c1", "p1"), r.out);

    const std::string root = pool_.root();
    const std::string app = root + "/databases/application";
    for (const std::string& line : {
             "TRACE path " + root + " database root is not correct\n",
             "TRACE path " + root + "/databases database root is not correct\n",
             "TRACE path " + app + "/7 dsid is not correct\n",
             "TRACE path " + app + "/7/c1 client is not correct\n",
             "TRACE path " + dir + "/deeper policy is not correct\n",
             "TRACE client c1 policy p1 dsid 7 database_root " + root + "/databases\n",
         }) {
        EXPECT_NE(std::string::npos, r.err.find(line)) << line << "\nin:\n" << r.err;
    }
    // The application directory itself: the character at the start is the
    // terminator, shown escaped; every record is one line and no NUL byte.
    EXPECT_NE(std::string::npos, r.err.find("TRACE path " + app + " database_app_root " + app + " \\x00\n"))
        << r.err;
    EXPECT_EQ(std::string::npos, r.err.find('\0')) << r.err;
    EXPECT_EQ(std::string::npos, r.err.find("\n\n")) << r.err;
    // Files are not offered to parse_path.
    EXPECT_EQ(std::string::npos, r.err.find("app.db policy is not correct")) << r.err;
}

TEST_F(KavrelListingTest, CatalogFromIndependentWriterReadsBack) {
    // Text with characters a writer might mangle, numbers at their limits.
    kt::RawRow r1 = row("dir with blank/and slash.img", "bid'quote", 5);
    r1.file_len = 18446744073709551615ull;
    r1.policy_type = 4294967295u;
    r1.frag_nums = 2147483648u;
    r1.description = "ümlaut, comma";
    r1.reserver[5] = "percent %s %d";
    kt::RawRow r2 = row("second", "bid\"dq", 6);
    r2.version = 4294967295u;
    r2.owner_role = 1;
    const std::string dir = catalog(42, "client.example.com", "pol-1", {r1, r2});
    kt::RunResult r = pool_.run({"-listall"});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ(block(dir, {r1, r2}, "client.example.com", "pol-1"), r.out);
    EXPECT_EQ(std::string::npos, r.err.find("ERROR")) << r.err;
}

TEST_F(KavrelListingTest, CorruptRowHidesItsCatalogOnly) {
    const std::vector<kt::RawRow> good_rows = {row("g1", "B1", 1), row("g2", "B2", 2)};
    const std::string good = catalog(1, "c1", "p1", good_rows);
    const std::string bad = catalog(1, "c2", "p1", {row("b1", "B1", 1), row("b2", "B2", 2), row("b3", "B3", 3)});
    ASSERT_EQ("", kt::raw_exec(bad + "/app.db", "UPDATE catalog SET crc = crc + 1 WHERE name = 'b2'"));

    kt::RunResult r = pool_.run({"-listall"});
    EXPECT_EQ(0, r.exit_status) << r.err;
    // The bad catalog's bracketed path stands alone: no items, no total.
    const std::string good_block = block(good, good_rows, "c1", "p1");
    const std::string bad_head = "[" + bad + "]\n";
    EXPECT_TRUE(r.out == good_block + bad_head || r.out == bad_head + good_block) << r.out;
    EXPECT_NE(std::string::npos,
              r.err.find("ERROR [4294967295] operator(): find catalog failed by backup_id|c2,p1,*\n"))
        << r.err;
    EXPECT_NE(std::string::npos, r.err.find("crc mismatch for app cat item")) << r.err;
}

TEST_F(KavrelListingTest, CorruptDatabaseFileIsLoggedAndSkipped) {
    const std::string bad = pool_.catalog_dir(1, "c1", "p1");
    kt::make_dirs(bad);
    kt::write_file(bad + "/app.db", std::string(4096, 'x'));
    const std::vector<kt::RawRow> rows = {row("g", "B", 1)};
    const std::string good = catalog(1, "c2", "p1", rows);
    kt::RunResult r = pool_.run({"-listall"});
    EXPECT_EQ(0, r.exit_status) << r.err;
    const std::string good_block = block(good, rows, "c2", "p1");
    const std::string bad_head = "[" + bad + "]\n";
    EXPECT_TRUE(r.out == good_block + bad_head || r.out == bad_head + good_block) << r.out;
    EXPECT_NE(std::string::npos, r.err.find("operator(): find catalog failed by backup_id|c1,p1,*\n")) << r.err;
}

TEST_F(KavrelListingTest, RootThatIsCatalogDirectoryIsListed) {
    const std::vector<kt::RawRow> rows = {row("f", "B1", 1)};
    const std::string dir = catalog(7, "c1", "p1", rows);
    kt::make_dirs(dir + "/sub/deeper");
    for (const std::string& arg : {dir, dir + "/"}) {
        kt::RunResult r = pool_.run({"-listall", "-dbpath", arg});
        EXPECT_EQ(0, r.exit_status) << r.err;
        EXPECT_EQ(block(dir, rows, "c1", "p1"), r.out);
    }
}

TEST_F(KavrelListingTest, EmptyCatalogPrintsZeroTotal) {
    const std::string dir = catalog(0, "c", "p", {});
    kt::RunResult r = pool_.run({"-listall"});
    EXPECT_EQ(0, r.exit_status);
    EXPECT_EQ("[" + dir + "]\ntotal app catalog 0\n\n", r.out);

    // A catalog with items none of which match looks the same.
    const std::string other = catalog(0, "c", "q", {row("f", "B1", 1)});
    kt::RunResult none = pool_.run({"-listbybackupid", "Z*"});
    EXPECT_EQ((std::multiset<std::string>{"[" + dir + "]\ntotal app catalog 0\n\n",
                                          "[" + other + "]\ntotal app catalog 0\n\n"}),
              kt::listing_block_set(none.out));
}

TEST_F(KavrelListingTest, DsidIsReadWithAtol) {
    const std::vector<kt::RawRow> rows = {row("f", "B1", 1)};
    const std::string dir = pool_.root() + "/databases/application/12/clientA/pol";
    kt::make_dirs(dir);
    ASSERT_EQ("", kt::raw_write_catalog(dir + "/app.db", rows));
    // A non-numeric data-store directory is data store 0, whose databases
    // lie below application/0: the directory is listed, with what 0 holds.
    const std::string odd = pool_.root() + "/databases/application/abc/c/p";
    kt::make_dirs(odd);
    kt::RunOptions o;
    o.set_env["DCT_TRACE"] = "1";
    kt::RunResult r = pool_.run({"-listall"}, o);
    EXPECT_EQ(0, r.exit_status);
    EXPECT_EQ((std::multiset<std::string>{block(dir, rows, "clientA", "pol"), "[" + odd + "]\ntotal app catalog 0\n\n"}),
              kt::listing_block_set(r.out));
    EXPECT_NE(std::string::npos, r.err.find("TRACE client clientA policy pol dsid 12 database_root ")) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("TRACE client c policy p dsid 0 database_root ")) << r.err;
}

TEST_F(KavrelListingTest, LinkToDirectoryIsFollowed) {
    const std::vector<kt::RawRow> rows = {row("f", "B1", 1)};
    const std::string outside = pool_.dir().file("elsewhere/c9/p9");
    kt::make_dirs(outside);
    ASSERT_EQ("", kt::raw_write_catalog(outside + "/app.db", rows));
    kt::make_dirs(pool_.root() + "/databases/application");
    ASSERT_EQ(0, symlink(pool_.dir().file("elsewhere").c_str(), pool_.app_root(9).c_str()));

    kt::RunResult r = pool_.run({"-listall"});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ(block(pool_.catalog_dir(9, "c9", "p9"), rows, "c9", "p9"), r.out);
}

TEST_F(KavrelListingTest, LinkLoopEndsWithoutHanging) {
    const std::vector<kt::RawRow> rows = {row("f", "B1", 1)};
    const std::string dir = catalog(7, "c1", "p1", rows);
    // A link to its own directory, and a pair of links that point at each
    // other's directories.
    ASSERT_EQ(0, symlink(".", (dir + "/self").c_str()));
    kt::make_dirs(pool_.root() + "/x");
    kt::make_dirs(pool_.root() + "/y");
    ASSERT_EQ(0, symlink("../y", (pool_.root() + "/x/to_y").c_str()));
    ASSERT_EQ(0, symlink("../x", (pool_.root() + "/y/to_x").c_str()));

    kt::RunOptions o;
    o.timeout_seconds = 120;
    kt::RunResult r = pool_.run({"-listall"}, o);
    EXPECT_FALSE(r.timed_out);
    EXPECT_EQ(0, r.signal);
    EXPECT_EQ(0, r.exit_status);
    // The loop below the catalog never forms another catalog path.
    EXPECT_EQ(block(dir, rows, "c1", "p1"), r.out);
}

// Runs the child as an unprivileged user, so that a directory without
// permissions cannot be opened even when the tests run as root.
int drop_privileges() {
    if (geteuid() != 0) return 0;
    if (setgid(65534) != 0) return 1;
    if (setuid(65534) != 0) return 2;
    return 0;
}

TEST_F(KavrelListingTest, UnreadableDirectoryStopsItsAncestors) {
    ASSERT_EQ(0, chmod(pool_.dir().path().c_str(), 0755));
    const std::vector<kt::RawRow> rows = {row("f", "B1", 1)};
    const std::string p1 = catalog(7, "c1", "p1", rows);
    const std::string p2 = catalog(7, "c1", "p2", rows);
    const std::string locked = p1 + "/locked";
    kt::make_dirs(locked + "/inner");
    ASSERT_EQ(0, chmod(locked.c_str(), 0));
    for (const std::string& f : {pool_.registry(), pool_.config(), p1 + "/app.db", p2 + "/app.db"}) {
        ASSERT_EQ(0, chmod(f.c_str(), 0644));
    }

    kt::RunOptions o;
    o.in_child = drop_privileges;
    kt::RunResult r = pool_.run({"-listall"}, o);
    ASSERT_LT(r.exit_status, 120) << "could not drop privileges";
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("ERROR [106] Failed to open directory " + locked + "\n")) << r.err;

    // p1 is printed in full before the walk descends into it and fails; the
    // failure ends the walk of every level above, so p2 is listed only if
    // the system lists it before p1.
    const std::vector<std::string> order = readdir_order(pool_.app_root(7) + "/c1");
    const bool p2_first = order.size() == 2 && order[0] == "p2";
    std::string expected = block(p1, rows, "c1", "p1");
    if (p2_first) expected = block(p2, rows, "c1", "p2") + expected;
    EXPECT_EQ(expected, r.out);
}

TEST_F(KavrelListingTest, ManyCatalogsThroughPipeStayWhole) {
    std::multiset<std::string> expected;
    for (unsigned dsid = 0; dsid < 3; ++dsid) {
        for (int c = 0; c < 10; ++c) {
            std::vector<kt::RawRow> rows;
            for (int i = 0; i < 20; ++i) {
                kt::RawRow x = row("file" + std::to_string(i), "B" + std::to_string(i % 4), i);
                x.description = std::string(200, static_cast<char>('a' + i % 26));
                rows.push_back(x);
            }
            const std::string client = "client" + std::to_string(c);
            expected.insert(block(catalog(dsid, client, "p", rows), rows, client, "p"));
        }
    }
    kt::RunResult r = pool_.run({"-listall"});
    EXPECT_EQ(0, r.exit_status);
    EXPECT_EQ(expected, kt::listing_block_set(r.out));
}

}  // namespace

namespace {

// "[Log] Level" in the CR configuration file sets what the default log sink
// keeps; DCT_LOG_LEVEL, when set, wins.
class KavrelLogLevelTest : public KavrelListingTest {};

TEST_F(KavrelLogLevelTest, ConfiguredLevelKeepsOnlyTheRecordsAtOrAboveIt) {
    const std::string bad = pool_.catalog_dir(1, "c1", "p1");
    kt::make_dirs(bad);
    kt::write_file(bad + "/app.db", std::string(4096, 'x'));  // an error record when listed
    const std::string plain_config = kt::read_file(pool_.config());
    kt::RunOptions no_environment;
    no_environment.unset_env.push_back("DCT_LOG_LEVEL");

    kt::RunResult r = pool_.run({"-listall"}, no_environment);
    EXPECT_EQ(0, r.exit_status) << r.err;
    ASSERT_NE(std::string::npos, r.err.find("INFO [")) << r.err;  // every level by default

    kt::write_file(pool_.config(), plain_config + "[Log]\nLevel = warning\n");
    r = pool_.run({"-listall"}, no_environment);
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("ERROR [")) << r.err;
    EXPECT_EQ(std::string::npos, r.err.find("INFO [")) << r.err;

    kt::write_file(pool_.config(), plain_config + "[Log]\nLevel = error\n");
    kt::RunOptions from_environment;
    from_environment.set_env["DCT_LOG_LEVEL"] = "info";
    r = pool_.run({"-listall"}, from_environment);
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("INFO [")) << r.err;
}

}  // namespace
