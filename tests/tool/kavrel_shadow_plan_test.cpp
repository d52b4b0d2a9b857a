// One recovery plan: for every kind of damage the operator's tool is tested
// with, `recover --dry-run` promises exactly what `recover` then does: the
// version it starts from, the versions it passes over, the journal lines it
// replays, the files it sets aside and the rows the database holds afterwards;
// and where it promises nothing, the recovery fails for the reason it gave.
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kavrel_shadow_fixture.h"

namespace {

using namespace kshadowt;

std::vector<int64_t> numbers(const kt::Json& array) {
    std::vector<int64_t> out;
    for (const kt::Json& v : array.items) out.push_back(v.n);
    return out;
}

std::vector<std::string> strings(const kt::Json& array) {
    std::vector<std::string> out;
    for (const kt::Json& v : array.items) out.push_back(v.s);
    return out;
}

class KavrelShadowPlanTest : public KavrelShadowTest {
protected:
    // Adds items n = first .. first+count-1 of c1/p1 through the library.
    void add_rows(int first, int count) {
        CatalogShadowContext context(new ConfigFileShadowProxy(pool_.config(), pool_.root()),
                                     new CatalogDirectoryLock());
        ASSERT_EQ(CR_STATUS_OK, context.init());
        std::unique_ptr<appdb::catalog_application> catalog(appdb::catalog_application_factory::create_catalog(
            1, pool_.root() + "/databases", appdb::APP_D_CATALOG_SHADOW, &context, 5));
        for (int i = first; i < first + count; ++i) {
            ASSERT_EQ(CR_STATUS_OK, catalog->update_catalog("svc", appdb::APP_ROLE_APP, item("c1", "p1", i).to_string()));
        }
    }

    // Runs the dry run and then the recovery of c1/p1 and checks that the
    // second did what the first said.
    void expect_recovery_as_planned(const std::string& name, bool possible, int64_t rows) {
        SCOPED_TRACE(name);
        // (That a dry run changes nothing is shown by the tests of the tool.)
        kt::RunResult dry = run({"--json", "recover", "--dry-run", p1_});
        const kt::Json plan = kt::JsonParser::parse(dry.out)["databases"][0]["recovery"];
        ASSERT_EQ(possible, plan["possible"].b) << dry.out;

        kt::RunResult done = run({"--json", "recover", p1_});
        const kt::Json db = kt::JsonParser::parse(done.out)["databases"][0];
        const kt::Json action = db["action"];
        ASSERT_EQ("recover", action["name"].s) << done.out;
        if (!possible) {
            EXPECT_EQ(1, done.exit_status);
            EXPECT_EQ("failed", action["result"].s) << done.out;
            EXPECT_EQ(plan["reason"].s, action["detail"].s) << done.out;
            return;
        }
        // A version passed over is still reported as the damage it is.
        EXPECT_EQ(plan["passed_over"].items.empty() ? 0 : 1, done.exit_status) << done.out << done.err;
        EXPECT_EQ("recovered", action["result"].s) << done.out;
        EXPECT_EQ(plan["base_version"].n, action["version"].n);
        EXPECT_EQ(plan["journal_lines"].n, action["journal_lines"].n);
        EXPECT_EQ(numbers(plan["passed_over"]), numbers(action["passed_over"]));
        EXPECT_EQ(strings(plan["set_aside"]), strings(action["set_aside"]));
        EXPECT_EQ(rows, plan["rows_after"].n);
        EXPECT_EQ(plan["rows_after"].n, db["live"]["rows"].n);
        EXPECT_EQ("ok", db["live"]["integrity"].s);
        EXPECT_EQ("ok", db["live"]["row_checksums"].s);
        for (const std::string& path : strings(action["set_aside"])) EXPECT_NE(0, access(path.c_str(), F_OK)) << path;
    }
};

TEST_F(KavrelShadowPlanTest, HealthyDatabase) { expect_recovery_as_planned("healthy", true, 3); }

TEST_F(KavrelShadowPlanTest, MissingDatabase) {
    ASSERT_EQ(0, unlink((p1_ + "/app.db").c_str()));
    expect_recovery_as_planned("missing", true, 3);
}

TEST_F(KavrelShadowPlanTest, CorruptedLiveRowAndAHotJournalBesideIt) {
    tamper_second_row(p1_ + "/app.db");
    kt::write_file(p1_ + "/app.db-journal", "left by a dead writer");
    kt::write_file(p1_ + "/app.db-wal", "left by another client");
    expect_recovery_as_planned("tampered, with companions", true, 3);
}

TEST_F(KavrelShadowPlanTest, JournalLinesTheChecksumFileNeverCounted) {
    // A writer died between its journal line and its checksum file: the line
    // was never acknowledged, and neither the plan nor the recovery replays it.
    const std::string journal = s1_ + "/appdb.1.journal";
    kt::write_file(journal, kt::read_file(journal) +
                                "INSERT INTO catalog VALUES (1,'x',0,'x','p1',0,0,0,'c1','','',0,0,0,0,'','',4,'',"
                                "'','','','','','','','','',0);\n");
    ASSERT_EQ(0, unlink((p1_ + "/app.db").c_str()));
    expect_recovery_as_planned("unrecorded tail", true, 3);
}

TEST_F(KavrelShadowPlanTest, NewestVersionDamagedAnOlderOneGood) {
    add_rows(10, 2);
    kt::RunResult r = run({"backup", p1_});
    ASSERT_NE(std::string::npos, r.out.find("  backup        kept version 2\n")) << r.out;
    add_rows(20, 4);
    std::string data = kt::read_file(s1_ + "/appdb.2");
    data[data.size() / 2] ^= 0x5a;
    kt::write_file(s1_ + "/appdb.2", data);
    ASSERT_EQ(0, unlink((p1_ + "/app.db").c_str()));
    // Version 1 and both journals: 3 + 2 lines, then 4.
    expect_recovery_as_planned("newest damaged", true, 9);
}

TEST_F(KavrelShadowPlanTest, NoUsableVersion) {
    std::string data = kt::read_file(s1_ + "/appdb.1");
    data[data.size() / 2] ^= 0x5a;
    kt::write_file(s1_ + "/appdb.1", data);
    expect_recovery_as_planned("damaged version", false, 0);
}

TEST_F(KavrelShadowPlanTest, TruncatedJournal) {
    const std::string journal = s1_ + "/appdb.1.journal";
    std::string text = kt::read_file(journal);
    text.erase(text.rfind('\n', text.size() - 2) + 1);
    kt::write_file(journal, text);
    expect_recovery_as_planned("truncated journal", false, 0);
}

}  // namespace
