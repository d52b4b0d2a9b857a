#include "offsite/run_record.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "dct/environment.h"
#include "dct/file_io.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "dct/pool_layout.h"
#include "offsite/json_text.h"
#include "offsite/offsite.h"

namespace koffsite {

namespace {

using ktool::json;

const int kFormat = 1;

const char* const kRunNames[kRecordedRuns] = {"backup", "push", "check", "restore"};

int64_t seconds_of(uint64_t ms) { return static_cast<int64_t>(ms / 1000); }

template <typename T>
T member(const json& object, const char* key, T fallback) {
    auto it = object.find(key);
    if (it == object.end() || it->is_null()) return fallback;
    return it->get<T>();
}

void read_run(const json& j, RunRecord* r) {
    r->known = true;
    r->started = member<int64_t>(j, "started", 0);
    r->duration = member<double>(j, "duration_seconds", 0);
    r->success = member<bool>(j, "success", false);
    r->status = member<cr_status_t>(j, "status", 0);
    r->last_success = member<int64_t>(j, "last_success", 0);
    r->runs = member<uint64_t>(j, "runs", 0);
    r->failures = member<uint64_t>(j, "failures", 0);
}

json run_json(const RunRecord& r) {
    json j;
    j["started"] = r.started;
    j["duration_seconds"] = r.duration;
    j["success"] = r.success;
    j["status"] = r.status;
    j["last_success"] = r.last_success;
    j["runs"] = r.runs;
    j["failures"] = r.failures;
    return j;
}

// The records in `text`; false when it is not a record file of this format.
bool parse_records(const std::string& text, RunRecords* records) {
    const json doc = json::parse(text, nullptr, false);
    if (!doc.is_object() || member<int>(doc, "format", 0) != kFormat) return false;
    try {
        auto runs = doc.find("runs");
        for (int i = 0; runs != doc.end() && i < kRecordedRuns; ++i) {
            auto run = runs->find(kRunNames[i]);
            if (run != runs->end()) read_run(*run, &records->runs[i]);
        }
        auto repo = doc.find("repository");
        if (repo != doc.end() && repo->is_object()) {
            RepositoryRecord& r = records->repository;
            r.known = true;
            r.time = member<int64_t>(*repo, "time", 0);
            r.reachable = member<bool>(*repo, "reachable", false);
            r.snapshots = member<int64_t>(*repo, "snapshots", -1);
            r.newest_snapshot = member<int64_t>(*repo, "newest_snapshot", 0);
        }
    } catch (const json::exception&) {
        return false;  // a member of another kind
    }
    return true;
}

std::string records_text(const RunRecords& records) {
    json doc;
    doc["format"] = kFormat;
    json runs = json::object();
    for (int i = 0; i < kRecordedRuns; ++i) {
        if (records.runs[i].known) runs[kRunNames[i]] = run_json(records.runs[i]);
    }
    doc["runs"] = runs;
    if (records.repository.known) {
        const RepositoryRecord& r = records.repository;
        doc["repository"] = json{{"time", r.time}, {"reachable", r.reachable}, {"snapshots", r.snapshots},
                                 {"newest_snapshot", r.newest_snapshot}};
    }
    return ktool::json_line(doc) + "\n";
}

// The new record of `run` after the previous one.
void update_run(RunRecord* r, const RunClock& clock, uint64_t now_ms, cr_status_t status) {
    r->known = true;
    r->started = seconds_of(clock.started_ms);
    r->duration = now_ms >= clock.started_ms ? (now_ms - clock.started_ms) / 1000.0 : 0;
    r->success = status == CR_STATUS_OK;
    r->status = status;
    ++r->runs;
    if (r->success) {
        r->last_success = seconds_of(now_ms);
    } else {
        ++r->failures;
    }
}

// Reads, updates and replaces the file while holding the root's flock.
// 0, or the failure's status with `why` set.
cr_status_t rewrite(const std::string& root, RecordedRun run, const RunClock& clock, cr_status_t status,
                    const RepositoryRecord* repository, std::string* why) {
    const int fd = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0 || flock(fd, LOCK_EX) != 0) {
        const cr_status_t failed = _crMapError("record_run", __FILE__, __LINE__);
        *why = strerror(errno);
        if (fd >= 0) close(fd);
        return failed;
    }
    RunRecords records;
    cr_status_t result = read_run_records(root, &records);
    if (result == CR_STATUS_CORRUPT) {
        records = RunRecords();  // logged; the runs from now on are recorded afresh
        result = CR_STATUS_OK;
    }
    if (result == CR_STATUS_OK) {
        const uint64_t now_ms = dct::current_environment().now_ms();
        update_run(&records.runs[static_cast<int>(run)], clock, now_ms, status);
        if (repository != nullptr && repository->known) {
            const int64_t snapshots = records.repository.snapshots;
            records.repository = *repository;
            if (repository->snapshots < 0) records.repository.snapshots = snapshots;
        }
        dct::file_failure failure;
        result = dct::write_file_atomic(root, dct::pool_layout::run_record_file(root), records_text(records),
                                        dct::atomic_write_options(), &failure);
        if (result != CR_STATUS_OK) *why = failure.path + ": " + strerror(failure.error);
    } else {
        *why = "the previous record cannot be read";
    }
    close(fd);  // releases the flock
    return result;
}

}  // namespace

const char* run_name(RecordedRun run) { return kRunNames[static_cast<int>(run)]; }

RunClock::RunClock() : started_ms(dct::current_environment().now_ms()) {}

cr_status_t read_run_records(const std::string& shadow_root, RunRecords* records) {
    *records = RunRecords();
    const std::string path = dct::pool_layout::run_record_file(shadow_root);
    switch (dct::probe_readable(path)) {
        case dct::path_state::missing: return CR_STATUS_OK;
        case dct::path_state::denied: return CR_STATUS_ACCESS_DENIED;
        case dct::path_state::present: break;
    }
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    if (!in.good() && !in.eof()) {
        const cr_status_t failed = _crMapError("read_run_records", __FILE__, __LINE__);
        ErrorA(failed, "%s: cannot read %s (%s)", "read_run_records", path.c_str(), strerror(errno));
        return failed;
    }
    if (!parse_records(text.str(), records)) {
        *records = RunRecords();
        ErrorA(CR_STATUS_CORRUPT, "%s: %s is not a record of runs", "read_run_records", path.c_str());
        return CR_STATUS_CORRUPT;
    }
    return CR_STATUS_OK;
}

void record_run(const CatalogShadowContext& context, RecordedRun run, const RunClock& clock, cr_status_t status,
                const RepositoryRecord* repository) {
    const std::string root = shadow_root_of(context);
    std::string why;
    cr_status_t result = CR_STATUS_NOT_FOUND;
    if (root.empty() || wa_access(dct::pool_layout::identity_file(root), 0) != 0) {
        why = "the shadow root has no identity file";
    } else {
        result = rewrite(root, run, clock, status, repository, &why);
    }
    if (result != CR_STATUS_OK) {
        ErrorA(result, "%s: cannot record the %s run in %s (%s)", "record_run", run_name(run),
               dct::pool_layout::run_record_file(root).c_str(), why.c_str());
    }
}

}  // namespace koffsite
