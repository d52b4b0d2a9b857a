// The pool's health as metrics in the Prometheus text exposition format, for
// a collector's text-file directory: what `status` finds (the same inventory
// and inspection, read only), the record of the last runs
// (offsite/run_record.h), and what the newest push or check learnt of the
// off-site repository. restic is not run: asking the repository would cost
// most of a second per start and a network, so its snapshots are those the
// last push or check counted, with the time they were counted.
//
// Every series is one row of the table in metrics_render.cpp; the manual
// page (kavrel-shadow(8), METRICS) lists them.
#ifndef OFFSITE_METRICS_H_
#define OFFSITE_METRICS_H_

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "dct/status.h"
#include "offsite/run_record.h"

namespace koffsite {

// One database, for the series of --per-database.
struct DatabaseMetrics {
    std::string dsid, client, policy;  // client and policy "" for the PO and UL databases
    std::string type;
    uint64_t problems = 0;
    bool recoverable = false;
    bool unreadable = false;
    int64_t newest_version = 0;  // modification time of its newest version (0: none)
    uint64_t journal_lines = 0;  // since the newest version
    uint64_t rows_not_recoverable = 0;  // live rows its shadow could not give back
};

// What the metrics say.
struct PoolMetrics {
    int64_t collected = 0;       // seconds since the epoch
    double collect_seconds = 0;  // time the collection took
    bool shadow_up = false;      // the shadow started (configured, identity file there and readable)
    bool identity_denied = false;
    uint64_t databases = 0;
    uint64_t with_problems = 0;
    std::map<std::string, uint64_t> problems;  // by kind; every kind of problem_kinds() present
    uint64_t unrecoverable = 0;                // a recovery would not succeed now
    uint64_t unreadable_databases = 0;         // something of it this user may not read
    uint64_t unreadable_dirs = 0;              // directories the search could not enter
    bool have_versions = false;
    int64_t oldest_newest_version = 0;  // the oldest of the databases' newest versions
    uint64_t max_journal_lines = 0;     // the most journal lines since a version
    uint64_t rows_not_recoverable = 0;  // live rows the shadow could not give back, all databases
    bool restore_unfinished = false;    // a restore's marker is there (offsite/restore_marker.h)
    std::string repository_id;          // the repository id the pool remembers ("": none)
    bool runs_readable = false;         // the record of runs could be read
    RunRecords runs;
    bool offsite_configured = false;    // [Offsite] Repository is set
    bool per_database = false;
    std::vector<DatabaseMetrics> databases_list;
};

// The kinds of problem (label `kind`), and the kind of a problem's text.
const std::vector<std::string>& problem_kinds();
std::string problem_kind(const std::string& what, bool not_readable);

// Collects the metrics of the pool of `context` (constructed; its shadow is
// started here) and configuration file `cr_config`. 0 when everything could
// be read; 106 when something could not be read by this user (the metrics say
// what); CR_STATUS_NONE when the shadow is off or has lost its identity file
// (shadow_up 0). The metrics are filled in every case.
cr_status_t collect_metrics(CatalogShadowContext& context, const std::string& cr_config, bool per_database,
                            PoolMetrics* metrics);

// The exposition text of `metrics`.
std::string render_metrics(const PoolMetrics& metrics);

// collect_metrics and render_metrics; the text goes to `file` (through
// write_metrics_file) when it is not "", else into `text`. The status of
// collect_metrics; or, when the file could not be written, that failure's
// status with `reason` set (`reason` stays "" otherwise).
cr_status_t write_metrics(CatalogShadowContext& context, const std::string& cr_config, bool per_database,
                          const std::string& file, std::string* text, std::string* reason);

// Replaces `path` with `text` as a collector must see it: written to `path`
// ".tmp", synced, renamed over `path`, the directory synced; mode 0644 so
// that the collector's user may read it. 0, or the failure's status with
// `reason` ("PATH: why"; logged).
cr_status_t write_metrics_file(const std::string& path, const std::string& text, std::string* reason);

}  // namespace koffsite

#endif  // OFFSITE_METRICS_H_
