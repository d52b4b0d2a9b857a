// catalog_store: opening, creating and closing an application database, its
// kept statements, the completion of a table-less file and pragmas; and the
// whole-table checks of catalog_row_check.h, which share its row decoding.
#include "appdb/catalog_store.h"

#include <string.h>

#include <atomic>
#include <new>

#include "appdb/catalog_row_check.h"
#include "appdb/catalog_store_internal.h"
#include "appdb/catalog_table.h"
#include "dct/log.h"
#include "sqlitedb/sqlite_status.h"

namespace appdb {

namespace {

std::atomic<int> busy_timeout_ms_{10000};
std::atomic<bool> journal_mode_switch_{true};

// The journal mode every catalog runs in; write-ahead logging is the one
// other mode a file keeps across connections.
const char kCatalogJournalMode[] = "delete";

// Steps the single-value statement `sql` into *value. SQLite's code.
int read_text(sqlite3* db, const char* sql, std::string* value) {
    sqlitedb::statement stmt;
    int rc = stmt.prepare(db, sql, -1, false);
    if (rc != SQLITE_OK) return rc;
    rc = sqlite3_step(stmt.get());
    if (rc != SQLITE_ROW) return rc == SQLITE_DONE ? SQLITE_OK : rc;
    const unsigned char* text = sqlite3_column_text(stmt.get(), 0);
    value->assign(text != nullptr ? reinterpret_cast<const char*>(text) : "");
    return SQLITE_OK;
}

// Puts a file found in another persistent journal mode back into the
// catalog's own. Leaving write-ahead logging checkpoints the log into the
// main file and removes it; it needs the only connection to the file.
void restore_journal_mode(sqlite3* db, const std::string& file) {
    std::string mode;
    // A file that cannot be read here is reported by the operation.
    if (read_text(db, "PRAGMA main.journal_mode;", &mode) != SQLITE_OK || mode != "wal") return;
    if (!catalog_store::journal_mode_switch() || sqlite3_db_readonly(db, "main") != 0) {
        WarningA(CR_STATUS_OK, "%s: app db %s is in journal mode %s, read as it is", "open_db", file.c_str(),
                 mode.c_str());
        return;
    }
    std::string now;
    int rc = read_text(db, "PRAGMA main.journal_mode=DELETE;", &now);
    if (rc == SQLITE_OK && now != kCatalogJournalMode) rc = SQLITE_BUSY;
    if (rc == SQLITE_OK) {
        WarningA(CR_STATUS_OK, "%s: app db %s was in journal mode %s, switched back to %s", "open_db",
                 file.c_str(), mode.c_str(), kCatalogJournalMode);
    } else {
        WarningA(catalog_store::map_status(rc),
                 "%s: app db %s is in journal mode %s and could not be switched back to %s (%d, %s), read as it is",
                 "open_db", file.c_str(), mode.c_str(), kCatalogJournalMode, rc, sqlite3_errstr(rc));
    }
}

// Close calls a busy connection gets before it is left behind.
constexpr unsigned long close_retries = 2;

// Runs one schema or transaction statement; logs (for `fn`) and returns the
// mapped status of a failure.
cr_status_t exec_schema_statement(const char* fn, sqlite3* db, const std::string& name,
                                  const char* sql) {
    char* message = nullptr;
    const int rc = sqlite3_exec(db, sql, nullptr, nullptr, &message);
    if (rc == SQLITE_OK) return CR_STATUS_OK;
    const cr_status_t status = catalog_store::map_status(rc);
    ErrorA(status, "%s: %s: failed to execute \"%s\", (%d, %s)", fn, name.c_str(), sql, rc,
           message != nullptr ? message : sqlite3_errstr(rc));
    sqlite3_free(message);
    return status;
}

// The `catalog` table and its index.
cr_status_t create_schema(const char* fn, sqlite3* db, const std::string& name) {
    cr_status_t status = exec_schema_statement(fn, db, name, catalog_create_table_sql());
    if (status == CR_STATUS_OK) status = exec_schema_statement(fn, db, name, catalog_create_index_sql);
    return status;
}

bool holds_no_table(sqlite3* db) {
    sqlite3_stmt* stmt = nullptr;
    bool empty = false;
    if (sqlite3_prepare_v2(db, "SELECT count(*) FROM sqlite_master", -1, &stmt, nullptr) ==
            SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW) {
        empty = sqlite3_column_int64(stmt, 0) == 0;
    }
    sqlite3_finalize(stmt);
    return empty;
}

// Steps `sql` on `db`, handing each row to `row`. 0 or the mapped status
// (logged with `fn`).
template <typename RowFn>
cr_status_t step_all(sqlite3* db, const std::string& name, const char* fn, const char* sql,
                     RowFn row) {
    sqlitedb::statement stmt;
    int rc = stmt.prepare(db, sql, -1, false);
    if (rc != SQLITE_OK) {
        const cr_status_t status = catalog_store::map_status(rc);
        ErrorA(status, "%s: DB[%s] failed to prepare [%s] (%d, %s).", fn, name.c_str(), sql, rc,
               sqlite3_errstr(rc));
        return status;
    }
    for (;;) {
        rc = sqlite3_step(stmt.get());
        if (rc == SQLITE_DONE) return CR_STATUS_OK;
        if (rc != SQLITE_ROW) {
            const cr_status_t status = catalog_store::map_status(rc);
            ErrorA(status, "%s: DB[%s] failed to step [%s] (%d, %s).", fn, name.c_str(), sql, rc,
                   sqlite3_errmsg(db));
            return status;
        }
        row(stmt.get());
    }
}

cr_status_t out_of_memory(const char* fn) {
    ErrorA(CR_STATUS_NOMEM, "%s: out of memory", fn);
    return CR_STATUS_NOMEM;
}

}  // namespace

// ---- kept statements ----

sqlite3_stmt* catalog_store::statements::get(sqlite3* db, const char* sql, size_t length, int* rc,
                                             sqlitedb::statement* once) {
    *rc = SQLITE_OK;
    for (auto& entry : kept_) {
        if (entry.first.size() == length && memcmp(entry.first.data(), sql, length) == 0) {
            return entry.second.get();
        }
    }
    sqlitedb::statement fresh;
    // The length handed over includes the terminator: SQLite then need not
    // copy the text.
    *rc = fresh.prepare(db, sql, static_cast<int>(length + 1), kept_.size() < max_kept);
    // A text without a statement (empty, or only a comment) prepares to none.
    if (*rc != SQLITE_OK || !fresh) return nullptr;
    if (kept_.size() >= max_kept) {
        *once = std::move(fresh);
        return once->get();
    }
    kept_.emplace_back(std::string(sql, length), std::move(fresh));
    return kept_.back().second.get();
}

void decode_row(sqlite3_stmt* stmt, app_catalog_item& item) {
    for (int c = 0; c < catalog_crc_column; ++c) {
        const catalog_column& column = catalog_columns[c];
        if (!column.checked) continue;
        const catalog_field& f = catalog_fields[column.field];
        if (!f.is_text()) {
            f.set_number(item, f.kind == field_kind::u32 || f.kind == field_kind::role
                                   ? sqlite3_column_int(stmt, c)
                                   : sqlite3_column_int64(stmt, c));
            continue;
        }
        // The schema allows NULL; rows written here never hold one. NULL
        // reads as the empty string. assign keeps the string's capacity, so
        // an item decoded into again and again stops allocating.
        const unsigned char* text = sqlite3_column_text(stmt, c);
        std::string& out = item.*f.text;
        if (text == nullptr) {
            out.clear();
        } else {
            out.assign(reinterpret_cast<const char*>(text),
                       static_cast<size_t>(sqlite3_column_bytes(stmt, c)));
        }
    }
}

// ---- the store itself ----

void catalog_store::set_busy_timeout_ms(int ms) {
    busy_timeout_ms_.store(ms, std::memory_order_relaxed);
}

int catalog_store::busy_timeout_ms() { return busy_timeout_ms_.load(std::memory_order_relaxed); }

void catalog_store::set_journal_mode_switch(bool on) {
    journal_mode_switch_.store(on, std::memory_order_relaxed);
}

bool catalog_store::journal_mode_switch() {
    return journal_mode_switch_.load(std::memory_order_relaxed);
}

cr_status_t catalog_store::map_status(int rc) { return sqlitedb::sqlite_to_crstatus(rc, true); }

catalog_store::catalog_store(sqlite3* db, const std::string& file)
    : db_(db), file_(file), kept_(new statements) {}

catalog_store::~catalog_store() {
    kept_->clear();
    const int rc = sqlitedb::close_retrying(db_, close_retries, [this](unsigned long busy) {
        WarningA(CR_STATUS_BUSY, "%s: %lu busy when close app db %s", "close_sqlite3_db", busy,
                 file_.c_str());
    });
    if (rc != SQLITE_OK && rc != SQLITE_BUSY) {
        ErrorA(map_status(rc), "%s: failed to close db %s (%d, %s)", "close_sqlite3_db",
               file_.c_str(), rc, sqlite3_errstr(rc));
    }
}

std::unique_ptr<catalog_store> catalog_store::adopt(sqlite3* db, const std::string& file) {
    if (db == nullptr) return nullptr;
    return std::unique_ptr<catalog_store>(new catalog_store(db, file));
}

cr_status_t catalog_store::open(const std::string& file, std::unique_ptr<catalog_store>* out) {
    out->reset();
    sqlite3* db = nullptr;
    // Read-write without create: a missing database is an error here, never
    // an empty new file.
    int rc = sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    if (rc != SQLITE_OK) {
        // SQLite hands out a handle even when the open fails; it holds no
        // file, only memory.
        sqlite3_close(db);
        const cr_status_t status = map_status(rc);
        ErrorA(status, "%s: could not open db %s,(%d, %s)", "open_db", file.c_str(), rc,
               sqlite3_errstr(rc));
        return status;
    }
    sqlite3_busy_timeout(db, busy_timeout_ms());
    rc = sqlite3_extended_result_codes(db, 1);
    if (rc != SQLITE_OK) {
        // Plain result codes still map to the same statuses; go on.
        ErrorA(map_status(rc), "%s: Failed to set extended result code for (%d, %s)", "open_db",
               rc, file.c_str());
    }
    restore_journal_mode(db, file);
    try {
        *out = adopt(db, file);
    } catch (const std::bad_alloc&) {
        sqlite3_close(db);
        return out_of_memory("open_db");
    }
    return CR_STATUS_OK;
}

cr_status_t catalog_store::create(const std::string& file) {
    sqlite3* db = nullptr;
    const int rc =
        sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    if (rc != SQLITE_OK) {
        const cr_status_t status = map_status(rc);
        ErrorA(status, "%s: could not open db %s, (%d, %s)", "create_db", file.c_str(), rc,
               sqlite3_errstr(rc));
        sqlite3_close(db);  // memory only; see open
        return status;
    }
    sqlite3_busy_timeout(db, busy_timeout_ms());
    // A file left behind by a failed statement stays as it is: it is neither
    // deleted nor repaired here.
    const cr_status_t status = create_schema("create_db", db, file);
    sqlite3_close(db);
    return status;
}

bool catalog_store::has_moved() const {
    int moved = 0;
    if (sqlite3_file_control(db_, "main", SQLITE_FCNTL_HAS_MOVED, &moved) != SQLITE_OK) return false;
    return moved != 0;
}

bool catalog_store::holds_no_table() const { return appdb::holds_no_table(db_); }

cr_status_t catalog_store::complete_tableless(bool& completed) {
    const char* const fn = "complete_db";
    completed = false;
    if (!holds_no_table()) return CR_STATUS_OK;
    cr_status_t status = exec_schema_statement(fn, db_, file_, "BEGIN IMMEDIATE TRANSACTION;");
    if (status != CR_STATUS_OK) return status;
    if (holds_no_table()) {
        InfoA(CR_STATUS_OK, "%s: app db %s holds no table, creating its catalog table", fn,
              file_.c_str());
        status = create_schema(fn, db_, file_);
        completed = status == CR_STATUS_OK;
    }
    if (status == CR_STATUS_OK) {
        status = exec_schema_statement(fn, db_, file_, "COMMIT TRANSACTION;");
        if (status != CR_STATUS_OK) completed = false;
    }
    if (status != CR_STATUS_OK) sqlite3_exec(db_, "ROLLBACK TRANSACTION;", nullptr, nullptr, nullptr);
    return status;
}

bool catalog_store::run_pragma(const std::string& sql, const std::string& expect,
                               std::string* result) {
    __TraceA("%s: Run \"%s\" on SQLite datase, expect result: %s", "run_pragma", sql.c_str(),
             expect.c_str());
    sqlitedb::statement stmt;
    if (stmt.prepare(db_, sql.c_str(), -1, false) != SQLITE_OK) return false;
    while (sqlite3_step(stmt.get()) == SQLITE_ROW) {
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

// ---- whole-table checks on any connection ----

cr_status_t count_catalog_rows(sqlite3* db, const std::string& name, uint64_t* rows) {
    *rows = 0;
    return step_all(db, name, "count_catalog_rows", "SELECT count(*) FROM catalog;",
                    [rows](sqlite3_stmt* stmt) {
                        *rows = static_cast<uint64_t>(sqlite3_column_int64(stmt, 0));
                    });
}

cr_status_t check_catalog_rows(sqlite3* db, const std::string& name, uint64_t* rows,
                               std::vector<std::string>* bad_items) {
    const char* const fn = "check_catalog_rows";
    *rows = 0;
    bad_items->clear();
    try {
        app_catalog_item item;
        return step_all(db, name, fn, "SELECT * FROM catalog;", [&](sqlite3_stmt* stmt) {
            ++*rows;
            decode_row(stmt, item);
            if (sqlite3_column_count(stmt) != catalog_column_count ||
                stored_crc(stmt) != catalog_row_crc(item)) {
                const std::string text = item.to_string();
                ErrorA(CR_STATUS_NONE, "%s: crc mismatch for app cat item %s", fn, text.c_str());
                bad_items->push_back(text);
            }
        });
    } catch (const std::bad_alloc&) {
        return out_of_memory(fn);
    }
}

}  // namespace appdb
