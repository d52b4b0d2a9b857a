// connection: one open SQLite database, the only way into SQLite for every
// database the project opens (catalogs, shadow copies and versions, the
// search tool's private sort database).
//
// A connection is opened in one of three modes (an existing file only, created
// when missing, or read-only), always with the one busy timeout (the process-
// wide default unless changed for the connection) and, unless asked otherwise,
// with extended result codes. It keeps the statements prepared through
// kept(): each text is prepared once and reused for as long as the connection
// lives, and all of them are finalised before it closes.
//
// Nothing here throws or logs: every operation returns a status mapped by the
// one result-code table (sqlitedb/sqlite_status.h) under the connection's
// CANTOPEN rule, and leaves SQLite's own code (code()) and message
// (errmsg(), exec_message()) for the caller's log line. The caller logs the
// failure once, with its own text.
//
// Not locked: one thread uses a connection at a time.
#ifndef SQLITEDB_CONNECTION_H_
#define SQLITEDB_CONNECTION_H_

#include <stddef.h>

#include <functional>
#include <string>

#include <sqlite3.h>

#include "dct/status.h"
#include "sqlitedb/kept_statements.h"
#include "sqlitedb/sqlite_statement.h"
#include "sqlitedb/sqlite_status.h"

namespace sqlitedb {

enum class open_mode {
    existing,   // read-write; a missing file is an error, never a new database
    create,     // read-write; a missing file is created
    read_only,  // reads only; a missing file is an error
};

// Which result codes the connection's calls return.
enum class result_codes {
    extended,  // the full code (SQLITE_IOERR_WRITE, SQLITE_READONLY_DBMOVED, ...)
    primary,   // the low byte only
};

class connection {
public:
    // Busy timeout, in milliseconds, of every connection opened from now on;
    // 10000 unless changed. Process-wide; open connections keep theirs.
    static void set_default_busy_timeout_ms(int ms);
    static int default_busy_timeout_ms();

    explicit connection(cantopen_rule cantopen = cantopen_rule::failure) : cantopen_(cantopen) {}
    // Finalises the kept statements and closes whatever is still open without
    // waiting: a connection some outside statement still holds is closed by
    // SQLite once that statement goes.
    ~connection();
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    // Opens `path` ("" is a private temporary database) in `mode`, after
    // closing any database held (without waiting, as the destructor does).
    // Sets the busy timeout to the default and turns on extended codes when
    // asked. 0, or the mapped status with code() set; a failed open holds
    // nothing. Extended codes that cannot be turned on leave the connection
    // open and return their status: plain codes map to the same statuses.
    cr_status_t open(const std::string& path, open_mode mode,
                     result_codes codes = result_codes::extended);

    // Takes over `db`, a connection opened elsewhere (tests), as it is.
    void adopt(sqlite3* db);

    sqlite3* handle() const { return db_; }
    bool is_open() const { return db_ != nullptr; }

    // Replaces the busy timeout of this connection.
    void set_busy_timeout_ms(int ms);
    // The busy timeout this connection runs with (0 when closed).
    int busy_timeout_ms() const { return db_ != nullptr ? busy_timeout_ms_ : 0; }

    // ---- results ----

    // `rc` under the table and this connection's CANTOPEN rule.
    cr_status_t map(int rc) const { return sqlite_to_crstatus(rc, cantopen_); }
    // SQLite's code of the last open, exec, prepare, value read or close.
    int code() const { return code_; }
    // SQLite's message of the connection's last failure ("out of memory"
    // when no database is held, as SQLite says itself).
    const char* errmsg() const { return sqlite3_errmsg(db_); }
    // The message the last exec() failed with; null when it gave none.
    const char* exec_message() const { return exec_message_; }
    // SQLite's extended code of the connection's last failed call, whoever
    // made it (a statement stepped outside this class included).
    int last_error() const { return db_ != nullptr ? sqlite3_extended_errcode(db_) : SQLITE_NOMEM; }
    // Whether a transaction begun explicitly (BEGIN or SAVEPOINT) is open.
    bool in_transaction() const { return db_ != nullptr && sqlite3_get_autocommit(db_) == 0; }

    // ---- statements ----

    // Runs `sql` (one or more statements) and discards any rows.
    cr_status_t exec(const char* sql);
    cr_status_t exec(const std::string& sql) { return exec(sql.c_str()); }

    // The kept statement of the NUL-terminated text `sql` of `length` bytes
    // (see kept_statements): prepared on first use, then found again. Null
    // when it does not prepare (code() tells why) or holds no statement
    // (code() is 0). Sets no more than code(): no allocation once kept.
    statement_ref kept(const char* sql, size_t length, statement* once) {
        return kept_.get(db_, sql, length, &code_, once);
    }
    statement_ref kept(const std::string& sql, statement* once) {
        return kept(sql.c_str(), sql.size(), once);
    }
    statement_ref kept(const char* sql, statement* once);
    size_t kept_count() const { return kept_.size(); }

    // Prepares `sql` for one use into `out`. 0 or the mapped status.
    cr_status_t prepare(const char* sql, statement* out);

    // ---- single values ----

    // Steps the single-value statement `sql` and puts the first column of
    // its first row into *value (left alone when there is no row). 0 or the
    // mapped status.
    cr_status_t read_value(const char* sql, std::string* value);

    // Steps `sql`; true at the first row whose first column is exactly
    // `expect`. Every value read (up to and including the match) is appended
    // to *result when given. False when it does not prepare or nothing
    // matched.
    bool value_matches(const char* sql, const std::string& expect, std::string* result);

    // "PRAGMA integrity_check;": true when it answers "ok"; what it answered
    // is appended to *result.
    bool integrity_check(std::string* result);

    // Whether the database holds no schema object at all (what a creation
    // that failed half-way leaves). Anything that cannot be read counts as
    // not empty.
    bool holds_no_schema();

    // Rows changed by the last INSERT, UPDATE or DELETE; 0 when closed.
    int changes() const { return db_ != nullptr ? sqlite3_changes(db_) : 0; }

    // ---- the database and its files ----

    // Whether the main database is open for reading only (also when closed).
    bool is_read_only() const;

    // Whether SQLite finds the main file moved or unlinked since it was
    // opened; false also when it cannot tell.
    bool has_moved() const;

    // Replaces the busy timeout with `handler` (see sqlite3_busy_handler:
    // called with `arg` and the count of busy tries so far; nonzero waits
    // and tries again). The timeout given later replaces it in turn. Nothing
    // happens when closed.
    using busy_handler = int (*)(void* arg, int count);
    void set_busy_handler(busy_handler handler, void* arg);

    // Checkpoints a write-ahead log into the main file and truncates it
    // (TRUNCATE). SQLite's code (SQLITE_MISUSE when closed); also in code().
    int checkpoint_truncate();

    // Reads through SQLite's own handle of the main file, or of its log or
    // rollback journal, without a second descriptor: closing one would drop
    // the process's POSIX locks on the file. SQLITE_OK, SQLITE_NOTFOUND when
    // SQLite holds no such file open, or the failure (a short read is
    // SQLITE_IOERR_SHORT_READ). None of them change code().
    int main_file_size(int64_t* size) const;
    int read_main_file(int64_t offset, void* buffer, int bytes) const;
    int log_file_size(int64_t* size) const;

    // ---- closing ----

    // Finalises the kept statements and closes the database. A busy close
    // (a statement made outside is still alive) is tried again after
    // `on_busy(n)` (n from 0) and a one-second sleep, `retries` more times;
    // still busy then, the database is left behind and forgotten, so that no
    // caller blocks for ever. Returns SQLite's code of the last close (also
    // in code()); any failure but busy keeps the database held.
    int close(unsigned long retries, const std::function<void(unsigned long)>& on_busy);

private:
    void close_now();
    void forget_exec_message();

    sqlite3* db_ = nullptr;
    cantopen_rule cantopen_;
    int code_ = SQLITE_OK;
    int busy_timeout_ms_ = 0;
    char* exec_message_ = nullptr;
    kept_statements kept_;
};

}  // namespace sqlitedb

#endif  // SQLITEDB_CONNECTION_H_
