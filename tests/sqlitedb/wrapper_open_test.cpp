// Opening, checking and closing databases.
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "common/test_util.h"
#include "dct/fault.h"
#include "dct/log.h"
#include "sqlite_fixtures.h"
#include "sqlitedb/sqlite_wrapper.h"

using dct::log_level;
using sqlitedb::sqlite3_wrapper;

namespace {

TEST(WrapperOpen, ConstructorConnectsNothing) {
    kt::TempDir dir;
    sqlite3_wrapper w(dir.file("a.db"));
    EXPECT_EQ(dir.file("a.db"), w.path);
    EXPECT_EQ(nullptr, w.handle);
    EXPECT_FALSE(w.opened);
    EXPECT_FALSE(w.is_open());
    EXPECT_FALSE(kt::file_exists(dir.file("a.db")));
}

TEST(WrapperOpen, OpenSetsBusyTimeoutAndExtendedCodes) {
    kt::TempDir dir;
    kt::LogCapture log;
    const std::string p = dir.file("a.db");
    sqlite3_wrapper w(p);
    ASSERT_EQ(0u, w.open_db());
    EXPECT_TRUE(w.is_open());
    EXPECT_NE(nullptr, w.handle);
    EXPECT_TRUE(log.contains(log_level::info, 0, "Open SQLite database " + p));
    std::string timeout;
    EXPECT_TRUE(w.run_pragma("PRAGMA busy_timeout;", "10000", &timeout));
    EXPECT_EQ("10000", timeout);
    // Extended codes: a unique violation reports 2067, not 19.
    ASSERT_EQ(0u, w.exec("CREATE TABLE u(x UNIQUE); INSERT INTO u VALUES(1);"));
    EXPECT_EQ(4u, w.exec("INSERT INTO u VALUES(1);"));
    EXPECT_TRUE(log.contains(log_level::info, CR_STATUS_NONE, "[DBERR 00000813]: constraint failed"))
        << log.dump();
}

TEST(WrapperOpen, OpenFailureEndsClosed) {
    kt::TempDir dir;
    kt::LogCapture log;
    const std::string p = dir.file("sub");
    ASSERT_EQ(0, mkdir(p.c_str(), 0700));
    sqlite3_wrapper w(p);
    EXPECT_EQ(4u, w.open_db());  // a directory cannot be opened (CANTOPEN)
    EXPECT_FALSE(w.is_open());
    EXPECT_EQ(nullptr, w.handle);
    EXPECT_TRUE(log.contains(log_level::error, 4, "Failed to open database " + p)) << log.dump();
    EXPECT_TRUE(log.contains(log_level::info, 0, "Close SQLite database " + p));
}

TEST(WrapperOpen, OpenWithPathSwitchesFiles) {
    kt::TempDir dir;
    kt::LogCapture log;
    const std::string a = dir.file("a.db"), b = dir.file("b.db");
    int closes = 0;
    sqlite3_wrapper w(a);
    ASSERT_EQ(0u, w.open_db());
    sqlt::watch_close(w.handle, &closes);
    ASSERT_EQ(0u, w.exec("CREATE TABLE ta(x);"));
    ASSERT_EQ(0u, w.open_db(b));
    EXPECT_EQ(1, closes);  // the first connection is really gone
    EXPECT_EQ(b, w.path);
    EXPECT_TRUE(w.is_open());
    EXPECT_TRUE(log.contains(log_level::info, 0, "Close SQLite database " + a));
    EXPECT_TRUE(log.contains(log_level::info, 0, "Open SQLite database " + b));
    ASSERT_EQ(0u, w.exec("CREATE TABLE tb(x);"));
    EXPECT_TRUE(kt::file_exists(a));
    EXPECT_TRUE(kt::file_exists(b));
}

TEST(WrapperOpen, OpeningAgainReplacesTheConnection) {
    kt::TempDir dir;
    int closes = 0;
    sqlite3_wrapper w(dir.file("a.db"));
    ASSERT_EQ(0u, w.open_db());
    sqlt::watch_close(w.handle, &closes);
    ASSERT_EQ(0u, w.open_db());
    EXPECT_EQ(1, closes);
    EXPECT_TRUE(w.is_open());
}

TEST(WrapperOpen, CheckOpenNeverCreates) {
    kt::TempDir dir;
    const std::string missing = dir.file("missing.db");
    sqlite3_wrapper m(missing);
    EXPECT_EQ(2u, m.checkopen());
    EXPECT_FALSE(m.is_open());
    EXPECT_FALSE(kt::file_exists(missing));

    const std::string empty = dir.file("empty.db");
    kt::write_file(empty, "");
    sqlite3_wrapper e(empty);
    EXPECT_EQ(32u, e.checkopen());
    EXPECT_FALSE(e.is_open());

    const std::string good = dir.file("good.db");
    sqlt::make_db(good, 2);
    sqlite3_wrapper g(good);
    EXPECT_EQ(0u, g.checkopen());
    EXPECT_TRUE(g.is_open());
    EXPECT_EQ(0u, g.checkopen());  // connected: 0 again
}

TEST(WrapperClose, CloseWithoutConnectionIsSuccess) {
    kt::TempDir dir;
    kt::LogCapture log;
    sqlite3_wrapper w(dir.file("a.db"));
    EXPECT_EQ(0u, w.close_db(3));
    EXPECT_TRUE(log.contains(log_level::info, 0, "Close SQLite database " + dir.file("a.db")));
}

TEST(WrapperClose, CloseReallyCloses) {
    kt::TempDir dir;
    int closes = 0;
    sqlite3_wrapper w(dir.file("a.db"));
    ASSERT_EQ(0u, w.open_db());
    sqlt::watch_close(w.handle, &closes);
    EXPECT_EQ(0u, w.close_db(3));
    EXPECT_EQ(1, closes);
    EXPECT_EQ(nullptr, w.handle);
    EXPECT_FALSE(w.is_open());
}

// An unfinalized statement makes every sqlite3_close answer BUSY.
TEST(WrapperClose, BusyOnEveryCallIsAbandonedAfterRetriesPlusOne) {
    kt::TempDir dir;
    kt::LogCapture log;
    kt::TraceSwitch trace(true);
    kt::SleepCounter sleeps;
    const std::string p = dir.file("a.db");
    sqlite3_wrapper w(p);
    ASSERT_EQ(0u, w.open_db());
    sqlite3* raw = w.handle;
    sqlite3_stmt* stmt = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(raw, "SELECT 1", -1, &stmt, nullptr));

    EXPECT_EQ(0u, w.close_db(2));
    EXPECT_EQ(3, sleeps.calls());  // three close calls, each busy and followed by a sleep
    EXPECT_EQ(3u, log.count(log_level::trace, CR_STATUS_NONE,
                            "Database " + p + " is busy, sleep 1 second before retry"))
        << log.dump();
    EXPECT_EQ(nullptr, w.handle);
    EXPECT_FALSE(w.is_open());

    // The abandoned connection is still alive; release it here.
    sqlite3_finalize(stmt);
    EXPECT_EQ(SQLITE_OK, sqlite3_close(raw));
}

TEST(WrapperClose, BusyCloseSucceedsOnceReleased) {
    kt::TempDir dir;
    kt::SleepCounter sleeps;
    int closes = 0;
    sqlite3_wrapper w(dir.file("a.db"));
    ASSERT_EQ(0u, w.open_db());
    sqlt::watch_close(w.handle, &closes);
    sqlite3_stmt* stmt = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(w.handle, "SELECT 1", -1, &stmt, nullptr));
    sleeps.on_sleep = [&](int call) {
        if (call == 2) sqlite3_finalize(stmt);
    };
    EXPECT_EQ(0u, w.close_db(3));
    EXPECT_EQ(2, sleeps.calls());
    EXPECT_EQ(1, closes);
    EXPECT_EQ(nullptr, w.handle);
}

TEST(WrapperClose, DestructorRetriesThreeTimes) {
    kt::TempDir dir;
    kt::SleepCounter sleeps;
    sqlite3* raw = nullptr;
    sqlite3_stmt* stmt = nullptr;
    {
        sqlite3_wrapper w(dir.file("a.db"));
        ASSERT_EQ(0u, w.open_db());
        raw = w.handle;
        ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(raw, "SELECT 1", -1, &stmt, nullptr));
    }
    EXPECT_EQ(4, sleeps.calls());
    sqlite3_finalize(stmt);
    EXPECT_EQ(SQLITE_OK, sqlite3_close(raw));
}

}  // namespace
