// CatalogShadowContext: backups of one database and of whole catalog trees.
//
// A backup copies the real database (under a read transaction, see
// PODBShadow::duplicate) into a temporary file of the shadow directory, checks
// the copy with SQLite's integrity check, and makes it the newest version
// unless it equals the newest one. A backup that fails leaves the versions and
// the checksum file as they were; a copy that fails the integrity check is set
// aside in a "#corrupt_" directory, never deleted.
//
// The feature switched off makes every backup a successful no-op, like the
// journal writes: a catalog keeps working without its shadow.
#include <errno.h>
#include <string.h>

#include <exception>
#include <string>
#include <vector>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/CatalogShadowOps.h"
#include "catalog_shadow/PODBShadowPool.h"
#include "dct/environment.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "dct/pool_layout.h"

namespace {

// The shadow's temporary copy of a type's database: never a version name
// (PODBShadow::is_type_file), and on the shadow file system so that it can be
// renamed into place.
std::string temporary_copy(const PODBShadow& shadow, const std::string& type) {
    return shadow.get_shadow_dir() + "/" + type + ".tmp";
}

const char* tree_name(bool app) { return app ? "APP" : "PO UL"; }

// Brings a shadow made with wider modes down to the private ones: the shadow
// directory with all it holds, and each directory above it up to the shadow
// root. A path that cannot be changed is logged and the backup goes on: the
// copy it protects matters more.
void restrict_shadow_modes(const std::string& shadow_root, const std::string& shadow_dir) {
    std::vector<std::string> paths{shadow_dir};
    for (std::string p = shadow_dir; p.size() > shadow_root.size() && p.compare(0, shadow_root.size(), shadow_root) == 0;) {
        p.resize(p.find_last_of('/'));
        paths.push_back(p);
    }
    for (size_t i = 0; i < paths.size(); ++i) {
        const int rc = i == 0 ? wa_restrict_tree(paths[i]) : wa_restrict_mode(paths[i]);
        if (rc != 0) {
            int e = errno;
            WarningA(_crMapError("backup_unlocked", __FILE__, __LINE__), "%s: could not restrict the mode of %s (%s)",
                     "backup_unlocked", paths[i].c_str(), strerror(e));
        }
    }
}

}  // namespace

cr_status_t CatalogShadowContext::backup(const std::string& dir) { return backup(dir, PODBShadow::_podb_type_); }

cr_status_t CatalogShadowContext::backup(const std::string& dir, const std::string& type) {
    dct::environment_scope scope(env_);
    try {
        DirectoryLock::ScopedLock lock(dir_lock.get(), dir);
        // The lock has logged why it was not had; the backup does not start.
        if (lock.GetStatus() != CR_STATUS_OK) return lock.GetStatus();
        return backup_unlocked(dir, type, 0);
    } catch (const char* e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "backup", e);
    } catch (const std::exception& e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "backup", e.what());
    }
    return CR_STATUS_FAILED;
}

// `flags` is accepted for the callers' sake and has no meaning yet.
cr_status_t CatalogShadowContext::backup_unlocked(const std::string& dir, const std::string& type, unsigned) {
    dct::environment_scope scope(env_);
    if (!enabled) return CR_STATUS_OK;
    std::string tmp;
    cr_status_t result = CR_STATUS_FAILED;
    try {
        if (!pool || !PODBShadow::is_valid_type(type)) throw "bad parameter";
        InfoA(CR_STATUS_OK, "Backup %s database in %s", type.c_str(), dir.c_str());
        boost::shared_ptr<PODBShadow> shadow = pool->get(dir);
        // Journal lines of this directory wait until the new version is in
        // place, so that none lands in a journal that the copy has outdated.
        std::lock_guard<std::recursive_mutex> guard(shadow->mutex());
        // The newest version may be another process's.
        shadow->refresh_from_disk(type, true);

        const std::string source = dct::pool_layout::db_file_in(dir, type);
        tmp = temporary_copy(*shadow, type);
        if (wa_access(source, 0) != 0) {
            ErrorA(CR_STATUS_MISSING, "%s: %s doesn't exist!", "backup_unlocked", source.c_str());
            return CR_STATUS_MISSING;
        }
        const std::string& shadow_dir = shadow->get_shadow_dir();
        if (wa_access(shadow_dir, 0) != 0 && wa_createtree_synced(shadow_dir, dct::private_dir_mode) != 0) {
            int e = errno;
            cr_status_t status = _crMapError("backup_unlocked", __FILE__, __LINE__);
            ErrorA(status, "%s: Failed to create directory %s (%s)", "backup_unlocked", shadow_dir.c_str(),
                   strerror(e));
            throw "catalog backup fail";
        }
        restrict_shadow_modes(shadow_path, shadow_dir);

        uint32_t crc = 1;
        cr_status_t status = shadow->duplicate(source, tmp, &crc);
        const int copy_errno = errno;
        if (status != CR_STATUS_OK) {
            ErrorA(status, "%s: Failed to copy %s to %s (%s).", "backup_unlocked", source.c_str(), tmp.c_str(),
                   strerror(copy_errno));
            result = status;
        } else if (!PODBShadow::sqlite_integrity_check(tmp)) {
            ErrorA(CR_STATUS_CORRUPT, "%s: Failed to run integrity check on %s. Backup failed for %s.",
                   "backup_unlocked", tmp.c_str(), source.c_str());
            // A copy that could not be set aside (logged there) is deleted
            // below with every leftover: kept, it would be taken for a version.
            const bool set_aside = shadow->move_file_as_backup(type, tmp) == CR_STATUS_OK;
            if (set_aside) tmp.clear();
            if (!PODBShadow::sqlite_integrity_check(source)) {
                ErrorA(CR_STATUS_CORRUPT,
                       "%s: Integrity check on %s failed. Please contact support to take corrective actions.",
                       "backup_unlocked", source.c_str());
            }
            result = CR_STATUS_CORRUPT;
        } else if (PODBShadow::sqlite_holds_no_table(tmp)) {
            ErrorA(CR_STATUS_FAILED, "%s: %s holds no table; it is not taken as a shadow version.",
                   "backup_unlocked", source.c_str());
            result = CR_STATUS_FAILED;
        } else {
            bool unchanged = false;
            result = shadow->add_new_version(type, tmp, crc, &unchanged);
            if (result == CR_STATUS_OK && unchanged) {
                InfoA(CR_STATUS_OK, "%s has no change since last backup, skip it.", source.c_str());
                if (wa_deletefile(tmp) != 0) {
                    int e = errno;
                    WarningA(_crMapError("backup_unlocked", __FILE__, __LINE__), "Failed to delete file %s (%s).",
                             tmp.c_str(), strerror(e));
                }
            }
        }
    } catch (const char* e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception [%s]", "backup_unlocked", e);
        result = CR_STATUS_FAILED;
    } catch (const std::exception& e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception [%s]", "backup_unlocked", e.what());
        result = CR_STATUS_FAILED;
    } catch (...) {
        ErrorA(CR_STATUS_FAILED, "%s: unknown error occur.", "backup_unlocked");
        result = CR_STATUS_FAILED;
    }
    if (!tmp.empty() && wa_access(tmp, 0) == 0) wa_deletefile(tmp);
    return result;
}

cr_status_t CatalogShadowContext::backup_all(bool app) {
    dct::environment_scope scope(env_);
    InfoA(CR_STATUS_OK, "%s: Start to backup all catalog %s databases...", "backup_all", tree_name(app));
    if (!enabled) return CR_STATUS_OK;
    cr_status_t status = check_identity();
    if (status != CR_STATUS_OK) return status;

    const std::string root = app ? app_db_root_() : podb_root_();
    OpBackupCatalog op(this, app);
    OpFilterDSID<OpBackupCatalog> filter(app, op);
    TraverseResult walked = TraverseDir(root, filter, true, 0);
    // A tree that does not exist yet holds nothing to back up.
    if (walked.status != CR_STATUS_OK && walked.status != CR_STATUS_MISSING) status = walked.status;
    if (op.failed() > 0) {
        WarningA(CR_STATUS_FAILED, "Attention: not all of the %s databases have been successfully backed up!",
                 tree_name(app));
        if (status == CR_STATUS_OK) status = CR_STATUS_FAILED;
    }
    return status;
}
