// catalog_store: the row operations on one open database, one attempt each
// (the application's retries around them are in catalog_application_rows.cpp,
// the removal in catalog_store_removal.cpp).

#include "appdb/authentication_application.h"
#include "appdb/catalog_store_internal.h"
#include "appdb/catalog_table.h"
#include "dct/log.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace appdb {

// Logs a failed step (a busy one as a warning, for the caller's retry) and
// returns its status.
cr_status_t step_failure(const char* fn, const sqlitedb::connection& db, const std::string& name,
                         const char* format_what, const std::string& what, int rc) {
    const cr_status_t status = catalog_store::map_status(rc);
    if (status == CR_STATUS_BUSY) {
        WarningA(status, format_what, fn, name.c_str(), what.c_str(), rc, db.errmsg());
    } else {
        ErrorA(status, format_what, fn, name.c_str(), what.c_str(), rc, db.errmsg());
    }
    return status;
}

cr_status_t prepare_failure(const char* fn, const std::string& name, const char* sql, int rc) {
    const cr_status_t status = catalog_store::map_status(rc);
    ErrorA(status, "%s: DB[%s] failed to prepare [%s] (%d, %s).", fn, name.c_str(), sql, rc,
           sqlitedb::errstr(rc));
    return status;
}

cr_status_t bind_failure(const char* fn, const std::string& name, const std::string& sql,
                         const std::string& key, int rc) {
    const cr_status_t status = catalog_store::map_status(rc);
    ErrorA(status, "%s: DB[%s] failed to bind [%s] %s (%d, %s).", fn, name.c_str(), sql.c_str(),
           key.c_str(), rc, sqlitedb::errstr(rc));
    return status;
}

namespace {

// Binds every column of `item` with checksum `crc` to the prepared insert,
// walking the column table. SQLite's code of the first failing bind, or 0.
int bind_row(sqlitedb::statement_ref stmt, const app_catalog_item& item, uint32_t crc) {
    for (int c = 0; c < catalog_column_count; ++c) {
        const catalog_column& column = catalog_columns[c];
        int rc;
        if (column.field < 0) {
            rc = stmt.bind_int(c + 1, static_cast<int>(crc));
        } else {
            const catalog_field& f = catalog_fields[column.field];
            if (f.is_text()) {
                // Both the key and the file name column point into the
                // caller's item, which outlives the statement's use.
                rc = stmt.bind_text(c + 1, item.*f.text);
            } else if (f.kind == field_kind::u32 || f.kind == field_kind::role) {
                rc = stmt.bind_int(c + 1, static_cast<int>(f.bound_number(item)));
            } else {
                rc = stmt.bind_int64(c + 1, f.bound_number(item));
            }
        }
        if (rc != SQLITE_OK) return rc;
    }
    return SQLITE_OK;
}


}  // namespace

cr_status_t catalog_store::insert(const app_catalog_item& item, std::string& sql) {
    const char* const fn = "try_do_db_insert";
    const char* const insert_sql = catalog_insert_sql();
    sqlitedb::statement once;
    sqlitedb::statement_ref stmt = db_.kept(insert_sql, &once);
    int rc = db_.code();
    if (!stmt && holds_no_table()) {
        // A file left without its table by a failed creation: it holds no
        // rows, so it is completed and the insert goes on.
        bool completed = false;
        const cr_status_t status = complete_tableless(completed);
        if (status != CR_STATUS_OK) return status;
        stmt = db_.kept(insert_sql, &once);
        rc = db_.code();
    }
    if (!stmt) return prepare_failure(fn, file_, insert_sql, rc);
    sqlitedb::statement_use use(stmt);
    const uint32_t crc = catalog_row_crc(item);
    rc = bind_row(stmt, item, crc);
    if (rc != SQLITE_OK) {
        const cr_status_t status = map_status(rc);
        ErrorA(status, "%s: %s failed to update app catalog, version %d backup_id %s file_name %s (%d, %s).",
               fn, file_.c_str(), static_cast<int>(item.version), item.backup_id.c_str(),
               item.file_name.c_str(), rc, sqlitedb::errstr(rc));
        return status;
    }
    // The journal's text carries every number as the value bound above, so
    // a replay of it stores the very row the statement stores.
    sql.clear();
    append_insert_literal(sql, item, crc);
    rc = stmt.step();
    if (rc == SQLITE_DONE) {
        __TraceA("%s: insert finish for backupid %s", fn, item.backup_id.c_str());
        return CR_STATUS_OK;
    }
    const cr_status_t status = map_status(rc);
    if (status == CR_STATUS_BUSY) {
        WarningA(status, "%s: %s failed to step on (%d, %s).", fn, file_.c_str(), rc,
                 db_.errmsg());
    } else {
        ErrorA(status, "%s: %s failed to step on (%d, %s).", fn, file_.c_str(), rc,
               db_.errmsg());
    }
    return status;
}

cr_status_t catalog_store::run_select(const std::string& sql, const std::string& client,
                                      const std::string& policy, catalog_item_sink& sink,
                                      const std::function<cr_status_t(sqlitedb::statement_ref)>& bind) {
    const char* const fn = "try_do_db_query";
    sqlitedb::statement once;
    sqlitedb::statement_ref stmt = db_.kept(sql, &once);
    int rc = db_.code();
    if (rc != SQLITE_OK) {
        if (holds_no_table()) {
            // A file without its table holds no rows; a query does not
            // write, so it is left for the next change to complete.
            __TraceA("%s: DB[%s] holds no table, no rows", fn, file_.c_str());
            return CR_STATUS_OK;
        }
        return prepare_failure(fn, file_, sql.c_str(), rc);
    }
    // A text without a statement prepares to none; binding to it fails.
    sqlitedb::statement_use use(stmt);
    const cr_status_t bound = bind(stmt);
    if (bound != CR_STATUS_OK) return bound;

    // One item is decoded into again and again: its strings keep their
    // capacity from row to row unless the sink takes them.
    app_catalog_item item;
    unsigned long taken = 0;
    for (;;) {
        rc = stmt.step();
        if (rc == SQLITE_DONE) break;
        if (rc != SQLITE_ROW) {
            return step_failure(fn, db_, file_, "%s: DB[%s] failed to step [%s] (%d, %s).", sql, rc);
        }
        __TraceA("%s: query item number %lld", fn, static_cast<long long>(taken));
        const int columns = stmt.column_count();
        if (columns != catalog_column_count) {
            ErrorA(CR_STATUS_FAILED, "%s: DB[%s] return wrong row counts %d.", fn, file_.c_str(),
                   columns);
            return CR_STATUS_FAILED;
        }
        decode_row(stmt, item);
        if (stored_crc(stmt) != catalog_row_crc(item)) {
            // One bad row makes the whole database suspect: report it as
            // corrupt so that a protected catalog recovers it.
            ErrorA(CR_STATUS_NONE, "%s: crc mismatch for app cat item %s", fn,
                   item.to_string().c_str());
            return CR_STATUS_CORRUPT;
        }
        item.client = client;
        item.policy = policy;
        const cr_status_t status = sink.take(item);
        if (status != CR_STATUS_OK) return status;
        ++taken;
    }
    __TraceA("%s: search done, find count %lu", fn, taken);
    return CR_STATUS_OK;
}

cr_status_t catalog_store::query(const app_query& query, const std::string& sql,
                                 catalog_item_sink& sink) {
    const char* const fn = "try_do_db_query";
    return run_select(sql, query.client, query.policy, sink, [&](sqlitedb::statement_ref stmt) {
        int rc = SQLITE_OK;
        switch (query.type) {
            case APP_QUERY_NAME:
            case APP_QUERY_BACKUP_ID: {
                const bool by_name = query.type == APP_QUERY_NAME;
                const std::string& key = by_name ? query.file_name : query.backup_id;
                if (by_name) {
                    __TraceA("%s: query by name %s, sql %s", fn, key.c_str(), sql.c_str());
                } else {
                    __TraceA("%s: query by backupid %s, sql %s", fn, key.c_str(), sql.c_str());
                }
                rc = stmt.bind_text(1, key);
                if (rc != SQLITE_OK) return bind_failure(fn, file_, sql, key, rc);
                return CR_STATUS_OK;
            }
            case APP_QUERY_TIME_RANGE:
                __TraceA("%s: query by time start %ld stop %ld, sql %s", fn,
                         static_cast<long>(query.start_time), static_cast<long>(query.stop_time),
                         sql.c_str());
                // The range is bound as 32-bit integers, as it always has been:
                // larger bounds are cut to their low 32 bits.
                rc = stmt.bind_int(1, static_cast<int>(query.start_time));
                if (rc == SQLITE_OK) rc = stmt.bind_int(2, static_cast<int>(query.stop_time));
                if (rc != SQLITE_OK) {
                    const cr_status_t status = map_status(rc);
                    ErrorA(status, "%s: DB[%s] failed to bind [%s] %ld %ld (%d, %s).", fn,
                           file_.c_str(), sql.c_str(), static_cast<long>(query.start_time),
                           static_cast<long>(query.stop_time), rc, sqlitedb::errstr(rc));
                    return status;
                }
                return CR_STATUS_OK;
            default:
                ErrorA(CR_STATUS_FAILED, "%s: unsupported app query type %u", fn, query.type);
                return CR_STATUS_FAILED;
        }
    });
}

cr_status_t catalog_store::query(const catalog_filter_statement& statement,
                                 const std::string& client, const std::string& policy,
                                 catalog_item_sink& sink) {
    const char* const fn = "try_do_db_query";
    const std::string& sql = statement.sql;
    return run_select(sql, client, policy, sink, [&](sqlitedb::statement_ref stmt) {
        __TraceA("%s: query by filter, %u values, sql %s", fn,
                 static_cast<unsigned int>(statement.values.size()), sql.c_str());
        int index = 0;
        for (const catalog_sql_value& v : statement.values) {
            ++index;
            // The whole text is bound: a value is compared as given.
            const int rc = v.is_text ? stmt.bind_bytes(index, v.text) : stmt.bind_int64(index, v.number);
            if (rc != SQLITE_OK) {
                return bind_failure(fn, file_, sql, v.is_text ? v.text : std::to_string(v.number),
                                    rc);
            }
        }
        return CR_STATUS_OK;
    });
}


}  // namespace appdb
