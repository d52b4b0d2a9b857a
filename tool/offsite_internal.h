// What the offsite commands share: the pool's snapshots, the scratch
// directories beside the shadow root and their lock, and the output.
#ifndef TOOL_OFFSITE_INTERNAL_H_
#define TOOL_OFFSITE_INTERNAL_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "tool/json_text.h"
#include "tool/offsite.h"
#include "tool/restic.h"
#include "tool/shadow_report.h"

namespace koffsite {

// The exit statuses every kavrel-shadow command shares.
using kshadow::kExitCannotRun;
using kshadow::kExitOk;
using kshadow::kExitProblems;

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
};

// The tag that marks the snapshots of `pool`: kPoolTag and the pool, with
// "%" and "," (restic's tag separator) written as %25 and %2C.
std::string pool_tag(const std::string& pool);

// The snapshots of `pool`, oldest first. 0, or 4 with `reason` (restic's
// message and status).
cr_status_t list_snapshots(const Restic& restic, const std::string& pool, std::vector<Snapshot>* snapshots,
                           std::string* reason);

// A time as restic prints it ("2026-11-25T14:30:00.123+01:00") in seconds
// since the epoch; false when it cannot be read.
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


// The output of one offsite command: text lines as they come, or one JSON
// document ({"schema":1,"command":..., ITEMS: [...], "summary": {...}}), or
// one JSON line per item and a last one with the summary.
class Output {
public:
    Output(const OffsiteOptions& options, const std::string& command, const std::string& items);
    void text(const std::string& line);  // text output only, newline added
    void item(const ktool::json& value);  // JSON item
    // Prints the summary (and the document) and returns `exit_code`.
    int finish(ktool::json summary, int exit_code);

private:
    const OffsiteOptions& options_;
    std::string command_;
    std::string items_name_;
    ktool::json items_;
};

using kshadow::cannot_run;
// "kavrel-shadow: WHAT" on standard error.
void complain(const std::string& what);

// The shadow root of `context` (its configuration read), without a trailing
// "/"; "" when the configuration names none.
std::string shadow_root_of(const CatalogShadowContext& context);

int run_push(CatalogShadowContext& context, const Restic& restic, const std::string& pool,
             const OffsiteOptions& options);
int run_snapshots(const Restic& restic, const std::string& pool, const OffsiteOptions& options);
int run_check(CatalogShadowContext& context, const Restic& restic, const std::string& pool,
              const OffsiteOptions& options);
int run_restore(CatalogShadowContext& context, const Restic& restic, const std::string& pool,
                const OffsiteOptions& options);

}  // namespace koffsite

#endif  // TOOL_OFFSITE_INTERNAL_H_
