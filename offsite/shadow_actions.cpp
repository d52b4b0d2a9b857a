#include "offsite/shadow_actions.h"

#include <dirent.h>
#include <errno.h>
#include <string.h>

#include <memory>
#include <string>

#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "catalog_shadow/DirectoryLock.h"
#include "catalog_shadow/PODBShadowPool.h"
#include "catalog_shadow/RecoveryPlan.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "offsite/offsite.h"
#include "offsite/restore_marker.h"
#include "offsite/shadow_inspect.h"

namespace kshadow {

namespace {

// The first entry of `dir` other than "." , ".." and `allowed`; "" when none
// (or when `dir` cannot be listed: the creation will say why).
std::string first_other_entry(const std::string& dir, const std::string& allowed) {
    std::string found;
    DIR* d = wa_opendir(dir);
    if (d == nullptr) return found;
    while (struct dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0 || allowed == e->d_name) continue;
        found = e->d_name;
        break;
    }
    closedir(d);
    return found;
}

// The newest version number the checksum file lists (0: none or unreadable).
uint64_t newest_version(const Target& t) {
    uint64_t current = 0;
    ShadowVersionList list;
    std::string reason;
    if (PODBShadow::read_chksum(t.shadow_dir, t.type, &current, &list, &reason) != CR_STATUS_OK || list.empty()) {
        return 0;
    }
    return list.front().version;
}


void run_backup(CatalogShadowContext& context, DatabaseReport* r) {
    Action& a = r->action;
    a.name = "backup";
    const uint64_t before = newest_version(r->target);
    a.status = context.backup(r->target.dir, r->target.type);
    const uint64_t after = newest_version(r->target);
    if (a.status == CR_STATUS_OK && after != before) {
        a.result = "kept";
        a.version = after;
    } else if (a.status == CR_STATUS_OK) {
        a.result = "unchanged";
        a.version = after;
        a.detail = "no change since the newest version";
    } else {
        a.result = "failed";
        if (a.status == CR_STATUS_MISSING) {
            a.detail = "the database file is missing";
        } else if (a.status == CR_STATUS_CORRUPT) {
            a.detail = "the copy fails the SQLite integrity check; set aside";
        } else {
            a.detail = where_logged();
        }
        r->problems.push_back(Problem{r->target.db_path, "backup failed: " + a.detail});
    }
}

void run_recover(CatalogShadowContext& context, DatabaseReport* r) {
    Action& a = r->action;
    a.name = "recover";
    ::RecoveryPlan done;
    a.status = recover_reporting(context, r->target.dir, r->target.type, &done);
    inspect_database(Depth::status, r);
    check_live_database(r);
    if (a.status == CR_STATUS_OK) {
        a.result = "recovered";
        a.version = done.base_version;
        a.journal_lines = done.journal_lines;
        a.passed_over = done.passed_over;
        a.set_aside = done.set_aside;
        a.detail = std::to_string(done.journal_lines) + (done.journal_lines == 1 ? " journal line" : " journal lines");
        // What the old file left beside it was moved away, not applied.
        for (size_t i = 0; i < done.set_aside.size(); ++i) {
            a.detail += (i == 0 ? ", set aside " : ", ") + done.set_aside[i];
        }
    } else {
        a.result = "failed";
        a.detail = done.reason.empty() ? where_logged() : done.reason;
        r->problems.push_back(Problem{r->target.db_path, "recovery failed: " + a.detail});
    }
}

}  // namespace

Work work_of_command(const std::string& command, bool dry_run) {
    if (command == "status") return Work::status;
    if (command == "verify") return Work::verify;
    if (command == "backup") return Work::backup;
    return dry_run ? Work::plan : Work::recover;
}

const char* work_verb(Work work) {
    if (work == Work::backup) return "backing up";
    return work == Work::recover ? "recovering" : "checking";
}

void work_on_database(CatalogShadowContext& context, Work work, DatabaseReport* r) {
    // A directory that is gone has no one working in it; recover creates it
    // under its own lock.
    CatalogDirectoryLock lock;
    std::unique_ptr<DirectoryLock::ScopedLock> guard;
    if (wa_isdir(r->target.dir)) {
        guard.reset(new DirectoryLock::ScopedLock(&lock, r->target.dir));
        if (guard->GetStatus() == CR_STATUS_ACCESS_DENIED) {
            // A directory this user may not open: its database is not
            // readable, never missing, and never a reason to recover.
            r->live.denied = true;
            r->recovery.reason = kNotReadable;
            r->problems.push_back(not_readable_problem(r->target.dir));
            return;
        }
        if (guard->GetStatus() != CR_STATUS_OK) {
            ErrorA(guard->GetStatus(), "%s: failed to lock %s", "kavrel-shadow", r->target.dir.c_str());
            r->problems.push_back(Problem{r->target.dir, "directory lock not taken (status " +
                                                             std::to_string(guard->GetStatus()) + ")"});
            return;
        }
    }
    if (work == Work::status) {
        inspect_database(Depth::status, r);
    } else if (work == Work::verify) {
        inspect_database(Depth::verify, r);
    } else if (work == Work::backup) {
        run_backup(context, r);
        DatabaseReport after;
        after.target = r->target;
        inspect_database(Depth::status, &after);
        after.action = r->action;
        after.problems.insert(after.problems.begin(), r->problems.begin(), r->problems.end());
        *r = after;
    } else if (work == Work::plan) {
        inspect_database(Depth::plan, r);
    } else {
        run_recover(context, r);
    }
}


std::vector<Problem> pool_problems(CatalogShadowContext& context) {
    return koffsite::unfinished_restore_problems(koffsite::shadow_root_of(context));
}

cr_status_t init_shadow_root(CatalogShadowContext& context, InitReport* r) {
    r->config_file = context.proxy ? context.proxy->get_config_file() : std::string();
    r->app_db_root = context.proxy ? context.proxy->app_db_root : std::string();
    r->podb_root = context.proxy ? context.proxy->get_podb_root() : std::string();
    if (context.load_configurations() != CR_STATUS_OK) {
        r->result = "refused";
        r->reason = "the configuration names no [Paths] StorageDatabase or no [Storage] Storage Path";
        return CR_STATUS_NONE;
    }
    if (!context.enabled) {
        r->result = "refused";
        r->reason = "the configuration turns the catalog shadow off ([Paths] CatalogBackup)";
        return CR_STATUS_FAILED;
    }
    r->shadow_root = context.shadow_path;
    r->backup = true;
    r->auto_recovery = context.auto_recovery;
    r->versions = context.max_version_count;
    r->pool_size = context.shadow_pool_size;
    CatalogShadowIdentity identity(r->shadow_root.c_str());
    r->identity_file = identity.get_identity_file();
    if (identity.identity_exist()) {
        r->result = "exists";
        return CR_STATUS_OK;
    }
    const std::string other = first_other_entry(r->shadow_root, CatalogShadowIdentity::the_file_name());
    if (!other.empty()) {
        r->result = "refused";
        r->reason = r->shadow_root + " holds " + other + " but no identity file; only a new or empty root is "
                    "made the shadow of this pool";
        return CR_STATUS_FAILED;
    }
    const cr_status_t status = identity.create_identity();
    if (status != CR_STATUS_OK) {
        r->result = "refused";
        r->reason = "the identity file could not be created (status " + std::to_string(status) + ")";
        return status;
    }
    // A root that existed empty keeps its mode otherwise; it is the pool's
    // all the same, so a failure is only logged.
    if (wa_restrict_mode(r->shadow_root) != 0) {
        const int e = errno;
        ErrorA(_crMapError("init_shadow_root", __FILE__, __LINE__), "%s: cannot restrict the mode of %s: %s",
               "init_shadow_root", r->shadow_root.c_str(), strerror(e));
    }
    r->result = "created";
    return CR_STATUS_OK;
}

}  // namespace kshadow
