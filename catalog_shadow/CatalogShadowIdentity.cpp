// CatalogShadowIdentity: the file that marks a shadow root as this pool's.
#include <errno.h>
#include <string.h>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "dct/pool_layout.h"

CatalogShadowIdentity::CatalogShadowIdentity(const char* dir) : dir_(dir != nullptr ? dir : "") {
    file_ = dct::pool_layout::identity_file(dir_);
}

const char* CatalogShadowIdentity::the_file_name() { return dct::pool_layout::kIdentityFile; }

bool CatalogShadowIdentity::identity_exist() const { return wa_access(file_, 0) == 0; }

cr_status_t CatalogShadowIdentity::create_identity() {
    if (identity_exist()) {
        InfoA(CR_STATUS_OK, "catalog shadow identity %s already exists.", file_.c_str());
        return CR_STATUS_OK;
    }
    if (wa_access(dir_, 0) != 0) {
        if (wa_createtree_synced(dir_, dct::private_dir_mode) != 0) {
            int e = errno;
            cr_status_t status = _crMapError("create_identity", __FILE__, __LINE__);
            ErrorA(status, "%s: failed to create directory %s (%s)", "create_identity", dir_.c_str(), strerror(e));
            return status;
        }
    } else if (!wa_isdir(dir_)) {
        ErrorA(CR_STATUS_FAILED, "%s: %s is not a directory", "create_identity", dir_.c_str());
        return CR_STATUS_FAILED;
    }
    if (wa_touch(file_) != 0) {
        cr_status_t status = _crMapError("create_identity", __FILE__, __LINE__);
        ErrorA(status, "%s: failed to touch identity file: %s.", "create_identity", file_.c_str());
        return status;
    }
    // The file decides whether the feature runs at the next start; it must not
    // vanish in a crash.
    if (wa_syncdir(dir_) != 0) {
        int e = errno;
        cr_status_t status = _crMapError("create_identity", __FILE__, __LINE__);
        ErrorA(status, "%s: failed to sync directory %s (%s)", "create_identity", dir_.c_str(), strerror(e));
        return status;
    }
    return CR_STATUS_OK;
}
