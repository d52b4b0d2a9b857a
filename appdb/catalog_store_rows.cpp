// catalog_store: the row operations on one open database, one attempt each
// (the application's retries around them are in catalog_application_rows.cpp).

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

// Runs the plan's own delete of every row of the key; its literal text goes
// to `sql`. A file without its table has no rows to delete.
cr_status_t delete_all(const char* fn, sqlitedb::connection& db, const std::string& file,
                       const removal_plan& plan, const std::string& key_value, std::string& sql) {
    sqlitedb::statement once;
    sqlitedb::statement_ref stmt = db.kept(plan.statement, &once);
    int rc = db.code();
    if (rc != SQLITE_OK) {
        if (db.holds_no_schema()) return CR_STATUS_OK;  // no table, no rows
        return prepare_failure(fn, file, plan.statement, rc);
    }
    sqlitedb::statement_use use(stmt);
    rc = stmt.bind_text(1, key_value);
    if (rc != SQLITE_OK) return bind_failure(fn, file, plan.statement, key_value, rc);
    if (!sqlitedb::format_sql(sql, catalog_delete_literal_format, plan.key_column, key_value.c_str())) {
        ErrorA(CR_STATUS_NOMEM, "%s: out of memory", fn);
        return CR_STATUS_NOMEM;
    }
    rc = stmt.step();
    if (rc == SQLITE_DONE) return CR_STATUS_OK;
    return step_failure(fn, db, file, "%s: DB[%s] failed to step %s (%d, %s).", sql, rc);
}

// Selects the rows the plan's delete would remove, counting them into
// `check` and putting the file names of those the caller may remove into
// `removable`; the owner of the first row kept goes to check->kept_owner. A
// row whose checksum does not match makes the database corrupt (67).
cr_status_t select_removable(const char* fn, sqlitedb::connection& db, const std::string& file,
                             const removal_plan& plan, const std::string& key_value, removal_check* check,
                             std::vector<std::string>* removable) {
    app_query selector;
    selector.type = plan.selector;
    std::string select_sql;
    selector.query_sql(select_sql);
    sqlitedb::statement once;
    sqlitedb::statement_ref select = db.kept(select_sql, &once);
    int rc = db.code();
    if (rc != SQLITE_OK) return prepare_failure(fn, file, select_sql.c_str(), rc);
    sqlitedb::statement_use use(select);
    rc = select.bind_bytes(1, key_value);
    if (rc != SQLITE_OK) return bind_failure(fn, file, select_sql, key_value, rc);
    authentication_application& rule = auth_app_factory::get_instance();
    app_catalog_item row;
    for (;;) {
        rc = select.step();
        if (rc == SQLITE_DONE) return CR_STATUS_OK;
        if (rc != SQLITE_ROW) {
            return step_failure(fn, db, file, "%s: DB[%s] failed to step [%s] (%d, %s).", select_sql, rc);
        }
        decode_row(select, row);
        if (stored_crc(select) != catalog_row_crc(row)) {
            // The owner of a damaged row cannot be trusted: the database is
            // reported corrupt, as a query of it would be.
            ErrorA(CR_STATUS_NONE, "%s: crc mismatch for app cat item %s", fn, row.to_string().c_str());
            return CR_STATUS_CORRUPT;
        }
        ++check->matched;
        if (rule.authenticate(check->user, check->role, &row, AUTH_AC_REMOVE, false) == CR_STATUS_OK) {
            removable->push_back(row.file_name);
        } else if (check->kept_owner.empty()) {
            check->kept_owner = row.owner;
        }
    }
}

// Deletes each row named in `names` by its file name; `sql` gets the one
// journal statement naming exactly those rows.
cr_status_t delete_names(const char* fn, sqlitedb::connection& db, const std::string& file,
                         const std::vector<std::string>& names, std::string& sql) {
    sqlitedb::statement once;
    sqlitedb::statement_ref stmt = db.kept(catalog_delete_by_name_sql, &once);
    int rc = db.code();
    if (rc != SQLITE_OK) return prepare_failure(fn, file, catalog_delete_by_name_sql, rc);
    std::string listed;
    for (const std::string& file_name : names) {
        sqlitedb::statement_use use(stmt);
        rc = stmt.bind_bytes(1, file_name);
        if (rc != SQLITE_OK) return bind_failure(fn, file, catalog_delete_by_name_sql, file_name, rc);
        rc = stmt.step();
        if (rc != SQLITE_DONE) {
            return step_failure(fn, db, file, "%s: DB[%s] failed to step %s (%d, %s).", file_name, rc);
        }
        if (!listed.empty()) listed += ", ";
        append_sql_quoted(listed, file_name);
    }
    sql = catalog_delete_names_literal_prefix + listed + ")";
    return CR_STATUS_OK;
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

cr_status_t catalog_store::remove(const char* fn, removal_key key, const std::string& key_value,
                                  std::string& sql, removal_check* check) {
    const removal_plan& plan = plan_of(key);
    sql.clear();
    if (check == nullptr) {
        const cr_status_t status = delete_all(fn, db_, file_, plan, key_value, sql);
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
    std::vector<std::string> removable;
    status = select_removable(fn, db_, file_, plan, key_value, check, &removable);
    if (status != CR_STATUS_OK) return status;

    // Nothing to remove: the transaction changed nothing.
    if (removable.empty()) return CR_STATUS_OK;
    status = removable.size() == check->matched ? delete_all(fn, db_, file_, plan, key_value, sql)
                                                : delete_names(fn, db_, file_, removable, sql);
    if (status == CR_STATUS_OK) {
        status = transaction_statement(fn, db_, file_, nested ? "RELEASE catalog_removal;" : "COMMIT TRANSACTION;");
    }
    if (status != CR_STATUS_OK) {
        sql.clear();
        return status;
    }
    rollback.armed = false;
    check->removed = static_cast<unsigned int>(removable.size());
    return CR_STATUS_OK;
}

}  // namespace appdb
