// catalog_store::remove: the removal of every row of one key, checked
// against the access rule row by row when the caller asks for it.

#include <string>
#include <vector>

#include "appdb/authentication_application.h"
#include "appdb/catalog_store_internal.h"
#include "appdb/catalog_table.h"
#include "dct/log.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace appdb {

namespace {

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
