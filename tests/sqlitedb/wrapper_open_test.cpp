// Opening, creating, checking, closing and dropping databases.
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

// Creates table t in on_db_createtable, or fails it with a real SQL error.
class table_wrapper : public sqlite3_wrapper {
public:
    explicit table_wrapper(const std::string& p, bool fail = false)
        : sqlite3_wrapper(p), fail_(fail) {}
    cr_status_t on_db_createtable() override {
        ++createtable_calls;
        return exec(fail_ ? "CREATE TABLE t(x TEXT; -- broken" : "CREATE TABLE t(x TEXT);", nullptr);
    }
    int createtable_calls = 0;

private:
    bool fail_;
};

bool has_table_t(const std::string& path) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    sqlite3_stmt* stmt = nullptr;
    bool found = false;
    if (sqlite3_prepare_v2(db, "SELECT name FROM sqlite_master WHERE name='t'", -1, &stmt,
                           nullptr) == SQLITE_OK)
        found = sqlite3_step(stmt) == SQLITE_ROW;
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return found;
}

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
    ASSERT_EQ(0u, w.exec("CREATE TABLE u(x UNIQUE); INSERT INTO u VALUES(1);", nullptr));
    EXPECT_EQ(4u, w.exec("INSERT INTO u VALUES(1);", nullptr));
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
    ASSERT_EQ(0u, w.exec("CREATE TABLE ta(x);", nullptr));
    ASSERT_EQ(0u, w.open_db(b));
    EXPECT_EQ(1, closes);  // the first connection is really gone
    EXPECT_EQ(b, w.path);
    EXPECT_TRUE(w.is_open());
    EXPECT_TRUE(log.contains(log_level::info, 0, "Close SQLite database " + a));
    EXPECT_TRUE(log.contains(log_level::info, 0, "Open SQLite database " + b));
    ASSERT_EQ(0u, w.exec("CREATE TABLE tb(x);", nullptr));
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

TEST(WrapperOpen, InitDbCreatesDirectoriesAndTable) {
    kt::TempDir dir;
    kt::LogCapture log;
    const std::string p = dir.file("x/y/z/app.db");
    table_wrapper w(p);
    ASSERT_EQ(0u, w.init_db());
    EXPECT_TRUE(w.is_open());
    EXPECT_EQ(1, w.createtable_calls);
    struct stat st;
    ASSERT_EQ(0, stat(dir.file("x/y/z").c_str(), &st));
    EXPECT_EQ(0700u, st.st_mode & 0777u);
    EXPECT_TRUE(has_table_t(p));
    EXPECT_TRUE(log.contains(log_level::info, 0, "Open SQLite database " + p));
    // Already connected: nothing more happens.
    EXPECT_EQ(0u, w.init_db());
    EXPECT_EQ(1, w.createtable_calls);
}

TEST(WrapperOpen, InitDbOnEmptyFileCreatesTable) {
    kt::TempDir dir;
    const std::string p = dir.file("empty.db");
    kt::write_file(p, "");
    table_wrapper w(p);
    ASSERT_EQ(0u, w.init_db());
    EXPECT_EQ(1, w.createtable_calls);
    EXPECT_TRUE(w.is_open());
    EXPECT_TRUE(has_table_t(p));
}

TEST(WrapperOpen, InitDbOnNonEmptyFileReturnsExistsAndLeavesIt) {
    kt::TempDir dir;
    const std::string p = dir.file("full.db");
    sqlt::make_db(p, 3);
    const std::vector<unsigned char> before = sqlt::read_bytes(p);
    table_wrapper w(p);
    EXPECT_EQ(3u, w.init_db());
    EXPECT_EQ(0, w.createtable_calls);
    EXPECT_FALSE(w.is_open());
    EXPECT_EQ(nullptr, w.handle);
    EXPECT_EQ(before, sqlt::read_bytes(p));
}

TEST(WrapperOpen, PathWithoutSlashCreatesNoDirectory) {
    kt::TempDir dir;
    char old_cwd[4096];
    ASSERT_NE(nullptr, getcwd(old_cwd, sizeof old_cwd));
    ASSERT_EQ(0, chdir(dir.path().c_str()));
    int createtree_calls = 0;
    {
        sqlt::FaultScope faults([&](dct::fault_op op, const char*) {
            if (op == dct::fault_op::createtree) ++createtree_calls;
            return 0;
        });
        sqlite3_wrapper w("plain.db");
        EXPECT_EQ(0u, w.init_db());
        EXPECT_EQ(0, createtree_calls);
        sqlite3_wrapper nested("sub/nested.db");
        EXPECT_EQ(0u, nested.init_db());
        EXPECT_EQ(1, createtree_calls);
    }
    EXPECT_TRUE(kt::file_exists(dir.file("plain.db")));
    EXPECT_TRUE(kt::file_exists(dir.file("sub/nested.db")));
    ASSERT_EQ(0, chdir(old_cwd));
}

TEST(WrapperOpen, InitDbReportsDirectoryFailure) {
    kt::TempDir dir;
    kt::LogCapture log;
    const std::string p = dir.file("locked/app.db");
    {
        sqlt::FaultScope faults(
            [](dct::fault_op op, const char*) { return op == dct::fault_op::createtree ? EACCES : 0; });
        sqlite3_wrapper w(p);
        EXPECT_EQ(106u, w.init_db());
        EXPECT_EQ(106u, *__cr_errno_location());
        EXPECT_FALSE(w.is_open());
    }
    EXPECT_TRUE(log.contains(log_level::error, 106, "Could not create directory " + dir.file("locked")))
        << log.dump();
    EXPECT_FALSE(kt::file_exists(p));
}

TEST(WrapperOpen, InitDbRemovesHalfMadeFileWhenTableCreationFails) {
    kt::TempDir dir;
    kt::LogCapture log;
    const std::string p = dir.file("half.db");
    table_wrapper w(p, /*fail=*/true);
    EXPECT_EQ(4u, w.init_db());
    EXPECT_EQ(1, w.createtable_calls);
    EXPECT_FALSE(w.is_open());
    EXPECT_EQ(nullptr, w.handle);
    EXPECT_FALSE(kt::file_exists(p));
    EXPECT_TRUE(log.contains(log_level::info, 0, "Close SQLite database " + p));
    EXPECT_EQ(0u, log.count_containing("Could not delete bad db file"));
}

// Corruption met while creating tables travels out of init_db as an exception,
// after the connection is closed and the new file removed.
TEST(WrapperOpen, InitDbLetsCorruptionOutWithoutLeavingTheFile) {
    struct corrupt_on_create : sqlite3_wrapper {
        using sqlite3_wrapper::sqlite3_wrapper;
        cr_status_t on_db_createtable() override { return on_db_error(SQLITE_CORRUPT); }
    };
    kt::TempDir dir;
    kt::LogCapture log;
    const std::string p = dir.file("c.db");
    corrupt_on_create w(p);
    try {
        w.init_db();
        FAIL() << "no exception";
    } catch (const sqlitedb::db_exception& e) {
        EXPECT_EQ(SQLITE_CORRUPT, e.errcode());
        EXPECT_EQ(67u, e.cr_status());
    }
    EXPECT_FALSE(w.is_open());
    EXPECT_EQ(nullptr, w.handle);
    EXPECT_FALSE(kt::file_exists(p));
    EXPECT_TRUE(log.contains(log_level::info, CR_STATUS_NONE,
                             "[DBERR 0000000B]: database disk image is malformed"));
}

TEST(WrapperOpen, InitDbWarnsWhenTheBadFileStays) {
    kt::TempDir dir;
    kt::LogCapture log;
    const std::string p = dir.file("stuck.db");
    {
        sqlt::FaultScope faults(
            [](dct::fault_op op, const char*) { return op == dct::fault_op::deletefile ? EPERM : 0; });
        table_wrapper w(p, /*fail=*/true);
        EXPECT_EQ(4u, w.init_db());
        EXPECT_FALSE(w.is_open());
    }
    EXPECT_TRUE(log.contains(log_level::warning, 4, "Could not delete bad db file " + p)) << log.dump();
    EXPECT_TRUE(kt::file_exists(p));
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

TEST(WrapperOpen, GetChanges) {
    kt::TempDir dir;
    kt::LogCapture log;
    const std::string p = dir.file("a.db");
    sqlite3_wrapper w(p);
    EXPECT_EQ(0, w.get_changes());
    EXPECT_TRUE(log.contains(log_level::error, 2, p + " is not opened."));
    ASSERT_EQ(0u, w.open_db());
    ASSERT_EQ(0u, w.exec("CREATE TABLE t(x); INSERT INTO t VALUES(1),(2),(3);", nullptr));
    EXPECT_EQ(3, w.get_changes());
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

TEST(WrapperDrop, DropClosesAndDeletes) {
    kt::TempDir dir;
    kt::LogCapture log;
    const std::string p = dir.file("a.db");
    int closes = 0;
    sqlite3_wrapper w(p);
    ASSERT_EQ(0u, w.open_db());
    sqlt::watch_close(w.handle, &closes);
    ASSERT_EQ(0u, w.exec("CREATE TABLE t(x);", nullptr));
    EXPECT_EQ(0u, w.drop_db());
    EXPECT_EQ(1, closes);
    EXPECT_FALSE(w.is_open());
    EXPECT_FALSE(kt::file_exists(p));
    EXPECT_TRUE(log.contains(log_level::info, 0, "Drop database " + p + "."));
}

TEST(WrapperDrop, DropOfMissingFileFails) {
    kt::TempDir dir;
    kt::LogCapture log;
    const std::string p = dir.file("never.db");
    sqlite3_wrapper w(p);
    // The deletion's own status (unlink's -1), not an errno mapping.
    EXPECT_EQ(CR_STATUS_NONE, w.drop_db());
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_NONE,
                             "Failed to delete database file " + p + "."))
        << log.dump();
    EXPECT_EQ(1u, log.count_containing("Failed to delete database file"));
}

}  // namespace
