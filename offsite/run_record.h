// The record of the last runs of the commands that change the pool's backup
// and off-site state (backup --all, offsite push, check and restore), kept in
// one small file under the shadow root, so that the metrics tell the truth
// after a failure too: a failed push is recorded as a failure.
//
//   SHADOW/.catalog_shadow_runs   (dct::pool_layout::run_record_file)
//
// It is JSON, replaced atomically (written beside, synced, renamed, the
// directory synced) under an exclusive flock of the shadow root's directory,
// so two commands that finish at once both keep their run:
//
//   {"format":1,
//    "runs":{"backup":{"started":S, "duration_seconds":D, "success":B,
//                      "status":N, "last_success":T, "runs":R, "failures":F},
//            "push":{...}, "check":{...}, "restore":{...}},
//    "repository":{"time":T, "reachable":B, "snapshots":N, "newest_snapshot":T}}
//
// Times are seconds since the epoch; "last_success" is the end of the newest
// successful run (0: none yet); "repository" is what the newest push or
// check learnt of the off-site repository (snapshots -1 / newest 0: unknown).
#ifndef OFFSITE_RUN_RECORD_H_
#define OFFSITE_RUN_RECORD_H_

#include <stdint.h>

#include <string>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "dct/status.h"

namespace koffsite {

// The recorded commands, in the order the metrics list them.
enum class RecordedRun { backup, push, check, restore };
const int kRecordedRuns = 4;

// "backup", "push", "check" or "restore": the key in the file and the value
// of the metrics' label `command`.
const char* run_name(RecordedRun run);

struct RunRecord {
    bool known = false;      // the command has a record
    int64_t started = 0;     // start of its last run
    double duration = 0;     // seconds the last run took
    bool success = false;    // the last run succeeded
    cr_status_t status = 0;  // its status
    int64_t last_success = 0;
    uint64_t runs = 0;       // every recorded run
    uint64_t failures = 0;   // the failed ones
};

// What a push or check learnt of the repository.
struct RepositoryRecord {
    bool known = false;
    int64_t time = 0;        // when
    bool reachable = false;  // restic could open it
    int64_t snapshots = -1;  // the pool's snapshots in it (-1: not learnt)
    int64_t newest_snapshot = 0;
};

struct RunRecords {
    RunRecord runs[kRecordedRuns];
    RepositoryRecord repository;
    const RunRecord& of(RecordedRun run) const { return runs[static_cast<int>(run)]; }
};

// Reads the record file of `shadow_root`. 0 (a missing file is no run yet);
// 106 when this user may not read it; 67 when it is not such a file; the
// status of another read failure. Logged, except for 106.
cr_status_t read_run_records(const std::string& shadow_root, RunRecords* records);

// The times of one run, taken from the environment's clock.
struct RunClock {
    RunClock();  // the run starts now
    uint64_t started_ms;
};

// Records that `run`, started at `clock`, ended now with `status` (0 is
// success); `repository` (when given and known) replaces what is recorded of
// the repository. The record is written only into a shadow root that holds
// its identity file. A run's result stands whatever happens to its record: a
// record that cannot be written is logged ("%s: cannot record the %s run in
// %s (%s)") and the metrics keep showing the previous one.
void record_run(const CatalogShadowContext& context, RecordedRun run, const RunClock& clock, cr_status_t status,
                const RepositoryRecord* repository = nullptr);

}  // namespace koffsite

#endif  // OFFSITE_RUN_RECORD_H_
