#include "offsite/shadow_inspect.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <vector>

#include "appdb/catalog_row_check.h"
#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "catalog_shadow/RecoveryPlan.h"
#include "dct/environment.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "dct/pool_layout.h"
#include "offsite/shadow_coverage.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace kshadow {

namespace {

// Closes of the scratch and live connections: the wrapper's usual retries.
const unsigned long kCloseRetries = 3;

void add_problem(DatabaseReport* report, const std::string& path, const std::string& what) {
    report->problems.push_back(Problem{path, what});
}

// Size and age of a file; false when it cannot be stat'ed.
bool file_facts(const std::string& path, uint64_t* size, int64_t* age_seconds) {
    struct stat st;
    if (wa_stat(path.c_str(), &st) != 0) return false;
    *size = static_cast<uint64_t>(st.st_size);
    if (age_seconds != nullptr) {
        const int64_t now = static_cast<int64_t>(dct::current_environment().now_ms() / 1000);
        const int64_t age = now - static_cast<int64_t>(st.st_mtime);
        *age_seconds = age < 0 ? 0 : age;
    }
    return true;
}

void inspect_live(DatabaseReport* report) {
    LiveState& live = report->live;
    const std::string& path = report->target.db_path;
    switch (dct::probe_readable(path)) {
        case dct::path_state::missing: return;
        case dct::path_state::denied:
            live.denied = true;
            report->problems.push_back(not_readable_problem(path));
            return;
        case dct::path_state::present: break;
    }
    live.exists = file_facts(path, &live.size, nullptr);
    if (!live.exists) return;
    live.rows_known = count_rows(report->target.type, path, &live.rows);
}

// Reads the checksum file into versions; false when there is none usable.
bool read_versions(DatabaseReport* report, ShadowVersionList* list) {
    uint64_t current = 0;
    std::string reason;
    const std::string path = report->target.shadow_dir + "/" + PODBShadow::chksum_file(report->target.type);
    if (dct::probe_readable(path) == dct::path_state::denied) {
        report->checksum_file = kDenied;
        report->problems.push_back(not_readable_problem(path));
        return false;
    }
    cr_status_t status = PODBShadow::read_chksum(report->target.shadow_dir, report->target.type, &current, list,
                                                 &reason);
    if (status == CR_STATUS_MISSING) {
        report->checksum_file = kMissing;
        return false;
    }
    if (status != CR_STATUS_OK) {
        report->checksum_file = kBad;
        add_problem(report, path, "checksum file damaged (" + reason + ")");
        return false;
    }
    report->checksum_file = kOk;
    return true;
}

void inspect_version(ShadowVersion& v, bool integrity, DatabaseReport* report, VersionState* out,
                     ShadowVersion::JournalScan* scan) {
    out->number = v.version;
    out->path = v.db_path;
    out->journal_path = v.journal_path;
    out->journal_recorded_lines = v.journal_lines;
    const dct::path_state db_state = dct::probe_readable(v.db_path);
    out->exists = db_state == dct::path_state::present && file_facts(v.db_path, &out->size, &out->age_seconds);
    if (db_state == dct::path_state::denied) {
        out->checksum = kDenied;
        report->problems.push_back(not_readable_problem(v.db_path));
    } else if (!out->exists) {
        out->checksum = kMissing;
        add_problem(report, v.db_path, "version file missing");
    } else if (v.check_crc_db()) {
        out->checksum = kOk;
    } else {
        out->checksum = kBad;
        add_problem(report, v.db_path, "version checksum mismatch");
    }
    if (dct::probe_readable(v.journal_path) == dct::path_state::denied) {
        out->journal = kDenied;
        report->problems.push_back(not_readable_problem(v.journal_path));
        return;
    }
    if (v.verify_journal(scan)) {
        out->journal = kOk;
    } else {
        out->journal = kBad;
        add_problem(report, v.journal_path,
                    "journal does not match the checksum file (" + std::to_string(scan->lines) + " lines, " +
                        std::to_string(v.journal_lines) + " recorded)");
    }
    out->journal_lines = scan->lines;
    if (integrity && out->checksum == kOk) {
        out->integrity = PODBShadow::sqlite_integrity_check(v.db_path) ? kOk : kBad;
        if (out->integrity == kBad) add_problem(report, v.db_path, "version fails the SQLite integrity check");
    }
}

// The library's planner judging versions by what the inspection found: it
// reads nothing twice and writes nothing. Integrity is checked only for a
// candidate base whose inspection did not check it (status).
class InspectingJudge : public VersionJudge {
public:
    explicit InspectingJudge(DatabaseReport* report) : report_(report) {}

    void remember(uint64_t version, VersionState* state, const ShadowVersion::JournalScan& scan) {
        seen_[version] = Seen{state, scan};
    }
    bool denied() const { return denied_; }

    bool checksums_hold(ShadowVersion& version, ShadowVersion::JournalScan* scan) override {
        const Seen& seen = seen_.at(version.version);
        *scan = seen.scan;
        if (seen.state->checksum == kDenied || seen.state->journal == kDenied) denied_ = true;
        return seen.state->checksum == kOk && seen.state->journal == kOk;
    }

    bool integrity_holds(const ShadowVersion& version) override {
        VersionState& state = *seen_.at(version.version).state;
        if (state.integrity == kUnknown) {
            state.integrity = PODBShadow::sqlite_integrity_check(version.db_path) ? kOk : kBad;
            if (state.integrity == kBad) {
                add_problem(report_, version.db_path, "version fails the SQLite integrity check");
            }
        }
        return state.integrity == kOk;
    }

private:
    struct Seen {
        VersionState* state;
        ShadowVersion::JournalScan scan;
    };
    DatabaseReport* report_;
    std::map<uint64_t, Seen> seen_;
    bool denied_ = false;
};

// Carries `plan` out on a scratch copy, as a recovery would, and counts the
// rows it gives. False (with the report's reason set) when it fails.
bool rehearse(const DatabaseReport& report, const ::RecoveryPlan& plan, RecoveryPlan* out) {
    ScratchDir scratch;
    if (scratch.path().empty()) {
        ErrorA(CR_STATUS_IO, "%s: failed to create a scratch directory", "rehearse_recovery");
        out->reason = "no scratch directory for the rehearsal";
        return false;
    }
    PODBShadow shadow(nullptr, report.target.dir, report.target.shadow_dir);
    const std::string copy = dct::pool_layout::db_file_in(scratch.path(), report.target.type);
    if (shadow.carry_out(plan, copy) != CR_STATUS_OK) {
        out->reason = "the replay of the journals fails";
        return false;
    }
    if (report.target.type == PODBShadow::_appdb_type_) {
        sqlitedb::sqlite3_wrapper db(copy);
        out->rows_known = db.checkopen() == CR_STATUS_OK &&
                          appdb::count_catalog_rows(db.db(), copy, &out->rows_after) == CR_STATUS_OK;
        db.close_db(kCloseRetries);
        if (report.live.exists) compare_catalog_rows(report.target.db_path, copy, &out->coverage);
    }
    return true;
}

// Whether the recovery is rehearsed at `depth`: always beyond status; at
// status for an application database that is there to compare with.
bool rehearsed_at(Depth depth, const DatabaseReport& report) {
    return depth != Depth::status || (report.live.exists && report.target.type == PODBShadow::_appdb_type_);
}

// The rows a recovery would lose or bring back are problems of the live file.
void add_coverage_problems(DatabaseReport* report) {
    const Coverage& c = report->recovery.coverage;
    if (!c.known) return;
    if (c.lost_rows > 0) {
        add_problem(report, report->target.db_path,
                    "recovery would lose " + std::to_string(c.lost_rows) + (c.lost_rows == 1 ? " row" : " rows") +
                        " (the shadow cannot give them back)");
    }
    if (c.returned_rows > 0) {
        add_problem(report, report->target.db_path,
                    "recovery would bring back " + std::to_string(c.returned_rows) +
                        (c.returned_rows == 1 ? " row" : " rows") + " the live database does not hold");
    }
}

void plan_recovery(Depth depth, DatabaseReport* report, ShadowVersionList& list, InspectingJudge& judge) {
    RecoveryPlan& out = report->recovery;
    const ::RecoveryPlan plan = ::plan_recovery(list, report->target.db_path, judge);
    out.passed_over = plan.passed_over;
    if (!plan.possible()) {
        if (judge.denied()) {
            // Not known to be unusable: the user may not read it.
            out.reason = kNotReadable;
            return;
        }
        out.reason = plan.reason;
        add_problem(report, report->target.shadow_dir, "recovery impossible: " + out.reason);
        return;
    }
    out.base_version = plan.base_version;
    out.base_path = plan.base_path;
    out.journal_lines = plan.journal_lines;
    out.set_aside = plan.set_aside;
    out.possible = true;
    if (!rehearsed_at(depth, *report)) return;
    if (!rehearse(*report, plan, &out)) {
        out.possible = false;
        add_problem(report, report->target.shadow_dir, "recovery impossible: " + out.reason);
        return;
    }
    add_coverage_problems(report);
}

}  // namespace

bool count_rows(const std::string& type, const std::string& path, uint64_t* rows) {
    if (type != PODBShadow::_appdb_type_) return false;
    sqlitedb::sqlite3_wrapper db(path);
    if (db.checkopen() != CR_STATUS_OK) return false;
    const bool ok = appdb::count_catalog_rows(db.db(), path, rows) == CR_STATUS_OK;
    db.close_db(kCloseRetries);
    return ok;
}

void check_live_database(DatabaseReport* report) {
    LiveState& live = report->live;
    const std::string& path = report->target.db_path;
    if (!live.exists) return;
    live.integrity = PODBShadow::sqlite_integrity_check(path) ? kOk : kBad;
    if (live.integrity == kBad) add_problem(report, path, "live database fails the SQLite integrity check");
    if (report->target.type != PODBShadow::_appdb_type_) return;
    sqlitedb::sqlite3_wrapper db(path);
    std::vector<std::string> bad;
    uint64_t rows = 0;
    if (db.checkopen() != CR_STATUS_OK || appdb::check_catalog_rows(db.db(), path, &rows, &bad) != CR_STATUS_OK) {
        live.row_checksums = kBad;
        add_problem(report, path, "catalog rows could not be read");
    } else {
        live.rows_known = true;
        live.rows = rows;
        live.row_checksums = bad.empty() ? kOk : kBad;
        for (const std::string& item : bad) add_problem(report, path, "row checksum mismatch: " + item);
    }
    db.close_db(kCloseRetries);
}

void inspect_database(Depth depth, DatabaseReport* report) {
    inspect_live(report);
    ShadowVersionList list;
    const bool have_versions = read_versions(report, &list);
    if (!report->live.exists && !report->live.denied && (have_versions || report->checksum_file == kBad)) {
        add_problem(report, report->target.db_path, "live database missing");
    }
    InspectingJudge judge(report);
    report->versions.reserve(list.size());
    for (ShadowVersion& v : list) {
        report->versions.emplace_back();
        ShadowVersion::JournalScan scan;
        inspect_version(v, depth == Depth::verify, report, &report->versions.back(), &scan);
        judge.remember(v.version, &report->versions.back(), scan);
    }
    if (!report->versions.empty()) {
        report->journal_lines_since_newest = report->versions.front().journal_lines;
        report->newest_age_seconds = report->versions.front().age_seconds;
    }
    if (report->checksum_file == kBad) {
        report->recovery.reason = "checksum file damaged";
    } else if (report->checksum_file == kDenied) {
        report->recovery.reason = kNotReadable;
    } else {
        plan_recovery(depth, report, list, judge);
    }
    if (depth == Depth::verify) check_live_database(report);
}

ScratchDir::ScratchDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/kavrel-shadow.XXXXXX";
    if (mkdtemp(&pattern[0]) != nullptr) path_ = pattern;
}

ScratchDir::ScratchDir(const std::string& path) : path_(path) {}

ScratchDir::~ScratchDir() {
    if (!path_.empty() && wa_access(path_, 0) == 0) wa_deletetree(path_);
}

bool ScratchDir::remove() {
    if (path_.empty() || wa_access(path_, 0) != 0) return true;
    if (wa_deletetree(path_) == 0) return true;
    ErrorA(CR_STATUS_FAILED, "%s: cannot remove the scratch directory %s (%s)", "kavrel-shadow", path_.c_str(),
           strerror(errno));
    return false;
}

}  // namespace kshadow
