// RecoveryPlan: the one rule that decides how a database is rebuilt from its
// shadow, and the plan it yields.
//
// plan_recovery walks the versions newest first. The base is the first whose
// database and journal match the checksum file and whose database passes
// SQLite's integrity check; the versions before it are passed over (and left
// as they are). The journals of the base and of every newer version are
// replayed onto a copy of the base, oldest first, each as far as the checksum
// file counts it when the lines beyond that count follow an intact recorded
// prefix (a writer died between its journal line and its checksum file), else
// whole. The SQLite journal files found beside the live database belong to
// the old file: they are set aside before the rebuilt file takes its place.
//
// The recovery (PODBShadow::merge_shadows, CatalogShadowContext::
// recover_unlocked) plans with a judge that repairs what it checks and then
// carries the plan out; kavrel-shadow plans with a judge that only reads and
// prints the plan (and rehearses it on a scratch copy). One rule, so that
// what the operator is shown is what a recovery does.
#ifndef CATALOG_SHADOW_RECOVERYPLAN_H_
#define CATALOG_SHADOW_RECOVERYPLAN_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "catalog_shadow/ShadowVersion.h"
#include "dct/environment.h"
#include "dct/status.h"

class CatalogShadowContext;

// One journal the recovery replays: its first `bytes` bytes, `lines` lines.
struct PlannedJournal {
    uint64_t version = 0;
    std::string path;
    uint32_t lines = 0;
    uint64_t bytes = 0;
};

struct RecoveryPlan {
    // 0 when a recovery is possible; 72 when the shadow holds no version; 67
    // when none is usable.
    cr_status_t status = CR_STATUS_NOT_FOUND;
    std::string reason;  // why not: "no shadow version", "no usable shadow version"
    uint64_t base_version = 0;
    std::string base_path;
    uint32_t base_crc = 1;                    // the base's recorded checksum
    std::vector<uint64_t> passed_over;        // versions newer than the base, newest first
    std::vector<PlannedJournal> journals;     // replayed, oldest first; empty ones left out
    uint64_t journal_lines = 0;               // lines of all of them
    std::vector<std::string> set_aside;       // SQLite journal files of the live database
    bool possible() const { return status == CR_STATUS_OK; }
};

// How plan_recovery learns whether a version can be the base.
class VersionJudge {
public:
    virtual ~VersionJudge();
    // Whether the version's database and journal match the checksum file. The
    // journal is judged first; a journal that fails spares the database its
    // read. `scan` receives the journal as the judge leaves it.
    virtual bool checksums_hold(ShadowVersion& version, ShadowVersion::JournalScan* scan) = 0;
    // Whether the version's database passes SQLite's integrity check; asked
    // only of a version whose checksums hold.
    virtual bool integrity_holds(const ShadowVersion& version) = 0;
};

// The judge of a recovery: ShadowVersion::check_crc_journal (which cuts
// unrecorded lines away) and check_crc_db, then the integrity check, each
// failure logged as the recovery's own warnings ("%s: %s is corrupt, will try
// to use an earlier shadow copy.", "%s: %s did not pass the SQLite integrity
// check, will try to use an earlier shadow copy.").
class RepairingJudge : public VersionJudge {
public:
    // `env` (kept by reference) decides whether the journal check fills in a
    // count of 0 recorded lines.
    explicit RepairingJudge(const dct::environment& env = dct::default_environment()) : env_(env) {}
    bool checksums_hold(ShadowVersion& version, ShadowVersion::JournalScan* scan) override;
    bool integrity_holds(const ShadowVersion& version) override;

private:
    const dct::environment& env_;
};

// The plan for `versions` (newest first) of the database file `live_db`.
RecoveryPlan plan_recovery(ShadowVersionList& versions, const std::string& live_db, VersionJudge& judge);

// The SQLite journal files ("-journal", "-wal", "-shm") beside `db` that
// exist now, in that order.
std::vector<std::string> live_companions(const std::string& db);

// CatalogShadowContext::recover(dir, type, 0) that also hands back, in `done`
// (when given), the plan it carried out, with the files it set aside. A
// recovery that failed before it planned leaves `done` as it was.
cr_status_t recover_reporting(CatalogShadowContext& context, const std::string& dir, const std::string& type,
                              RecoveryPlan* done);

#endif  // CATALOG_SHADOW_RECOVERYPLAN_H_
