// catalog_application_base: the row operations on the `catalog` table. Each
// try_do_db_* finds the database of a client and policy, borrows its store
// from the cache and makes one attempt through it; each do_db_* repeats its
// attempt while the database is busy (sqlitedb::retry_while_busy).
#include "appdb/catalog_application_base.h"

#include <exception>
#include <new>

#include "appdb/vector_item_sink.h"
#include "dct/log.h"
#include "sqlitedb/busy_retry.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace appdb {

namespace {

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

// The retrying form of an attempt that changes rows: success is traced as
// `done_format`, a failure other than busy logged as `failed_format`, each
// busy try warned as `busy_format` (function, try, key).
template <typename Attempt>
cr_status_t retry_change(const char* fn, const std::string& key, const std::string& name,
                         const char* done_format, const char* failed_format,
                         const char* busy_format, Attempt attempt) {
    try {
        const cr_status_t status = sqlitedb::retry_while_busy(attempt, [&](unsigned int busy) {
            WarningA(CR_STATUS_BUSY, busy_format, fn, busy, key.c_str());
            return true;
        });
        if (status == CR_STATUS_OK) {
            __TraceA(done_format, fn, key.c_str());
        } else if (status != CR_STATUS_BUSY) {
            ErrorA(status, failed_format, fn, key.c_str(), name.c_str());
        }
        return status;
    } catch (...) {
        return exception_status(fn);
    }
}

}  // namespace

// ---- insert ----

cr_status_t catalog_application_base::try_do_db_insert(const app_catalog_item& item,
                                                       std::string& sql) {
    const char* const fn = "try_do_db_insert";
    try {
        appdb_value* value = nullptr;
        const cr_status_t status = open_db_with_cached(item.client, item.policy, &value);
        if (status != CR_STATUS_OK) {
            ErrorA(status, "%s: failed to open db with cached, c %s, p %s", fn, item.client.c_str(),
                   item.policy.c_str());
            return status;
        }
        Auto_Return_DB db_guard(cache.get(), to_db_full_path(item.client, item.policy), value);
        return value->store->insert(item, sql);
    } catch (...) {
        return exception_status(fn);
    }
}

cr_status_t catalog_application_base::do_db_insert(const app_catalog_item& item, std::string& sql) {
    return retry_change("do_db_insert", item.file_name, to_db_full_name(item.client, item.policy),
                        "%s: insert db success for %s", "%s: failed to insert %s to db %s",
                        "%s: %u busy when inserting %s",
                        [&] { return try_do_db_insert(item, sql); });
}

// ---- query ----

cr_status_t catalog_application_base::try_do_db_query(const app_query& query,
                                                      std::vector<app_catalog_item>& items,
                                                      const std::string& sql) {
    vector_item_sink sink(items);
    return try_do_db_query(query, sink, sql);
}

namespace {

// One attempt of a query on the database of client and policy: a missing
// database (without a shadow copy) has no rows; otherwise `run` gets the
// store borrowed from the cache.
template <typename Run>
cr_status_t query_attempt(catalog_application_base& self, const std::string& client,
                          const std::string& policy, Run run) {
    const char* const fn = "try_do_db_query";
    try {
        if (!self.shadow_copy_exist(client, policy)) {
            InfoA(CR_STATUS_OK, "%s: no app.db shadow for %s %s", fn, client.c_str(),
                  policy.c_str());
            if (!self.db_existed(client, policy)) {
                // Not to be taken for an empty catalog.
                const cr_status_t readable = self.check_db_readable(fn, client, policy);
                if (readable != CR_STATUS_OK) return readable;
                InfoA(CR_STATUS_OK, "%s: no app db for %s %s", fn, client.c_str(), policy.c_str());
                return CR_STATUS_OK;
            }
        }
        appdb_value* value = nullptr;
        const cr_status_t status = self.open_db_with_cached(client, policy, &value);
        if (status != CR_STATUS_OK) {
            ErrorA(status, "%s: failed to open db file %s", fn,
                   self.to_db_full_name(client, policy).c_str());
            return status;
        }
        Auto_Return_DB db_guard(self.cache.get(), self.to_db_full_path(client, policy), value);
        return run(*value->store);
    } catch (const std::bad_alloc&) {
        ErrorA(CR_STATUS_NOMEM, "%s: out of memory when do db query", fn);
        return CR_STATUS_NOMEM;
    } catch (...) {
        return exception_status(fn);
    }
}

// Repeats `attempt` (given the sink to fill) while the database is busy,
// restarting the sink before every attempt.
template <typename Attempt>
cr_status_t query_retry(const std::string& name, catalog_item_sink& sink, bool* stopped_by_sink,
                        Attempt attempt) {
    const char* const fn = "do_db_query";
    try {
        stop_noting_sink noting(sink);
        const cr_status_t status = sqlitedb::retry_while_busy(
            [&] {
                // Every attempt starts from an empty result, so a retried
                // query never gives a record twice.
                noting.restart();
                return attempt(noting);
            },
            [&](unsigned int busy) {
                // A sink's own busy is not the database's: no retry.
                if (noting.stopped()) return false;
                WarningA(CR_STATUS_BUSY, "%s: %u busy when query %s", fn, busy, name.c_str());
                return true;
            });
        if (stopped_by_sink != nullptr) *stopped_by_sink = noting.stopped();
        if (status != CR_STATUS_OK && (status != CR_STATUS_BUSY || noting.stopped())) {
            ErrorA(status, "%s: failed to query db %s", fn, name.c_str());
        }
        return status;
    } catch (...) {
        return exception_status(fn);
    }
}

}  // namespace

cr_status_t catalog_application_base::try_do_db_query(const app_query& query,
                                                      catalog_item_sink& sink,
                                                      const std::string& sql_in) {
    return query_attempt(*this, query.client, query.policy, [&](catalog_store& store) {
        // A type without a statement prepares the empty text; it is refused
        // where the parameters are bound.
        std::string own_sql;
        if (sql_in.empty()) query.query_sql(own_sql);
        return store.query(query, sql_in.empty() ? own_sql : sql_in, sink);
    });
}

cr_status_t catalog_application_base::do_db_query(const app_query& query,
                                                  std::vector<app_catalog_item>& items,
                                                  const std::string& sql) {
    vector_item_sink sink(items);
    return do_db_query(query, sink, sql);
}

cr_status_t catalog_application_base::do_db_query(const app_query& query, catalog_item_sink& sink,
                                                  const std::string& sql, bool* stopped_by_sink) {
    try {
        return query_retry(to_db_full_name(query.client, query.policy), sink, stopped_by_sink,
                           [&](catalog_item_sink& noting) { return try_do_db_query(query, noting, sql); });
    } catch (...) {
        return exception_status("do_db_query");
    }
}

cr_status_t catalog_application_base::try_do_db_filter(const std::string& client,
                                                       const std::string& policy,
                                                       const catalog_filter_statement& statement,
                                                       catalog_item_sink& sink) {
    return query_attempt(*this, client, policy, [&](catalog_store& store) {
        return store.query(statement, client, policy, sink);
    });
}

cr_status_t catalog_application_base::do_db_filter(const std::string& client,
                                                   const std::string& policy,
                                                   const catalog_filter_statement& statement,
                                                   catalog_item_sink& sink) {
    try {
        return query_retry(to_db_full_name(client, policy), sink, nullptr,
                           [&](catalog_item_sink& noting) {
                               return try_do_db_filter(client, policy, statement, noting);
                           });
    } catch (...) {
        return exception_status("do_db_query");
    }
}

// ---- delete ----

namespace {

// The attempt shared by both deletes. A missing database without a shadow
// copy is looked for when `skip_missing_db` or a `check` asks for it.
cr_status_t try_delete(catalog_application_base& self, const char* fn, removal_key key,
                       bool skip_missing_db, const std::string& client, const std::string& policy,
                       const std::string& key_value, std::string& sql, removal_check* check) {
    try {
        if (check != nullptr) {
            check->matched = 0;
            check->removed = 0;
        }
        if ((skip_missing_db || check != nullptr) && !self.shadow_copy_exist(client, policy)) {
            InfoA(CR_STATUS_OK, "%s: no app db shadow for %s %s", fn, client.c_str(),
                  policy.c_str());
            if (!self.db_existed(client, policy)) {
                const cr_status_t readable = self.check_db_readable(fn, client, policy);
                if (readable != CR_STATUS_OK) return readable;
                // Nothing to delete from: a success, and nothing is created.
                InfoA(CR_STATUS_OK, "%s: no app db for %s %s", fn, client.c_str(), policy.c_str());
                return CR_STATUS_OK;
            }
        }
        appdb_value* value = nullptr;
        const cr_status_t status = self.open_db_with_cached(client, policy, &value);
        if (status != CR_STATUS_OK) {
            ErrorA(status, "%s: failed to open db with cached, c %s, p %s", fn, client.c_str(),
                   policy.c_str());
            return status;
        }
        Auto_Return_DB db_guard(self.cache.get(), self.to_db_full_path(client, policy), value);
        InfoA(CR_STATUS_OK, "%s: expire app catalog %s %s %s", fn, client.c_str(), policy.c_str(),
              key_value.c_str());
        return value->store->remove(fn, key, key_value, sql, check);
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
    return try_delete(*this, "try_do_db_delete_by_file_name", removal_key::file_name, false,
                      client, policy, file_name, sql, check);
}

cr_status_t catalog_application_base::try_do_db_delete_by_backup_id(const std::string& client,
                                                                    const std::string& policy,
                                                                    const std::string& backup_id,
                                                                    std::string& sql,
                                                                    removal_check* check) {
    return try_delete(*this, "try_do_db_delete_by_backup_id", removal_key::backup_id, true, client,
                      policy, backup_id, sql, check);
}

cr_status_t catalog_application_base::do_db_delete_by_file_name(const std::string& client,
                                                                const std::string& policy,
                                                                const std::string& file_name,
                                                                std::string& sql,
                                                                removal_check* check) {
    return retry_change("do_db_delete_by_file_name", file_name, to_db_full_name(client, policy),
                        "%s: del by file name db success for %s",
                        "%s: failed to delete file name %s to db %s",
                        "%s: %u busy when deleting %s", [&] {
                            return try_do_db_delete_by_file_name(client, policy, file_name, sql,
                                                                 check);
                        });
}

cr_status_t catalog_application_base::do_db_delete_by_backup_id(const std::string& client,
                                                                const std::string& policy,
                                                                const std::string& backup_id,
                                                                std::string& sql,
                                                                removal_check* check) {
    return retry_change("do_db_delete_by_backup_id", backup_id, to_db_full_name(client, policy),
                        "%s: del db success for %s", "%s: failed to delete bid %s to db %s",
                        "%s: %u busy when deleting bid %s", [&] {
                            return try_do_db_delete_by_backup_id(client, policy, backup_id, sql,
                                                                 check);
                        });
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
        return value->store->run_pragma(sql, expect, result);
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
