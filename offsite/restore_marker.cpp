#include "offsite/restore_marker.h"

#include <errno.h>
#include <string.h>

#include <fstream>
#include <sstream>

#include "dct/environment.h"
#include "dct/file_io.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "offsite/json_text.h"
#include "offsite/offsite.h"

namespace koffsite {

namespace {

const char* const kFn = "kavrel-shadow offsite restore";

std::string parent_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
}

}  // namespace

std::string restore_marker_path(const std::string& shadow_root) {
    return scratch_path(shadow_root, "restore") + ".unfinished";
}

cr_status_t read_restore_marker(const std::string& shadow_root, RestoreMarker* m) {
    *m = RestoreMarker();
    m->path = restore_marker_path(shadow_root);
    switch (dct::probe_readable(m->path)) {
        case dct::path_state::missing: return CR_STATUS_MISSING;
        case dct::path_state::denied: return CR_STATUS_ACCESS_DENIED;
        case dct::path_state::present: break;
    }
    std::ifstream in(m->path);
    std::stringstream text;
    text << in.rdbuf();
    const ktool::json j = ktool::json::parse(text.str(), nullptr, false);
    if (!j.is_object() || !j.contains("snapshot") || !j["snapshot"].is_string()) {
        ErrorA(CR_STATUS_CORRUPT, "%s: %s cannot be read as the mark of a restore", kFn, m->path.c_str());
        return CR_STATUS_CORRUPT;
    }
    m->snapshot = j["snapshot"].get<std::string>();
    m->short_id = j.value("short_id", m->snapshot.substr(0, 8));
    m->started = j.value("started", static_cast<int64_t>(0));
    m->databases = j.value("databases", static_cast<uint64_t>(0));
    if (j.contains("done") && j["done"].is_array()) {
        for (const auto& d : j["done"]) {
            if (d.is_string()) m->done.push_back(d.get<std::string>());
        }
    }
    return CR_STATUS_OK;
}

cr_status_t write_restore_marker(const RestoreMarker& m, std::string* why) {
    ktool::json j;
    j["snapshot"] = m.snapshot;
    j["short_id"] = m.short_id;
    j["started"] = m.started;
    j["databases"] = m.databases;
    ktool::json done = ktool::json::array();
    for (const std::string& d : m.done) done.push_back(ktool::json_text(d));
    j["done"] = done;
    dct::file_failure failure;
    const cr_status_t status =
        dct::write_file_atomic(parent_of(m.path), m.path, j.dump() + "\n", dct::atomic_write_options(), &failure);
    if (status != CR_STATUS_OK) {
        *why = "cannot write " + failure.path + ": " + strerror(failure.error);
        ErrorA(status, "%s: %s", kFn, why->c_str());
    }
    return status;
}

cr_status_t remove_restore_marker(const std::string& shadow_root, std::string* why) {
    const std::string path = restore_marker_path(shadow_root);
    if (wa_deletefile(path) != 0 && errno != ENOENT) {
        const int e = errno;
        const cr_status_t status = _crMapError(kFn, __FILE__, __LINE__);
        *why = "cannot remove " + path + ": " + strerror(e);
        ErrorA(status, "%s: %s", kFn, why->c_str());
        return status;
    }
    if (wa_syncdir(parent_of(path)) != 0) {
        const int e = errno;
        const cr_status_t status = _crMapError(kFn, __FILE__, __LINE__);
        *why = "cannot sync " + parent_of(path) + ": " + strerror(e);
        ErrorA(status, "%s: %s", kFn, why->c_str());
        return status;
    }
    return CR_STATUS_OK;
}

std::string finish_restore_command(const RestoreMarker& m) {
    return "kavrel-shadow offsite restore " + (m.short_id.empty() ? std::string("latest") : m.short_id);
}

std::vector<kshadow::Problem> unfinished_restore_problems(const std::string& shadow_root) {
    RestoreMarker m;
    const cr_status_t read = read_restore_marker(shadow_root, &m);
    if (read == CR_STATUS_MISSING) return {};
    if (read == CR_STATUS_ACCESS_DENIED) return {kshadow::not_readable_problem(m.path)};
    std::string what = "a restore";
    if (read == CR_STATUS_OK) {
        what += " of snapshot " + m.short_id + " (started " + ktool::iso8601_utc(m.started) + ", " +
                std::to_string(m.done.size()) + " of " + std::to_string(m.databases) + " databases done)";
    }
    return {kshadow::Problem{m.path, what + " is unfinished; finish it with: " + finish_restore_command(m)}};
}

bool finish_first(const RestoreMarker& marker, RestoreRequest* request, std::string* why) {
    const bool newest = request->snapshot.empty() || request->snapshot == "latest";
    if (newest ? !request->has_before : marker.snapshot.compare(0, request->snapshot.size(), request->snapshot) == 0) {
        request->snapshot = marker.snapshot;
        request->has_before = false;
        return true;
    }
    *why = "a restore of snapshot " + marker.short_id + " is unfinished (" + marker.path + "); finish it with: " +
           finish_restore_command(marker);
    return false;
}

RestoreMarking::RestoreMarking(const std::string& shadow_root) : shadow_root_(shadow_root) {
    const cr_status_t read = read_restore_marker(shadow_root, &marker_);
    resuming_ = read != CR_STATUS_MISSING;
}

cr_status_t RestoreMarking::begin(const Snapshot& snapshot, uint64_t databases, std::string* why) {
    if (marker_.snapshot != snapshot.id) marker_.done.clear();
    marker_.path = restore_marker_path(shadow_root_);
    marker_.snapshot = snapshot.id;
    marker_.short_id = snapshot.short_id;
    if (marker_.started == 0) marker_.started = static_cast<int64_t>(dct::current_environment().now_ms() / 1000);
    marker_.databases = databases;
    return write_restore_marker(marker_, why);
}

cr_status_t RestoreMarking::done(const std::string& database, std::string* why) {
    for (const std::string& d : marker_.done) {
        if (d == database) return CR_STATUS_OK;
    }
    marker_.done.push_back(database);
    return write_restore_marker(marker_, why);
}

cr_status_t RestoreMarking::finish(std::string* why) { return remove_restore_marker(shadow_root_, why); }

}  // namespace koffsite
