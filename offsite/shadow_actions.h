// What the shadow command does to one database, and the making of a shadow
// root: the work behind status, verify, backup, recover and init. Nothing
// here prints; every result goes into the report.
#ifndef OFFSITE_SHADOW_ACTIONS_H_
#define OFFSITE_SHADOW_ACTIONS_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "dct/status.h"
#include "offsite/shadow_model.h"

namespace kshadow {

// The work on one database.
enum class Work {
    status,   // inspect_database at Depth::status
    verify,   // inspect_database at Depth::verify
    backup,   // a version now, then its status
    plan,     // what a recovery would do (Depth::plan), nothing changed
    recover,  // a recovery, then its result checked as verify checks it
};

// The work of the command `command` ("status", "verify", "backup" or
// "recover"; a recover with `dry_run` only plans).
Work work_of_command(const std::string& command, bool dry_run);
// The verb of a progress line of `work`: "checking", "backing up" or "recovering".
const char* work_verb(Work work);

// Does `work` on the database of report->target under its directory lock
// (a directory that is gone is not locked: recover creates it under its own
// lock). What was found and done goes into `report` (action, problems); a
// lock that is not taken is a problem.
void work_on_database(CatalogShadowContext& context, Work work, DatabaseReport* report);

// The problems of the pool as a whole that status and verify report besides
// those of each database: a restore that was stopped part way
// (offsite/restore_marker.h).
std::vector<Problem> pool_problems(CatalogShadowContext& context);

// What init found and did.
struct InitReport {
    std::string config_file;
    std::string app_db_root;
    std::string podb_root;
    std::string shadow_root;
    std::string identity_file;
    bool backup = false;         // CatalogBackup
    bool auto_recovery = false;  // CatalogAutoRecovery
    uint32_t versions = 0;       // CatalogBackupVersionCount
    int64_t pool_size = 0;       // CatalogShadowPoolSize
    // "created", "exists" (nothing done), or "refused" with the reason.
    std::string result;
    std::string reason;
};

// init: the one operation that makes a shadow root belong to the pool. It
// creates the root (dct::private_dir_mode) and its identity file. It refuses a
// root that holds anything but its identity file: a root that lost its
// identity file is never adopted again without a person deciding so (see
// CatalogShadowIdentity).
// Reads the shadow settings of `context` (its proxy set, init() not called)
// and creates the identity file when the root is new or empty. 0 when the
// identity file exists afterwards; 4 when the root holds other files or the
// configuration turns the shadow off (result "refused"); the status of a
// failed creation; CR_STATUS_NONE when the configuration names no storage
// paths. report->reason says why in each case.
cr_status_t init_shadow_root(CatalogShadowContext& context, InitReport* report);

}  // namespace kshadow

#endif  // OFFSITE_SHADOW_ACTIONS_H_
