// CatalogShadowContext: construction, init, identity check, path mapping and
// the journal entry points.
#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/PODBShadowPool.h"

#include <exception>

#include "dct/environment.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "dct/pool_layout.h"

CatalogShadowProxy::~CatalogShadowProxy() {}

PODB::~PODB() {}

CatalogShadowContext::CatalogShadowContext(CatalogShadowProxy* proxy_in, DirectoryLock* lock)
    : CatalogShadowContext(proxy_in, lock, dct::default_environment()) {}

CatalogShadowContext::CatalogShadowContext(CatalogShadowProxy* proxy_in, DirectoryLock* lock,
                                           const dct::environment& env)
    : proxy(proxy_in),
      enabled(true),
      auto_recovery(true),
      max_version_count(5),
      shadow_pool_size(64),
      dir_lock(lock != nullptr ? lock : new DirectoryLock),
      env_(env) {
    // The catalog's lock waits as long as this service's environment allows.
    if (env_.lock_wait_limit_ms) {
        if (auto* catalog_lock = dynamic_cast<CatalogDirectoryLock*>(dir_lock.get()))
            catalog_lock->set_object_wait_limit_ms(*env_.lock_wait_limit_ms);
    }
}

const dct::environment& environment_of(const CatalogShadowContext* context) {
    return context != nullptr ? context->environment() : dct::default_environment();
}

// The pool goes first (members are destroyed in reverse order): its shadows
// still ask the context for the version count.
CatalogShadowContext::~CatalogShadowContext() {}

std::string CatalogShadowContext::podb_root_() const { return proxy ? proxy->get_podb_root() : std::string(); }

std::string CatalogShadowContext::app_db_root_() const { return proxy ? proxy->app_db_root : std::string(); }

cr_status_t CatalogShadowContext::init() {
    dct::environment_scope scope(env_);
    cr_status_t result = load_configurations();
    identity.reset(new CatalogShadowIdentity(shadow_path.c_str()));
    // A feature that the configuration turned off has no shadow root to check.
    if (enabled) {
        cr_status_t status = check_identity();
        if (status != CR_STATUS_OK) {
            ErrorA(status, "%s: failed to check catalog shadow identity file", "init");
            result = status;
        }
    }
    try {
        pool.reset(new PODBShadowPool(this, shadow_pool_size));
    } catch (const std::exception& e) {
        // boost::mutex reports a failed pthread_mutex_init this way.
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "init", e.what());
        enabled = false;
        auto_recovery = false;
        return CR_STATUS_FAILED;
    }
    return result;
}

cr_status_t CatalogShadowContext::check_identity() {
    dct::environment_scope scope(env_);
    if (!identity) identity.reset(new CatalogShadowIdentity(shadow_path.c_str()));
    if (identity->identity_exist()) return CR_STATUS_OK;
    const std::string& file = identity->get_identity_file();
    cr_status_t status = CR_STATUS_FAILED;
    if (dct::probe_readable(file) == dct::path_state::denied) {
        // Not lost: this process may not look. No alarm of a lost root, but
        // the feature cannot run here either.
        status = CR_STATUS_ACCESS_DENIED;
        ErrorA(status,
               "%s: Catalog shadow identity file %s is not readable (permission denied). The catalog backup and "
               "recovery feature will be disabled.",
               "check_identity", file.c_str());
    } else {
        if (proxy) proxy->on_identity_missing(file);
        ErrorA(status,
               "%s: Catalog shadow identity file %s does not exist. The catalog backup and recovery feature will be "
               "disabled. Please fix the issues ASAP and restart TARN services.",
               "check_identity", file.c_str());
    }
    enabled = false;
    auto_recovery = false;
    WarningA(status, "The catalog shadow backup and recovery feature is disabled.");
    return status;
}

std::string CatalogShadowContext::real_to_shadow_path(const std::string& real) {
    std::string shadow;
    if (!dct::pool_layout::real_to_shadow(real, podb_root_(), app_db_root_(), shadow_path, &shadow)) {
        ErrorA(CR_STATUS_NONE, "%s: %s is an invalid podb directory path.", "real_to_shadow_path", real.c_str());
        return std::string();
    }
    __TraceA("Real2Shadow: %s  ==>  %s", real.c_str(), shadow.c_str());
    return shadow;
}

std::string CatalogShadowContext::shadow_to_real_path(const std::string& shadow, const std::string& type) {
    std::string real;
    if (!dct::pool_layout::shadow_to_real(shadow, type, podb_root_(), app_db_root_(), shadow_path, &real)) {
        ErrorA(CR_STATUS_NONE, "%s: %s is an invalid shadow directory path.", "shadow_to_real_path", shadow.c_str());
        return std::string();
    }
    __TraceA("Shadow2Real: %s  ==>  %s", shadow.c_str(), real.c_str());
    return real;
}

bool CatalogShadowContext::has_shadow_copy(const std::string& dir) {
    return has_shadow_copy(dir, PODBShadow::_podb_type_);
}

bool CatalogShadowContext::has_shadow_copy(const std::string& dir, const std::string& type) {
    dct::environment_scope scope(env_);
    if (!enabled || !pool) return false;
    try {
        boost::shared_ptr<PODBShadow> shadow = pool->get(dir);
        std::lock_guard<std::recursive_mutex> guard(shadow->mutex());
        // Another process may have made or removed the history meanwhile; a
        // question writes nothing, even about a damaged checksum file.
        shadow->refresh_from_disk(type, false);
        return shadow->get_version_count(type) > 0;
    } catch (const char* e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "has_shadow_copy", e);
        return false;
    }
}

bool CatalogShadowContext::shadow_history_lost(const std::string& dir, const std::string& type) {
    dct::environment_scope scope(env_);
    if (!enabled || !pool) return false;
    try {
        return pool->get(dir)->history_lost(type);
    } catch (const char* e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "shadow_history_lost", e);
        return false;
    }
}

cr_status_t CatalogShadowContext::write_journal(boost::shared_ptr<PODB> podb) {
    dct::environment_scope scope(env_);
    if (!enabled) return CR_STATUS_OK;
    if (!pool || !podb) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "write_journal", "bad parameter");
        return CR_STATUS_FAILED;
    }
    try {
        boost::shared_ptr<PODBShadow> shadow = pool->get(podb->get_dir());
        cr_status_t result = CR_STATUS_OK;
        {
            // The handle's statements go in as one run, not mixed with other
            // lines.
            std::lock_guard<std::recursive_mutex> guard(shadow->mutex());
            const std::vector<std::string> statements = podb->get_pending_statements();
            // Never append after lines another process wrote without counting
            // them.
            result = shadow->refresh_from_disk(PODBShadow::_podb_type_, true);
            for (size_t i = 0; result == CR_STATUS_OK && i < statements.size(); ++i) {
                const std::string& statement = statements[i];
                cr_status_t status = shadow->write_journal(PODBShadow::_podb_type_, statement);
                if (status != CR_STATUS_OK) {
                    ErrorA(status, "%s: failed to write journal line [%s]", "write_journal", statement.c_str());
                    result = status;
                }
            }
            // The lines written before a failed one stay: their changes are
            // in the database as well.
            cr_status_t status = shadow->flush_journal(PODBShadow::_podb_type_);
            if (result == CR_STATUS_OK) result = status;
        }
        if (result == CR_STATUS_OK) return CR_STATUS_OK;
        // Outside the shadow's mutex: the backup takes the pool's first.
        return protect_by_backup_(podb->get_dir(), PODBShadow::_podb_type_, result);
    } catch (const char* e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "write_journal", e);
        return CR_STATUS_FAILED;
    }
}

cr_status_t CatalogShadowContext::write_journal(const std::string& dir, const std::string& type,
                                                const std::string& statement) {
    return write_journal(dir, type, std::vector<std::string>(1, statement));
}

// A change that is in the database but could not be journalled is protected
// by a new version that holds it; that version's journal starts clean, so a
// journal that failed its check is left behind as well.
cr_status_t CatalogShadowContext::protect_by_backup_(const std::string& dir, const std::string& type,
                                                     cr_status_t failure) {
    InfoA(CR_STATUS_OK, "%s: journal of %s in %s not written, taking a new shadow copy", "write_journal",
          type.c_str(), dir.c_str());
    if (backup_unlocked(dir, type, 0) == CR_STATUS_OK) return CR_STATUS_OK;
    ErrorA(failure, "%s: the change to %s in %s is in the database but not protected by its shadow",
           "write_journal", type.c_str(), dir.c_str());
    return failure;
}

cr_status_t CatalogShadowContext::reload_podb(const std::string& dir) {
    dct::environment_scope scope(env_);
    __TraceA("reload_podb %s", dir.c_str());
    if (!enabled || !pool) return CR_STATUS_OK;
    try {
        boost::shared_ptr<PODBShadow> shadow = pool->get(dir);
        shadow->load_all();
        return CR_STATUS_OK;
    } catch (const char* e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "reload_podb", e);
        return CR_STATUS_FAILED;
    }
}
