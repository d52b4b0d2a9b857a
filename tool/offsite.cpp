// kavrel-shadow offsite: the dispatch, the pool's snapshots, and what the
// commands share.
#include "tool/offsite.h"

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
#include "tool/kavrel_find_options.h"
#include "tool/offsite_internal.h"

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

bool parse_restic_time(const std::string& text, int64_t* seconds) {
    // The fraction of a second does not matter for choosing a snapshot.
    static const std::regex kFraction("\\.[0-9]+");
    return kfind::parse_time(std::regex_replace(text, kFraction, ""), 0, seconds);
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

cr_status_t list_snapshots(const Restic& restic, const std::string& pool, std::vector<Snapshot>* snapshots,
                           std::string* reason) {
    snapshots->clear();
    const ResticRun run = restic.run({"snapshots", "--json", "--tag", pool_tag(pool)});
    if (!run.ok()) {
        *reason = restic.failure("restic snapshots", run);
        ErrorA(CR_STATUS_FAILED, "%s: %s", "kavrel-shadow offsite", reason->c_str());
        return CR_STATUS_FAILED;
    }
    const ktool::json list = ktool::json::parse(run.out, nullptr, false);
    if (!list.is_array()) {
        *reason = "restic snapshots gave no list of snapshots";
        ErrorA(CR_STATUS_FAILED, "%s: %s", "kavrel-shadow offsite", reason->c_str());
        return CR_STATUS_FAILED;
    }
    for (const auto& s : list) {
        if (!s.is_object()) continue;
        Snapshot snap;
        snap.id = text_of(s, "id");
        snap.short_id = text_of(s, "short_id");
        snap.time_text = text_of(s, "time");
        snap.host = text_of(s, "hostname");
        auto paths = s.find("paths");
        if (paths != s.end() && paths->is_array() && !paths->empty() && paths->front().is_string()) {
            snap.path = paths->front().get<std::string>();
        }
        auto tags = s.find("tags");
        if (tags != s.end()) {
            snap.databases = tag_value(*tags, "kavrel-databases=");
            snap.rows = tag_value(*tags, "kavrel-rows=");
        }
        if (snap.id.empty() || !parse_restic_time(snap.time_text, &snap.time)) continue;
        if (snap.short_id.empty()) snap.short_id = snap.id.substr(0, 8);
        snapshots->push_back(snap);
    }
    std::stable_sort(snapshots->begin(), snapshots->end(),
                     [](const Snapshot& a, const Snapshot& b) { return a.time < b.time; });
    return CR_STATUS_OK;
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

Output::Output(const OffsiteOptions& options, const std::string& command, const std::string& items)
    : options_(options), command_(command), items_name_(items), items_(ktool::json::array()) {}

void Output::text(const std::string& line) {
    if (options_.json || options_.json_lines) return;
    printf("%s%s", line.c_str(), !line.empty() && line.back() == '\n' ? "" : "\n");
    fflush(stdout);
}

void Output::item(const ktool::json& value) {
    if (options_.json_lines) {
        printf("%s\n", ktool::json_line(value).c_str());
        fflush(stdout);
    } else {
        items_.push_back(value);
    }
}

int Output::finish(ktool::json summary, int exit_code) {
    summary["exit_code"] = exit_code;
    if (options_.json) {
        ktool::json doc;
        doc["schema"] = 1;
        doc["command"] = command_;
        doc[items_name_] = items_;
        doc["summary"] = summary;
        printf("%s\n", doc.dump(2).c_str());
    } else if (options_.json_lines) {
        ktool::json last;
        last["schema"] = 1;
        last["command"] = command_;
        last["summary"] = summary;
        printf("%s\n", ktool::json_line(last).c_str());
    }
    fflush(stdout);
    return exit_code;
}

void complain(const std::string& what) { fprintf(stderr, "kavrel-shadow: %s\n", what.c_str()); }

std::string shadow_root_of(const CatalogShadowContext& context) {
    std::string root = context.shadow_path;
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    return root;
}

int run_snapshots(const Restic& restic, const std::string& pool, const OffsiteOptions& options) {
    std::vector<Snapshot> snapshots;
    std::string reason;
    if (list_snapshots(restic, pool, &snapshots, &reason) != CR_STATUS_OK) return cannot_run(reason);
    Output out(options, "offsite snapshots", "snapshots");
    if (!snapshots.empty()) out.text("snapshot  time                  host                  databases  rows");
    for (const Snapshot& s : snapshots) {
        char line[512];
        snprintf(line, sizeof(line), "%-8s  %-20s  %-20s  %9s  %s", s.short_id.c_str(),
                 ktool::iso8601_utc(s.time).c_str(), s.host.c_str(), s.databases.empty() ? "-" : s.databases.c_str(),
                 s.rows.empty() ? "-" : s.rows.c_str());
        out.text(line);
        ktool::json j;
        j["id"] = s.id;
        j["short_id"] = s.short_id;
        j["time"] = ktool::iso8601_utc(s.time);
        j["host"] = ktool::json_text(s.host);
        j["path"] = ktool::json_text(s.path);
        j["databases"] = s.databases.empty() ? ktool::json() : ktool::json(std::stoull(s.databases));
        j["rows"] = s.rows.empty() ? ktool::json() : ktool::json(std::stoull(s.rows));
        out.item(j);
    }
    out.text("offsite snapshots: " + std::to_string(snapshots.size()) +
             (snapshots.size() == 1 ? " snapshot" : " snapshots") + " of pool " + pool + " in " +
             shown_repository(restic.config().repository));
    ktool::json summary;
    summary["snapshots"] = snapshots.size();
    summary["pool"] = ktool::json_text(pool);
    summary["repository"] = shown_repository(restic.config().repository);
    return out.finish(summary, kExitOk);
}

int run_offsite(CatalogShadowContext& context, const std::string& cr_config, const std::string& root,
                const OffsiteOptions& options) {
    OffsiteConfig config;
    std::string reason;
    const cr_status_t read = read_offsite_config(cr_config, &config, &reason);
    if (read == CR_STATUS_NOT_FOUND && options.if_configured) {
        printf("offsite %s: no [Offsite] Repository in %s; nothing to do\n", options.command.c_str(),
               cr_config.c_str());
        return kExitOk;
    }
    if (read != CR_STATUS_OK) return cannot_run(reason);
    Restic restic(config);
    const cr_status_t usable = restic.usable(&reason);
    if (usable != CR_STATUS_OK) {
        ErrorA(usable, "%s: %s", "kavrel-shadow offsite", reason.c_str());
        return cannot_run(reason);
    }
    if (options.command == "push") return run_push(context, restic, root, options);
    if (options.command == "snapshots") return run_snapshots(restic, root, options);
    if (options.command == "check") return run_check(context, restic, root, options);
    return run_restore(context, restic, root, options);
}

}  // namespace koffsite
