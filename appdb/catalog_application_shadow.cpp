// catalog_application_impl_shadow: the calls into the shadow context, the
// decision to recover, the recovery step, and the protected insert and expire.
#include "appdb/catalog_application_shadow.h"

#include "catalog_shadow/CatalogShadowCtx.h"
#include "dct/log.h"

namespace appdb {

catalog_application_impl_shadow::operation_scope::operation_scope(
    catalog_application_impl_shadow& app)
    : app_(app), context_(&own_), environment_(app.env_) {
    std::lock_guard<std::mutex> guard(app_.operations_mutex_);
    // Only the outermost scope of the thread registers; the map's entry then
    // points at its context until it ends.
    auto entry = app_.operations_.emplace(std::this_thread::get_id(), &own_).first;
    context_ = entry->second;
    ++context_->depth;
}

catalog_application_impl_shadow::operation_scope::~operation_scope() {
    std::lock_guard<std::mutex> guard(app_.operations_mutex_);
    if (--context_->depth == 0) app_.operations_.erase(std::this_thread::get_id());
}

catalog_application_impl_shadow::operation_context*
catalog_application_impl_shadow::current_operation_() {
    std::lock_guard<std::mutex> guard(operations_mutex_);
    const auto entry = operations_.find(std::this_thread::get_id());
    return entry != operations_.end() ? entry->second : nullptr;
}

bool catalog_application_impl_shadow::in_operation() { return current_operation_() != nullptr; }

bool catalog_application_impl_shadow::operation_recovered() {
    const operation_context* operation = current_operation_();
    return operation != nullptr && operation->recovered;
}

catalog_application_impl_shadow::catalog_application_impl_shadow(
    unsigned int dsid_in, const std::string& database_root_in, unsigned int cache_size,
    CatalogShadowContext* shadow_ctx_in)
    : catalog_application_impl_shadow(dsid_in, database_root_in, cache_size, shadow_ctx_in,
                                      environment_of(shadow_ctx_in)) {}

catalog_application_impl_shadow::catalog_application_impl_shadow(
    unsigned int dsid_in, const std::string& database_root_in, unsigned int cache_size,
    CatalogShadowContext* shadow_ctx_in, const dct::environment& env)
    : catalog_application_base(dsid_in, database_root_in, cache_size),
      shadow_ctx(shadow_ctx_in),
      env_(env) {
    use_environment(env_);
}

// dir_lock goes first, then the base closes the cache.
catalog_application_impl_shadow::~catalog_application_impl_shadow() = default;

bool catalog_application_impl_shadow::shadow_copy_exist(const std::string& client,
                                                        const std::string& policy) {
    const char* const fn = "shadow_copy_exist";
    if (shadow_ctx == nullptr) {
        ErrorA(CR_STATUS_NONE, "%s: app db shadow doesn't exsit", fn);
        return false;
    }
    if (shadow_ctx->has_shadow_copy(to_db_full_path(client, policy), db_type)) {
        __TraceA("%s: app db shadow found for c %s p %s", fn, client.c_str(), policy.c_str());
        return true;
    }
    __TraceA("%s: no app db shadow copy for c %s p %s", fn, client.c_str(), policy.c_str());
    return false;
}

cr_status_t catalog_application_impl_shadow::backup_shadow(const std::string& path) {
    const char* const fn = "backup_shadow";
    if (shadow_ctx == nullptr) return CR_STATUS_OK;
    InfoA(CR_STATUS_OK, "%s: create shadow file for db %s", fn, path.c_str());
    const cr_status_t status = shadow_ctx->backup_unlocked(path, db_type, 0);
    if (status != CR_STATUS_OK) {
        ErrorA(status, "%s: failed to backup app shadow file for %s", fn, path.c_str());
    }
    return status;
}

cr_status_t catalog_application_impl_shadow::write_journal(const std::string& path,
                                                           const std::string& statement) {
    if (shadow_ctx == nullptr) return CR_STATUS_OK;
    // A call that ran no statement (a backup with no database, say) changed
    // nothing; a journal line for it would only be noise for the replay.
    if (statement.empty()) return CR_STATUS_OK;
    // Inside a group the line waits for the group's commit and one append.
    if (defer_journal_line(path, statement)) return CR_STATUS_OK;
    return write_journal_lines_(path, std::vector<std::string>(1, statement));
}

cr_status_t catalog_application_impl_shadow::write_journal_lines_(
    const std::string& path, const std::vector<std::string>& lines) {
    const char* const fn = "write_journal";
    for (const std::string& line : lines) {
        __TraceA("%s: write app db journal %s %s", fn, path.c_str(), line.c_str());
    }
    const cr_status_t status = shadow_ctx->write_journal(path, db_type, lines);
    if (status != CR_STATUS_OK) {
        for (size_t i = 0; i < lines.size(); ++i) {
            ErrorA(status, "%s: app db write journal failed for %s", fn, path.c_str());
        }
    }
    return status;
}

bool catalog_application_impl_shadow::group_ready(const std::string& client,
                                                  const std::string& policy) {
    if (!catalog_application_base::group_ready(client, policy)) return false;
    return shadow_ctx == nullptr || !shadow_ctx->enabled ||
           shadow_ctx->has_shadow_copy(to_db_full_path(client, policy), db_type);
}

cr_status_t catalog_application_impl_shadow::protect_group(const std::string& path,
                                                           const std::vector<std::string>& lines) {
    if (shadow_ctx == nullptr || lines.empty()) return CR_STATUS_OK;
    return write_journal_lines_(path, lines);
}

cr_status_t catalog_application_impl_shadow::recover_from_journal(const std::string& client,
                                                                  const std::string& policy) {
    const char* const fn = "recover_from_journal";
    if (shadow_ctx == nullptr) return CR_STATUS_FAILED;
    const std::string path = to_db_full_path(client, policy);
    const cr_status_t status = shadow_ctx->recover_unlocked(path, db_type, 0);
    if (status != CR_STATUS_OK) ErrorA(status, "%s: recover failed for %s", fn, path.c_str());
    return status;
}

bool catalog_application_impl_shadow::need_recover_after_db_operation(cr_status_t status,
                                                                      const std::string& client,
                                                                      const std::string& policy) {
    const char* const fn = "need_recover_after_db_operation";
    bool recover = false;
    if (status == CR_STATUS_CORRUPT) {
        recover = true;
    } else if (status == CR_STATUS_IO) {
        if (check_db_readable(fn, client, policy) != CR_STATUS_OK) {
            // The file could not be opened for lack of permission: it is
            // neither lost nor damaged, and a rebuild would replace a
            // database that may be sound. Logged; the operation keeps its status.
        } else if (!shadow_copy_exist(client, policy)) {
            // Nothing to recover from.
            ErrorA(status, "%s: no app db shadow for %s %s", fn, client.c_str(), policy.c_str());
        } else if (!db_existed(client, policy)) {
            ErrorA(CR_STATUS_IO, "%s: Can't find app database c %s p %s, need recover.", fn,
                   client.c_str(), policy.c_str());
            recover = true;
        } else {
            // The file is there: only a database that fails its integrity
            // check is rebuilt; a passing one had a passing input/output error.
            recover = !db_intergartion_check(client, policy);
        }
    }
    __TraceA("%s: need recover %d", fn, recover ? 1 : 0);
    return recover;
}

bool catalog_application_impl_shadow::history_lost(const std::string& client,
                                                   const std::string& policy) {
    return shadow_ctx != nullptr &&
           shadow_ctx->shadow_history_lost(to_db_full_path(client, policy), db_type) &&
           !db_existed(client, policy);
}

bool catalog_application_impl_shadow::may_recover(cr_status_t status, const std::string& client,
                                                  const std::string& policy) {
    // Inside a group nothing is rebuilt: the group is given up, and the
    // change runs again alone, where it may recover.
    if ((status == CR_STATUS_CORRUPT || status == CR_STATUS_IO) &&
        give_up_group(to_db_full_path(client, policy))) {
        return false;
    }
    // A shadow without any version has nothing to recover from.
    if (history_lost(client, policy)) return false;
    if (!need_recover_after_db_operation(status, client, policy)) return false;
    // With automatic recovery switched off the operation keeps its status;
    // an operator recovers through the context's explicit calls.
    if (shadow_ctx != nullptr && !shadow_ctx->auto_recovery) {
        WarningA(status, "%s: catalog auto recovery is disabled, app db c %s p %s is not recovered",
                 "may_recover", client.c_str(), policy.c_str());
        return false;
    }
    // A helper called on its own, outside any public operation, is an
    // operation of its own.
    if (operation_recovered()) {
        __TraceA("%s: app db c %s p %s was recovered once in this operation", "may_recover",
                 client.c_str(), policy.c_str());
        return false;
    }
    return true;
}

cr_status_t catalog_application_impl_shadow::recover_db(const char* fn, cr_status_t failure,
                                                        const std::string& client,
                                                        const std::string& policy) {
    const std::string path = to_db_full_path(client, policy);
    // The context is the calling thread's own: no other thread touches it.
    if (operation_context* operation = current_operation_()) operation->recovered = true;
    ErrorA(failure, "%s: db %s corrupt, to do recover from shadow", fn, path.c_str());
    // No handle on the old file may survive the recovery: the rebuilt file
    // replaces it under the same name.
    if (cache) cache->close_db(path);
    const cr_status_t status = recover_from_journal(client, policy);
    if (status != CR_STATUS_OK) {
        ErrorA(status, "%s: fail to recover app db from %s %s", fn, client.c_str(),
               policy.c_str());
    }
    return status;
}

bool catalog_application_impl_shadow::first_adoption(const std::string& path) {
    std::lock_guard<std::mutex> guard(adopted_mutex_);
    return adopted_.insert(path).second;
}

cr_status_t catalog_application_impl_shadow::shadow_protected_db_insert(
    const app_catalog_item& item) {
    const char* const fn = "shadow_protected_db_insert";
    const std::string path = to_db_full_path(item.client, item.policy);
    if (history_lost(item.client, item.policy)) {
        // Neither a good copy nor the database: an empty database created
        // here would pass for the real one. The operator decides.
        ErrorA(CR_STATUS_CORRUPT,
               "%s: app db %s is missing and its shadow history was found damaged; nothing is created "
               "until it is recovered",
               fn, path.c_str());
        return CR_STATUS_CORRUPT;
    }
    bool created = false;
    cr_status_t status = need_create_db(item, created);
    if (status != CR_STATUS_OK) {
        ErrorA(status, "%s: failed to call need_create_db for c %s p %s", fn, item.client.c_str(),
               item.policy.c_str());
        return status;
    }
    if (created) {
        // The first shadow copy holds the empty schema; every later change
        // reaches the shadow through the journal. A failed copy leaves the
        // database unprotected, not unusable.
        InfoA(CR_STATUS_OK, "%s: new created db %s", fn, path.c_str());
        backup_shadow(path);
    } else if (shadow_ctx != nullptr && shadow_ctx->enabled &&
               !shadow_copy_exist(item.client, item.policy) &&
               db_existed(item.client, item.policy) && first_adoption(path)) {
        // A database without a shadow copy: made before protection was on,
        // or its creator died between creating it and copying it. Its
        // journal lines would have no base to replay onto, so it gets its
        // first copy now. Once per directory and object: a copy that fails
        // (a damaged database) is set aside whole, and must not be made
        // again at every insert.
        InfoA(CR_STATUS_OK, "%s: app db %s has no shadow copy, take one", fn, path.c_str());
        backup_shadow(path);
    }
    std::string statement;
    status = do_db_insert(item, statement);
    if (status == CR_STATUS_OK) {
        // The row is in the database whatever the journal says; it is
        // acknowledged only when the journal (or a new shadow copy taken in
        // its place) protects it.
        return write_journal(path, statement);
    } else {
        ErrorA(status, "%s: failed to insert %s to db %s", fn, item.file_name.c_str(),
               path.c_str());
    }
    return status;
}

cr_status_t catalog_application_impl_shadow::change_with_recovery(
    const char* fn, const char* failed_format, const std::string& client,
    const std::string& policy, const std::string& key,
    const std::function<cr_status_t(std::string&)>& run) {
    std::string statement;
    cr_status_t status = run(statement);
    if (status != CR_STATUS_OK) {
        if (!may_recover(status, client, policy)) {
            ErrorA(status, failed_format, fn, key.c_str());
            return status;
        }
        status = recover_db(fn, status, client, policy);
        if (status != CR_STATUS_OK) return status;
        statement.clear();
        status = run(statement);
        if (status != CR_STATUS_OK) {
            ErrorA(status, "%s: failed to del app catalog %s after shadow recovery", fn,
                   key.c_str());
            return status;
        }
    }
    // A checked removal that removed nothing has no statement to replay.
    if (statement.empty()) return CR_STATUS_OK;
    return write_journal(to_db_full_path(client, policy), statement);
}

cr_status_t catalog_application_impl_shadow::shadow_protected_expire_catalog(
    const std::string& client, const std::string& policy, const std::string& image_name,
    removal_check* check) {
    return change_with_recovery(
        "shadow_protected_expire_catalog", "%s: failed to delete app db by image name %s", client,
        policy, image_name, [&](std::string& statement) {
            return expire_catalog_by_image_name(client, policy, image_name, statement, check);
        });
}

}  // namespace appdb
