// The factory of catalog applications.
#include "appdb/catalog_application_impl.h"
#include "appdb/catalog_application_shadow.h"

#include <new>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "dct/environment.h"
#include "dct/log.h"

namespace appdb {

namespace {

// Gives `app` its own directory lock, the lock's wait and its environment
// (busy timeout, clock, sleep, fault seam, log sink, bounds of its groups of
// changes) from `env`; deletes it and returns null when the lock cannot be
// allocated.
template <typename App>
catalog_application* with_dir_lock(App* app, const dct::environment& env) {
    if (app == nullptr) return nullptr;
    app->dir_lock.reset(new (std::nothrow) CatalogDirectoryLock());
    if (!app->dir_lock) {
        delete app;
        return nullptr;
    }
    if (env.lock_wait_limit_ms) app->dir_lock->set_object_wait_limit_ms(*env.lock_wait_limit_ms);
    app->use_environment(env);
    return app;
}

}  // namespace

catalog_application* catalog_application_factory::create_catalog(unsigned int dsid,
                                                                  const std::string& database_root,
                                                                  application_d_t type,
                                                                  CatalogShadowContext* shadow_ctx,
                                                                  unsigned int cache_size) {
    // The plain kind never looks at the context (it may be anything).
    return create_catalog(dsid, database_root, type, shadow_ctx, cache_size,
                          type == APP_D_CATALOG_SHADOW ? environment_of(shadow_ctx)
                                                       : dct::default_environment());
}

catalog_application* catalog_application_factory::create_catalog(unsigned int dsid,
                                                                  const std::string& database_root,
                                                                  application_d_t type,
                                                                  CatalogShadowContext* shadow_ctx,
                                                                  unsigned int cache_size,
                                                                  const dct::environment& env) {
    const char* const fn = "create_catalog";
    catalog_application* app = nullptr;
    try {
        switch (type) {
        case APP_D_CATALOG:
            app = with_dir_lock(
                new (std::nothrow) catalog_application_impl(dsid, database_root, cache_size), env);
            break;
        case APP_D_CATALOG_SHADOW:
            // The context stays the caller's.
            app = with_dir_lock(new (std::nothrow) catalog_application_impl_shadow(
                dsid, database_root, cache_size, shadow_ctx, env), env);
            break;
        default:
            ErrorA(CR_STATUS_NONE, "%s: unsupported application type %d", fn,
                   static_cast<int>(type));
            return nullptr;
        }
    } catch (const std::bad_alloc&) {
        app = nullptr;
    }
    if (app == nullptr) ErrorA(CR_STATUS_NOMEM, "%s: out of memory", fn);
    return app;
}

}  // namespace appdb
