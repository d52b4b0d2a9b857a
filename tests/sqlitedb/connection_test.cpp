// sqlitedb::connection: its open modes, the busy timeout and retries against a
// second real connection, corruption as a status, kept statements, the typed
// statement calls, the calls on the database and its files, and close.
#include <grp.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "common/test_util.h"
#include "sqlite_fixtures.h"
#include "sqlitedb/busy_retry.h"
#include "sqlitedb/connection.h"

using sqlitedb::cantopen_rule;
using sqlitedb::connection;
using sqlitedb::open_mode;

namespace {

const uid_t kNobody = 65534;

// Restores the process-wide default busy timeout when a test changed it.
class DefaultTimeoutScope {
public:
    explicit DefaultTimeoutScope(int ms) : previous_(connection::default_busy_timeout_ms()) {
        connection::set_default_busy_timeout_ms(ms);
    }
    ~DefaultTimeoutScope() { connection::set_default_busy_timeout_ms(previous_); }

private:
    int previous_;
};

// A second, raw connection to `path` holding the write lock (BEGIN IMMEDIATE)
// until release().
class WriteLockHolder {
public:
    explicit WriteLockHolder(const std::string& path) {
        EXPECT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &db_));
        sqlt::raw_exec(db_, "BEGIN IMMEDIATE;");
    }
    ~WriteLockHolder() {
        release();
        sqlite3_close(db_);
    }
    void release() {
        if (!held_) return;
        sqlt::raw_exec(db_, "COMMIT;");
        held_ = false;
    }

private:
    sqlite3* db_ = nullptr;
    bool held_ = true;
};

// Runs `body` in a child process as the unprivileged user nobody; returns
// what it wrote to its stream, "setup failed" lines included.
template <typename Body>
std::string run_as_nobody(Body body) {
    int pipefd[2];
    if (pipe(pipefd) != 0) return "setup failed: pipe";
    fflush(stdout);
    fflush(stderr);
    const pid_t pid = fork();
    if (pid < 0) return "setup failed: fork";
    if (pid == 0) {
        close(pipefd[0]);
        std::ostringstream out;
        if (geteuid() == 0 &&
            (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0)) {
            out << "setup failed: cannot become nobody\n";
        } else {
            body(out);
        }
        const std::string s = out.str();
        const ssize_t n = write(pipefd[1], s.data(), s.size());
        _exit(n == static_cast<ssize_t>(s.size()) ? 0 : 3);
    }
    close(pipefd[1]);
    std::string report;
    char buf[4096];
    ssize_t n;
    while ((n = read(pipefd[0], buf, sizeof buf)) > 0) report.append(buf, static_cast<size_t>(n));
    close(pipefd[0]);
    int ws = 0;
    waitpid(pid, &ws, 0);
    if (!WIFEXITED(ws) || WEXITSTATUS(ws) != 0) report += "child failed\n";
    return report;
}

// ---- open modes ----

TEST(ConnectionOpen, ExistingOnAMissingFileFailsAndCreatesNothing) {
    kt::TempDir dir;
    const std::string p = dir.file("missing.db");
    connection db;
    EXPECT_EQ(4u, db.open(p, open_mode::existing));
    EXPECT_EQ(SQLITE_CANTOPEN, db.code());
    EXPECT_FALSE(db.is_open());
    EXPECT_EQ(nullptr, db.handle());
    EXPECT_FALSE(kt::file_exists(p));

    // The table's one named exception: the same result is 21 to the catalog.
    connection catalog(cantopen_rule::io_error);
    EXPECT_EQ(21u, catalog.open(p, open_mode::existing));
    EXPECT_EQ(SQLITE_CANTOPEN, catalog.code());
    EXPECT_FALSE(kt::file_exists(p));
}

TEST(ConnectionOpen, ReadOnlyOnAMissingFileFails) {
    kt::TempDir dir;
    const std::string p = dir.file("missing.db");
    connection db;
    EXPECT_EQ(4u, db.open(p, open_mode::read_only));
    EXPECT_EQ(SQLITE_CANTOPEN, db.code());
    EXPECT_FALSE(kt::file_exists(p));
}

TEST(ConnectionOpen, CreateMakesTheFileWithTheDefaultsSet) {
    kt::TempDir dir;
    const std::string p = dir.file("new.db");
    connection db;
    ASSERT_EQ(0u, db.open(p, open_mode::create));
    EXPECT_TRUE(db.is_open());
    EXPECT_TRUE(db.holds_no_schema());
    ASSERT_EQ(0u, db.exec("CREATE TABLE t(x); INSERT INTO t VALUES('a');"));
    EXPECT_FALSE(db.holds_no_schema());
    EXPECT_TRUE(kt::file_exists(p));
    // Extended result codes are on: a unique-key failure tells which kind.
    ASSERT_EQ(0u, db.exec("CREATE UNIQUE INDEX tx ON t(x);"));
    EXPECT_EQ(4u, db.exec("INSERT INTO t VALUES('a');"));
    EXPECT_EQ(SQLITE_CONSTRAINT_UNIQUE, db.code());
    ASSERT_NE(nullptr, db.exec_message());
    EXPECT_STREQ("UNIQUE constraint failed: t.x", db.exec_message());
}

TEST(ConnectionOpen, PrimaryCodesWhenAsked) {
    kt::TempDir dir;
    connection db;
    ASSERT_EQ(0u, db.open(dir.file("p.db"), open_mode::create, sqlitedb::result_codes::primary));
    ASSERT_EQ(0u, db.exec("CREATE TABLE t(x UNIQUE); INSERT INTO t VALUES(1);"));
    EXPECT_EQ(4u, db.exec("INSERT INTO t VALUES(1);"));
    EXPECT_EQ(SQLITE_CONSTRAINT, db.code());
}

TEST(ConnectionOpen, AnEmptyFileIsAnEmptyDatabase) {
    kt::TempDir dir;
    const std::string p = dir.file("empty.db");
    kt::write_file(p, "");
    for (open_mode mode : {open_mode::existing, open_mode::read_only}) {
        connection db;
        ASSERT_EQ(0u, db.open(p, mode));
        EXPECT_TRUE(db.holds_no_schema());
        std::string count = "unset";
        EXPECT_EQ(0u, db.read_value("SELECT count(*) FROM sqlite_master;", &count));
        EXPECT_EQ("0", count);
    }
    EXPECT_EQ("", kt::read_file(p));  // reading wrote nothing
}

TEST(ConnectionOpen, ReadOnlyFileAsNobody) {
    kt::TempDir dir;
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));  // nobody reaches the file, writes nothing beside it
    const std::string p = dir.file("ro.db");
    sqlt::make_db(p, 3);
    ASSERT_EQ(0, chown(p.c_str(), kNobody, kNobody));
    ASSERT_EQ(0, chmod(p.c_str(), 0440));
    const std::string report = run_as_nobody([&](std::ostream& out) {
        {
            connection db;
            const cr_status_t st = db.open(p, open_mode::read_only);
            std::string rows;
            const cr_status_t read = db.read_value("SELECT count(*) FROM t;", &rows);
            const cr_status_t write = db.exec("INSERT INTO t VALUES('x');");
            out << "read_only " << st << " " << read << " " << rows << " " << write << " "
                << db.code() << "\n";
        }
        {
            // Read-write asked of a file that cannot be written: SQLite opens
            // it for reading, and the first write says so.
            connection db;
            const cr_status_t st = db.open(p, open_mode::existing);
            const cr_status_t write = db.exec("INSERT INTO t VALUES('x');");
            out << "existing " << st << " " << sqlite3_db_readonly(db.handle(), "main") << " "
                << write << " " << db.code() << "\n";
        }
        {
            // A new file in a directory nobody may not write to.
            connection db;
            const cr_status_t st = db.open(dir.file("new.db"), open_mode::create);
            out << "create " << st << " " << db.code() << "\n";
        }
        {
            connection db;
            std::string result;
            const cr_status_t st = db.open(p, open_mode::read_only);
            out << "integrity " << st << " " << db.integrity_check(&result) << " " << result << "\n";
        }
    });
    EXPECT_EQ("read_only 0 0 3 4 8\n"
              "existing 0 1 4 8\n"
              "create 4 14\n"
              "integrity 0 1 ok\n",
              report);
    EXPECT_FALSE(kt::file_exists(dir.file("new.db")));
}

// ---- busy ----

TEST(ConnectionBusy, TheDefaultTimeoutIsTheOneEveryOpenGets) {
    EXPECT_EQ(10000, connection::default_busy_timeout_ms());
    kt::TempDir dir;
    const std::string p = dir.file("busy.db");
    sqlt::make_db(p, 1);
    WriteLockHolder holder(p);
    DefaultTimeoutScope quick(0);
    connection db;
    ASSERT_EQ(0u, db.open(p, open_mode::existing));
    EXPECT_EQ(11u, db.exec("BEGIN IMMEDIATE;"));
    EXPECT_EQ(SQLITE_BUSY, db.code());
    EXPECT_STREQ("database is locked", db.exec_message());
}

TEST(ConnectionBusy, RetriedUntilTheOtherConnectionCommits) {
    kt::TempDir dir;
    const std::string p = dir.file("busy.db");
    sqlt::make_db(p, 1);
    WriteLockHolder holder(p);
    connection db;
    ASSERT_EQ(0u, db.open(p, open_mode::existing));
    db.set_busy_timeout_ms(0);
    kt::SleepCounter sleeps;
    sleeps.on_sleep = [&](int call) {
        if (call == 2) holder.release();
    };
    unsigned int busy_seen = 0;
    const cr_status_t st = sqlitedb::retry_while_busy(
        [&] { return db.exec("BEGIN IMMEDIATE;"); },
        [&](unsigned int n) {
            EXPECT_EQ(busy_seen, n);
            ++busy_seen;
            return true;
        });
    EXPECT_EQ(0u, st);
    EXPECT_EQ(2u, busy_seen);
    EXPECT_EQ(2, sleeps.calls());
    EXPECT_EQ(0u, db.exec("COMMIT;"));
}

TEST(ConnectionBusy, GivesUpAfterTheLastTry) {
    kt::TempDir dir;
    const std::string p = dir.file("busy.db");
    sqlt::make_db(p, 1);
    WriteLockHolder holder(p);
    connection db;
    ASSERT_EQ(0u, db.open(p, open_mode::existing));
    db.set_busy_timeout_ms(0);
    kt::SleepCounter sleeps;
    const cr_status_t st = sqlitedb::retry_while_busy([&] { return db.exec("BEGIN IMMEDIATE;"); },
                                                      [](unsigned int) { return true; });
    EXPECT_EQ(11u, st);
    EXPECT_EQ(static_cast<int>(sqlitedb::busy_tries), sleeps.calls());
}

// ---- corruption ----

TEST(ConnectionCorrupt, DamagedHeaderIs67WithoutAnException) {
    kt::TempDir dir;
    const std::string p = dir.file("header.db");
    sqlt::make_db(p, 20);
    sqlt::overwrite(p, 0, 'Z', 16);  // the magic string
    connection db;
    ASSERT_EQ(0u, db.open(p, open_mode::existing));  // opening reads nothing yet
    cr_status_t st = 0;
    EXPECT_NO_THROW(st = db.exec("SELECT count(*) FROM t;"));
    EXPECT_EQ(67u, st);
    EXPECT_EQ(SQLITE_NOTADB, db.code());
    EXPECT_STREQ("file is not a database", db.exec_message());
    std::string value = "unset";
    EXPECT_EQ(67u, db.read_value("SELECT count(*) FROM t;", &value));
    EXPECT_EQ("unset", value);
    EXPECT_FALSE(db.holds_no_schema());  // unreadable counts as not empty
}

TEST(ConnectionCorrupt, DamagedTablePageIs67AndFailsTheIntegrityCheck) {
    kt::TempDir dir;
    const std::string p = dir.file("page.db");
    sqlt::make_db(p, 200);
    const int pg = sqlt::find_page(p, 0x0d);
    ASSERT_GT(pg, 0);
    sqlt::overwrite(p, static_cast<long>(pg - 1) * sqlt::kPageSize, 0xFF, 8);
    connection db;
    ASSERT_EQ(0u, db.open(p, open_mode::existing));
    cr_status_t st = 0;
    EXPECT_NO_THROW(st = db.exec("SELECT * FROM t;"));
    EXPECT_EQ(67u, st);
    EXPECT_EQ(SQLITE_CORRUPT, db.code() & 0xFF);
    std::string result;
    EXPECT_FALSE(db.integrity_check(&result));
    EXPECT_NE(std::string::npos, result.find("Page " + std::to_string(pg))) << result;
}

// ---- kept statements ----

TEST(ConnectionKept, AStatementIsPreparedOnceAndFoundAgain) {
    connection db;
    ASSERT_EQ(0u, db.open("", open_mode::create));
    ASSERT_EQ(0u, db.exec("CREATE TABLE t(x);"));
    sqlitedb::statement once;
    const char sql[] = "INSERT INTO t VALUES(?)";
    sqlitedb::statement_ref first = db.kept(sql, &once);
    ASSERT_TRUE(first);
    for (int i = 0; i < 3; ++i) {
        sqlitedb::statement_ref again = db.kept(std::string(sql), &once);
        EXPECT_TRUE(first == again);
        sqlitedb::statement_use use(again);
        ASSERT_EQ(SQLITE_OK, again.bind_int(1, i));
        ASSERT_EQ(SQLITE_DONE, again.step());
    }
    EXPECT_EQ(1u, db.kept_count());
    EXPECT_FALSE(once);
    std::string rows;
    EXPECT_EQ(0u, db.read_value("SELECT count(*) FROM t;", &rows));
    EXPECT_EQ("3", rows);
}

TEST(ConnectionKept, TextsBeyondTheBoundArePreparedForOneUse) {
    connection db;
    ASSERT_EQ(0u, db.open("", open_mode::create));
    sqlitedb::statement once;
    for (size_t i = 0; i < sqlitedb::kept_statements::max_kept; ++i) {
        ASSERT_TRUE(db.kept("SELECT " + std::to_string(i), &once));
    }
    EXPECT_EQ(sqlitedb::kept_statements::max_kept, db.kept_count());
    sqlitedb::statement_ref extra = db.kept(std::string("SELECT 'extra'"), &once);
    ASSERT_TRUE(extra);
    EXPECT_EQ(extra.get(), once.get());
    EXPECT_EQ(sqlitedb::kept_statements::max_kept, db.kept_count());
}

TEST(ConnectionKept, ATextThatDoesNotPrepareKeepsNothing) {
    connection db;
    ASSERT_EQ(0u, db.open("", open_mode::create));
    sqlitedb::statement once;
    EXPECT_FALSE(db.kept("SELECT * FROM nowhere", &once));
    EXPECT_EQ(SQLITE_ERROR, db.code());
    EXPECT_EQ(4u, db.map(db.code()));
    EXPECT_STREQ("no such table: nowhere", db.errmsg());
    EXPECT_FALSE(db.kept("-- a comment only", &once));
    EXPECT_EQ(SQLITE_OK, db.code());
    EXPECT_EQ(0u, db.kept_count());
}

// ---- typed statement calls ----

TEST(ConnectionTyped, BindsStepsAndReadsEveryKind) {
    connection db;
    ASSERT_EQ(0u, db.open("", open_mode::create));
    ASSERT_EQ(0u, db.exec("CREATE TABLE t(i, j, n, a, b, c);"));
    sqlitedb::statement once;
    sqlitedb::statement_ref insert = db.kept("INSERT INTO t VALUES(?, ?, ?, ?, ?, ?)", &once);
    ASSERT_TRUE(insert);
    EXPECT_EQ(6, insert.parameter_count());
    const std::string with_nul("x\0y", 3);
    {
        sqlitedb::statement_use use(insert);
        EXPECT_EQ(SQLITE_OK, insert.bind_int(1, -7));
        EXPECT_EQ(SQLITE_OK, insert.bind_int64(2, INT64_C(1) << 40));
        EXPECT_EQ(SQLITE_OK, insert.bind_null(3));
        EXPECT_EQ(SQLITE_OK, insert.bind_text(4, with_nul));   // up to the NUL
        EXPECT_EQ(SQLITE_OK, insert.bind_bytes(5, with_nul));  // all three bytes
        EXPECT_EQ(SQLITE_OK, insert.bind_blob(6, with_nul));
        EXPECT_EQ(SQLITE_DONE, insert.step());
    }
    EXPECT_EQ(1, db.changes());

    sqlitedb::statement select;
    ASSERT_EQ(0u, db.prepare("SELECT i, j, n, a, b, c, typeof(b), typeof(c) FROM t", &select));
    sqlitedb::statement_ref row = select.ref();
    ASSERT_EQ(SQLITE_ROW, row.step());
    EXPECT_EQ(8, row.column_count());
    EXPECT_EQ(-7, row.column_int(0));
    EXPECT_EQ(INT64_C(1) << 40, row.column_int64(1));
    EXPECT_TRUE(row.column_text(2).empty());  // NULL reads as empty
    EXPECT_TRUE(row.column_blob(2).empty());
    EXPECT_EQ("x", std::string(row.column_text(3)));
    EXPECT_EQ(with_nul, std::string(row.column_text(4)));
    EXPECT_EQ(with_nul, std::string(row.column_blob(5)));
    EXPECT_EQ("text", std::string(row.column_text(6)));
    EXPECT_EQ("blob", std::string(row.column_text(7)));
    EXPECT_EQ(SQLITE_DONE, row.step());
    // A reset statement runs again from the start.
    EXPECT_EQ(SQLITE_OK, row.reset());
    ASSERT_EQ(SQLITE_ROW, row.step());
    EXPECT_EQ(-7, row.column_int(0));
}

TEST(ConnectionTyped, FailuresComeBackAsCodesAndResetKeepsTheBindings) {
    connection db;
    ASSERT_EQ(0u, db.open("", open_mode::create));
    ASSERT_EQ(0u, db.exec("CREATE TABLE t(x UNIQUE);"));
    sqlitedb::statement insert;
    ASSERT_EQ(0u, db.prepare("INSERT INTO t VALUES(?)", &insert));
    sqlitedb::statement_ref s = insert.ref();
    EXPECT_EQ(SQLITE_RANGE, s.bind_int(2, 1));
    ASSERT_EQ(SQLITE_OK, s.bind_int64(1, 5));
    EXPECT_EQ(SQLITE_DONE, s.step());
    s.reset();
    // The binding survives the reset: the same value again breaks the key.
    EXPECT_EQ(SQLITE_CONSTRAINT_UNIQUE, s.step());
    EXPECT_EQ(SQLITE_CONSTRAINT_UNIQUE, s.reset());
    EXPECT_STREQ("UNIQUE constraint failed: t.x", db.errmsg());
    EXPECT_EQ(4u, db.map(SQLITE_CONSTRAINT_UNIQUE));
    EXPECT_STREQ("constraint failed", sqlitedb::errstr(SQLITE_CONSTRAINT_UNIQUE));
    EXPECT_STREQ("database is locked", sqlitedb::errstr(SQLITE_BUSY));
    // statement_use clears the bindings at its end: NULL is no duplicate.
    {
        sqlitedb::statement_use use(s);
        EXPECT_EQ(SQLITE_CONSTRAINT_UNIQUE, s.step());
    }
    EXPECT_EQ(SQLITE_DONE, s.step());
    std::string rows;
    EXPECT_EQ(0u, db.read_value("SELECT count(*) FROM t;", &rows));
    EXPECT_EQ("2", rows);
}

TEST(ConnectionTyped, GlobMatchesAsSqlDoes) {
    EXPECT_TRUE(sqlitedb::glob_match("a*c", "abbbc"));
    EXPECT_TRUE(sqlitedb::glob_match("a?c", "abc"));
    EXPECT_TRUE(sqlitedb::glob_match("[a-c]x", "bx"));
    EXPECT_FALSE(sqlitedb::glob_match("a*c", "ABBBC"));  // case counts
    EXPECT_FALSE(sqlitedb::glob_match("a?c", "ac"));
}

// ---- the database and its files ----

TEST(ConnectionFiles, ReadOnlyIsTold) {
    kt::TempDir dir;
    const std::string p = dir.file("a.db");
    sqlt::make_db(p, 3);
    connection rw;
    ASSERT_EQ(0u, rw.open(p, open_mode::existing));
    EXPECT_FALSE(rw.is_read_only());
    connection ro;
    ASSERT_EQ(0u, ro.open(p, open_mode::read_only));
    EXPECT_TRUE(ro.is_read_only());
    connection closed;
    EXPECT_TRUE(closed.is_read_only());
}

TEST(ConnectionFiles, AFileRenamedUnderTheConnectionHasMoved) {
    kt::TempDir dir;
    const std::string p = dir.file("a.db");
    sqlt::make_db(p, 3);
    connection db;
    ASSERT_EQ(0u, db.open(p, open_mode::existing));
    EXPECT_FALSE(db.has_moved());
    ASSERT_EQ(0, rename(p.c_str(), dir.file("b.db").c_str()));
    EXPECT_TRUE(db.has_moved());
    EXPECT_FALSE(connection().has_moved());
}

TEST(ConnectionFiles, TheMainFileIsReadThroughSqlitesOwnHandle) {
    kt::TempDir dir;
    const std::string p = dir.file("a.db");
    sqlt::make_db(p, 20);
    connection db;
    ASSERT_EQ(0u, db.open(p, open_mode::existing));
    // SQLite opens the file at the first statement.
    ASSERT_EQ(0u, db.exec("SELECT count(*) FROM t;"));
    int64_t size = -1;
    ASSERT_EQ(SQLITE_OK, db.main_file_size(&size));
    EXPECT_EQ(static_cast<int64_t>(sqlt::read_bytes(p).size()), size);
    char header[16];
    ASSERT_EQ(SQLITE_OK, db.read_main_file(0, header, sizeof header));
    EXPECT_EQ(0, memcmp(header, "SQLite format 3", 16));
    char past[8];
    EXPECT_EQ(SQLITE_IOERR_SHORT_READ, db.read_main_file(size - 4, past, sizeof past));
    // No rollback journal is open outside a write.
    EXPECT_EQ(SQLITE_NOTFOUND, db.log_file_size(&size));
    connection closed;
    EXPECT_EQ(SQLITE_NOTFOUND, closed.main_file_size(&size));
    EXPECT_EQ(SQLITE_NOTFOUND, closed.read_main_file(0, header, sizeof header));
}

TEST(ConnectionFiles, ACheckpointEmptiesTheLog) {
    kt::TempDir dir;
    const std::string p = dir.file("a.db");
    connection db;
    ASSERT_EQ(0u, db.open(p, open_mode::create));
    std::string mode;
    ASSERT_EQ(0u, db.read_value("PRAGMA journal_mode=WAL;", &mode));
    ASSERT_EQ("wal", mode);
    ASSERT_EQ(0u, db.exec("CREATE TABLE t(x); INSERT INTO t VALUES(1);"));
    int64_t log = -1;
    ASSERT_EQ(SQLITE_OK, db.log_file_size(&log));
    EXPECT_GT(log, 0);
    EXPECT_EQ(SQLITE_OK, db.checkpoint_truncate());
    EXPECT_EQ(SQLITE_OK, db.code());
    ASSERT_EQ(SQLITE_OK, db.log_file_size(&log));
    EXPECT_EQ(0, log);
}

int count_busy_calls(void* calls, int count) {
    auto* seen = static_cast<std::vector<int>*>(calls);
    seen->push_back(count);
    return count < 2 ? 1 : 0;  // two more tries, then give up
}

TEST(ConnectionFiles, TheBusyHandlerReplacesTheTimeout) {
    kt::TempDir dir;
    const std::string p = dir.file("a.db");
    sqlt::make_db(p, 1);
    WriteLockHolder holder(p);
    connection db;
    ASSERT_EQ(0u, db.open(p, open_mode::existing));
    std::vector<int> seen;
    db.set_busy_handler(count_busy_calls, &seen);
    EXPECT_EQ(11u, db.exec("BEGIN IMMEDIATE;"));
    EXPECT_EQ(SQLITE_BUSY, db.code() & 0xFF);
    EXPECT_EQ((std::vector<int>{0, 1, 2}), seen);
    connection closed;
    closed.set_busy_handler(count_busy_calls, &seen);
    EXPECT_EQ(SQLITE_MISUSE, closed.checkpoint_truncate());
}

// ---- closing ----

TEST(ConnectionClose, KeptStatementsAreFinalisedFirst) {
    kt::TempDir dir;
    kt::SleepCounter sleeps;
    int closes = 0;
    connection db;
    ASSERT_EQ(0u, db.open(dir.file("a.db"), open_mode::create));
    sqlt::watch_close(db.handle(), &closes);
    sqlitedb::statement once;
    sqlitedb::statement_ref stmt = db.kept("SELECT 1", &once);
    ASSERT_TRUE(stmt);
    ASSERT_EQ(SQLITE_ROW, stmt.step());  // still stepping when closed
    int busy_calls = 0;
    EXPECT_EQ(SQLITE_OK, db.close(2, [&](unsigned long) { ++busy_calls; }));
    EXPECT_EQ(0, busy_calls);
    EXPECT_EQ(0, sleeps.calls());
    EXPECT_EQ(1, closes);
    EXPECT_FALSE(db.is_open());
    EXPECT_EQ(0u, db.kept_count());
}

TEST(ConnectionClose, AnOutsideStatementMakesItBusyUntilLeftBehind) {
    kt::TempDir dir;
    kt::SleepCounter sleeps;
    connection db;
    ASSERT_EQ(0u, db.open(dir.file("a.db"), open_mode::create));
    sqlite3* raw = db.handle();
    sqlitedb::statement outside;
    ASSERT_EQ(0u, db.prepare("SELECT 1", &outside));
    std::vector<unsigned long> busy;
    EXPECT_EQ(SQLITE_BUSY, db.close(2, [&](unsigned long n) { busy.push_back(n); }));
    EXPECT_EQ((std::vector<unsigned long>{0, 1, 2}), busy);
    EXPECT_EQ(3, sleeps.calls());
    EXPECT_FALSE(db.is_open());
    EXPECT_EQ(SQLITE_BUSY, db.code());
    // Left behind, still alive: released here.
    outside.finalize();
    EXPECT_EQ(SQLITE_OK, sqlite3_close(raw));
}

TEST(ConnectionClose, TheDestructorNeverWaits) {
    kt::TempDir dir;
    kt::SleepCounter sleeps;
    int closes = 0;
    sqlitedb::statement outside;
    {
        connection db;
        ASSERT_EQ(0u, db.open(dir.file("a.db"), open_mode::create));
        sqlt::watch_close(db.handle(), &closes);
        ASSERT_EQ(0u, db.prepare("SELECT 42", &outside));
    }
    EXPECT_EQ(0, sleeps.calls());
    EXPECT_EQ(0, closes);  // the statement holds it
    ASSERT_EQ(SQLITE_ROW, sqlite3_step(outside.get()));
    EXPECT_EQ(42, sqlite3_column_int(outside.get(), 0));
    outside.finalize();
    EXPECT_EQ(1, closes);
}

TEST(ConnectionClose, ClosingNothingIsFine) {
    connection db;
    EXPECT_EQ(SQLITE_OK, db.close(3, nullptr));
    EXPECT_FALSE(db.is_open());
}

}  // namespace
