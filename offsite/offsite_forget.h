// Retention of a pool's snapshots: one rule ([Offsite] KeepLast, KeepAllDays,
// KeepDailyDays), applied by the push to a repository that allows deletion,
// and by `offsite forget` on the repository's host when the pool's server may
// only add to it (AppendOnly): then a server taken over by an attacker still
// cannot remove what it pushed before.
#ifndef OFFSITE_OFFSITE_FORGET_H_
#define OFFSITE_OFFSITE_FORGET_H_

#include <string>
#include <vector>

#include "dct/status.h"
#include "offsite/offsite.h"
#include "offsite/restic.h"

namespace koffsite {

// The rule of `config` as options of `restic forget`: --keep-last, and
// --keep-within and --keep-within-daily when the days are set. A snapshot
// stays when any part keeps it; days count back from the newest snapshot,
// not from now, so a pool that stopped pushing keeps its history.
std::vector<std::string> retention_options(const OffsiteConfig& config);

// The rule in words: "keep last 5, every snapshot of 7 days, the newest of
// each day for 30 days".
std::string retention_text(const OffsiteConfig& config);

// What forget did (or would do).
struct ForgetResult {
    Stop stop = Stop::none;
    std::string reason;
    std::string repository;  // shown_repository
    std::string rule;        // retention_text
    bool dry_run = false;
    std::vector<Snapshot> kept;     // oldest first
    std::vector<Snapshot> removed;  // oldest first; with dry_run: to remove
    // The repository refused to delete (a REST server in append-only mode
    // answers 403): nothing was removed, restic was stopped at the first
    // refusal instead of retrying it for a minute.
    bool refused = false;
};

// Applies the rule of `restic`'s configuration to the snapshots of `pool`
// and prunes the data no snapshot needs any more (`restic forget --prune`);
// with `dry_run` it only finds what it would remove. 0 when done; otherwise
// 4 (logged under `function`, the command that asked, with all restic said)
// with result->stop and result->reason, and result->refused when the
// repository refused the deletion.
cr_status_t forget(const Restic& restic, const std::string& pool, bool dry_run, ForgetResult* result,
                   const char* function = "kavrel-shadow offsite forget");

}  // namespace koffsite

#endif  // OFFSITE_OFFSITE_FORGET_H_
