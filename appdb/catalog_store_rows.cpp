// catalog_store: the row operations, one attempt each.
#include <new>

#include "appdb/authentication_application.h"
#include "appdb/catalog_store_internal.h"
#include "appdb/catalog_table.h"
#include "dct/log.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace appdb {

namespace {

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
           sqlite3_errstr(rc));
    return status;
}

cr_status_t bind_failure(const char* fn, const std::string& name, const std::string& sql,
                         const std::string& key, int rc) {
    const cr_status_t status = catalog_store::map_status(rc);
    ErrorA(status, "%s: DB[%s] failed to bind [%s] %s (%d, %s).", fn, name.c_str(), sql.c_str(),
           key.c_str(), rc, sqlite3_errstr(rc));
    return status;
}

// Binds every column of `item` with checksum `crc` to the prepared insert,
// walking the column table. SQLite's code of the first failing bind, or 0.
int bind_row(sqlite3_stmt* stmt, const app_catalog_item& item, uint32_t crc) {
    for (int c = 0; c < catalog_column_count; ++c) {
        const catalog_column& column = catalog_columns[c];
        int rc;
        if (column.field < 0) {
            rc = sqlite3_bind_int(stmt, c + 1, static_cast<int>(crc));
        } else {
            const catalog_field& f = catalog_fields[column.field];
            if (f.is_text()) {
                // Both the key and the file name column point into the
                // caller's item, which outlives the statement's use.
                rc = bind_text(stmt, c + 1, item.*f.text);
            } else if (f.kind == field_kind::u32 || f.kind == field_kind::role) {
                rc = sqlite3_bind_int(stmt, c + 1, static_cast<int>(f.bound_number(item)));
            } else {
                rc = sqlite3_bind_int64(stmt, c + 1, f.bound_number(item));
            }
        }
        if (rc != SQLITE_OK) return rc;
    }
    return SQLITE_OK;
}

// What a removal by one key column needs.
struct removal_plan {
    const char* statement;    // the delete of every row of the key
    const char* key_column;   // in the journal text
    app_query_type selector;  // the exact-value SELECT of the same rows
};

const removal_plan& plan_of(removal_key key) {
    static const removal_plan by_name = {catalog_delete_by_name_sql, "name", APP_QUERY_NAME};
    static const removal_plan by_backup_id = {catalog_delete_by_backup_id_sql, "backupid",
                                              APP_QUERY_BACKUP_ID};
    return key == removal_key::file_name ? by_name : by_backup_id;
}

// Runs one transaction statement; a failure is logged (a busy one as a
// warning, for the retry above) and returned mapped.
cr_status_t transaction_statement(const char* fn, sqlitedb::connection& db, const std::string& name,
                                  const char* sql) {
    if (db.exec(sql) == CR_STATUS_OK) return CR_STATUS_OK;
    return step_failure(fn, db, name, "%s: DB[%s] failed to step %s (%d, %s).", sql, db.code());
}

}  // namespace

cr_status_t catalog_store::insert(const app_catalog_item& item, std::string& sql) {
    const char* const fn = "try_do_db_insert";
    const char* const insert_sql = catalog_insert_sql();
    sqlitedb::statement once;
    sqlite3_stmt* stmt = db_.kept(insert_sql, &once);
    int rc = db_.code();
    if (stmt == nullptr && holds_no_table()) {
        // A file left without its table by a failed creation: it holds no
        // rows, so it is completed and the insert goes on.
        bool completed = false;
        const cr_status_t status = complete_tableless(completed);
        if (status != CR_STATUS_OK) return status;
        stmt = db_.kept(insert_sql, &once);
        rc = db_.code();
    }
    if (stmt == nullptr) return prepare_failure(fn, file_, insert_sql, rc);
    sqlitedb::statement_use use(stmt);
    const uint32_t crc = catalog_row_crc(item);
    rc = bind_row(stmt, item, crc);
    if (rc != SQLITE_OK) {
        const cr_status_t status = map_status(rc);
        ErrorA(status, "%s: %s failed to update app catalog, version %d backup_id %s file_name %s (%d, %s).",
               fn, file_.c_str(), static_cast<int>(item.version), item.backup_id.c_str(),
               item.file_name.c_str(), rc, sqlite3_errstr(rc));
        return status;
    }
    // The journal's text carries every number as the value bound above, so
    // a replay of it stores the very row the statement stores.
    sql.clear();
    append_insert_literal(sql, item, crc);
    rc = sqlite3_step(stmt);
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
                                      const std::function<cr_status_t(sqlite3_stmt*)>& bind) {
    const char* const fn = "try_do_db_query";
    sqlitedb::statement once;
    sqlite3_stmt* stmt = db_.kept(sql, &once);
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
        rc = sqlite3_step(stmt);
        if (rc == SQLITE_DONE) break;
        if (rc != SQLITE_ROW) {
            return step_failure(fn, db_, file_, "%s: DB[%s] failed to step [%s] (%d, %s).", sql, rc);
        }
        __TraceA("%s: query item number %lld", fn, static_cast<long long>(taken));
        const int columns = sqlite3_column_count(stmt);
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
    return run_select(sql, query.client, query.policy, sink, [&](sqlite3_stmt* stmt) {
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
                rc = bind_text(stmt, 1, key);
                if (rc != SQLITE_OK) return bind_failure(fn, file_, sql, key, rc);
                return CR_STATUS_OK;
            }
            case APP_QUERY_TIME_RANGE:
                __TraceA("%s: query by time start %ld stop %ld, sql %s", fn,
                         static_cast<long>(query.start_time), static_cast<long>(query.stop_time),
                         sql.c_str());
                // The range is bound as 32-bit integers, as it always has been:
                // larger bounds are cut to their low 32 bits.
                rc = sqlite3_bind_int(stmt, 1, static_cast<int>(query.start_time));
                if (rc == SQLITE_OK) rc = sqlite3_bind_int(stmt, 2, static_cast<int>(query.stop_time));
                if (rc != SQLITE_OK) {
                    const cr_status_t status = map_status(rc);
                    ErrorA(status, "%s: DB[%s] failed to bind [%s] %ld %ld (%d, %s).", fn,
                           file_.c_str(), sql.c_str(), static_cast<long>(query.start_time),
                           static_cast<long>(query.stop_time), rc, sqlite3_errstr(rc));
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
    return run_select(sql, client, policy, sink, [&](sqlite3_stmt* stmt) {
        __TraceA("%s: query by filter, %u values, sql %s", fn,
                 static_cast<unsigned int>(statement.values.size()), sql.c_str());
        int index = 0;
        for (const catalog_sql_value& v : statement.values) {
            ++index;
            // The whole text is bound: a value is compared as given.
            const int rc = v.is_text ? bind_bytes(stmt, index, v.text)
                                     : sqlite3_bind_int64(stmt, index, v.number);
            if (rc != SQLITE_OK) {
                return bind_failure(fn, file_, sql, v.is_text ? v.text : std::to_string(v.number),
                                    rc);
            }
        }
        return CR_STATUS_OK;
    });
}

cr_status_t catalog_store::remove(const char* fn, removal_key key, const std::string& key_value,
                                  std::string& sql, removal_check* check) {
    const removal_plan& plan = plan_of(key);
    sql.clear();
    // Runs the plan's own delete of every row of the key; its literal text
    // goes to `sql`.
    auto delete_all = [&]() -> cr_status_t {
        sqlitedb::statement once;
        sqlite3_stmt* stmt = db_.kept(plan.statement, &once);
        int rc = db_.code();
        if (rc != SQLITE_OK) {
            if (holds_no_table()) return CR_STATUS_OK;  // no table, no rows
            return prepare_failure(fn, file_, plan.statement, rc);
        }
        sqlitedb::statement_use use(stmt);
        rc = bind_text(stmt, 1, key_value);
        if (rc != SQLITE_OK) return bind_failure(fn, file_, plan.statement, key_value, rc);
        if (!sqlitedb::format_sql(sql, catalog_delete_literal_format, plan.key_column,
                                  key_value.c_str())) {
            throw std::bad_alloc();
        }
        rc = sqlite3_step(stmt);
        if (rc == SQLITE_DONE) return CR_STATUS_OK;
        return step_failure(fn, db_, file_, "%s: DB[%s] failed to step %s (%d, %s).", sql, rc);
    };
    if (check == nullptr) {
        const cr_status_t status = delete_all();
        if (status != CR_STATUS_OK) sql.clear();
        return status;
    }

    // The checked removal, inside one immediate transaction: selects the rows
    // the plan's delete would remove, keeps those the caller may not remove,
    // and removes the others. When every selected row may go, the plan's own
    // delete runs and is journalled as it always was; otherwise each
    // removable row is deleted by its name and the journal gets one statement
    // naming exactly those rows.
    check->matched = 0;
    check->removed = 0;
    check->kept_owner.clear();
    // Inside a transaction of the caller's (a group of changes committed
    // together) the removal is a savepoint of it.
    const bool nested = db_.in_transaction();
    cr_status_t status = transaction_statement(
        fn, db_, file_, nested ? "SAVEPOINT catalog_removal;" : "BEGIN IMMEDIATE TRANSACTION;");
    if (status != CR_STATUS_OK) return status;
    // Rolls back on every way out but the commit.
    struct rollback_guard {
        sqlitedb::connection& db;
        bool nested;
        bool armed = true;
        ~rollback_guard() {
            if (armed) {
                db.exec(nested ? "ROLLBACK TO catalog_removal; RELEASE catalog_removal;"
                               : "ROLLBACK TRANSACTION;");
            }
        }
    } rollback{db_, nested};

    if (holds_no_table()) return CR_STATUS_OK;  // no table, no rows
    app_query selector;
    selector.type = plan.selector;
    std::string select_sql;
    selector.query_sql(select_sql);
    std::vector<std::string> removable;
    {
        sqlitedb::statement once;
        sqlite3_stmt* select = db_.kept(select_sql, &once);
        int rc = db_.code();
        if (rc != SQLITE_OK) return prepare_failure(fn, file_, select_sql.c_str(), rc);
        sqlitedb::statement_use use(select);
        rc = bind_bytes(select, 1, key_value);
        if (rc != SQLITE_OK) return bind_failure(fn, file_, select_sql, key_value, rc);
        authentication_application& rule = auth_app_factory::get_instance();
        app_catalog_item row;
        for (;;) {
            rc = sqlite3_step(select);
            if (rc == SQLITE_DONE) break;
            if (rc != SQLITE_ROW) {
                return step_failure(fn, db_, file_, "%s: DB[%s] failed to step [%s] (%d, %s).",
                                    select_sql, rc);
            }
            decode_row(select, row);
            if (stored_crc(select) != catalog_row_crc(row)) {
                // The owner of a damaged row cannot be trusted: the database
                // is reported corrupt, as a query of it would be.
                ErrorA(CR_STATUS_NONE, "%s: crc mismatch for app cat item %s", fn,
                       row.to_string().c_str());
                return CR_STATUS_CORRUPT;
            }
            ++check->matched;
            if (rule.authenticate(check->user, check->role, &row, AUTH_AC_REMOVE, false) ==
                CR_STATUS_OK) {
                removable.push_back(row.file_name);
            } else if (check->kept_owner.empty()) {
                check->kept_owner = row.owner;
            }
        }
    }

    // Nothing to remove: the transaction changed nothing.
    if (removable.empty()) return CR_STATUS_OK;
    if (removable.size() == check->matched) {
        status = delete_all();
        if (status != CR_STATUS_OK) {
            sql.clear();
            return status;
        }
    } else {
        sqlitedb::statement once;
        sqlite3_stmt* stmt = db_.kept(catalog_delete_by_name_sql, &once);
        int rc = db_.code();
        if (rc != SQLITE_OK) return prepare_failure(fn, file_, catalog_delete_by_name_sql, rc);
        std::string names;
        for (const std::string& file_name : removable) {
            sqlitedb::statement_use use(stmt);
            rc = bind_bytes(stmt, 1, file_name);
            if (rc != SQLITE_OK) {
                return bind_failure(fn, file_, catalog_delete_by_name_sql, file_name, rc);
            }
            rc = sqlite3_step(stmt);
            if (rc != SQLITE_DONE) {
                return step_failure(fn, db_, file_, "%s: DB[%s] failed to step %s (%d, %s).",
                                    file_name, rc);
            }
            if (!names.empty()) names += ", ";
            append_sql_quoted(names, file_name);
        }
        sql = catalog_delete_names_literal_prefix + names + ")";
    }
    status = transaction_statement(fn, db_, file_,
                                   nested ? "RELEASE catalog_removal;" : "COMMIT TRANSACTION;");
    if (status != CR_STATUS_OK) {
        sql.clear();
        return status;
    }
    rollback.armed = false;
    check->removed = static_cast<unsigned int>(removable.size());
    return CR_STATUS_OK;
}

}  // namespace appdb
