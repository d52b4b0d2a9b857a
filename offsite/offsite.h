// The off-site copies of the shadow, kept in a restic repository off the
// server, and the rebuild of a pool from them. Each command is a function
// that returns what it did and where it stopped; none prints. Every failure
// is logged once, where it is found.
//
//   init       make the repository (the only command that does) and
//              remember its id (offsite/repository_id.h)
//   push       export the shadow (offsite/shadow_export.h) to a scratch
//              directory beside the shadow root, back it up with restic tagged
//              with the pool and host, apply the retention rule
//              (offsite/offsite_forget.h) unless the repository is
//              append-only, remove the scratch copy
//   snapshots  the pool's snapshots (list_snapshots)
//   check      restic check, then the newest snapshot restored to a scratch
//              directory and checked as an export (verify_export)
//   restore    the shadow tree of a snapshot brought back, then every missing
//              live database rebuilt from it; a live database and a sound
//              shadow are kept, never overwritten, and a kept live database
//              the shadow does not cover gets a version at once; marked
//              unfinished until done (offsite/restore_marker.h)
//
// A snapshot holds one export: each database as of one moment between the
// push's start and end. Its time is the start of the export, so that
// restore with `before` T gives the newest pool state exported before T.
// Two commands of one pool never run at once: the scratch lock beside the
// shadow root keeps them apart.
#ifndef OFFSITE_OFFSITE_H_
#define OFFSITE_OFFSITE_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "dct/status.h"
#include "offsite/json_text.h"
#include "offsite/restic.h"
#include "offsite/shadow_export.h"
#include "offsite/shadow_model.h"

namespace koffsite {

// Tag prefix of the snapshots of one pool ("kavrel-pool=" and the pool).
extern const char* const kPoolTag;

// The tag that marks the snapshots of `pool`: kPoolTag and the pool, with
// "%" and "," (restic's tag separator) written as %25 and %2C.
std::string pool_tag(const std::string& pool);

// The pool a tag's value (after kPoolTag) names: pool_tag undone.
std::string pool_of_tag(const std::string& value);

// One snapshot of the pool in the repository.
struct Snapshot {
    std::string id;
    std::string short_id;
    std::string time_text;  // as restic gives it
    int64_t time = 0;       // seconds since the epoch
    std::string host;
    std::string path;       // the export directory it holds
    std::string databases;  // from its tags ("" when absent)
    std::string rows;
    std::string pool;       // the database root of the pool it was taken from
};

// The snapshot restic describes in `object` (an entry of `snapshots --json`
// or of a group of `forget --json`); false when it is not a snapshot.
bool snapshot_of(const ktool::json& object, Snapshot* snapshot);

// The snapshots of `pool`, oldest first; with `pool` "" those of every pool
// in the repository (every snapshot tagged with a pool). `other_pools`, when
// given, counts the snapshots of other pools. 0, or 4 with `reason`
// (restic's message and status; logged).
cr_status_t list_snapshots(const Restic& restic, const std::string& pool, std::vector<Snapshot>* snapshots,
                           std::string* reason, size_t* other_pools = nullptr);

// A time as restic prints it ("2026-11-25T14:30:00.123+01:00") in seconds
// since the epoch; false when the text is not such a time.
bool parse_restic_time(const std::string& text, int64_t* seconds);

// The scratch directory WHAT of the shadow root SHADOW: "PARENT/.BASE.offsite-WHAT".
std::string scratch_path(const std::string& shadow_root, const std::string& what);

// An exclusive lock on "PARENT/.BASE.offsite.lock", so that two offsite
// commands of one pool never share a scratch directory.
class ScratchLock {
public:
    ScratchLock() = default;
    ~ScratchLock();
    ScratchLock(const ScratchLock&) = delete;
    ScratchLock& operator=(const ScratchLock&) = delete;
    // 0, 11 when another offsite command holds it, or the errno's status
    // (reason set).
    cr_status_t take(const std::string& shadow_root, std::string* reason);

private:
    int fd_ = -1;
};

// The shadow root of `context` (its configuration read), without a trailing
// "/"; "" when the configuration names none.
std::string shadow_root_of(const CatalogShadowContext& context);

// Reads [Offsite] of `cr_config` and checks that restic can run with it
// (Restic::usable). 0; 72 when no repository is configured; 4 for a bad
// value; the status of Restic::usable (logged). `reason` says why.
cr_status_t open_offsite(const std::string& cr_config, OffsiteConfig* config, std::string* reason);

// Where a command stopped. `not_started`: it could not run and changed
// nothing (no lock, no repository, ...); `failed`: it ran and failed.
enum class Stop { none, not_started, failed };

// What push did.
struct PushResult {
    Stop stop = Stop::none;
    std::string reason;          // why it stopped
    bool export_failed = false;  // the stop was the export's (reason is its reason)
    int restic_exit_status = -1;  // of the failed backup
    kshadow::ExportReport exported;  // set once the export is done
    uint64_t rows = 0;
    std::string repository;           // shown_repository
    std::string snapshot;
    uint64_t bytes_added = 0;
    uint64_t files_new = 0;
    uint64_t files_changed = 0;
    uint64_t files_unmodified = 0;
    uint64_t forgotten = 0;
    bool append_only = false;       // [Offsite] AppendOnly: retention left to the repository's host
    bool deletion_refused = false;  // the repository refused the forget: it is append-only
    std::string forget_failure;  // restic forget failed (the snapshot is there)
    bool scratch_removed = true;
};

// Pushes the shadow of `context` (started) to the repository of `restic`
// under the tag of `pool`. 0 when the snapshot was taken (forget and the
// scratch removal may still have failed: result->forget_failure,
// result->deletion_refused, result->scratch_removed); otherwise the failing status, result->stop and
// result->reason set.
cr_status_t push(CatalogShadowContext& context, const Restic& restic, const std::string& pool, PushResult* result);

// What check found.
struct CheckResult {
    Stop stop = Stop::none;
    std::string reason;
    std::string repository;               // shown_repository
    bool repository_ok = false;           // restic check passed
    std::string repository_failure;       // else why
    bool has_snapshot = false;            // the pool has a snapshot
    Snapshot newest;
    std::string restore_failure;          // restic restore of the newest failed
    std::string unreadable;               // the export in it cannot be read: why
    kshadow::ExportReport manifest;       // its manifest, and problems of no database
    std::vector<kshadow::DatabaseReport> reports;  // one per database of the export
    bool verified = false;                // the export was checked
    std::string scratch;                  // the scratch directory
    bool scratch_removed = true;
};

// Checks the repository and the newest snapshot of `pool` (`context`
// started). 0 when the check ran (what it found is in `result`); otherwise
// the failing status with result->stop and result->reason.
cr_status_t check(CatalogShadowContext& context, const Restic& restic, const std::string& pool,
                  CheckResult* result);

// What restore is asked for.
struct RestoreRequest {
    // An id (or its prefix) of a snapshot of any pool in the repository,
    // restored into this server's roots; "" or "latest": the newest of this
    // pool.
    std::string snapshot;
    bool has_before = false;
    int64_t before = 0;    // the newest snapshot older than this
    bool dry_run = false;  // only the plan
};

// What restore found and did for one database.
struct RestoredDatabase {
    kshadow::DatabaseReport report;
    std::string shadow;  // "kept", "restored", "would restore", "failed"
    std::string live;    // "kept", "rebuilt", "would rebuild", "failed", "not readable"
    std::string set_aside;
    std::string covered;  // the version taken of a kept live database its shadow did not cover
    std::vector<std::string> problems;
    bool rows_known = false;
    uint64_t rows_expected = 0;
};

// What restore did.
struct RestoreResult {
    Stop stop = Stop::none;
    std::string reason;
    bool chosen = false;  // a snapshot was chosen
    Snapshot snapshot;
    // The export's databases with problems when it is not sound (nothing
    // was restored then).
    std::vector<kshadow::DatabaseReport> damaged;
    kshadow::ExportReport manifest;
    std::vector<RestoredDatabase> databases;
    uint64_t problems = 0;
    uint64_t rebuilt = 0;   // databases rebuilt (or to rebuild)
    uint64_t restored = 0;  // shadows restored (or to restore)
    uint64_t kept = 0;      // live databases kept (there and readable)
};

// The snapshot of `snapshots` (all pools') that `request` names: one whose id
// begins with request.snapshot, of any pool, or with "" or "latest" the
// newest of `pool`; each older than request.before when has_before. false
// with `why` set when there is none (naming the other pools' snapshots when
// only those are there).
bool choose_snapshot(const std::vector<Snapshot>& snapshots, const std::string& pool, const RestoreRequest& request,
                     Snapshot* chosen, std::string* why);

// Restores the pool of `context` (constructed; its shadow is started here)
// from a snapshot of `pool`. 0 when every database was worked on (their
// problems counted in result->problems); otherwise the failing status with
// result->stop and result->reason.
cr_status_t restore(CatalogShadowContext& context, const Restic& restic, const std::string& pool,
                    const RestoreRequest& request, RestoreResult* result);

// What `offsite init` did.
struct InitRepositoryResult {
    std::string repository;   // shown_repository
    std::string id;           // the repository's id
    bool created = false;     // restic init made it; else it was there already
    std::string previous_id;  // the other id the pool remembered before, if any
    std::string reason;       // why it failed
};

// offsite init: creates the repository when none is there (restic init),
// then remembers its id (offsite/repository_id.h) under the shadow root of `context` (started). A
// repository that is there is taken as it is. 0, or the failing status with
// result->reason set.
cr_status_t init_repository(CatalogShadowContext& context, const Restic& restic, InitRepositoryResult* result);

}  // namespace koffsite

#endif  // OFFSITE_OFFSITE_H_
