// sqlite3_wrapper: one SQLite database file and its connection, behind a small
// status-returning surface (open, execute, transactions with busy retries,
// single-value pragmas, close with busy retries).
//
// Every operation returns a cr_status_t (dct/status.h) and logs its failure
// once. The one SQLite failure that travels as an exception is corruption:
// exec() (through on_db_error) throws db_exception with status 67;
// the transaction calls and the close sequence catch it and return its status.
//
// The connection inside is a sqlitedb::connection (sqlitedb/connection.h),
// opened in create mode with the process-wide busy timeout; `handle` mirrors
// its database handle.
//
// A wrapper is not locked: one thread uses it at a time. Contention between
// connections is met by SQLite's busy timeout (the connections' default,
// 10000 ms per statement unless a process lowers it), by the
// transaction retries (60 tries, one second apart) and by the close retries.
#ifndef SQLITEDB_SQLITE_WRAPPER_H_
#define SQLITEDB_SQLITE_WRAPPER_H_

#include <string>

#include <sqlite3.h>

#include "dct/status.h"
#include "sqlitedb/busy_retry.h"
#include "sqlitedb/connection.h"

namespace sqlitedb {

// Formats `format` with SQLite's own printf (so "%Q" quotes a text as an SQL
// literal) into `out`, with no length limit: SQLite allocates what the text
// needs. False, with `out` left alone, when that allocation fails.
bool format_sql(std::string& out, const char* format, ...);

// Runs SQLite's integrity check on the database file `file` (the shadow's
// copies and versions): traced "Run integrity check on SQLite database %s";
// a file that is missing or does not open logs "Can't open database %s"; then
// "Run integrity check on %s successfully." or the warning "Run integrity
// check on %s failed: %s" with SQLite's answer. Whether the database passed;
// a missing file never passes (and is not created).
bool check_database_integrity(const std::string& file);

// A SQLite result code, its text and the status it maps to.
class db_exception {
public:
    // message = sqlite3_errstr(code), status = dberr_to_crstatus(code).
    explicit db_exception(int code);
    // message = msg, status = dberr_to_crstatus(code).
    db_exception(int code, const char* msg);
    // message = sqlite3_errstr(code), status = st.
    db_exception(int code, cr_status_t st);
    virtual ~db_exception();

    virtual const char* what() const;
    int errcode() const { return errcode_; }
    cr_status_t cr_status() const { return cr_status_; }

    // SQLite result code (extended codes allowed) -> status; the table is
    // sqlitedb::sqlite_to_crstatus (sqlitedb/sqlite_status.h) with CANTOPEN -> 4.
    static cr_status_t dberr_to_crstatus(int rc);

private:
    int errcode_;
    std::string message_;
    cr_status_t cr_status_;
};

class sqlite3_wrapper {
public:
    // Stores `path`; no connection is made.
    explicit sqlite3_wrapper(const std::string& path);
    sqlite3_wrapper(const sqlite3_wrapper&) = delete;
    sqlite3_wrapper& operator=(const sqlite3_wrapper&) = delete;

    // Closes the connection, retrying a busy close 3 times.
    ~sqlite3_wrapper();

    // Runs `sql` (one or more statements), discarding any rows. Never
    // retries. Returns 0, 2 when not opened, or the mapped status of the
    // failure; throws db_exception when the database is corrupt (status 67).
    // Failing statements longer than 1024 characters are logged cut to 1020
    // characters and "....".
    cr_status_t exec(const std::string& sql);

    // Runs the whole content of `file` as one script through exec(). A file
    // that cannot be opened reads as empty text and so yields 0.
    cr_status_t exec_file(const std::string& file);
    // The same for the first `max_bytes` bytes of `file` only.
    cr_status_t exec_file(const std::string& file, uint64_t max_bytes);

    // Opens the stored path (creating the file when missing) with the
    // connections' default busy timeout (10000 ms unless changed) and
    // extended result codes. A failure ends closed and
    // returns the mapped status.
    cr_status_t open_db();
    // Closes any current connection (3 retries, whatever the outcome), stores
    // `path` and opens it.
    cr_status_t open_db(const std::string& path);

    // Opens an existing database without ever creating one: 0 when connected
    // (or the open succeeded), 2 when the file is missing, 32 when it is empty
    // or cannot be stat'ed.
    cr_status_t checkopen();

    bool is_open() const { return opened; }

    // The connection itself, for a caller that reads the database through
    // the connection's own calls (the catalog's row checks).
    connection& db() { return conn_; }

    // "BEGIN IMMEDIATE TRANSACTION;", "COMMIT TRANSACTION;",
    // "ROLLBACK TRANSACTION;": a busy result is retried up to 60 times with a
    // one-second sleep after each busy try. Returns 0, 2, 11 after the last
    // try, 67 for corruption, or another mapped status.
    cr_status_t begin_transaction();
    cr_status_t commit_transaction();
    cr_status_t rollback_transaction();

    // Steps `sql` and returns true at the first row whose first column is
    // exactly `expect`. When `result` is not null, every value read (up to and
    // including the match) is appended to it with no separator. False when not
    // opened, when the statement does not prepare, or when no row matched.
    bool run_pragma(const std::string& sql, const std::string& expect, std::string* result);

    // run_pragma("PRAGMA integrity_check;", "ok", &result).
    bool run_integrity_check(std::string& result);

    // Closes the connection. A busy close is retried `retries` times, one
    // second apart; when still busy after retries + 1 calls the handle is
    // abandoned and 0 returned, so that no caller blocks for ever. Any other
    // failure keeps the connection and returns its status.
    cr_status_t close_db(unsigned long retries);

    // Logs "[DBERR %08X]: %s" and returns the mapped status of `rc`; throws
    // db_exception when that status is 67.
    cr_status_t on_db_error(int rc);

    std::string path;  // database file
    sqlite3* handle;   // connection; null when not connected
    bool opened;       // true only after a completely successful open

private:
    cr_status_t run_transaction_statement(const char* function, const char* sql);
    void forget_handle();
    // Logs and refuses a pragma when not opened, else traces it.
    bool pragma_ready(const std::string& sql, const std::string& expect);

    connection conn_;
};

}  // namespace sqlitedb

#endif  // SQLITEDB_SQLITE_WRAPPER_H_
