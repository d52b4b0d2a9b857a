// A prepared statement owned for as long as its object lives, and the close
// of a connection with its busy retries.
#ifndef SQLITEDB_SQLITE_STATEMENT_H_
#define SQLITEDB_SQLITE_STATEMENT_H_

#include <functional>
#include <string>

#include <sqlite3.h>

namespace sqlitedb {

// Owns one prepared statement and finalises it when destroyed. A statement
// holds its connection open: every statement of a connection must be gone
// before the connection can close.
class statement {
public:
    statement() = default;
    ~statement() { finalize(); }
    statement(const statement&) = delete;
    statement& operator=(const statement&) = delete;
    statement(statement&& other) noexcept : stmt_(other.stmt_) { other.stmt_ = nullptr; }
    statement& operator=(statement&& other) noexcept;

    // Prepares `sql` (its first `bytes` bytes; -1 up to its NUL) on `db`,
    // replacing any statement held. `persistent` tells SQLite the statement
    // is kept for many uses. Returns SQLite's result code; on failure nothing
    // is held.
    int prepare(sqlite3* db, const char* sql, int bytes, bool persistent);

    sqlite3_stmt* get() const { return stmt_; }
    explicit operator bool() const { return stmt_ != nullptr; }
    void finalize();

private:
    sqlite3_stmt* stmt_ = nullptr;
};

// One use of a kept statement: when the scope ends the statement is reset and
// its bindings cleared, whatever way the scope is left (a null statement is
// left alone). A statement left
// stepping would keep its read lock and shut other processes' writers out.
class statement_use {
public:
    explicit statement_use(sqlite3_stmt* stmt) : stmt_(stmt) {}
    ~statement_use() {
        if (stmt_ == nullptr) return;
        sqlite3_reset(stmt_);
        sqlite3_clear_bindings(stmt_);
    }
    statement_use(const statement_use&) = delete;
    statement_use& operator=(const statement_use&) = delete;

private:
    sqlite3_stmt* stmt_;
};

// Closes `db`. A close that answers busy (a statement of the connection is
// still alive) is tried again after `on_busy(n)` (n from 0) and a one-second
// sleep, `retries` more times; a connection still busy after retries + 1
// closes is left behind, so that no caller blocks for ever. Returns the
// result of the last close (SQLITE_BUSY when left behind).
int close_retrying(sqlite3* db, unsigned long retries,
                   const std::function<void(unsigned long)>& on_busy);

}  // namespace sqlitedb

#endif  // SQLITEDB_SQLITE_STATEMENT_H_
