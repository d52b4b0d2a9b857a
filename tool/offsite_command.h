// kavrel-shadow offsite: push, snapshots, check, restore and forget of the
// shadow's off-site copies (offsite/offsite.h, offsite/offsite_forget.h),
// printed as text, one JSON document or JSON Lines.
//
// Exit status as for every kavrel-shadow command: 0 all well, 1 problems
// (restic failed, a check found damage), 2 usage, 3 could not run (no
// restic, no repository configured or there, no password), 4 not readable.
#ifndef TOOL_OFFSITE_COMMAND_H_
#define TOOL_OFFSITE_COMMAND_H_

#include <stdint.h>

#include <string>

#include "catalog_shadow/CatalogShadowCtx.h"

namespace koffsite {

struct OffsiteOptions {
    std::string command;   // init, push, snapshots, check, restore, forget or unlock
    std::string snapshot;  // restore: an id, or "latest" (the default)
    bool has_before = false;
    int64_t before = 0;          // restore: the newest snapshot older than this
    bool dry_run = false;        // restore, forget: print the plan only
    bool if_configured = false;  // push: nothing to do without [Offsite]
    bool all = false;            // unlock: every lock; snapshots: every pool
    bool json = false;
    bool json_lines = false;
};

// Runs one offsite command for the pool of `cr_config` with the shadow of
// `context` (constructed, not yet initialised). Prints its output and returns
// the exit status.
int run_offsite(CatalogShadowContext& context, const std::string& cr_config, const std::string& root,
                const OffsiteOptions& options);

}  // namespace koffsite

#endif  // TOOL_OFFSITE_COMMAND_H_
