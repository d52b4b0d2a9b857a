// exec, exec_file and single-value pragmas.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>

#include "common/test_util.h"
#include "dct/log.h"
#include "sqlite_fixtures.h"
#include "sqlitedb/sqlite_wrapper.h"

using dct::log_level;
using sqlitedb::sqlite3_wrapper;

namespace {

int count_rows(sqlite3_wrapper& w, const std::string& table) {
    std::string n;
    w.run_pragma("SELECT count(*) FROM " + table + ";", "", &n);
    return n.empty() ? -1 : std::stoi(n);
}

// A statement of exactly `len` characters that SQLite rejects.
std::string bad_statement(size_t len) {
    std::string s = "SELEC 1 /*";
    s += std::string(len - s.size() - 2, 'x');
    s += "*/";
    return s;
}

class WrapperExec : public ::testing::Test {
protected:
    void SetUp() override {
        path_ = dir_.file("a.db");
        ASSERT_EQ(0u, w_.open_db(path_));
        ASSERT_EQ(0u, w_.exec("CREATE TABLE t(x TEXT); INSERT INTO t VALUES('a'),('b'),('c');"));
        log_.clear();
    }
    kt::TempDir dir_;
    std::string path_;
    kt::LogCapture log_;
    sqlite3_wrapper w_{""};
};

TEST(WrapperExecClosed, EveryOperationNeedsAConnection) {
    kt::TempDir dir;
    kt::LogCapture log;
    const std::string p = dir.file("a.db");
    sqlite3_wrapper w(p);
    EXPECT_EQ(2u, w.exec("SELECT 1;"));
    EXPECT_EQ(2u, w.exec_file(dir.file("x.sql")));
    std::string result = "keep";
    EXPECT_FALSE(w.run_pragma("PRAGMA integrity_check;", "ok", &result));
    EXPECT_EQ("keep", result);
    EXPECT_FALSE(w.run_integrity_check(result));
    EXPECT_EQ(4u, log.count(log_level::error, 2, p + " is not opened.")) << log.dump();
    EXPECT_FALSE(kt::file_exists(p));
}

TEST_F(WrapperExec, SuccessIsTracedWhenTracing) {
    kt::TraceSwitch trace(true);
    EXPECT_EQ(0u, w_.exec("INSERT INTO t VALUES('d');"));
    EXPECT_TRUE(log_.contains(log_level::trace, CR_STATUS_NONE,
                              "Exec sql statement [[[INSERT INTO t VALUES('d');]]] for " + path_))
        << log_.dump();
    EXPECT_EQ(4, count_rows(w_, "t"));
}

TEST_F(WrapperExec, NothingIsTracedWhenNotTracing) {
    kt::TraceSwitch trace(false);
    EXPECT_EQ(0u, w_.exec("INSERT INTO t VALUES('d');"));
    EXPECT_EQ(0u, log_.records().size()) << log_.dump();
}

TEST_F(WrapperExec, FailureIsLoggedWithSqlCodeAndText) {
    EXPECT_EQ(4u, w_.exec("SELEC 1"));
    EXPECT_TRUE(log_.contains(log_level::error, 4,
                              path_ + ": failed to execute [[[\"SELEC 1\"]]] (1:near \"SELEC\": syntax error)"))
        << log_.dump();
    EXPECT_TRUE(log_.contains(log_level::info, CR_STATUS_NONE, "[DBERR 00000001]: SQL logic error"));
    EXPECT_EQ(2u, log_.records().size());
}

TEST_F(WrapperExec, LongFailingStatementIsCut) {
    const std::string sql = bad_statement(1025);
    ASSERT_EQ(1025u, sql.size());
    EXPECT_EQ(4u, w_.exec(sql));
    const std::string shown = sql.substr(0, 1020) + "....";
    EXPECT_TRUE(log_.contains(log_level::error, 4,
                              path_ + ": failed to execute [[[\"" + shown +
                                  "\"]]] (1:near \"SELEC\": syntax error)"))
        << log_.dump();
}

TEST_F(WrapperExec, StatementOf1024CharactersIsLoggedWhole) {
    const std::string sql = bad_statement(1024);
    ASSERT_EQ(1024u, sql.size());
    EXPECT_EQ(4u, w_.exec(sql));
    EXPECT_TRUE(log_.contains(log_level::error, 4,
                              path_ + ": failed to execute [[[\"" + sql +
                                  "\"]]] (1:near \"SELEC\": syntax error)"))
        << log_.dump();
    EXPECT_EQ(0u, log_.count_containing("...."));
}

TEST_F(WrapperExec, ExecFileRunsTheWholeScript) {
    kt::TraceSwitch trace(true);
    const std::string script = dir_.file("script.sql");
    kt::write_file(script,
                   "CREATE TABLE s(y);\nINSERT INTO s VALUES(1);\nINSERT INTO s VALUES(2);\n");
    EXPECT_EQ(0u, w_.exec_file(script));
    EXPECT_EQ(2, count_rows(w_, "s"));
    EXPECT_TRUE(log_.contains(log_level::trace, CR_STATUS_NONE, "Execute sql file " + script));
}

TEST_F(WrapperExec, ExecFileOfMissingFileDoesNothing) {
    const std::string missing = dir_.file("missing.sql");
    EXPECT_EQ(0u, w_.exec_file(missing));
    EXPECT_EQ(3, count_rows(w_, "t"));
    EXPECT_EQ(3, sqlite3_total_changes(w_.handle));  // only the setup inserts ever changed rows
    EXPECT_EQ(0u, log_.count_containing("failed"));
}

TEST_F(WrapperExec, ExecFileFailureIsTheStatementsStatus) {
    const std::string script = dir_.file("bad.sql");
    kt::write_file(script, "INSERT INTO t VALUES('e');\nINSERT INTO nowhere VALUES(1);\n");
    EXPECT_EQ(4u, w_.exec_file(script));
    EXPECT_EQ(1u, log_.count_containing("no such table: nowhere"));
}

TEST_F(WrapperExec, RunPragmaStopsAtTheFirstMatch) {
    kt::TraceSwitch trace(true);
    std::string result;
    EXPECT_TRUE(w_.run_pragma("SELECT x FROM t ORDER BY x;", "b", &result));
    EXPECT_EQ("ab", result);
    EXPECT_TRUE(log_.contains(log_level::trace, CR_STATUS_NONE,
                              "Run \"SELECT x FROM t ORDER BY x;\" on SQLite datase, expect result: b"))
        << log_.dump();
}

TEST_F(WrapperExec, RunPragmaWithoutMatchReadsEveryRow) {
    std::string result = ">";
    EXPECT_FALSE(w_.run_pragma("SELECT x FROM t ORDER BY x;", "B", &result));
    EXPECT_EQ(">abc", result);  // appended, never cleared
    EXPECT_TRUE(w_.run_pragma("SELECT x FROM t ORDER BY x;", "c", nullptr));
}

TEST_F(WrapperExec, RunPragmaThatDoesNotPrepareIsFalseAndSilent) {
    std::string result;
    EXPECT_FALSE(w_.run_pragma("SELEC nothing", "ok", &result));
    EXPECT_EQ("", result);
    EXPECT_EQ(0u, log_.records().size()) << log_.dump();
}

TEST_F(WrapperExec, IntegrityCheckOfSoundDatabase) {
    std::string result;
    EXPECT_TRUE(w_.run_integrity_check(result));
    EXPECT_EQ("ok", result);
}

TEST(WrapperIntegrity, DamagedDatabaseGivesEveryRowRunTogether) {
    kt::TempDir dir;
    const std::string p = dir.file("damaged.db");
    sqlt::make_db(p, 200);
    sqlt::break_index(p);
    const std::vector<std::string> rows = sqlt::integrity_rows(p);
    ASSERT_GT(rows.size(), 1u);
    ASSERT_NE("ok", rows[0]);
    std::string expected;
    for (const auto& r : rows) expected += r;

    sqlite3_wrapper w(p);
    ASSERT_EQ(0u, w.open_db());
    std::string result;
    EXPECT_FALSE(w.run_integrity_check(result));
    EXPECT_EQ(expected, result);
    EXPECT_NE(std::string::npos, result.find("row 1 missing from index ti"));
}

}  // namespace
