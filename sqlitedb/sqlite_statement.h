// A prepared statement owned for as long as its object lives, the typed calls
// every caller binds, steps and reads it with, and the close of a connection
// with its busy retries.
#ifndef SQLITEDB_SQLITE_STATEMENT_H_
#define SQLITEDB_SQLITE_STATEMENT_H_

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <string>
#include <string_view>

#include <sqlite3.h>

namespace sqlitedb {

// A prepared statement that someone else owns (a connection's kept statement,
// or a statement object), with the typed calls on it. Every call returns
// SQLite's own result code or value; nothing throws or logs. Texts and blobs
// are bound without a copy: the caller's bytes must outlive the statement's
// use (its reset). A null reference is allowed only for operator bool.
class statement_ref {
public:
    statement_ref() = default;
    explicit statement_ref(sqlite3_stmt* stmt) : stmt_(stmt) {}

    sqlite3_stmt* get() const { return stmt_; }
    explicit operator bool() const { return stmt_ != nullptr; }
    bool operator==(const statement_ref& other) const { return stmt_ == other.stmt_; }
    bool operator!=(const statement_ref& other) const { return stmt_ != other.stmt_; }

    // ---- parameters (numbered from 1) ----
    int parameter_count() const { return sqlite3_bind_parameter_count(stmt_); }
    int bind_int(int index, int value) { return sqlite3_bind_int(stmt_, index, value); }
    int bind_int64(int index, int64_t value) { return sqlite3_bind_int64(stmt_, index, value); }
    int bind_null(int index) { return sqlite3_bind_null(stmt_, index); }
    // `text` as a text value up to its first NUL.
    int bind_text(int index, const std::string& text) {
        return sqlite3_bind_text(stmt_, index, text.c_str(), -1, SQLITE_STATIC);
    }
    // The whole of `bytes` as a text value, NUL bytes included.
    int bind_bytes(int index, std::string_view bytes) {
        return sqlite3_bind_text(stmt_, index, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
    }
    // The whole of `bytes` as a blob value.
    int bind_blob(int index, std::string_view bytes) {
        return sqlite3_bind_blob(stmt_, index, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
    }

    // ---- running ----
    // SQLITE_ROW while there are rows, SQLITE_DONE at the end, else the failure.
    int step() { return sqlite3_step(stmt_); }
    // Back to the start, bindings kept; SQLite's code of the last step.
    int reset() { return sqlite3_reset(stmt_); }

    // ---- the current row's columns (numbered from 0) ----
    int column_count() const { return sqlite3_column_count(stmt_); }
    int column_int(int column) const { return sqlite3_column_int(stmt_, column); }
    int64_t column_int64(int column) const { return sqlite3_column_int64(stmt_, column); }
    // The value as text; NULL reads as empty. Valid until the next step,
    // reset or read of the same column as another type.
    std::string_view column_text(int column) const {
        const unsigned char* text = sqlite3_column_text(stmt_, column);
        if (text == nullptr) return std::string_view();
        return std::string_view(reinterpret_cast<const char*>(text),
                                static_cast<size_t>(sqlite3_column_bytes(stmt_, column)));
    }
    // The value's bytes as a blob; NULL and empty read as empty.
    std::string_view column_blob(int column) const {
        const void* blob = sqlite3_column_blob(stmt_, column);
        if (blob == nullptr) return std::string_view();
        return std::string_view(static_cast<const char*>(blob),
                                static_cast<size_t>(sqlite3_column_bytes(stmt_, column)));
    }

private:
    sqlite3_stmt* stmt_ = nullptr;
};

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
    // The typed calls on the statement held.
    statement_ref ref() const { return statement_ref(stmt_); }
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
    explicit statement_use(statement_ref stmt) : stmt_(stmt.get()) {}
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
// sleep (through the thread's environment), `retries` more times; a connection still busy after retries + 1
// closes is left behind, so that no caller blocks for ever. Returns the
// result of the last close (SQLITE_BUSY when left behind).
int close_retrying(sqlite3* db, unsigned long retries,
                   const std::function<void(unsigned long)>& on_busy);

}  // namespace sqlitedb

#endif  // SQLITEDB_SQLITE_STATEMENT_H_
