// CatalogShadowContext: recovery of one database, of whole catalog trees, and
// removal of a shadow.
//
// The rebuilt database is made in "<database>.tmp" beside the real one (same
// file system, so that it can be renamed over it) and only a merge that
// committed is moved into place. Before it takes the real database's place,
// the SQLite journal files of the old database are set aside in the shadow's
// "#corrupt_" directory (SQLite would play them back onto the rebuilt file).
//
// The `flags` argument of the recovery operations is passed through unchanged
// and has no meaning yet.
#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <exception>
#include <string>
#include <vector>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/CatalogShadowOps.h"
#include "catalog_shadow/PODBShadowPool.h"
#include "catalog_shadow/RecoveryPlan.h"
#include "catalog_shadow/ShadowSetAside.h"
#include "dct/environment.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "dct/pool_layout.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace {

const char* tree_name(bool app) { return app ? "APP" : "PO UL"; }


// Removes the rebuilt file and the journal SQLite may have left beside it.
void remove_target(const std::string& target) {
    if (wa_access(target, 0) == 0) wa_deletefile(target);
    for (const std::string& companion : live_companions(target)) wa_deletefile(companion);
}

// Sets aside the journal files SQLite left beside the real database (a dead
// writer's hot journal, a write-ahead log and its index): they belong to the
// old file, and SQLite would play them back onto the rebuilt one at its next
// open. They go into one "#corrupt_" directory together with the old database
// they belong to, each named in a record; none is deleted. The old database
// itself is not moved: the rebuilt one is renamed over it, so that the
// database's name never goes missing under a reader; it is kept beside its
// companions as a second name of the same file where the file system allows
// one. A companion that cannot be moved stops the recovery. `moved`, when
// given, receives the companions set aside. 0 or the status of the failure.
cr_status_t set_aside_companions(PODBShadow& shadow, const std::string& type, const std::string& real,
                                 std::vector<std::string>* moved) {
    if (moved != nullptr) moved->clear();
    std::string dir;
    for (const std::string& companion : live_companions(real)) {
        if (dir.empty()) {
            cr_status_t status = shadow.new_backup_dir(type, &dir);
            if (status != CR_STATUS_OK) return status;
            const std::string kept = dct::pool_layout::db_file_in(dir, type);
            if (wa_access(real, 0) == 0 && ::link(real.c_str(), kept.c_str()) != 0) {
                __TraceA("%s: %s stays where it is (%s); its companions are set aside without it", "recover_unlocked",
                         real.c_str(), strerror(errno));
            } else if (wa_access(kept, 0) == 0 && wa_restrict_mode(kept) != 0) {
                // A file made before the private modes; it is about to be replaced.
                const int e = errno;
                WarningA(_crMapError("recover_unlocked", __FILE__, __LINE__),
                         "%s: could not restrict the mode of %s (%s)", "recover_unlocked", kept.c_str(), strerror(e));
            }
        }
        DirItem item;
        item.fullpath = companion;
        item.name = companion.substr(companion.rfind('/') + 1);
        OpMoveFile mover(dir);
        if (mover(item) < 0) {
            cr_status_t status = *__cr_errno_location();
            ErrorA(status, "Failed to backup files %s", companion.c_str());
            return status;
        }
        WarningA(CR_STATUS_OK, "%s: %s of the replaced database set aside in %s, not applied to the rebuilt one",
                 "recover_unlocked", companion.c_str(), dir.c_str());
        if (moved != nullptr) moved->push_back(companion);
    }
    return CR_STATUS_OK;
}

// The work of recover_unlocked. Throws "bad parameter" or "invalid PODB path"
// before it has touched anything; the callers log the exception under their
// own names.
cr_status_t recover_database(CatalogShadowContext& context, const std::string& dir, const std::string& type,
                             RecoveryPlan* done) {
    if (!context.pool || !PODBShadow::is_valid_type(type)) throw "bad parameter";
    boost::shared_ptr<PODBShadow> shadow = context.pool->get(dir);
    // No journal line of this directory may land while it is rebuilt.
    std::lock_guard<std::recursive_mutex> guard(shadow->mutex());
    // Versions and journals may have changed in another process.
    shadow->refresh_from_disk(type, true);

    const std::string real = dct::pool_layout::db_file_in(dir, type);
    const std::string target = real + ".tmp";
    cr_status_t status = CR_STATUS_OK;
    if (wa_access(dir, 0) != 0 && wa_createtree_synced(dir, dct::private_dir_mode) != 0) {
        status = _crMapError("recover_unlocked", __FILE__, __LINE__);
        ErrorA(status, "%s: %s could not be created", "recover_unlocked", dir.c_str());
    } else {
        // A directory made here was locked through an ancestor until now.
        status = CatalogDirectoryLock::LockCreated(dir);
    }
    try {
        // A crashed recovery may have left its file and, worse, a journal
        // that SQLite would play back onto the fresh copy.
        if (status == CR_STATUS_OK) remove_target(target);
        if (status == CR_STATUS_OK) status = shadow->merge_shadows(dir, target, type, done);
        if (status == CR_STATUS_OK) {
            status = set_aside_companions(*shadow, type, real, done != nullptr ? &done->set_aside : nullptr);
        }
        if (status == CR_STATUS_OK) {
            __TraceA("%s: Rename file %s to %s", "recover_unlocked", target.c_str(), real.c_str());
            if (FileMove(target, real) != 0) {
                int e = errno;
                status = _crMapError("recover_unlocked", __FILE__, __LINE__);
                ErrorA(status, "%s: could not move %s to %s (%s)", "recover_unlocked", target.c_str(),
                       real.c_str(), strerror(e));
            } else if (wa_syncdir(dir) != 0) {
                int e = errno;
                status = _crMapError("recover_unlocked", __FILE__, __LINE__);
                ErrorA(status, "%s: failed to sync directory %s (%s)", "recover_unlocked", dir.c_str(),
                       strerror(e));
            }
        }
    } catch (const sqlitedb::db_exception& e) {
        status = e.cr_status();
        ErrorA(status, "%s: Catch sqlite database runtime exception [%d]: %s", "recover_unlocked", e.errcode(),
               e.what());
    }
    if (status == CR_STATUS_OK) {
        InfoA(CR_STATUS_OK, "%s: Recover database %s %s.", "recover_unlocked", real.c_str(), "succeeded");
    } else {
        ErrorA(status, "%s: Recover database %s %s.", "recover_unlocked", real.c_str(), "failed");
    }
    remove_target(target);
    return status;
}

}  // namespace

cr_status_t CatalogShadowContext::recover(const std::string& dir, unsigned flags) {
    dct::environment_scope scope(env_);
    if (!enabled) {
        ErrorA(CR_STATUS_FAILED, "Can't recover PO database in %s since the catalog shadow feature has been disabled.",
               dir.c_str());
        return CR_STATUS_FAILED;
    }
    return recover(dir, PODBShadow::_podb_type_, flags);
}

cr_status_t CatalogShadowContext::recover(const std::string& dir, const std::string& type, unsigned) {
    dct::environment_scope scope(env_);
    return recover_reporting(*this, dir, type, nullptr);
}

cr_status_t recover_reporting(CatalogShadowContext& context, const std::string& dir, const std::string& type,
                              RecoveryPlan* done) {
    if (!context.enabled) {
        ErrorA(CR_STATUS_FAILED, "Can't recover %s in %s since the catalog shadow feature has been disabled.",
               type.c_str(), dir.c_str());
        return CR_STATUS_FAILED;
    }
    cr_status_t status = context.check_identity();
    if (status != CR_STATUS_OK) return status;
    try {
        DirectoryLock::ScopedLock lock(context.dir_lock.get(), dir);
        // The lock has logged why it was not had; the recovery does not start.
        if (lock.GetStatus() != CR_STATUS_OK) return lock.GetStatus();
        return recover_database(context, dir, type, done);
    } catch (const char* e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "recover", e);
    } catch (const std::exception& e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "recover", e.what());
    }
    return CR_STATUS_FAILED;
}

cr_status_t CatalogShadowContext::recover_unlocked(const std::string& dir, const std::string& type, unsigned) {
    dct::environment_scope scope(env_);
    if (!enabled) {
        ErrorA(CR_STATUS_FAILED, "Can't recover %s in %s since the catalog shadow feature has been disabled.",
               type.c_str(), dir.c_str());
        return CR_STATUS_FAILED;
    }
    try {
        return recover_database(*this, dir, type, nullptr);
    } catch (const char* e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "recover_unlocked", e);
    } catch (const std::exception& e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "recover_unlocked", e.what());
    }
    return CR_STATUS_FAILED;
}

cr_status_t CatalogShadowContext::recover_all(bool app, unsigned flags) {
    dct::environment_scope scope(env_);
    InfoA(CR_STATUS_OK, "Start to recover all catalog %s databases...", tree_name(app));
    if (!enabled || !pool) {
        ErrorA(CR_STATUS_FAILED, "Can't recover %s in %s since the catalog shadow feature has been disabled.",
               tree_name(app), shadow_path.c_str());
        return CR_STATUS_FAILED;
    }
    cr_status_t status = check_identity();
    if (status != CR_STATUS_OK) return status;

    OpRecoverCatalog op(this, app, flags);
    OpFilterDSID<OpRecoverCatalog> filter(app, op);
    TraverseResult walked = TraverseDir(shadow_path, filter, true, 0);
    if (walked.status != CR_STATUS_OK) status = walked.status;
    if (op.failed() > 0) {
        WarningA(CR_STATUS_FAILED, "Attention: not all of the %s databases have been successfully recovered!",
                 tree_name(app));
        if (status == CR_STATUS_OK) status = CR_STATUS_FAILED;
    }
    return status;
}

cr_status_t CatalogShadowContext::recover_all_missing(bool app) {
    dct::environment_scope scope(env_);
    InfoA(CR_STATUS_OK, "Trying to find and recover the missing %s databases", tree_name(app));
    if (!enabled || !pool) {
        ErrorA(CR_STATUS_FAILED, "Can't recover %s in %s since the catalog shadow feature has been disabled.",
               tree_name(app), shadow_path.c_str());
        return CR_STATUS_FAILED;
    }
    cr_status_t status = check_identity();
    if (status != CR_STATUS_OK) return status;

    OpRecoverCatalog op(this, app, 0);
    OpFilterDSID<OpRecoverCatalog> filter(app, op);
    TraverseResult walked = TraverseDir(shadow_path, filter, true, 0);
    if (walked.status != CR_STATUS_OK) status = walked.status;
    if (status == CR_STATUS_OK && op.failed() == 0) {
        InfoA(CR_STATUS_OK, "%li lost %s databases are recovered.", op.succeeded(), tree_name(app));
        return CR_STATUS_OK;
    }
    if (status == CR_STATUS_OK) status = CR_STATUS_FAILED;
    ErrorA(status, "%s: failed to recover the missing %s databases.", "recover_all_missing", tree_name(app));
    return status;
}

cr_status_t CatalogShadowContext::remove_shadow_unlocked(const std::string& dir) {
    dct::environment_scope scope(env_);
    if (!enabled) return CR_STATUS_OK;
    try {
        if (!pool) throw "bad parameter";
        boost::shared_ptr<PODBShadow> shadow = pool->get(dir);
        cr_status_t status = shadow->destroy();
        pool->erase(dir);
        return status;
    } catch (const char* e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "remove_shadow_unlocked", e);
    } catch (const std::exception& e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "remove_shadow_unlocked", e.what());
    }
    return CR_STATUS_FAILED;
}
