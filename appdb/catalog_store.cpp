// catalog_store: opening, creating and closing an application database (on a
// sqlitedb::connection, which keeps its statements), the completion of a
// table-less file and pragmas; and the whole-table checks of
// catalog_row_check.h, which share its row decoding.
#include "appdb/catalog_store.h"

#include <atomic>
#include <new>
#include <utility>

#include "appdb/catalog_row_check.h"
#include "appdb/catalog_store_internal.h"
#include "appdb/catalog_table.h"
#include "dct/log.h"
#include "sqlitedb/sqlite_status.h"

namespace appdb {

namespace {

std::atomic<bool> journal_mode_switch_{true};

// The journal mode every catalog runs in; write-ahead logging is the one
// other mode a file keeps across connections.
const char kCatalogJournalMode[] = "delete";

// Puts a file found in another persistent journal mode back into the
// catalog's own. Leaving write-ahead logging checkpoints the log into the
// main file and removes it; it needs the only connection to the file.
void restore_journal_mode(sqlitedb::connection& db, const std::string& file) {
    std::string mode;
    // A file that cannot be read here is reported by the operation.
    if (db.read_value("PRAGMA main.journal_mode;", &mode) != CR_STATUS_OK || mode != "wal") return;
    if (!catalog_store::journal_mode_switch() || db.is_read_only()) {
        WarningA(CR_STATUS_OK, "%s: app db %s is in journal mode %s, read as it is", "open_db", file.c_str(),
                 mode.c_str());
        return;
    }
    std::string now;
    db.read_value("PRAGMA main.journal_mode=DELETE;", &now);
    int rc = db.code();
    if (rc == SQLITE_OK && now != kCatalogJournalMode) rc = SQLITE_BUSY;
    if (rc == SQLITE_OK) {
        WarningA(CR_STATUS_OK, "%s: app db %s was in journal mode %s, switched back to %s", "open_db",
                 file.c_str(), mode.c_str(), kCatalogJournalMode);
    } else {
        WarningA(catalog_store::map_status(rc),
                 "%s: app db %s is in journal mode %s and could not be switched back to %s (%d, %s), read as it is",
                 "open_db", file.c_str(), mode.c_str(), kCatalogJournalMode, rc, sqlitedb::errstr(rc));
    }
}

// Close calls a busy connection gets before it is left behind.
constexpr unsigned long close_retries = 2;

// Runs one schema or transaction statement; logs (for `fn`) and returns the
// mapped status of a failure.
cr_status_t exec_schema_statement(const char* fn, sqlitedb::connection& db, const std::string& name,
                                  const char* sql) {
    const cr_status_t status = db.exec(sql);
    if (status == CR_STATUS_OK) return CR_STATUS_OK;
    const int rc = db.code();
    ErrorA(status, "%s: %s: failed to execute \"%s\", (%d, %s)", fn, name.c_str(), sql, rc,
           db.exec_message() != nullptr ? db.exec_message() : sqlitedb::errstr(rc));
    return status;
}

// The `catalog` table and its index.
cr_status_t create_schema(const char* fn, sqlitedb::connection& db, const std::string& name) {
    cr_status_t status = exec_schema_statement(fn, db, name, catalog_create_table_sql());
    if (status == CR_STATUS_OK) status = exec_schema_statement(fn, db, name, catalog_create_index_sql);
    return status;
}

// Steps `sql` on `db`, handing each row to `row`. 0 or the mapped status
// (logged with `fn`).
template <typename RowFn>
cr_status_t step_all(sqlitedb::connection& db, const std::string& name, const char* fn,
                     const char* sql, RowFn row) {
    sqlitedb::statement stmt;
    int rc = SQLITE_OK;
    if (db.prepare(sql, &stmt) != CR_STATUS_OK) {
        rc = db.code();
        const cr_status_t status = catalog_store::map_status(rc);
        ErrorA(status, "%s: DB[%s] failed to prepare [%s] (%d, %s).", fn, name.c_str(), sql, rc,
               sqlitedb::errstr(rc));
        return status;
    }
    for (;;) {
        rc = stmt.ref().step();
        if (rc == SQLITE_DONE) return CR_STATUS_OK;
        if (rc != SQLITE_ROW) {
            const cr_status_t status = catalog_store::map_status(rc);
            ErrorA(status, "%s: DB[%s] failed to step [%s] (%d, %s).", fn, name.c_str(), sql, rc,
                   db.errmsg());
            return status;
        }
        row(stmt.ref());
    }
}

cr_status_t out_of_memory(const char* fn) {
    ErrorA(CR_STATUS_NOMEM, "%s: out of memory", fn);
    return CR_STATUS_NOMEM;
}

}  // namespace

// ---- rows ----

void decode_row(sqlitedb::statement_ref stmt, app_catalog_item& item) {
    for (int c = 0; c < catalog_crc_column; ++c) {
        const catalog_column& column = catalog_columns[c];
        if (!column.checked) continue;
        const catalog_field& f = catalog_fields[column.field];
        if (!f.is_text()) {
            f.set_number(item, f.kind == field_kind::u32 || f.kind == field_kind::role
                                   ? stmt.column_int(c)
                                   : stmt.column_int64(c));
            continue;
        }
        // The schema allows NULL; rows written here never hold one. NULL
        // reads as the empty string. assign keeps the string's capacity, so
        // an item decoded into again and again stops allocating.
        const std::string_view text = stmt.column_text(c);
        std::string& out = item.*f.text;
        if (text.empty()) {
            out.clear();
        } else {
            out.assign(text.data(), text.size());
        }
    }
}

// ---- the store itself ----

void catalog_store::set_busy_timeout_ms(int ms) {
    sqlitedb::connection::set_default_busy_timeout_ms(ms);
}

int catalog_store::busy_timeout_ms() { return sqlitedb::connection::default_busy_timeout_ms(); }

void catalog_store::set_journal_mode_switch(bool on) {
    journal_mode_switch_.store(on, std::memory_order_relaxed);
}

bool catalog_store::journal_mode_switch() {
    return journal_mode_switch_.load(std::memory_order_relaxed);
}

cr_status_t catalog_store::map_status(int rc) {
    return sqlitedb::sqlite_to_crstatus(rc, sqlitedb::cantopen_rule::io_error);
}

catalog_store::catalog_store(const std::string& file)
    : db_(sqlitedb::cantopen_rule::io_error), file_(file) {}

catalog_store::~catalog_store() {
    const int rc = db_.close(close_retries, [this](unsigned long busy) {
        WarningA(CR_STATUS_BUSY, "%s: %lu busy when close app db %s", "close_sqlite3_db", busy,
                 file_.c_str());
    });
    if (rc != SQLITE_OK && rc != SQLITE_BUSY) {
        ErrorA(map_status(rc), "%s: failed to close db %s (%d, %s)", "close_sqlite3_db",
               file_.c_str(), rc, sqlitedb::errstr(rc));
    }
}

std::unique_ptr<catalog_store> catalog_store::adopt(sqlite3* db, const std::string& file) {
    if (db == nullptr) return nullptr;
    std::unique_ptr<catalog_store> store(new catalog_store(file));
    store->db_.adopt(db);
    return store;
}

cr_status_t catalog_store::open(const std::string& file, std::unique_ptr<catalog_store>* out) {
    out->reset();
    std::unique_ptr<catalog_store> store;
    try {
        store.reset(new catalog_store(file));
    } catch (const std::bad_alloc&) {
        return out_of_memory("open_db");
    }
    sqlitedb::connection& db = store->db_;
    // Read-write without create: a missing database is an error here, never
    // an empty new file.
    const cr_status_t status = db.open(file, sqlitedb::open_mode::existing);
    const int rc = db.code();
    if (!db.is_open()) {
        ErrorA(status, "%s: could not open db %s,(%d, %s)", "open_db", file.c_str(), rc,
               sqlitedb::errstr(rc));
        return status;
    }
    if (status != CR_STATUS_OK) {
        // Plain result codes still map to the same statuses; go on.
        ErrorA(status, "%s: Failed to set extended result code for (%d, %s)", "open_db", rc,
               file.c_str());
    }
    restore_journal_mode(db, file);
    *out = std::move(store);
    return CR_STATUS_OK;
}

cr_status_t catalog_store::create(const std::string& file) {
    // Primary result codes, as the creation's log lines have always carried.
    sqlitedb::connection db(sqlitedb::cantopen_rule::io_error);
    const cr_status_t status =
        db.open(file, sqlitedb::open_mode::create, sqlitedb::result_codes::primary);
    if (status != CR_STATUS_OK) {
        const int rc = db.code();
        ErrorA(status, "%s: could not open db %s, (%d, %s)", "create_db", file.c_str(), rc,
               sqlitedb::errstr(rc));
        return status;
    }
    // A file left behind by a failed statement stays as it is: it is neither
    // deleted nor repaired here.
    return create_schema("create_db", db, file);
}

bool catalog_store::has_moved() const { return db_.has_moved(); }

bool catalog_store::holds_no_table() const { return db_.holds_no_schema(); }

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
    if (status != CR_STATUS_OK) db_.exec("ROLLBACK TRANSACTION;");
    return status;
}

bool catalog_store::run_pragma(const std::string& sql, const std::string& expect,
                               std::string* result) {
    __TraceA("%s: Run \"%s\" on SQLite datase, expect result: %s", "run_pragma", sql.c_str(),
             expect.c_str());
    return db_.value_matches(sql.c_str(), expect, result);
}

// ---- whole-table checks on any connection ----

cr_status_t count_catalog_rows(sqlitedb::connection& db, const std::string& name, uint64_t* rows) {
    *rows = 0;
    return step_all(db, name, "count_catalog_rows", "SELECT count(*) FROM catalog;",
                    [rows](sqlitedb::statement_ref stmt) {
                        *rows = static_cast<uint64_t>(stmt.column_int64(0));
                    });
}

cr_status_t check_catalog_rows(sqlitedb::connection& db, const std::string& name, uint64_t* rows,
                               std::vector<std::string>* bad_items) {
    const char* const fn = "check_catalog_rows";
    *rows = 0;
    bad_items->clear();
    try {
        app_catalog_item item;
        return step_all(db, name, fn, "SELECT * FROM catalog;", [&](sqlitedb::statement_ref stmt) {
            ++*rows;
            decode_row(stmt, item);
            if (stmt.column_count() != catalog_column_count ||
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
