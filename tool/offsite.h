// kavrel-shadow offsite: copies of the shadow kept in a restic repository off
// the server, and the rebuild of a pool from them.
//
//   push       export the shadow (tool/shadow_export.h) to a scratch directory
//              beside the shadow root, back it up with restic tagged with the
//              pool and host, forget all but [Offsite] KeepLast snapshots of
//              the pool (--prune), remove the scratch copy
//   snapshots  the pool's snapshots: time, host, databases, rows
//   check      restic check, then the newest snapshot restored to a scratch
//              directory and checked as an export (verify_export)
//   restore    the shadow tree of a snapshot brought back, then every missing
//              live database rebuilt from it; a live database and a sound
//              shadow are kept, never overwritten
//
// A snapshot holds one export: each database as of one moment between the
// push's start and end. Its time is the start of the export, so that
// `restore --before T` gives the newest pool state exported before T.
//
// Exit status as for every kavrel-shadow command: 0 all well, 1 problems
// (restic failed, a check found damage), 2 usage, 3 could not run (no
// restic, no repository configured or there, no password), 4 not readable.
#ifndef TOOL_OFFSITE_H_
#define TOOL_OFFSITE_H_

#include <stdint.h>

#include <string>

#include "catalog_shadow/CatalogShadowCtx.h"

namespace koffsite {

struct OffsiteOptions {
    std::string command;   // push, snapshots, check or restore
    std::string snapshot;  // restore: an id, or "latest" (the default)
    bool has_before = false;
    int64_t before = 0;       // restore: the newest snapshot older than this
    bool dry_run = false;     // restore: print the plan only
    bool if_configured = false;  // push: nothing to do without [Offsite]
    bool json = false;
    bool json_lines = false;
};

// Tag prefix of the snapshots of one pool ("kavrel-pool=" and the pool).
extern const char* const kPoolTag;

// Runs one offsite command for the pool of `cr_config` with the shadow of
// `context` (constructed, not yet initialised). Prints its output and returns
// the exit status.
int run_offsite(CatalogShadowContext& context, const std::string& cr_config, const std::string& root,
                const OffsiteOptions& options);

}  // namespace koffsite

#endif  // TOOL_OFFSITE_H_
