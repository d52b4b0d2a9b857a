// CatalogShadowContext: journaling the statements of one application
// database, one statement or a group of them, durable on return.
#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "catalog_shadow/PODBShadowPool.h"
#include "dct/environment.h"
#include "dct/log.h"

cr_status_t CatalogShadowContext::write_journal(const std::string& dir, const std::string& type,
                                                const std::vector<std::string>& statements) {
    dct::environment_scope scope(env_);
    if (!enabled) return CR_STATUS_OK;
    if (!pool) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "write_journal", "bad parameter");
        return CR_STATUS_FAILED;
    }
    try {
        boost::shared_ptr<PODBShadow> shadow = pool->get(dir);
        cr_status_t status;
        {
            std::lock_guard<std::recursive_mutex> guard(shadow->mutex());
            // Never append after lines another process wrote without counting
            // them.
            status = shadow->refresh_from_disk(type, true);
            if (status == CR_STATUS_OK) status = shadow->write_journal_lines(type, statements);
            if (status == CR_STATUS_OK) status = shadow->flush_journal(type);
        }
        if (status == CR_STATUS_OK) return CR_STATUS_OK;
        // Outside the shadow's mutex: the backup takes the pool's first.
        return protect_by_backup_(dir, type, status);
    } catch (const char* e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "write_journal", e);
        return CR_STATUS_FAILED;
    }
}
