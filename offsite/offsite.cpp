// The pool's snapshots, the scratch directories and their lock, and the
// repository's settings: what the offsite commands share.
#include "offsite/offsite.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <regex>

#include "dct/fs.h"
#include "dct/log.h"
#include "dct/time_text.h"
#include "offsite/json_text.h"

namespace koffsite {

const char* const kPoolTag = "kavrel-pool=";

std::string pool_tag(const std::string& pool) {
    std::string tag = kPoolTag;
    for (char c : pool) {
        if (c == '%') {
            tag += "%25";
        } else if (c == ',') {
            tag += "%2C";
        } else {
            tag += c;
        }
    }
    return tag;
}

std::string pool_of_tag(const std::string& value) {
    std::string pool;
    for (size_t i = 0; i < value.size(); ++i) {
        if (value.compare(i, 3, "%25") == 0) {
            pool += '%';
            i += 2;
        } else if (value.compare(i, 3, "%2C") == 0) {
            pool += ',';
            i += 2;
        } else {
            pool += value[i];
        }
    }
    return pool;
}

bool parse_restic_time(const std::string& text, int64_t* seconds) {
    // The fraction of a second does not matter for choosing a snapshot.
    static const std::regex kFraction("\\.[0-9]+");
    return dct::parse_time(std::regex_replace(text, kFraction, ""), 0, seconds);
}

namespace {

std::string tag_value(const ktool::json& tags, const std::string& prefix) {
    if (!tags.is_array()) return "";
    for (const auto& t : tags) {
        if (!t.is_string()) continue;
        const std::string s = t.get<std::string>();
        if (s.compare(0, prefix.size(), prefix) == 0) return s.substr(prefix.size());
    }
    return "";
}

std::string text_of(const ktool::json& object, const char* key) {
    auto it = object.find(key);
    return it != object.end() && it->is_string() ? it->get<std::string>() : "";
}

}  // namespace

bool snapshot_of(const ktool::json& s, Snapshot* snap) {
    if (!s.is_object()) return false;
    *snap = Snapshot();
    snap->id = text_of(s, "id");
    snap->short_id = text_of(s, "short_id");
    snap->time_text = text_of(s, "time");
    snap->host = text_of(s, "hostname");
    auto paths = s.find("paths");
    if (paths != s.end() && paths->is_array() && !paths->empty() && paths->front().is_string()) {
        snap->path = paths->front().get<std::string>();
    }
    auto tags = s.find("tags");
    if (tags != s.end()) {
        snap->databases = tag_value(*tags, "kavrel-databases=");
        snap->rows = tag_value(*tags, "kavrel-rows=");
        snap->pool = pool_of_tag(tag_value(*tags, kPoolTag));
    }
    if (snap->id.empty() || !parse_restic_time(snap->time_text, &snap->time)) return false;
    if (snap->short_id.empty()) snap->short_id = snap->id.substr(0, 8);
    return true;
}

cr_status_t list_snapshots(const Restic& restic, const std::string& pool, std::vector<Snapshot>* snapshots,
                           std::string* reason, size_t* other_pools) {
    snapshots->clear();
    if (other_pools != nullptr) *other_pools = 0;
    std::vector<std::string> args = {"snapshots", "--json"};
    if (!pool.empty() && other_pools == nullptr) args.insert(args.end(), {"--tag", pool_tag(pool)});
    const ResticRun run = restic.run(args);
    if (!run.ok()) {
        *reason = restic.report("kavrel-shadow offsite", CR_STATUS_FAILED, "restic snapshots", run);
        return CR_STATUS_FAILED;
    }
    const ktool::json list = ktool::json::parse(run.out, nullptr, false);
    if (!list.is_array()) {
        *reason = "restic snapshots gave no list of snapshots";
        ErrorA(CR_STATUS_FAILED, "%s: %s", "kavrel-shadow offsite", reason->c_str());
        return CR_STATUS_FAILED;
    }
    for (const auto& s : list) {
        Snapshot snap;
        if (!snapshot_of(s, &snap)) continue;
        if (snap.pool.empty()) continue;  // no snapshot of a pool
        if (!pool.empty() && snap.pool != pool) {
            if (other_pools != nullptr) ++*other_pools;
            continue;
        }
        snapshots->push_back(snap);
    }
    std::stable_sort(snapshots->begin(), snapshots->end(),
                     [](const Snapshot& a, const Snapshot& b) { return a.time < b.time; });
    return CR_STATUS_OK;
}

bool choose_snapshot(const std::vector<Snapshot>& snapshots, const std::string& pool, const RestoreRequest& o,
                     Snapshot* chosen, std::string* why) {
    const bool latest = o.snapshot.empty() || o.snapshot == "latest";
    size_t others = 0;
    for (auto it = snapshots.rbegin(); it != snapshots.rend(); ++it) {
        if (latest && it->pool != pool) {
            ++others;
            continue;
        }
        if (o.has_before && it->time >= o.before) continue;
        if (!latest && it->id.compare(0, o.snapshot.size(), o.snapshot) != 0) continue;
        *chosen = *it;
        return true;
    }
    *why = latest ? "no snapshot of this pool" : "no snapshot " + o.snapshot + " in the repository";
    if (o.has_before) *why += " before " + ktool::iso8601_utc(o.before);
    if (latest && others > 0) {
        *why += " (database root " + pool + "); the repository holds " + std::to_string(others) +
                (others == 1 ? " snapshot" : " snapshots") +
                " of other pools: offsite snapshots --all-pools lists them, offsite restore SNAPSHOT restores one here";
    }
    return false;
}

std::string scratch_path(const std::string& shadow_root, const std::string& what) {
    std::string root = shadow_root;
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    const size_t slash = root.rfind('/');
    const std::string parent = slash == std::string::npos ? "." : (slash == 0 ? "" : root.substr(0, slash));
    const std::string base = slash == std::string::npos ? root : root.substr(slash + 1);
    return parent + "/." + base + ".offsite" + (what.empty() ? "" : "-" + what);
}

ScratchLock::~ScratchLock() {
    if (fd_ >= 0) close(fd_);
}

cr_status_t ScratchLock::take(const std::string& shadow_root, std::string* reason) {
    const std::string path = scratch_path(shadow_root, "") + ".lock";
    fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, dct::private_file_mode);
    if (fd_ < 0) {
        const int e = errno;
        *reason = "cannot open " + path + ": " + strerror(e);
        ErrorA(CR_STATUS_FAILED, "%s: %s", "kavrel-shadow offsite", reason->c_str());
        return e == EACCES ? CR_STATUS_ACCESS_DENIED : CR_STATUS_FAILED;
    }
    if (flock(fd_, LOCK_EX | LOCK_NB) != 0) {
        *reason = "another offsite command of this pool is running (" + path + " is locked)";
        return CR_STATUS_BUSY;
    }
    return CR_STATUS_OK;
}

std::string shadow_root_of(const CatalogShadowContext& context) {
    std::string root = context.shadow_path;
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    return root;
}

cr_status_t open_offsite(const std::string& cr_config, OffsiteConfig* config, std::string* reason) {
    const cr_status_t read = read_offsite_config(cr_config, config, reason);
    if (read != CR_STATUS_OK) return read;
    const cr_status_t usable = Restic(*config).usable(reason);
    if (usable != CR_STATUS_OK) ErrorA(usable, "%s: %s", "kavrel-shadow offsite", reason->c_str());
    return usable;
}

}  // namespace koffsite
