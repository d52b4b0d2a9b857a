// kavrel-shadow offsite push and check.
#include <stdio.h>
#include <time.h>

#include <string>
#include <vector>

#include "dct/log.h"
#include "tool/offsite_internal.h"
#include "tool/shadow_export.h"
#include "tool/shadow_inspect.h"
#include "tool/shadow_report.h"

namespace koffsite {

namespace {

// Starts the shadow as every command does and takes the scratch lock: 0, or
// the exit status after its one line.
int start_locked(CatalogShadowContext& context, ScratchLock* lock, std::string* shadow_root) {
    const int started = kshadow::start_shadow(context);
    if (started != kExitOk) return started;
    *shadow_root = shadow_root_of(context);
    std::string why;
    return lock->take(*shadow_root, &why) == CR_STATUS_OK ? kExitOk : cannot_run(why);
}

// restic's --time takes local time.
std::string restic_time(int64_t seconds) {
    const time_t t = static_cast<time_t>(seconds);
    struct tm tm;
    localtime_r(&t, &tm);
    char buf[32];
    strftime(buf, sizeof(buf), "%Y-%m-%d %H:%M:%S", &tm);
    return buf;
}

uint64_t number_of(const ktool::json& object, const char* key) {
    auto it = object.find(key);
    return it != object.end() && it->is_number_unsigned() ? it->get<uint64_t>() : 0;
}

// The summary record of `restic backup --json`; null when there is none.
ktool::json backup_summary(const std::string& out) {
    size_t start = 0;
    while (start < out.size()) {
        size_t end = out.find('\n', start);
        if (end == std::string::npos) end = out.size();
        const ktool::json line = ktool::json::parse(out.substr(start, end - start), nullptr, false);
        if (line.is_object() && line.value("message_type", "") == "summary") return line;
        start = end + 1;
    }
    return ktool::json();
}

// How many snapshots `restic forget --json` removed (its first line is the
// JSON list of groups; prune's report may follow).
uint64_t forgotten(const std::string& out) {
    const size_t start = out.find('[');
    if (start == std::string::npos) return 0;
    size_t end = out.find('\n', start);
    if (end == std::string::npos) end = out.size();
    const ktool::json groups = ktool::json::parse(out.substr(start, end - start), nullptr, false);
    uint64_t removed = 0;
    if (!groups.is_array()) return 0;
    for (const auto& g : groups) {
        auto r = g.find("remove");
        if (r != g.end() && r->is_array()) removed += r->size();
    }
    return removed;
}

uint64_t total_rows(const kshadow::ExportReport& report) {
    uint64_t rows = 0;
    for (const auto& d : report.databases) rows += d.rows_known ? d.rows : 0;
    return rows;
}

}  // namespace

int run_push(CatalogShadowContext& context, const Restic& restic, const std::string& pool,
             const OffsiteOptions& options) {
    ScratchLock lock;
    std::string shadow_root;
    const int started = start_locked(context, &lock, &shadow_root);
    if (started != kExitOk) return started;
    // A push that was killed leaves its scratch copy behind; it is ours.
    const std::string scratch = scratch_path(shadow_root, "push");
    kshadow::ScratchDir scratch_dir(scratch);
    if (!scratch_dir.remove()) return cannot_run("cannot remove the scratch directory " + scratch);
    Output out(options, "offsite push", "databases");
    const std::string repository = shown_repository(restic.config().repository);

    // The scratch copy is read at once and removed: it needs no sync.
    kshadow::ExportOptions scratch_copy;
    scratch_copy.durable = false;
    kshadow::ExportReport exported;
    const cr_status_t status = kshadow::export_shadow(context, scratch, &exported, scratch_copy);
    if (status != CR_STATUS_OK) {
        complain("offsite push: the export failed: " + exported.reason);
        ktool::json summary;
        summary["error"] = ktool::json_text("the export failed: " + exported.reason);
        return out.finish(summary, kExitProblems);
    }
    const uint64_t rows = total_rows(exported);
    for (const auto& d : exported.databases) {
        uint32_t lines = 0;
        for (const auto& v : d.versions) lines += v.journal_lines;
        std::string text = "  " + d.target.type + " " + d.target.dir + ": " +
                           (d.rows_known ? std::to_string(d.rows) + " rows" : std::string("rows unknown")) + ", " +
                           std::to_string(d.versions.size()) + (d.versions.size() == 1 ? " version" : " versions") +
                           ", " + std::to_string(lines) + " journal lines";
        out.text(text);
        ktool::json j;
        j["type"] = d.target.type;
        j["dir"] = ktool::json_text(d.target.dir);
        j["rows"] = d.rows_known ? ktool::json(d.rows) : ktool::json();
        j["versions"] = d.versions.size();
        j["journal_lines"] = lines;
        out.item(j);
    }
    for (const auto& p : exported.problems) out.text("  problem " + p.path + ": " + p.what);

    const std::vector<std::string> backup_args = {
        "backup", "--json", "--host", exported.host.empty() ? "localhost" : exported.host, "--tag", pool_tag(pool),
        "--tag", "kavrel-databases=" + std::to_string(exported.databases.size()), "--tag",
        "kavrel-rows=" + std::to_string(rows), "--time", restic_time(exported.started), "--ignore-inode",
        "--ignore-ctime", scratch};
    ResticRun backup = restic.run(backup_args);
    // The first push makes the repository. Asking first would cost every
    // push another start of restic (its key derivation is most of a run).
    bool created = false;
    if (!backup.ok() && Restic::no_repository(backup)) {
        const ResticRun init = restic.run({"init"});
        if (!init.ok()) {
            const std::string failure = restic.failure("restic init", init);
            ErrorA(CR_STATUS_FAILED, "%s: %s", "kavrel-shadow offsite push", failure.c_str());
            return cannot_run(failure);
        }
        created = true;
        out.text("offsite push: initialised the repository " + repository);
        InfoA(CR_STATUS_OK, "%s: initialised the repository %s", "kavrel-shadow offsite push", repository.c_str());
        backup = restic.run(backup_args);
    }
    const ktool::json summary_line = backup_summary(backup.out);
    if (!backup.ok() || !summary_line.is_object()) {
        const std::string failure = restic.failure("restic backup", backup);
        ErrorA(CR_STATUS_FAILED, "%s: %s", "kavrel-shadow offsite push", failure.c_str());
        if (Restic::could_not_open(backup)) return cannot_run(failure);
        complain("offsite push: " + failure);
        ktool::json summary;
        summary["error"] = ktool::json_text(failure);
        summary["restic_exit_status"] = backup.exit_status;
        return out.finish(summary, kExitProblems);
    }
    const std::string snapshot = summary_line.value("snapshot_id", "");
    const uint64_t added = number_of(summary_line, "data_added");

    int exit_code = exported.problems.empty() ? kExitOk : kExitProblems;
    const std::string keep = std::to_string(restic.config().keep_last);
    const ResticRun forget =
        restic.run({"forget", "--json", "--tag", pool_tag(pool), "--group-by", "", "--keep-last", keep, "--prune"});
    uint64_t removed = 0;
    std::string forget_failure;
    if (forget.ok()) {
        removed = forgotten(forget.out);
    } else {
        forget_failure = restic.failure("restic forget", forget);
        ErrorA(CR_STATUS_FAILED, "%s: %s", "kavrel-shadow offsite push", forget_failure.c_str());
        complain("offsite push: " + forget_failure);
        exit_code = kExitProblems;
    }
    if (!scratch_dir.remove()) exit_code = kExitProblems;

    out.text("offsite push: snapshot " + snapshot.substr(0, 8) + " in " + repository + ": " +
             std::to_string(exported.databases.size()) + " databases, " + std::to_string(rows) + " rows as of " +
             ktool::iso8601_utc(exported.started) + ", " + std::to_string(added) + " bytes added, " +
             std::to_string(removed) + " old snapshots forgotten (keep last " + keep + ")");
    ktool::json summary;
    summary["snapshot"] = snapshot;
    summary["repository"] = repository;
    summary["pool"] = ktool::json_text(pool);
    summary["started"] = ktool::iso8601_utc(exported.started);
    summary["finished"] = ktool::iso8601_utc(exported.finished);
    summary["databases"] = exported.databases.size();
    summary["rows"] = rows;
    summary["bytes_added"] = added;
    summary["files_new"] = number_of(summary_line, "files_new");
    summary["files_changed"] = number_of(summary_line, "files_changed");
    summary["files_unmodified"] = number_of(summary_line, "files_unmodified");
    summary["repository_created"] = created;
    summary["forgotten"] = removed;
    ktool::json problems = ktool::json::array();
    for (const auto& p : exported.problems) problems.push_back(kshadow::problem_json(p));
    if (!forget_failure.empty()) problems.push_back(kshadow::problem_json(kshadow::Problem{repository, forget_failure}));
    summary["problems"] = problems;
    return out.finish(summary, exit_code);
}

int run_check(CatalogShadowContext& context, const Restic& restic, const std::string& pool,
              const OffsiteOptions& options) {
    ScratchLock lock;
    std::string shadow_root;
    const int started = start_locked(context, &lock, &shadow_root);
    if (started != kExitOk) return started;
    std::string why;
    std::vector<Snapshot> snapshots;
    if (list_snapshots(restic, pool, &snapshots, &why) != CR_STATUS_OK) return cannot_run(why);

    Output out(options, "offsite check", "databases");
    ktool::json summary;
    ktool::json problems = ktool::json::array();
    const std::string repository = shown_repository(restic.config().repository);
    summary["repository"] = repository;
    const ResticRun check = restic.run({"check"});
    summary["repository_check"] = check.ok() ? "ok" : "bad";
    if (check.ok()) {
        out.text("repository " + repository + ": restic check passed");
    } else {
        const std::string failure = restic.failure("restic check", check);
        ErrorA(CR_STATUS_CORRUPT, "%s: %s", "kavrel-shadow offsite check", failure.c_str());
        out.text("repository " + repository + ": " + failure);
        problems.push_back(kshadow::problem_json(kshadow::Problem{repository, failure}));
    }
    if (snapshots.empty()) {
        const std::string none = "no snapshot of pool " + pool + " in the repository";
        out.text("offsite check: " + none);
        problems.push_back(kshadow::problem_json(kshadow::Problem{repository, none}));
        summary["snapshot"] = ktool::json();
        summary["problems"] = problems;
        return out.finish(summary, kExitProblems);
    }
    const Snapshot& newest = snapshots.back();
    summary["snapshot"] = newest.id;
    summary["time"] = ktool::iso8601_utc(newest.time);
    const std::string scratch = scratch_path(shadow_root, "check");
    kshadow::ScratchDir scratch_dir(scratch);
    if (!scratch_dir.remove()) return cannot_run("cannot remove the scratch directory " + scratch);
    const ResticRun restore = restic.run({"restore", newest.id, "--target", scratch});
    uint64_t with_problems = 0;
    if (!restore.ok()) {
        const std::string failure = restic.failure("restic restore", restore);
        ErrorA(CR_STATUS_CORRUPT, "%s: %s", "kavrel-shadow offsite check", failure.c_str());
        out.text("snapshot " + newest.short_id + ": " + failure);
        problems.push_back(kshadow::problem_json(kshadow::Problem{newest.id, failure}));
    } else {
        kshadow::ExportReport manifest;
        std::vector<kshadow::DatabaseReport> reports;
        std::string export_dir = scratch + newest.path;
        const cr_status_t verified = kshadow::verify_export(export_dir, &manifest, &reports);
        if (verified != CR_STATUS_OK) {
            const std::string failure = "the export in snapshot " + newest.short_id + " cannot be read: " +
                                        manifest.reason;
            out.text(failure);
            problems.push_back(kshadow::problem_json(kshadow::Problem{newest.id, failure}));
        }
        // Files outside every database's directory that the manifest does
        // not name.
        for (const auto& p : manifest.problems) {
            out.text("problem " + p.path + ": " + p.what);
            problems.push_back(kshadow::problem_json(p));
        }
        for (const auto& r : reports) {
            out.text(kshadow::database_text("verify --export", r));
            out.item(ktool::json::parse(kshadow::database_json(r)));
            if (!r.problems.empty()) ++with_problems;
            for (const auto& p : r.problems) problems.push_back(kshadow::problem_json(p));
        }
        summary["databases"] = reports.size();
        summary["with_problems"] = with_problems;
    }
    if (!scratch_dir.remove()) {
        problems.push_back(kshadow::problem_json(kshadow::Problem{scratch, "the scratch directory could not be removed"}));
    }
    summary["problems"] = problems;
    out.text("offsite check: snapshot " + newest.short_id + " of " + ktool::iso8601_utc(newest.time) + ": " +
             (problems.empty() ? std::string("all well") : std::to_string(problems.size()) + " problems"));
    return out.finish(summary, problems.empty() ? kExitOk : kExitProblems);
}

}  // namespace koffsite
