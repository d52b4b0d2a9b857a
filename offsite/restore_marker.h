// The mark of a restore that has not finished. `offsite restore` writes it
// before it changes anything in the pool and removes it once every database
// was worked on; a restore killed part way leaves it, so that a pool half
// rebuilt is never taken for a whole one: status and verify report it, push
// refuses to store such a pool as the newest snapshot, and the next restore
// finishes the same snapshot and removes it.
//
// It lies beside the shadow root, not in it ("PARENT/.BASE.offsite-restore.
// unfinished", next to the offsite commands' scratch directories and lock):
// a shadow root removed after a killed restore does not take the mark with it,
// and a restore after the loss of both roots writes it as soon as the parent
// exists again. The file is JSON, written atomically (synced, renamed, the
// directory synced) after each database:
//   {"snapshot", "short_id", "started" (seconds), "databases" (in the
//    snapshot), "done": [RELATIVE-DIR "/" TYPE ...]}
#ifndef OFFSITE_RESTORE_MARKER_H_
#define OFFSITE_RESTORE_MARKER_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "dct/status.h"
#include "offsite/offsite.h"
#include "offsite/shadow_model.h"

namespace koffsite {

struct RestoreMarker {
    std::string path;      // where it lies
    std::string snapshot;  // the snapshot being restored (full id)
    std::string short_id;
    int64_t started = 0;         // seconds since the epoch
    uint64_t databases = 0;      // databases in the snapshot
    std::vector<std::string> done;  // databases worked on: "RELATIVE/TYPE"
};

// The marker's path for the shadow root `shadow_root`.
std::string restore_marker_path(const std::string& shadow_root);

// Reads the marker of `shadow_root` into `marker` (its path always set).
// 0 when a restore is unfinished; 2 when there is no marker; 106 when it is
// there but this user may not read it; 67 when it cannot be read as a marker
// (it still marks an unfinished restore). Nothing is logged for 2.
cr_status_t read_restore_marker(const std::string& shadow_root, RestoreMarker* marker);

// Writes `marker` to marker.path atomically. 0, or the failure's status with
// `why` set (logged).
cr_status_t write_restore_marker(const RestoreMarker& marker, std::string* why);

// Removes the marker of `shadow_root` (and syncs its directory). 0 when it is
// gone, else the status with `why` set (logged).
cr_status_t remove_restore_marker(const std::string& shadow_root, std::string* why);

// The one line that tells how an unfinished restore is finished.
std::string finish_restore_command(const RestoreMarker& marker);

// The problem status and verify report for an unfinished restore of the pool
// whose shadow root is `shadow_root`: none, or one (a marker that may not be
// read is reported as not readable).
std::vector<kshadow::Problem> unfinished_restore_problems(const std::string& shadow_root);

// A restore's request when a marker is there: the unfinished snapshot is
// finished first. A request for the newest snapshot (no id, "latest", no
// --before) becomes one for the marker's snapshot; a request that names
// another is refused: false with `why` set.
bool finish_first(const RestoreMarker& marker, RestoreRequest* request, std::string* why);

// The marker of one restore, kept up to date as it works.
class RestoreMarking {
public:
    // Reads the marker of `shadow_root`; resuming() when one is there.
    explicit RestoreMarking(const std::string& shadow_root);
    bool resuming() const { return resuming_; }
    const RestoreMarker& marker() const { return marker_; }
    // Marks the restore of `snapshot` (of `databases` databases) before it
    // changes anything; the databases a killed restore of the same snapshot
    // did are kept. 0 or the write's status (why set).
    cr_status_t begin(const Snapshot& snapshot, uint64_t databases, std::string* why);
    // Notes `database` ("RELATIVE/TYPE") as done.
    cr_status_t done(const std::string& database, std::string* why);
    // The restore went through every database: the marker goes.
    cr_status_t finish(std::string* why);

private:
    std::string shadow_root_;
    RestoreMarker marker_;
    bool resuming_ = false;
};

}  // namespace koffsite

#endif  // OFFSITE_RESTORE_MARKER_H_
