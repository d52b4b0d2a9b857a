// Transactions against a second connection that really holds the file's lock.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "common/test_util.h"
#include "dct/log.h"
#include "sqlite_fixtures.h"
#include "sqlitedb/sqlite_wrapper.h"

using dct::log_level;
using sqlitedb::sqlite3_wrapper;

namespace {

class WrapperBusy : public ::testing::Test {
protected:
    void SetUp() override {
        path_ = dir_.file("busy.db");
        sqlt::make_db(path_, 3);
        ASSERT_EQ(SQLITE_OK, sqlite3_open(path_.c_str(), &other_));
        ASSERT_EQ(0u, w_.open_db(path_));
        // The wrapper waits 10 s per statement; the test does not need to.
        sqlite3_busy_timeout(w_.handle, 0);
        log_.clear();
    }
    void TearDown() override { sqlite3_close(other_); }

    std::string busy_line(const std::string& sql) const {
        return path_ + ": [[[\"" + sql + "\"]]] (5:database is locked) returns SQLITE_BUSY.";
    }

    kt::TempDir dir_;
    std::string path_;
    sqlite3* other_ = nullptr;
    kt::LogCapture log_;
    sqlite3_wrapper w_{""};
};

TEST_F(WrapperBusy, BeginRetriesSixtyTimesThenReportsBusy) {
    kt::SleepCounter sleeps;
    sqlt::raw_exec(other_, "BEGIN EXCLUSIVE;");
    EXPECT_EQ(11u, w_.begin_transaction());
    EXPECT_EQ(60, sleeps.calls());
    EXPECT_EQ(60ul, sleeps.total_seconds());
    EXPECT_EQ(60u, log_.count(log_level::info, 11, busy_line("BEGIN IMMEDIATE TRANSACTION;")))
        << log_.dump();
    EXPECT_EQ(60u, log_.count(log_level::info, CR_STATUS_NONE, "[DBERR 00000005]: database is locked"));
    EXPECT_EQ(0u, log_.count_containing("Catch sqlite database runtime exception"));
    sqlt::raw_exec(other_, "ROLLBACK;");
}

TEST_F(WrapperBusy, BeginSucceedsWhenTheLockGoesAway) {
    kt::SleepCounter sleeps;
    sqlt::raw_exec(other_, "BEGIN EXCLUSIVE;");
    sleeps.on_sleep = [&](int call) {
        if (call == 3) sqlt::raw_exec(other_, "COMMIT;");
    };
    EXPECT_EQ(0u, w_.begin_transaction());
    EXPECT_EQ(3, sleeps.calls());
    EXPECT_EQ(3u, log_.count(log_level::info, 11, busy_line("BEGIN IMMEDIATE TRANSACTION;")));
    ASSERT_EQ(0u, w_.exec("INSERT INTO t VALUES('new');"));
    EXPECT_EQ(0u, w_.commit_transaction());
    EXPECT_EQ(3, sleeps.calls());
}

// A reader's shared lock keeps the writer from committing until it ends.
TEST_F(WrapperBusy, CommitRetriesUntilTheReaderLeaves) {
    kt::SleepCounter sleeps;
    ASSERT_EQ(0u, w_.begin_transaction());
    ASSERT_EQ(0u, w_.exec("INSERT INTO t VALUES('new');"));
    sqlite3_stmt* reader = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(other_, "SELECT x FROM t", -1, &reader, nullptr));
    ASSERT_EQ(SQLITE_ROW, sqlite3_step(reader));  // holds SHARED while the statement is live
    sleeps.on_sleep = [&](int call) {
        if (call == 2) sqlite3_reset(reader);
    };
    EXPECT_EQ(0u, w_.commit_transaction());
    EXPECT_EQ(2, sleeps.calls());
    EXPECT_EQ(2u, log_.count(log_level::info, 11, busy_line("COMMIT TRANSACTION;"))) << log_.dump();
    sqlite3_finalize(reader);
    std::string n;
    w_.run_pragma("SELECT count(*) FROM t;", "", &n);
    EXPECT_EQ("4", n);
}

TEST_F(WrapperBusy, RollbackUndoesTheTransaction) {
    ASSERT_EQ(0u, w_.begin_transaction());
    ASSERT_EQ(0u, w_.exec("DELETE FROM t;"));
    EXPECT_EQ(0u, w_.rollback_transaction());
    std::string n;
    w_.run_pragma("SELECT count(*) FROM t;", "", &n);
    EXPECT_EQ("3", n);
}

TEST_F(WrapperBusy, ExecItselfNeverRetries) {
    kt::SleepCounter sleeps;
    sqlt::raw_exec(other_, "BEGIN EXCLUSIVE;");
    EXPECT_EQ(11u, w_.exec("SELECT * FROM t;"));
    EXPECT_EQ(0, sleeps.calls());
    EXPECT_EQ(1u, log_.count(log_level::info, 11, busy_line("SELECT * FROM t;"))) << log_.dump();
    sqlt::raw_exec(other_, "ROLLBACK;");
}

TEST_F(WrapperBusy, TransactionErrorsThatAreNotBusyAreNotRetried) {
    kt::SleepCounter sleeps;
    EXPECT_EQ(4u, w_.commit_transaction());  // no transaction is active
    EXPECT_EQ(4u, w_.rollback_transaction());
    EXPECT_EQ(0, sleeps.calls());
    EXPECT_TRUE(log_.contains(
        log_level::error, 4,
        path_ + ": failed to execute [[[\"COMMIT TRANSACTION;\"]]] (1:cannot commit - no transaction is active)"))
        << log_.dump();
}

TEST(WrapperTransactionClosed, NeedsAConnection) {
    kt::TempDir dir;
    kt::LogCapture log;
    kt::SleepCounter sleeps;
    const std::string p = dir.file("a.db");
    sqlite3_wrapper w(p);
    EXPECT_EQ(2u, w.begin_transaction());
    EXPECT_EQ(2u, w.commit_transaction());
    EXPECT_EQ(2u, w.rollback_transaction());
    EXPECT_EQ(3u, log.count(log_level::error, 2, p + " is not opened."));
    EXPECT_EQ(0, sleeps.calls());
}

}  // namespace
