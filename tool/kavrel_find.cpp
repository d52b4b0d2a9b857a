// kavrel-find: searches the application catalog of a storage pool.
//
// Walks the database tree as kavrel does, picks the catalog directories
// whose data store, client and policy the search names (before anything is
// opened), and runs one SELECT per database that applies every other filter
// inside SQLite, through the catalog library: directory lock, kept
// statements, the row checksum of every row, the access rule as
// administrator. A database that cannot be read is reported and skipped, and
// the search goes on.
//
// Exit status: 0 all read, 1 some databases skipped, 2 usage, 3 could not run.
#include <errno.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "appdb/catalog_find.h"
#include "appdb/kavrel_config.h"
#include "dct/log.h"
#include "dct/status.h"
#include "offsite/shadow_model.h"
#include "tool/kavrel_find_options.h"
#include "tool/kavrel_find_render.h"

namespace {

using namespace kfind;
using kshadow::where_logged;

const int kExitOk = 0;
const int kExitSkipped = 1;
const int kExitUsage = 2;
const int kExitCannotRun = 3;

// Testing knob: the time relative TIMEs count from, in seconds since the
// epoch (anything else: the clock).
const char kNowEnv[] = "KAVREL_FIND_NOW";

// The allocator settings kavrel uses for the same walk.
const int kMmapThreshold = 16 << 20;
const int kTrimThreshold = 32 << 20;

int64_t now_seconds() {
    const char* text = getenv(kNowEnv);
    if (text != nullptr && *text != '\0') {
        char* end = nullptr;
        errno = 0;
        const long long v = strtoll(text, &end, 10);
        if (errno == 0 && *end == '\0') return v;
    }
    return static_cast<int64_t>(time(nullptr));
}

// The search the options ask for.
appdb::find_request request_of(const options& o) {
    appdb::find_request r;
    r.by_dsid = o.by_dsid;
    r.dsid = o.dsid;
    r.by_client = o.by_client;
    r.client = o.client;
    r.by_policy = o.by_policy;
    r.policy = o.policy;
    r.filter = o.filter;
    r.result = o.result == result_kind::count     ? appdb::find_result::count
               : o.result == result_kind::summary ? appdb::find_result::summary
                                                  : appdb::find_result::items;
    r.sort = o.sort;
    if (o.sort) {
        const item_column* c = item_column_named(o.sort_field);
        r.key.kind = c->kind == column_kind::dsid ? appdb::find_sort_key::dsid : appdb::find_sort_key::by_field;
        r.key.field = c->field;
    }
    r.descending = o.sort_descending;
    r.first = o.first;
    r.last = o.last;
    r.limit = o.limit;
    return r;
}

int run(const options& o) {
    std::string root = o.dbpath;
    if (root.empty()) {
        std::string cr_config;
        const std::string registry = appdb::registry_path(o.registry);
        if (appdb::locate_cr_config(registry, &cr_config) != CR_STATUS_OK) {
            fprintf(stderr, "%s: no CR configuration file found through %s\n", kProgram, registry.c_str());
            return kExitCannotRun;
        }
        dct::configure_log_level(cr_config);
        root = appdb::read_database_root(cr_config);
        if (root.empty()) {
            fprintf(stderr, "%s: %s names no database root\n", kProgram, cr_config.c_str());
            return kExitCannotRun;
        }
    }
    // Exactly one trailing "/" goes, as with kavrel.
    if (!root.empty() && root.back() == '/') root.pop_back();
    if (access(root.empty() ? "/" : root.c_str(), R_OK | X_OK) != 0) {
        fprintf(stderr, "%s: cannot read the database root %s (%s)\n", kProgram, root.c_str(), strerror(errno));
        return kExitCannotRun;
    }

    mallopt(M_MMAP_THRESHOLD, kMmapThreshold);
    mallopt(M_TRIM_THRESHOLD, kTrimThreshold);

    find_printer printer(o);
    appdb::find_totals totals;
    if (appdb::find_in_pool(root, request_of(o), printer, stdout, &totals) != CR_STATUS_OK) {
        fprintf(stderr, "%s: %s (%s)\n", kProgram,
                totals.stop == appdb::find_stop::no_ordering ? "cannot make the temporary database for ordering"
                                                             : "the search could not be completed",
                where_logged().c_str());
        return kExitCannotRun;
    }
    if (o.result == result_kind::count) printf("%llu\n", static_cast<unsigned long long>(totals.matched));
    if (fflush(stdout) != 0 || ferror(stdout) || totals.output_failed) {
        fprintf(stderr, "%s: cannot write the output (%s)\n", kProgram, strerror(errno));
        return kExitCannotRun;
    }
    return totals.skipped > 0 ? kExitSkipped : kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
    options o;
    std::string error;
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (!parse_args(args, now_seconds(), &o, &error)) {
        fprintf(stderr, "%s: %s\n%s", kProgram, error.c_str(), kUsage);
        return kExitUsage;
    }
    if (o.help) {
        fputs(kUsage, stdout);
        return kExitOk;
    }
    try {
        return run(o);
    } catch (...) {
        ErrorA(CR_STATUS_FAILED, "%s: unexpected exception", kProgram);
        fprintf(stderr, "%s: unexpected failure (%s)\n", kProgram, where_logged().c_str());
        return kExitCannotRun;
    }
}
