// Collecting the metrics: the inventory and the status inspection of every
// database, as `kavrel-shadow status` does them, the record of runs and the
// off-site configuration.
#include "offsite/metrics.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "dct/environment.h"
#include "dct/file_io.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "offsite/offsite.h"
#include "offsite/restic.h"
#include "offsite/repository_id.h"
#include "offsite/restore_marker.h"
#include "offsite/shadow_actions.h"
#include "offsite/shadow_inventory.h"

namespace koffsite {

namespace {

// The kinds of problem and the beginnings of the texts of each (the texts
// of offsite/shadow_inspect.cpp and shadow_actions.cpp); "other" for any
// text none of them begins.
struct KindRule {
    const char* kind;
    const char* text;
};
const KindRule kKindRules[] = {
    {"live_missing", "live database missing"},
    {"checksum_file_damaged", "checksum file damaged"},
    {"version_missing", "version file missing"},
    {"version_checksum", "version checksum mismatch"},
    {"journal_mismatch", "journal does not match"},
    {"version_integrity", "version fails the SQLite integrity check"},
    {"recovery_impossible", "recovery impossible"},
    {"live_integrity", "live database fails the SQLite integrity check"},
    {"row_checksum", "row checksum mismatch"},
    {"rows_unreadable", "catalog rows could not be read"},
    {"lock_not_taken", "directory lock not taken"},
    {"rows_not_recoverable", "recovery would lose"},
    {"rows_brought_back", "recovery would bring back"},
};
const char* const kNotReadableKind = "not_readable";
const char* const kOtherKind = "other";

bool begins(const std::string& text, const char* prefix) { return text.compare(0, strlen(prefix), prefix) == 0; }

// `dir` below `root` "/": what follows, or false.
bool below(const std::string& dir, const std::string& root, std::string* rest) {
    if (root.empty() || dir.size() <= root.size() + 1 || !begins(dir, root.c_str()) || dir[root.size()] != '/') {
        return false;
    }
    *rest = dir.substr(root.size() + 1);
    return true;
}

// Data store, client and policy of a database's real directory.
void name_database(const CatalogShadowContext& context, const kshadow::Target& t, DatabaseMetrics* d) {
    d->type = t.type;
    std::string rest;
    if (context.proxy && below(t.dir, context.proxy->app_db_root, &rest)) {
        const size_t first = rest.find('/');
        const size_t last = rest.rfind('/');
        d->dsid = rest.substr(0, first);
        if (first != std::string::npos && last > first) {
            d->client = rest.substr(first + 1, last - first - 1);
            d->policy = rest.substr(last + 1);
        }
    } else if (context.proxy && below(t.dir, context.proxy->get_podb_root(), &rest)) {
        d->dsid = rest;
    }
}

// One database's report into the pool's counts.
void count_database(const CatalogShadowContext& context, const kshadow::DatabaseReport& r, PoolMetrics* m) {
    DatabaseMetrics d;
    name_database(context, r.target, &d);
    ++m->databases;
    d.problems = r.problems.size();
    if (!r.problems.empty()) ++m->with_problems;
    for (const kshadow::Problem& p : r.problems) {
        ++m->problems[problem_kind(p.what, p.not_readable)];
        d.unreadable = d.unreadable || p.not_readable;
    }
    if (d.unreadable) ++m->unreadable_databases;
    d.recoverable = r.recovery.possible;
    // A plan that could not be judged for lack of permission is no finding.
    if (!r.recovery.possible && r.recovery.reason != kshadow::kNotReadable) ++m->unrecoverable;
    struct stat st;
    // The inspection keeps the age only; the time itself is the file's.
    if (!r.versions.empty() && r.versions.front().exists && wa_stat(r.versions.front().path.c_str(), &st) == 0) {
        d.newest_version = static_cast<int64_t>(st.st_mtime);
        m->oldest_newest_version =
            m->have_versions ? std::min(m->oldest_newest_version, d.newest_version) : d.newest_version;
        m->have_versions = true;
    }
    d.journal_lines = r.journal_lines_since_newest;
    m->max_journal_lines = std::max<uint64_t>(m->max_journal_lines, d.journal_lines);
    if (r.recovery.coverage.known) d.rows_not_recoverable = r.recovery.coverage.lost_rows;
    m->rows_not_recoverable += d.rows_not_recoverable;
    if (m->per_database) m->databases_list.push_back(d);
}

// The databases of the pool into `m`; 106 when something could not be read.
cr_status_t collect_databases(CatalogShadowContext& context, PoolMetrics* m) {
    std::vector<std::string> unreadable;
    const std::vector<kshadow::Target> targets = kshadow::find_all_databases(context, &unreadable);
    m->unreadable_dirs = unreadable.size();
    if (m->per_database) m->databases_list.reserve(targets.size());
    // The reports are kept to the end, as status keeps them. Measured: with
    // glibc the growing list raises the allocator's trim threshold, so the
    // memory each inspection frees (SQLite's buffers of a connection among
    // it) is not handed back to the system and taken again for the next
    // database; without it that costs two brk calls a database, a sixth of
    // the run's system time.
    std::vector<kshadow::DatabaseReport> reports;
    for (const kshadow::Target& t : targets) {
        kshadow::DatabaseReport r;
        r.target = t;
        kshadow::work_on_database(context, kshadow::Work::status, &r);
        count_database(context, r, m);
        reports.push_back(std::move(r));
    }
    return m->unreadable_dirs > 0 || m->unreadable_databases > 0 ? CR_STATUS_ACCESS_DENIED : CR_STATUS_OK;
}

}  // namespace

const std::vector<std::string>& problem_kinds() {
    static const std::vector<std::string> kinds = [] {
        std::vector<std::string> k;
        for (const KindRule& rule : kKindRules) k.push_back(rule.kind);
        k.push_back(kNotReadableKind);
        k.push_back(kOtherKind);
        return k;
    }();
    return kinds;
}

std::string problem_kind(const std::string& what, bool not_readable) {
    if (not_readable) return kNotReadableKind;
    for (const KindRule& rule : kKindRules) {
        if (begins(what, rule.text)) return rule.kind;
    }
    return kOtherKind;
}

cr_status_t collect_metrics(CatalogShadowContext& context, const std::string& cr_config, bool per_database,
                            PoolMetrics* m) {
    *m = PoolMetrics();
    const uint64_t start_ms = dct::current_environment().now_ms();
    m->collected = static_cast<int64_t>(start_ms / 1000);
    m->per_database = per_database;
    for (const std::string& kind : problem_kinds()) m->problems[kind] = 0;
    OffsiteConfig offsite;
    std::string reason;
    // A Repository with a bad companion value is configured all the same.
    m->offsite_configured = read_offsite_config(cr_config, &offsite, &reason) != CR_STATUS_NOT_FOUND;

    const cr_status_t started = context.init();
    m->identity_denied = started == CR_STATUS_ACCESS_DENIED;
    m->shadow_up = started == CR_STATUS_OK && context.enabled;
    cr_status_t status = m->identity_denied ? CR_STATUS_ACCESS_DENIED : CR_STATUS_NONE;
    // The marker lies beside the shadow root: it tells even when the root is lost.
    const std::string shadow_root = shadow_root_of(context);
    RestoreMarker marker;
    m->restore_unfinished = !shadow_root.empty() && read_restore_marker(shadow_root, &marker) != CR_STATUS_MISSING;
    if (remembered_repository_id(shadow_root, &m->repository_id) != CR_STATUS_OK) m->repository_id.clear();
    if (m->shadow_up) {
        const cr_status_t runs = read_run_records(shadow_root_of(context), &m->runs);
        m->runs_readable = runs == CR_STATUS_OK;
        status = collect_databases(context, m);
        if (runs == CR_STATUS_ACCESS_DENIED) status = CR_STATUS_ACCESS_DENIED;
    }
    const uint64_t end_ms = dct::current_environment().now_ms();
    m->collect_seconds = end_ms >= start_ms ? (end_ms - start_ms) / 1000.0 : 0;
    return status;
}

cr_status_t write_metrics(CatalogShadowContext& context, const std::string& cr_config, bool per_database,
                          const std::string& file, std::string* text, std::string* reason) {
    PoolMetrics metrics;
    const cr_status_t status = collect_metrics(context, cr_config, per_database, &metrics);
    *text = render_metrics(metrics);
    reason->clear();
    if (file.empty()) return status;
    const cr_status_t written = write_metrics_file(file, *text, reason);
    text->clear();
    return written == CR_STATUS_OK ? status : written;
}

cr_status_t write_metrics_file(const std::string& path, const std::string& text, std::string* reason) {
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
    dct::atomic_write_options options;
    options.mode = 0644;  // read by the collector, which runs as its own user
    dct::file_failure failure;
    const cr_status_t status = dct::write_file_atomic(dir, path, text, options, &failure);
    if (status != CR_STATUS_OK) {
        *reason = failure.path + ": " + strerror(failure.error);
        ErrorA(status, "%s: cannot write the metrics to %s (%s)", "write_metrics_file", failure.path.c_str(),
               strerror(failure.error));
    }
    return status;
}

}  // namespace koffsite
