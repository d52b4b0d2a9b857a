// catalog_application_base: the row operations on the `catalog` table. Each
// try_do_db_* makes one attempt on a connection borrowed from the cache; each
// do_db_* repeats its attempt while the database is busy.
#include "appdb/catalog_application_base.h"

#include <exception>
#include <new>

#include "appdb/catalog_row_check.h"
#include "appdb/catalog_table.h"
#include "appdb/vector_item_sink.h"
#include "dct/log.h"
#include "dct/sleep.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace appdb {

namespace {

// Tries per row operation while the database is busy, one second apart.
constexpr unsigned int max_busy_tries = 60;

// Forwards to the caller's sink and notes whether the sink itself ended the
// query, so that its status is never read as the database's.
class stop_noting_sink : public catalog_item_sink {
public:
    explicit stop_noting_sink(catalog_item_sink& next) : next_(next) {}
    void restart() override {
        stopped_ = false;
        next_.restart();
    }
    cr_status_t take(app_catalog_item& item) override {
        const cr_status_t status = next_.take(item);
        stopped_ = status != CR_STATUS_OK;
        return status;
    }
    bool stopped() const { return stopped_; }

private:
    catalog_item_sink& next_;
    bool stopped_ = false;
};

// Logs an exception that escaped an attempt and returns its status.
cr_status_t exception_status(const char* function) {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        ErrorA(CR_STATUS_NOMEM, "%s: out of memory", function);
        return CR_STATUS_NOMEM;
    } catch (const sqlitedb::db_exception& e) {
        ErrorA(e.cr_status(), "%s: exception %s", function, e.what());
        return e.cr_status();
    } catch (const std::exception& e) {
        ErrorA(CR_STATUS_FAILED, "%s: exception %s", function, e.what());
        return CR_STATUS_FAILED;
    } catch (...) {
        ErrorA(CR_STATUS_FAILED, "%s: exception %s", function, "unknown");
        return CR_STATUS_FAILED;
    }
}

int bind_text(sqlite3_stmt* stmt, int index, const std::string& value) {
    // The item outlives the statement, so SQLite need not copy the text.
    return sqlite3_bind_text(stmt, index, value.c_str(), -1, SQLITE_STATIC);
}

std::string column_text(sqlite3_stmt* stmt, int index) {
    // The schema allows NULL; rows written here never hold one. NULL reads
    // as the empty string.
    const unsigned char* text = sqlite3_column_text(stmt, index);
    if (text == nullptr) return std::string();
    return std::string(reinterpret_cast<const char*>(text),
                       static_cast<size_t>(sqlite3_column_bytes(stmt, index)));
}

// Decodes one row in column order (column 2, name, repeats the file name).
void decode_row(sqlite3_stmt* stmt, app_catalog_item& item) {
    item.version = static_cast<uint32_t>(sqlite3_column_int(stmt, 0));
    item.file_name = column_text(stmt, 2);
    item.file_len = static_cast<uint64_t>(sqlite3_column_int64(stmt, 3));
    item.backup_id = column_text(stmt, 4);
    item.policy_type = static_cast<uint32_t>(sqlite3_column_int(stmt, 5));
    item.schedule_type = static_cast<uint32_t>(sqlite3_column_int(stmt, 6));
    item.frag_nums = static_cast<uint32_t>(sqlite3_column_int(stmt, 7));
    item.app_id = column_text(stmt, 8);
    item.data_object = column_text(stmt, 9);
    item.app_expire_time = sqlite3_column_int64(stmt, 10);
    item.orvo_expire_time = sqlite3_column_int64(stmt, 11);
    item.backup_start_time = sqlite3_column_int64(stmt, 12);
    item.backup_stop_time = sqlite3_column_int64(stmt, 13);
    item.owner = column_text(stmt, 14);
    item.owner_role = static_cast<uint32_t>(sqlite3_column_int(stmt, 15));
    item.description = column_text(stmt, 16);
    item.reserver0 = column_text(stmt, 17);
    item.reserver1 = column_text(stmt, 18);
    item.reserver2 = column_text(stmt, 19);
    item.reserver3 = column_text(stmt, 20);
    item.reserver4 = column_text(stmt, 21);
    item.reserver5 = column_text(stmt, 22);
    item.reserver6 = column_text(stmt, 23);
    item.reserver7 = column_text(stmt, 24);
    item.reserver8 = column_text(stmt, 25);
    item.reserver9 = column_text(stmt, 26);
}

}  // namespace

// ---- insert ----

int catalog_application_base::insert_row_app_table(sqlite3_stmt* stmt, const app_catalog_item& item,
                                                   std::string& sql) {
    const uint32_t crc = crc_value(item);
    int rc = SQLITE_OK;
    int index = 0;
    // Binds the next parameter while no bind has failed yet.
    auto next_int = [&](uint32_t v) {
        if (rc == SQLITE_OK) rc = sqlite3_bind_int(stmt, ++index, static_cast<int>(v));
    };
    auto next_int64 = [&](int64_t v) {
        if (rc == SQLITE_OK) rc = sqlite3_bind_int64(stmt, ++index, v);
    };
    auto next_text = [&](const std::string& v) {
        if (rc == SQLITE_OK) rc = bind_text(stmt, ++index, v);
    };
    next_int(item.version);
    // The key and the file name column carry the same value, by design. Text
    // is bound without a copy and read at step time, so both point into the
    // caller's item, which outlives the statement.
    next_text(item.file_name);
    next_text(item.file_name);
    next_int64(static_cast<int64_t>(item.file_len));
    next_text(item.backup_id);
    next_int(item.policy_type);
    next_int(item.schedule_type);
    next_int(item.frag_nums);
    next_text(item.app_id);
    next_text(item.data_object);
    next_int64(item.app_expire_time);
    next_int64(item.orvo_expire_time);
    next_int64(item.backup_start_time);
    next_int64(item.backup_stop_time);
    next_text(item.owner);
    next_int(item.owner_role);
    next_text(item.description);
    next_text(item.reserver0);
    next_text(item.reserver1);
    next_text(item.reserver2);
    next_text(item.reserver3);
    next_text(item.reserver4);
    next_text(item.reserver5);
    next_text(item.reserver6);
    next_text(item.reserver7);
    next_text(item.reserver8);
    next_text(item.reserver9);
    next_int(crc);
    if (rc != SQLITE_OK) {
        ErrorA(CR_STATUS_FAILED, "%s: version %d backup_id %s file_name %s failed to bind on (%d, %s).",
               "insert_row_app_table", static_cast<int>(item.version), item.backup_id.c_str(),
               item.file_name.c_str(), rc, sqlite3_errstr(rc));
        return rc;
    }
    // Each number goes into the text as the value bound above, so a replay of
    // the text stores the very row the statement stored.
    const bool formatted = sqlitedb::format_sql(
        sql, catalog_insert_literal_format, static_cast<int>(item.version),
        item.file_name.c_str(), item.file_name.c_str(), static_cast<long long>(item.file_len),
        item.backup_id.c_str(), static_cast<int>(item.policy_type),
        static_cast<int>(item.schedule_type), static_cast<int>(item.frag_nums),
        item.app_id.c_str(), item.data_object.c_str(),
        static_cast<long long>(item.app_expire_time),
        static_cast<long long>(item.orvo_expire_time),
        static_cast<long long>(item.backup_start_time),
        static_cast<long long>(item.backup_stop_time), item.owner.c_str(),
        static_cast<int>(item.owner_role), item.description.c_str(), item.reserver0.c_str(),
        item.reserver1.c_str(), item.reserver2.c_str(), item.reserver3.c_str(),
        item.reserver4.c_str(), item.reserver5.c_str(), item.reserver6.c_str(),
        item.reserver7.c_str(), item.reserver8.c_str(), item.reserver9.c_str(),
        static_cast<int>(crc));
    if (!formatted) {
        ErrorA(CR_STATUS_NOMEM, "%s: out of memory", "insert_row_app_table");
        return SQLITE_NOMEM;
    }
    return SQLITE_OK;
}

cr_status_t catalog_application_base::try_do_db_insert(const app_catalog_item& item,
                                                       std::string& sql) {
    const char* const fn = "try_do_db_insert";
    try {
        const std::string name = to_db_full_name(item.client, item.policy);
        appdb_value* value = nullptr;
        cr_status_t status = open_db_with_cached(item.client, item.policy, &value);
        if (status != CR_STATUS_OK) {
            ErrorA(status, "%s: failed to open db with cached, c %s, p %s", fn, item.client.c_str(),
                   item.policy.c_str());
            return status;
        }
        Auto_Return_DB db_guard(cache.get(), to_db_full_path(item.client, item.policy), value);
        sqlite3_stmt* stmt = nullptr;
        int rc = sqlite3_prepare_v2(value->db, catalog_insert_sql, -1, &stmt, nullptr);
        bool completed = false;
        if (rc != SQLITE_OK && catalog_holds_no_table(value->db)) {
            // A file left without its table by a failed creation: it holds
            // no rows, so it is completed and the insert goes on.
            sqlite3_finalize(stmt);
            stmt = nullptr;
            status = complete_tableless_catalog(value->db, name, completed);
            if (status != CR_STATUS_OK) return status;
            rc = sqlite3_prepare_v2(value->db, catalog_insert_sql, -1, &stmt, nullptr);
        }
        if (rc != SQLITE_OK) {
            sqlite3_finalize(stmt);
            status = dberr_to_crstatus(rc);
            ErrorA(status, "%s: DB[%s] failed to prepare [%s] (%d, %s).", fn, name.c_str(),
                   catalog_insert_sql, rc, sqlite3_errstr(rc));
            return status;
        }
        auto_release<sqlite3_stmt> stmt_guard(stmt);
        rc = insert_row_app_table(stmt, item, sql);
        if (rc != SQLITE_OK) {
            status = dberr_to_crstatus(rc);
            ErrorA(status, "%s: %s failed to update app catalog (%d, %s).", fn, name.c_str(), rc,
                   sqlite3_errstr(rc));
            return status;
        }
        rc = sqlite3_step(stmt);
        if (rc == SQLITE_DONE) {
            __TraceA("%s: insert finish for backupid %s", fn, item.backup_id.c_str());
            return CR_STATUS_OK;
        }
        status = dberr_to_crstatus(rc);
        if (status == CR_STATUS_BUSY) {
            WarningA(status, "%s: %s failed to step on (%d, %s).", fn, name.c_str(), rc,
                     sqlite3_errmsg(value->db));
        } else {
            ErrorA(status, "%s: %s failed to step on (%d, %s).", fn, name.c_str(), rc,
                   sqlite3_errmsg(value->db));
        }
        return status;
    } catch (...) {
        return exception_status(fn);
    }
}

cr_status_t catalog_application_base::do_db_insert(const app_catalog_item& item, std::string& sql) {
    const char* const fn = "do_db_insert";
    try {
        const std::string name = to_db_full_name(item.client, item.policy);
        for (unsigned int busy = 0;;) {
            const cr_status_t status = try_do_db_insert(item, sql);
            if (status == CR_STATUS_OK) {
                __TraceA("%s: insert db success for %s", fn, item.file_name.c_str());
                return status;
            }
            if (status != CR_STATUS_BUSY) {
                ErrorA(status, "%s: failed to insert %s to db %s", fn, item.file_name.c_str(),
                       name.c_str());
                return status;
            }
            WarningA(status, "%s: %u busy when inserting %s", fn, busy, item.file_name.c_str());
            DctSleep(1);
            if (++busy >= max_busy_tries) return status;
        }
    } catch (...) {
        return exception_status(fn);
    }
}

// ---- query ----

cr_status_t catalog_application_base::try_do_db_query(const app_query& query,
                                                      std::vector<app_catalog_item>& items,
                                                      const std::string& sql) {
    vector_item_sink sink(items);
    return try_do_db_query(query, sink, sql);
}

cr_status_t catalog_application_base::try_do_db_query(const app_query& query,
                                                      catalog_item_sink& sink,
                                                      const std::string& sql_in) {
    const char* const fn = "try_do_db_query";
    try {
        if (!shadow_copy_exist(query.client, query.policy)) {
            InfoA(CR_STATUS_OK, "%s: no app.db shadow for %s %s", fn, query.client.c_str(),
                  query.policy.c_str());
            if (!db_existed(query.client, query.policy)) {
                InfoA(CR_STATUS_OK, "%s: no app db for %s %s", fn, query.client.c_str(),
                      query.policy.c_str());
                return CR_STATUS_OK;
            }
        }
        // A type without a statement prepares the empty text; it is refused
        // below, where the parameters are bound.
        std::string sql = sql_in;
        if (sql.empty()) query.query_sql(sql);
        const std::string name = to_db_full_name(query.client, query.policy);
        appdb_value* value = nullptr;
        cr_status_t status = open_db_with_cached(query.client, query.policy, &value);
        if (status != CR_STATUS_OK) {
            ErrorA(status, "%s: failed to open db file %s", fn, name.c_str());
            return status;
        }
        Auto_Return_DB db_guard(cache.get(), to_db_full_path(query.client, query.policy), value);
        sqlite3_stmt* stmt = nullptr;
        // The length handed over includes the terminator.
        int rc = sqlite3_prepare_v2(value->db, sql.c_str(), static_cast<int>(sql.size() + 1), &stmt,
                                    nullptr);
        if (rc != SQLITE_OK) {
            sqlite3_finalize(stmt);
            if (catalog_holds_no_table(value->db)) {
                // A file without its table holds no rows; a query does not
                // write, so it is left for the next change to complete.
                __TraceA("%s: DB[%s] holds no table, no rows", fn, name.c_str());
                return CR_STATUS_OK;
            }
            status = dberr_to_crstatus(rc);
            ErrorA(status, "%s: DB[%s] failed to prepare [%s] (%d, %s).", fn, name.c_str(),
                   sql.c_str(), rc, sqlite3_errstr(rc));
            return status;
        }
        auto_release<sqlite3_stmt> stmt_guard(stmt);
        app_catalog_item item;
        unsigned long taken = 0;

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
            if (rc != SQLITE_OK) {
                status = dberr_to_crstatus(rc);
                ErrorA(status, "%s: DB[%s] failed to bind [%s] %s (%d, %s).", fn, name.c_str(),
                       sql.c_str(), key.c_str(), rc, sqlite3_errstr(rc));
                return status;
            }
            break;
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
                status = dberr_to_crstatus(rc);
                ErrorA(status, "%s: DB[%s] failed to bind [%s] %ld %ld (%d, %s).", fn, name.c_str(),
                       sql.c_str(), static_cast<long>(query.start_time),
                       static_cast<long>(query.stop_time), rc, sqlite3_errstr(rc));
                return status;
            }
            break;
        default:
            ErrorA(CR_STATUS_FAILED, "%s: unsupported app query type %u", fn, query.type);
            return CR_STATUS_FAILED;
        }

        for (;;) {
            rc = sqlite3_step(stmt);
            if (rc == SQLITE_DONE) break;
            if (rc != SQLITE_ROW) {
                status = dberr_to_crstatus(rc);
                if (status == CR_STATUS_BUSY) {
                    WarningA(status, "%s: DB[%s] failed to step [%s] (%d, %s).", fn, name.c_str(),
                             sql.c_str(), rc, sqlite3_errmsg(value->db));
                } else {
                    ErrorA(status, "%s: DB[%s] failed to step [%s] (%d, %s).", fn, name.c_str(),
                           sql.c_str(), rc, sqlite3_errmsg(value->db));
                }
                return status;
            }
            __TraceA("%s: query item number %lld", fn, static_cast<long long>(taken));
            const int columns = sqlite3_column_count(stmt);
            if (columns != catalog_column_count) {
                ErrorA(CR_STATUS_FAILED, "%s: DB[%s] return wrong row counts %d.", fn, name.c_str(),
                       columns);
                return CR_STATUS_FAILED;
            }
            // One item is decoded into again and again: its strings keep their
            // capacity from row to row unless the sink takes them.
            decode_row(stmt, item);
            const uint32_t stored_crc =
                static_cast<uint32_t>(sqlite3_column_int(stmt, catalog_column_count - 1));
            if (stored_crc != crc_value(item)) {
                // One bad row makes the whole database suspect: report it as
                // corrupt so that a protected catalog recovers it.
                ErrorA(CR_STATUS_NONE, "%s: crc mismatch for app cat item %s", fn,
                       item.to_string().c_str());
                return CR_STATUS_CORRUPT;
            }
            item.client = query.client;
            item.policy = query.policy;
            status = sink.take(item);
            if (status != CR_STATUS_OK) return status;
            ++taken;
        }
        __TraceA("%s: search done, find count %lu", fn, static_cast<unsigned long>(taken));
        return CR_STATUS_OK;
    } catch (const std::bad_alloc&) {
        ErrorA(CR_STATUS_NOMEM, "%s: out of memory when do db query", fn);
        return CR_STATUS_NOMEM;
    } catch (...) {
        return exception_status(fn);
    }
}

cr_status_t catalog_application_base::do_db_query(const app_query& query,
                                                  std::vector<app_catalog_item>& items,
                                                  const std::string& sql) {
    vector_item_sink sink(items);
    return do_db_query(query, sink, sql);
}

cr_status_t catalog_application_base::do_db_query(const app_query& query, catalog_item_sink& sink,
                                                  const std::string& sql, bool* stopped_by_sink) {
    const char* const fn = "do_db_query";
    try {
        const std::string name = to_db_full_name(query.client, query.policy);
        stop_noting_sink noting(sink);
        for (unsigned int busy = 0;;) {
            // try_do_db_query hands on what it reads: every attempt starts
            // from an empty result, so a retried query never gives a record
            // twice.
            noting.restart();
            const cr_status_t status = try_do_db_query(query, noting, sql);
            if (stopped_by_sink != nullptr) *stopped_by_sink = noting.stopped();
            if (status == CR_STATUS_OK) return status;
            if (status != CR_STATUS_BUSY || noting.stopped()) {
                ErrorA(status, "%s: failed to query db %s", fn, name.c_str());
                return status;
            }
            WarningA(status, "%s: %u busy when query %s", fn, busy, name.c_str());
            DctSleep(1);
            if (++busy >= max_busy_tries) return status;
        }
    } catch (...) {
        return exception_status(fn);
    }
}

// ---- delete ----

int catalog_application_base::delete_row_app_table(sqlite3_stmt* stmt, const std::string& client,
                                                   const std::string& policy,
                                                   const std::string& key_name,
                                                   const std::string& key_value,
                                                   std::string& sql) {
    const int rc = bind_text(stmt, 1, key_value);
    if (rc != SQLITE_OK) {
        ErrorA(CR_STATUS_FAILED,
               "%s: failed to delete app row by c %s p %s key_v %s key_n %s error(%d, %s)",
               "delete_row_app_table", client.c_str(), policy.c_str(), key_value.c_str(),
               key_name.c_str(), rc, sqlite3_errstr(rc));
        return rc;
    }
    if (!sqlitedb::format_sql(sql, catalog_delete_literal_format, key_name.c_str(),
                              key_value.c_str())) {
        ErrorA(CR_STATUS_NOMEM, "%s: out of memory", "delete_row_app_table");
        return SQLITE_NOMEM;
    }
    return SQLITE_OK;
}

namespace {

// One delete attempt of a row operation; the two deletes differ only in the
// statement, the key column and whether a missing database is looked for.
struct delete_plan {
    const char* function;
    const char* statement;
    const char* key_name;
    bool skip_missing_db;
    app_query_type query_type;  // the exact-value SELECT of the same rows
};

// Runs one transaction statement; a failure is logged (a busy one as a
// warning, for the retry above) and returned mapped.
cr_status_t run_transaction_statement(const char* fn, sqlite3* db, const std::string& name,
                                      const char* sql) {
    const int rc = sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK) return CR_STATUS_OK;
    const cr_status_t status = catalog_application_base::dberr_to_crstatus(rc);
    if (status == CR_STATUS_BUSY) {
        WarningA(status, "%s: DB[%s] failed to step %s (%d, %s).", fn, name.c_str(), sql, rc,
                 sqlite3_errmsg(db));
    } else {
        ErrorA(status, "%s: DB[%s] failed to step %s (%d, %s).", fn, name.c_str(), sql, rc,
               sqlite3_errmsg(db));
    }
    return status;
}

// Steps a prepared statement to its end; the status of a failure, logged.
cr_status_t step_to_done(const char* fn, sqlite3* db, sqlite3_stmt* stmt, const std::string& name,
                         const std::string& what) {
    const int rc = sqlite3_step(stmt);
    if (rc == SQLITE_DONE) return CR_STATUS_OK;
    const cr_status_t status = catalog_application_base::dberr_to_crstatus(rc);
    if (status == CR_STATUS_BUSY) {
        WarningA(status, "%s: DB[%s] failed to step %s (%d, %s).", fn, name.c_str(), what.c_str(),
                 rc, sqlite3_errmsg(db));
    } else {
        ErrorA(status, "%s: DB[%s] failed to step %s (%d, %s).", fn, name.c_str(), what.c_str(), rc,
               sqlite3_errmsg(db));
    }
    return status;
}

// Prepares `sql`; the mapped status of a failure, logged.
cr_status_t prepare(const char* fn, sqlite3* db, const std::string& name, const char* sql,
                    sqlite3_stmt** stmt) {
    const int rc = sqlite3_prepare_v2(db, sql, -1, stmt, nullptr);
    if (rc == SQLITE_OK) return CR_STATUS_OK;
    sqlite3_finalize(*stmt);
    *stmt = nullptr;
    const cr_status_t status = catalog_application_base::dberr_to_crstatus(rc);
    ErrorA(status, "%s: DB[%s] failed to prepare [%s] (%d, %s).", fn, name.c_str(), sql, rc,
           sqlite3_errstr(rc));
    return status;
}

// The plan's own delete of every row of the key, as one prepared statement;
// its literal text goes to `sql`. DONE is success also when no row matched,
// and a file without a table has no rows to delete.
cr_status_t delete_by_key(catalog_application_base& self, const delete_plan& plan, sqlite3* db,
                          const std::string& name, const std::string& client,
                          const std::string& policy, const std::string& key_value,
                          std::string& sql) {
    const char* const fn = plan.function;
    sqlite3_stmt* stmt = nullptr;
    int rc = sqlite3_prepare_v2(db, plan.statement, -1, &stmt, nullptr);
    if (rc != SQLITE_OK) {
        sqlite3_finalize(stmt);
        if (catalog_holds_no_table(db)) return CR_STATUS_OK;
        const cr_status_t status = catalog_application_base::dberr_to_crstatus(rc);
        ErrorA(status, "%s: DB[%s] failed to prepare [%s] (%d, %s).", fn, name.c_str(),
               plan.statement, rc, sqlite3_errstr(rc));
        return status;
    }
    auto_release<sqlite3_stmt> stmt_guard(stmt);
    rc = self.delete_row_app_table(stmt, client, policy, plan.key_name, key_value, sql);
    if (rc != SQLITE_OK) {
        const cr_status_t status = catalog_application_base::dberr_to_crstatus(rc);
        ErrorA(status, "%s: DB[%s] failed to delete row %s (%d, %s).", fn, name.c_str(),
               key_value.c_str(), rc, sqlite3_errstr(rc));
        return status;
    }
    return step_to_done(fn, db, stmt, name, sql);
}

// The checked removal, inside one immediate transaction: selects the rows
// the plan's delete would remove, keeps those the caller may not remove, and
// removes the others. When every selected row may go, the plan's own delete
// runs and is journalled as it always was; otherwise each removable row is
// deleted by its name and the journal gets one statement naming exactly
// those rows. `sql` stays empty when nothing was removed.
cr_status_t checked_delete(catalog_application_base& self, const delete_plan& plan,
                           sqlite3* db, const std::string& name, const std::string& client,
                           const std::string& policy, const std::string& key_value,
                           removal_check& check, std::string& sql) {
    const char* const fn = plan.function;
    check.matched = 0;
    check.removed = 0;
    check.kept_owner.clear();
    sql.clear();
    cr_status_t status = run_transaction_statement(fn, db, name, "BEGIN IMMEDIATE TRANSACTION;");
    if (status != CR_STATUS_OK) return status;
    // Rolls back on every way out but the commit.
    struct rollback_guard {
        sqlite3* db;
        bool armed = true;
        ~rollback_guard() {
            if (armed) sqlite3_exec(db, "ROLLBACK TRANSACTION;", nullptr, nullptr, nullptr);
        }
    } rollback{db};

    app_query selector;
    selector.type = plan.query_type;
    std::string select_sql;
    selector.query_sql(select_sql);
    if (catalog_holds_no_table(db)) return CR_STATUS_OK;  // no table, no rows
    sqlite3_stmt* select = nullptr;
    status = prepare(fn, db, name, select_sql.c_str(), &select);
    if (status != CR_STATUS_OK) return status;
    auto_release<sqlite3_stmt> select_guard(select);
    int rc = sqlite3_bind_text(select, 1, key_value.data(), static_cast<int>(key_value.size()),
                               SQLITE_STATIC);
    if (rc != SQLITE_OK) {
        status = catalog_application_base::dberr_to_crstatus(rc);
        ErrorA(status, "%s: DB[%s] failed to bind [%s] %s (%d, %s).", fn, name.c_str(),
               select_sql.c_str(), key_value.c_str(), rc, sqlite3_errstr(rc));
        return status;
    }
    authentication_application& rule = auth_app_factory::get_instance();
    std::vector<std::string> removable;
    for (;;) {
        rc = sqlite3_step(select);
        if (rc == SQLITE_DONE) break;
        if (rc != SQLITE_ROW) {
            status = catalog_application_base::dberr_to_crstatus(rc);
            if (status == CR_STATUS_BUSY) {
                WarningA(status, "%s: DB[%s] failed to step [%s] (%d, %s).", fn, name.c_str(),
                         select_sql.c_str(), rc, sqlite3_errmsg(db));
            } else {
                ErrorA(status, "%s: DB[%s] failed to step [%s] (%d, %s).", fn, name.c_str(),
                       select_sql.c_str(), rc, sqlite3_errmsg(db));
            }
            return status;
        }
        app_catalog_item row;
        decode_row(select, row);
        if (static_cast<uint32_t>(sqlite3_column_int(select, catalog_column_count - 1)) !=
            catalog_application_base::crc_value(row)) {
            // The owner of a damaged row cannot be trusted: the database is
            // reported corrupt, as a query of it would be.
            ErrorA(CR_STATUS_NONE, "%s: crc mismatch for app cat item %s", fn,
                   row.to_string().c_str());
            return CR_STATUS_CORRUPT;
        }
        ++check.matched;
        if (rule.authenticate(check.user, check.role, &row, AUTH_AC_REMOVE, false) == CR_STATUS_OK) {
            removable.push_back(row.file_name);
        } else if (check.kept_owner.empty()) {
            check.kept_owner = row.owner;
        }
    }

    if (removable.empty()) {
        // Nothing to remove; the transaction changed nothing.
        return CR_STATUS_OK;
    }
    if (removable.size() == check.matched) {
        status = delete_by_key(self, plan, db, name, client, policy, key_value, sql);
        if (status != CR_STATUS_OK) {
            sql.clear();
            return status;
        }
    } else {
        sqlite3_stmt* stmt = nullptr;
        status = prepare(fn, db, name, catalog_delete_by_name_sql, &stmt);
        if (status != CR_STATUS_OK) return status;
        auto_release<sqlite3_stmt> stmt_guard(stmt);
        std::string names;
        for (const std::string& file_name : removable) {
            sqlite3_reset(stmt);
            rc = sqlite3_bind_text(stmt, 1, file_name.data(), static_cast<int>(file_name.size()),
                                   SQLITE_STATIC);
            if (rc != SQLITE_OK) {
                status = catalog_application_base::dberr_to_crstatus(rc);
                ErrorA(status, "%s: DB[%s] failed to delete row %s (%d, %s).", fn, name.c_str(),
                       file_name.c_str(), rc, sqlite3_errstr(rc));
                return status;
            }
            status = step_to_done(fn, db, stmt, name, file_name);
            if (status != CR_STATUS_OK) return status;
            std::string quoted;
            if (!sqlitedb::format_sql(quoted, "%Q", file_name.c_str())) throw std::bad_alloc();
            if (!names.empty()) names += ", ";
            names += quoted;
        }
        sql = catalog_delete_names_literal_prefix + names + ")";
    }
    status = run_transaction_statement(fn, db, name, "COMMIT TRANSACTION;");
    if (status != CR_STATUS_OK) {
        sql.clear();
        return status;
    }
    rollback.armed = false;
    check.removed = static_cast<unsigned int>(removable.size());
    return CR_STATUS_OK;
}

// The attempt shared by both deletes.
cr_status_t try_delete(catalog_application_base& self, const delete_plan& plan,
                       const std::string& client, const std::string& policy,
                       const std::string& key_value, std::string& sql, removal_check* check) {
    const char* const fn = plan.function;
    try {
        if (check != nullptr) {
            check->matched = 0;
            check->removed = 0;
        }
        if ((plan.skip_missing_db || check != nullptr) && !self.shadow_copy_exist(client, policy)) {
            InfoA(CR_STATUS_OK, "%s: no app db shadow for %s %s", fn, client.c_str(),
                  policy.c_str());
            if (!self.db_existed(client, policy)) {
                // Nothing to delete from: a success, and nothing is created.
                InfoA(CR_STATUS_OK, "%s: no app db for %s %s", fn, client.c_str(), policy.c_str());
                return CR_STATUS_OK;
            }
        }
        const std::string name = self.to_db_full_name(client, policy);
        appdb_value* value = nullptr;
        cr_status_t status = self.open_db_with_cached(client, policy, &value);
        if (status != CR_STATUS_OK) {
            ErrorA(status, "%s: failed to open db with cached, c %s, p %s", fn, client.c_str(),
                   policy.c_str());
            return status;
        }
        Auto_Return_DB db_guard(self.cache.get(), self.to_db_full_path(client, policy), value);
        InfoA(CR_STATUS_OK, "%s: expire app catalog %s %s %s", fn, client.c_str(), policy.c_str(),
              key_value.c_str());
        if (check != nullptr) {
            return checked_delete(self, plan, value->db, name, client, policy, key_value, *check,
                                  sql);
        }
        return delete_by_key(self, plan, value->db, name, client, policy, key_value, sql);
    } catch (...) {
        return exception_status(fn);
    }
}

}  // namespace

cr_status_t catalog_application_base::try_do_db_delete_by_file_name(const std::string& client,
                                                                    const std::string& policy,
                                                                    const std::string& file_name,
                                                                    std::string& sql,
                                                                    removal_check* check) {
    // A missing database is not looked for: it comes back as the open failure.
    static const delete_plan plan = {"try_do_db_delete_by_file_name", catalog_delete_by_name_sql,
                                     "name", false, APP_QUERY_NAME};
    return try_delete(*this, plan, client, policy, file_name, sql, check);
}

cr_status_t catalog_application_base::try_do_db_delete_by_backup_id(const std::string& client,
                                                                    const std::string& policy,
                                                                    const std::string& backup_id,
                                                                    std::string& sql,
                                                                    removal_check* check) {
    static const delete_plan plan = {"try_do_db_delete_by_backup_id",
                                     catalog_delete_by_backup_id_sql, "backupid", true,
                                     APP_QUERY_BACKUP_ID};
    return try_delete(*this, plan, client, policy, backup_id, sql, check);
}

cr_status_t catalog_application_base::do_db_delete_by_file_name(const std::string& client,
                                                                const std::string& policy,
                                                                const std::string& file_name,
                                                                std::string& sql,
                                                                removal_check* check) {
    const char* const fn = "do_db_delete_by_file_name";
    try {
        const std::string name = to_db_full_name(client, policy);
        for (unsigned int busy = 0;;) {
            const cr_status_t status = try_do_db_delete_by_file_name(client, policy, file_name, sql,
                                                                         check);
            if (status == CR_STATUS_OK) {
                __TraceA("%s: del by file name db success for %s", fn, file_name.c_str());
                return status;
            }
            if (status != CR_STATUS_BUSY) {
                ErrorA(status, "%s: failed to delete file name %s to db %s", fn, file_name.c_str(),
                       name.c_str());
                return status;
            }
            WarningA(status, "%s: %u busy when deleting %s", fn, busy, file_name.c_str());
            DctSleep(1);
            if (++busy >= max_busy_tries) return status;
        }
    } catch (...) {
        return exception_status(fn);
    }
}

cr_status_t catalog_application_base::do_db_delete_by_backup_id(const std::string& client,
                                                                const std::string& policy,
                                                                const std::string& backup_id,
                                                                std::string& sql,
                                                                removal_check* check) {
    const char* const fn = "do_db_delete_by_backup_id";
    try {
        const std::string name = to_db_full_name(client, policy);
        for (unsigned int busy = 0;;) {
            const cr_status_t status = try_do_db_delete_by_backup_id(client, policy, backup_id, sql,
                                                                         check);
            if (status == CR_STATUS_OK) {
                __TraceA("%s: del db success for %s", fn, backup_id.c_str());
                return status;
            }
            if (status != CR_STATUS_BUSY) {
                ErrorA(status, "%s: failed to delete bid %s to db %s", fn, backup_id.c_str(),
                       name.c_str());
                return status;
            }
            WarningA(status, "%s: %u busy when deleting bid %s", fn, busy, backup_id.c_str());
            DctSleep(1);
            if (++busy >= max_busy_tries) return status;
        }
    } catch (...) {
        return exception_status(fn);
    }
}

// ---- pragma ----

bool catalog_application_base::run_pragma(const std::string& client, const std::string& policy,
                                          const std::string& sql, const std::string& expect,
                                          std::string* result) {
    const char* const fn = "run_pragma";
    try {
        const std::string path = to_db_full_path(client, policy);
        appdb_value* value = cache ? cache->get_db(path) : nullptr;
        if (value == nullptr) {
            ErrorA(CR_STATUS_NONE, "%s cached db is not opened c %s p %s.", fn, client.c_str(),
                   policy.c_str());
            return false;
        }
        Auto_Return_DB db_guard(cache.get(), path, value);
        __TraceA("%s: Run \"%s\" on SQLite datase, expect result: %s", fn, sql.c_str(),
                 expect.c_str());
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(value->db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
            sqlite3_finalize(stmt);
            return false;
        }
        auto_release<sqlite3_stmt> stmt_guard(stmt);
        while (sqlite3_step(stmt) == SQLITE_ROW) {
            const std::string text = column_text(stmt, 0);
            if (result != nullptr) result->append(text);
            if (text == expect) return true;
        }
        return false;
    } catch (...) {
        exception_status(fn);
        return false;
    }
}

bool catalog_application_base::db_intergartion_check(const std::string& client,
                                                     const std::string& policy) {
    std::string result;
    return run_pragma(client, policy, "PRAGMA integrity_check;", "ok", &result);
}

}  // namespace appdb

// ---- whole-table checks ----

namespace appdb {

namespace {

// Steps `sql` on `db`, handing each row to `row`. 0 or the mapped status
// (logged with `fn`).
template <typename RowFn>
cr_status_t step_all(sqlite3* db, const std::string& name, const char* fn, const char* sql, RowFn row) {
    sqlite3_stmt* stmt = nullptr;
    int rc = sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr);
    if (rc != SQLITE_OK) {
        sqlite3_finalize(stmt);
        cr_status_t status = catalog_application_base::dberr_to_crstatus(rc);
        ErrorA(status, "%s: DB[%s] failed to prepare [%s] (%d, %s).", fn, name.c_str(), sql, rc,
               sqlite3_errstr(rc));
        return status;
    }
    auto_release<sqlite3_stmt> stmt_guard(stmt);
    for (;;) {
        rc = sqlite3_step(stmt);
        if (rc == SQLITE_DONE) return CR_STATUS_OK;
        if (rc != SQLITE_ROW) {
            cr_status_t status = catalog_application_base::dberr_to_crstatus(rc);
            ErrorA(status, "%s: DB[%s] failed to step [%s] (%d, %s).", fn, name.c_str(), sql, rc,
                   sqlite3_errmsg(db));
            return status;
        }
        row(stmt);
    }
}

}  // namespace

cr_status_t count_catalog_rows(sqlite3* db, const std::string& name, uint64_t* rows) {
    *rows = 0;
    return step_all(db, name, "count_catalog_rows", "SELECT count(*) FROM catalog;",
                    [rows](sqlite3_stmt* stmt) { *rows = static_cast<uint64_t>(sqlite3_column_int64(stmt, 0)); });
}

cr_status_t check_catalog_rows(sqlite3* db, const std::string& name, uint64_t* rows,
                               std::vector<std::string>* bad_items) {
    const char* const fn = "check_catalog_rows";
    *rows = 0;
    bad_items->clear();
    try {
        return step_all(db, name, fn, "SELECT * FROM catalog;", [&](sqlite3_stmt* stmt) {
            ++*rows;
            app_catalog_item item;
            decode_row(stmt, item);
            const uint32_t stored = static_cast<uint32_t>(sqlite3_column_int(stmt, catalog_column_count - 1));
            if (sqlite3_column_count(stmt) != catalog_column_count ||
                stored != catalog_application_base::crc_value(item)) {
                const std::string text = item.to_string();
                ErrorA(CR_STATUS_NONE, "%s: crc mismatch for app cat item %s", fn, text.c_str());
                bad_items->push_back(text);
            }
        });
    } catch (...) {
        return exception_status(fn);
    }
}

}  // namespace appdb
