#include "sqlitedb/connection.h"

#include <string.h>

#include <atomic>

namespace sqlitedb {

namespace {

std::atomic<int> default_busy_timeout_ms_{10000};

// SQLite's handle of the main file (SQLITE_FCNTL_FILE_POINTER) or of its
// journal (SQLITE_FCNTL_JOURNAL_POINTER); null when there is none open.
sqlite3_file* file_of(sqlite3* db, int op) {
    sqlite3_file* file = nullptr;
    if (db == nullptr || sqlite3_file_control(db, "main", op, &file) != SQLITE_OK) return nullptr;
    if (file == nullptr || file->pMethods == nullptr) return nullptr;
    return file;
}

int size_of(sqlite3_file* file, int64_t* size) {
    if (file == nullptr) return SQLITE_NOTFOUND;
    sqlite3_int64 bytes = 0;
    const int rc = file->pMethods->xFileSize(file, &bytes);
    if (rc == SQLITE_OK) *size = bytes;
    return rc;
}

int open_flags(open_mode mode) {
    switch (mode) {
        case open_mode::existing:
            return SQLITE_OPEN_READWRITE;
        case open_mode::create:
            return SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
        case open_mode::read_only:
            break;
    }
    return SQLITE_OPEN_READONLY;
}

}  // namespace

void connection::set_default_busy_timeout_ms(int ms) {
    default_busy_timeout_ms_.store(ms, std::memory_order_relaxed);
}

int connection::default_busy_timeout_ms() {
    return default_busy_timeout_ms_.load(std::memory_order_relaxed);
}

connection::~connection() {
    close_now();
    forget_exec_message();
}

void connection::close_now() {
    kept_.clear();
    // close_v2 never answers busy: a statement still alive outside keeps the
    // database until it is finalised.
    if (db_ != nullptr) sqlite3_close_v2(db_);
    db_ = nullptr;
}

void connection::forget_exec_message() {
    sqlite3_free(exec_message_);
    exec_message_ = nullptr;
}

cr_status_t connection::open(const std::string& path, open_mode mode, result_codes codes) {
    close_now();
    sqlite3* db = nullptr;
    code_ = sqlite3_open_v2(path.c_str(), &db, open_flags(mode), nullptr);
    if (code_ != SQLITE_OK) {
        // SQLite hands out a handle even when the open fails; it holds no
        // file, only memory.
        sqlite3_close(db);
        return map(code_);
    }
    db_ = db;
    busy_timeout_ms_ = default_busy_timeout_ms();
    sqlite3_busy_timeout(db_, busy_timeout_ms_);
    if (codes == result_codes::extended) {
        code_ = sqlite3_extended_result_codes(db_, 1);
        if (code_ != SQLITE_OK) return map(code_);
    }
    return CR_STATUS_OK;
}

void connection::adopt(sqlite3* db) {
    close_now();
    db_ = db;
}

void connection::set_busy_timeout_ms(int ms) {
    busy_timeout_ms_ = ms;
    sqlite3_busy_timeout(db_, ms);
}

cr_status_t connection::exec(const char* sql) {
    forget_exec_message();
    code_ = sqlite3_exec(db_, sql, nullptr, nullptr, &exec_message_);
    return map(code_);
}

statement_ref connection::kept(const char* sql, statement* once) {
    return kept(sql, strlen(sql), once);
}

cr_status_t connection::prepare(const char* sql, statement* out) {
    code_ = out->prepare(db_, sql, -1, false);
    return map(code_);
}

cr_status_t connection::read_value(const char* sql, std::string* value) {
    statement stmt;
    if (prepare(sql, &stmt) != CR_STATUS_OK) return map(code_);
    code_ = sqlite3_step(stmt.get());
    if (code_ == SQLITE_ROW) {
        const unsigned char* text = sqlite3_column_text(stmt.get(), 0);
        value->assign(text != nullptr ? reinterpret_cast<const char*>(text) : "");
        code_ = SQLITE_OK;
    } else if (code_ == SQLITE_DONE) {
        code_ = SQLITE_OK;
    }
    return map(code_);
}

bool connection::value_matches(const char* sql, const std::string& expect, std::string* result) {
    statement stmt;
    if (prepare(sql, &stmt) != CR_STATUS_OK) return false;
    while ((code_ = sqlite3_step(stmt.get())) == SQLITE_ROW) {
        const unsigned char* value = sqlite3_column_text(stmt.get(), 0);
        const std::string text =
            value == nullptr ? std::string()
                             : std::string(reinterpret_cast<const char*>(value),
                                           static_cast<size_t>(sqlite3_column_bytes(stmt.get(), 0)));
        if (result != nullptr) result->append(text);
        if (text == expect) return true;
    }
    return false;
}

bool connection::integrity_check(std::string* result) {
    return value_matches("PRAGMA integrity_check;", "ok", result);
}

bool connection::holds_no_schema() {
    statement stmt;
    if (prepare("SELECT count(*) FROM sqlite_master", &stmt) != CR_STATUS_OK) return false;
    code_ = sqlite3_step(stmt.get());
    return code_ == SQLITE_ROW && sqlite3_column_int64(stmt.get(), 0) == 0;
}

bool connection::is_read_only() const { return db_ == nullptr || sqlite3_db_readonly(db_, "main") != 0; }

bool connection::has_moved() const {
    int moved = 0;
    if (db_ == nullptr || sqlite3_file_control(db_, "main", SQLITE_FCNTL_HAS_MOVED, &moved) != SQLITE_OK) {
        return false;
    }
    return moved != 0;
}

void connection::set_busy_handler(busy_handler handler, void* arg) {
    if (db_ != nullptr) sqlite3_busy_handler(db_, handler, arg);
}

int connection::checkpoint_truncate() {
    code_ = db_ == nullptr ? SQLITE_MISUSE
                           : sqlite3_wal_checkpoint_v2(db_, "main", SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    return code_;
}

int connection::main_file_size(int64_t* size) const {
    return size_of(file_of(db_, SQLITE_FCNTL_FILE_POINTER), size);
}

int connection::read_main_file(int64_t offset, void* buffer, int bytes) const {
    sqlite3_file* file = file_of(db_, SQLITE_FCNTL_FILE_POINTER);
    if (file == nullptr) return SQLITE_NOTFOUND;
    return file->pMethods->xRead(file, buffer, bytes, offset);
}

int connection::log_file_size(int64_t* size) const {
    return size_of(file_of(db_, SQLITE_FCNTL_JOURNAL_POINTER), size);
}

int connection::close(unsigned long retries, const std::function<void(unsigned long)>& on_busy) {
    kept_.clear();
    if (db_ == nullptr) return code_ = SQLITE_OK;
    code_ = close_retrying(db_, retries, on_busy);
    // Left behind when still busy: its statements keep it alive inside SQLite.
    if (code_ == SQLITE_OK || code_ == SQLITE_BUSY) db_ = nullptr;
    return code_;
}

}  // namespace sqlitedb
