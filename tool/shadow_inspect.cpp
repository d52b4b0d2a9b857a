#include "tool/shadow_inspect.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <vector>

#include "appdb/catalog_row_check.h"
#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "dct/fs.h"
#include "dct/log.h"
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
        const int64_t age = static_cast<int64_t>(time(nullptr)) - static_cast<int64_t>(st.st_mtime);
        *age_seconds = age < 0 ? 0 : age;
    }
    return true;
}

// Rows of an application database file; false when it has none to count
// (another type) or cannot be read.
bool count_rows(const std::string& type, const std::string& path, uint64_t* rows) {
    if (type != PODBShadow::_appdb_type_) return false;
    sqlitedb::sqlite3_wrapper db(path);
    if (db.checkopen() != CR_STATUS_OK) return false;
    const bool ok = appdb::count_catalog_rows(db.handle, path, rows) == CR_STATUS_OK;
    db.close_db(kCloseRetries);
    return ok;
}

void inspect_live(DatabaseReport* report) {
    LiveState& live = report->live;
    live.exists = file_facts(report->target.db_path, &live.size, nullptr);
    if (!live.exists) return;
    live.rows_known = count_rows(report->target.type, report->target.db_path, &live.rows);
}

// Reads the checksum file into versions; false when there is none usable.
bool read_versions(DatabaseReport* report, ShadowVersionList* list) {
    uint64_t current = 0;
    std::string reason;
    const std::string path = report->target.shadow_dir + "/" + PODBShadow::chksum_file(report->target.type);
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

void inspect_version(ShadowVersion& v, bool integrity, DatabaseReport* report, VersionState* out) {
    out->number = v.version;
    out->path = v.db_path;
    out->journal_path = v.journal_path;
    out->journal_recorded_lines = v.journal_lines;
    out->exists = file_facts(v.db_path, &out->size, &out->age_seconds);
    if (!out->exists) {
        out->checksum = kMissing;
        add_problem(report, v.db_path, "version file missing");
    } else if (v.check_crc_db()) {
        out->checksum = kOk;
    } else {
        out->checksum = kBad;
        add_problem(report, v.db_path, "version checksum mismatch");
    }
    ShadowVersion::JournalScan scan;
    if (v.verify_journal(&scan)) {
        out->journal = kOk;
    } else {
        out->journal = kBad;
        add_problem(report, v.journal_path,
                    "journal does not match the checksum file (" + std::to_string(scan.lines) + " lines, " +
                        std::to_string(v.journal_lines) + " recorded)");
    }
    out->journal_lines = scan.lines;
    if (integrity && out->checksum == kOk) {
        out->integrity = PODBShadow::sqlite_integrity_check(v.db_path) ? kOk : kBad;
        if (out->integrity == kBad) add_problem(report, v.db_path, "version fails the SQLite integrity check");
    }
}

// Removes the scratch directory and what it holds.
class ScratchDir {
public:
    ScratchDir() {
        const char* base = getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/kavrel-shadow.XXXXXX";
        if (mkdtemp(&pattern[0]) != nullptr) path_ = pattern;
    }
    ~ScratchDir() {
        if (!path_.empty()) wa_deletetree(path_);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// Copies the first `length` bytes of `from` to `to`; false (logged) on failure.
bool copy_prefix(const std::string& from, const std::string& to, uint64_t length) {
    std::ifstream in(from.c_str(), std::ios::in | std::ios::binary);
    std::ofstream out(to.c_str(), std::ios::out | std::ios::binary | std::ios::trunc);
    std::vector<char> buffer(static_cast<size_t>(length));
    if (in.read(buffer.data(), static_cast<std::streamsize>(length)) && out.write(buffer.data(), in.gcount()) &&
        out.flush()) {
        return true;
    }
    ErrorA(CR_STATUS_IO, "%s: failed to copy %s to %s", "rehearse_recovery", from.c_str(), to.c_str());
    return false;
}

// Replays the recovery from `base` onto a scratch copy and counts the rows it
// gives. False (with the plan's reason set) when the replay fails.
bool rehearse(const DatabaseReport& report, const ShadowVersionList& list, ShadowVersionList::const_iterator base,
              RecoveryPlan* plan) {
    ScratchDir scratch;
    if (scratch.path().empty()) {
        ErrorA(CR_STATUS_IO, "%s: failed to create a scratch directory", "rehearse_recovery");
        plan->reason = "no scratch directory for the rehearsal";
        return false;
    }
    PODBShadow shadow(nullptr, report.target.dir, report.target.shadow_dir);
    const std::string copy = scratch.path() + "/" + PODBShadow::db_file_name(report.target.type);
    uint32_t crc = 0;
    if (shadow.duplicate(base->db_path, copy, &crc) != CR_STATUS_OK) {
        plan->reason = "base version could not be copied";
        return false;
    }
    // The journals as a recovery replays them, oldest first: each cut back to
    // its recorded prefix where a recovery's check would cut it.
    ShadowVersionList replay;
    for (auto it = std::next(base);; ) {
        --it;
        replay.emplace_back(scratch.path(), it->type, it->version);
        const ShadowVersion::JournalScan scan = it->scan_journal();
        if (scan.exists && !copy_prefix(it->journal_path, replay.back().journal_path,
                                        scan.replayed_bytes(it->journal_lines, it->journal_crc))) {
            plan->reason = "journal could not be copied";
            return false;
        }
        if (it == list.begin()) break;
    }
    sqlitedb::sqlite3_wrapper db(copy);
    if (db.checkopen() != CR_STATUS_OK || db.begin_transaction() != CR_STATUS_OK) {
        plan->reason = "scratch copy could not be opened";
        return false;
    }
    cr_status_t status = shadow.apply_journals(replay.cbegin(), replay.cend(), &db);
    if (status != CR_STATUS_OK) {
        db.rollback_transaction();
        db.close_db(kCloseRetries);
        plan->reason = "journal replay fails";
        return false;
    }
    if (db.commit_transaction() != CR_STATUS_OK) {
        db.close_db(kCloseRetries);
        plan->reason = "journal replay does not commit";
        return false;
    }
    if (report.target.type == PODBShadow::_appdb_type_) {
        plan->rows_known = appdb::count_catalog_rows(db.handle, copy, &plan->rows_after) == CR_STATUS_OK;
    }
    db.close_db(kCloseRetries);
    return true;
}

// Journal lines a recovery replays from a version: lines written after the
// checksum file was last persisted are cut away first when the recorded part
// is intact.
uint32_t replayed_lines(const VersionState& v) {
    if (v.journal == kOk && v.journal_recorded_lines != 0 && v.journal_lines > v.journal_recorded_lines) {
        return v.journal_recorded_lines;
    }
    return v.journal_lines;
}

void plan_recovery(Depth depth, DatabaseReport* report, const ShadowVersionList& list) {
    RecoveryPlan& plan = report->recovery;
    auto state = report->versions.begin();
    ShadowVersionList::const_iterator base = list.end();
    for (auto it = list.begin(); it != list.end(); ++it, ++state) {
        bool usable = state->checksum == kOk && state->journal == kOk;
        if (usable && state->integrity == kUnknown) {
            state->integrity = PODBShadow::sqlite_integrity_check(it->db_path) ? kOk : kBad;
            if (state->integrity == kBad) add_problem(report, it->db_path, "version fails the SQLite integrity check");
        }
        if (usable && state->integrity == kOk) {
            base = it;
            break;
        }
        plan.passed_over.push_back(it->version);
    }
    if (list.empty()) {
        plan.reason = "no shadow version";
    } else if (base == list.end()) {
        plan.reason = "no usable shadow version";
    }
    if (base == list.end()) {
        add_problem(report, report->target.shadow_dir, "recovery impossible: " + plan.reason);
        return;
    }
    plan.base_version = base->version;
    plan.base_path = base->db_path;
    for (const VersionState& v : report->versions) {
        plan.journal_lines += replayed_lines(v);
        if (v.number == base->version) break;
    }
    for (const char* suffix : {"-journal", "-wal", "-shm"}) {
        const std::string path = report->target.db_path + suffix;
        if (wa_access(path, 0) == 0) plan.set_aside.push_back(path);
    }
    plan.possible = true;
    if (depth != Depth::status && !rehearse(*report, list, base, &plan)) {
        plan.possible = false;
        add_problem(report, report->target.shadow_dir, "recovery impossible: " + plan.reason);
    }
}

}  // namespace

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
    if (db.checkopen() != CR_STATUS_OK || appdb::check_catalog_rows(db.handle, path, &rows, &bad) != CR_STATUS_OK) {
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
    if (!report->live.exists && (have_versions || report->checksum_file == kBad)) {
        add_problem(report, report->target.db_path, "live database missing");
    }
    for (ShadowVersion& v : list) {
        report->versions.emplace_back();
        inspect_version(v, depth == Depth::verify, report, &report->versions.back());
    }
    if (!report->versions.empty()) {
        report->journal_lines_since_newest = report->versions.front().journal_lines;
        report->newest_age_seconds = report->versions.front().age_seconds;
    }
    if (report->checksum_file != kBad) plan_recovery(depth, report, list);
    if (report->checksum_file == kBad) {
        report->recovery.reason = "checksum file damaged";
    }
    if (depth == Depth::verify) check_live_database(report);
}

}  // namespace kshadow
