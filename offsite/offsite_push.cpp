// offsite push and check.
#include <time.h>

#include <string>
#include <vector>

#include "dct/environment.h"
#include "dct/log.h"
#include "offsite/json_text.h"
#include "offsite/offsite.h"
#include "offsite/offsite_forget.h"
#include "offsite/repository_id.h"
#include "offsite/restore_marker.h"
#include "offsite/run_record.h"
#include "offsite/shadow_export.h"
#include "offsite/shadow_inspect.h"

namespace koffsite {

namespace {

using ktool::json;

// restic's --time takes local time.
std::string restic_time(int64_t seconds) {
    const time_t t = static_cast<time_t>(seconds);
    struct tm tm;
    localtime_r(&t, &tm);
    char buf[32];
    strftime(buf, sizeof(buf), "%Y-%m-%d %H:%M:%S", &tm);
    return buf;
}

uint64_t number_of(const json& object, const char* key) {
    auto it = object.find(key);
    return it != object.end() && it->is_number_unsigned() ? it->get<uint64_t>() : 0;
}

// The summary record of `restic backup --json`; null when there is none.
json backup_summary(const std::string& out) {
    size_t start = 0;
    while (start < out.size()) {
        size_t end = out.find('\n', start);
        if (end == std::string::npos) end = out.size();
        const json line = json::parse(out.substr(start, end - start), nullptr, false);
        if (line.is_object() && line.value("message_type", "") == "summary") return line;
        start = end + 1;
    }
    return json();
}

// Stops a command: `stop` and `reason` set, CR_STATUS_FAILED returned.
template <typename Result>
cr_status_t stopped(Result* result, Stop stop, const std::string& reason) {
    result->stop = stop;
    result->reason = reason;
    return CR_STATUS_FAILED;
}

// Backs up the scratch export into the pool's repository (checked before).
// The result's stop and reason are set when it fails.
cr_status_t back_up(const Restic& restic, const std::string& pool, const std::string& scratch, PushResult* r,
                    json* summary) {
    const kshadow::ExportReport& e = r->exported;
    const std::vector<std::string> args = {
        "backup", "--json", "--host", e.host.empty() ? "localhost" : e.host, "--tag", pool_tag(pool),
        "--tag", "kavrel-databases=" + std::to_string(e.databases.size()), "--tag",
        "kavrel-rows=" + std::to_string(r->rows), "--time", restic_time(e.started), "--ignore-inode",
        "--ignore-ctime", scratch};
    const ResticRun backup = restic.run(args);
    *summary = backup_summary(backup.out);
    if (backup.ok() && summary->is_object()) return CR_STATUS_OK;
    const std::string failure =
        restic.report("kavrel-shadow offsite push", CR_STATUS_FAILED, "restic backup", backup);
    r->restic_exit_status = backup.exit_status;
    return stopped(r, Restic::could_not_open(backup) ? Stop::not_started : Stop::failed, failure);
}

// What a push or check learnt of the repository now: whether restic could use it.
void learnt(RepositoryRecord* repo, bool reachable) {
    repo->known = true;
    repo->time = static_cast<int64_t>(dct::current_environment().now_ms() / 1000);
    repo->reachable = reachable;
}

// push without its record; what it learnt of the repository goes to `repo`.
cr_status_t push_shadow(CatalogShadowContext& context, const Restic& restic, const std::string& pool,
                        PushResult* r, RepositoryRecord* repo) {
    *r = PushResult();
    const ProgressEnd progress_end(restic);
    r->repository = shown_repository(restic.config().repository);
    const std::string shadow_root = shadow_root_of(context);
    // A push that was killed leaves its scratch copy behind; it is ours.
    ScratchLock lock;
    std::string why;
    if (lock.take(shadow_root, &why) != CR_STATUS_OK) return stopped(r, Stop::not_started, why);
    // A pool half rebuilt is not stored as the newest state, and nothing goes
    // into a repository that is not the pool's.
    RestoreMarker unfinished;
    if (read_restore_marker(shadow_root, &unfinished) != CR_STATUS_MISSING) {
        return stopped(r, Stop::not_started, "a restore is unfinished (" + unfinished.path + "); finish it with: " +
                                                 finish_restore_command(unfinished));
    }
    std::string id;
    bool remembered = false;
    if (check_repository(restic, shadow_root, &id, &remembered, &why) != CR_STATUS_OK) {
        // Not there, not to be opened, or not the pool's: no push can use it.
        learnt(repo, false);
        return stopped(r, Stop::not_started, why);
    }
    if (!remembered && remember_repository_id(shadow_root, id, &why) != CR_STATUS_OK) {
        return stopped(r, Stop::not_started, why);
    }
    const std::string scratch = scratch_path(shadow_root, "push");
    kshadow::ScratchDir scratch_dir(scratch);
    if (!scratch_dir.remove()) return stopped(r, Stop::not_started, "cannot remove the scratch directory " + scratch);
    // The scratch copy is read at once and removed: it needs no sync.
    kshadow::ExportOptions scratch_copy;
    scratch_copy.durable = false;
    restic.progress("exporting the shadow");
    const cr_status_t exported = kshadow::export_shadow(context, scratch_dir.path(), &r->exported, scratch_copy);
    if (exported != CR_STATUS_OK) {
        r->export_failed = true;
        stopped(r, Stop::failed, r->exported.reason);
        return exported;
    }
    for (const auto& d : r->exported.databases) r->rows += d.rows_known ? d.rows : 0;
    json summary;
    const cr_status_t backed_up = back_up(restic, pool, scratch_dir.path(), r, &summary);
    learnt(repo, backed_up == CR_STATUS_OK || r->stop == Stop::failed);
    if (backed_up != CR_STATUS_OK) return backed_up;
    repo->newest_snapshot = r->exported.started;
    r->snapshot = summary.value("snapshot_id", "");
    r->bytes_added = number_of(summary, "data_added");
    r->files_new = number_of(summary, "files_new");
    r->files_changed = number_of(summary, "files_changed");
    r->files_unmodified = number_of(summary, "files_unmodified");

    // An append-only repository is thinned out by its own host.
    r->append_only = restic.config().append_only;
    ForgetResult thinned;
    if (!r->append_only && forget(restic, pool, false, &thinned, "kavrel-shadow offsite push") != CR_STATUS_OK) {
        r->deletion_refused = thinned.refused;
        if (!thinned.refused) r->forget_failure = thinned.reason;
    } else if (!r->append_only) {
        repo->snapshots = static_cast<int64_t>(thinned.kept.size());
    }
    r->forgotten = thinned.removed.size();
    r->scratch_removed = scratch_dir.remove();
    return CR_STATUS_OK;
}

// check without its record; what it learnt of the repository goes to `repo`.
cr_status_t check_shadow_copy(CatalogShadowContext& context, const Restic& restic, const std::string& pool,
                              CheckResult* r, RepositoryRecord* repo) {
    *r = CheckResult();
    const ProgressEnd progress_end(restic);
    r->repository = shown_repository(restic.config().repository);
    const std::string shadow_root = shadow_root_of(context);
    ScratchLock lock;
    std::string why;
    if (lock.take(shadow_root, &why) != CR_STATUS_OK) return stopped(r, Stop::not_started, why);
    std::string id;
    bool remembered = false;
    if (check_repository(restic, shadow_root, &id, &remembered, &why) != CR_STATUS_OK) {
        learnt(repo, false);
        return stopped(r, Stop::not_started, why);
    }
    std::vector<Snapshot> snapshots;
    const cr_status_t listed = list_snapshots(restic, pool, &snapshots, &why);
    learnt(repo, listed == CR_STATUS_OK);
    if (listed != CR_STATUS_OK) return stopped(r, Stop::not_started, why);
    repo->snapshots = static_cast<int64_t>(snapshots.size());
    if (!snapshots.empty()) repo->newest_snapshot = snapshots.back().time;

    const ResticRun checked = restic.run({"check"});
    r->repository_ok = checked.ok();
    if (!checked.ok()) {
        r->repository_failure =
            restic.report("kavrel-shadow offsite check", CR_STATUS_CORRUPT, "restic check", checked);
    }
    if (snapshots.empty()) return CR_STATUS_OK;
    r->has_snapshot = true;
    r->newest = snapshots.back();
    r->scratch = scratch_path(shadow_root, "check");
    kshadow::ScratchDir scratch_dir(r->scratch);
    if (!scratch_dir.remove()) return stopped(r, Stop::not_started, "cannot remove the scratch directory " + r->scratch);
    const ResticRun restored = restic.run({"restore", r->newest.id, "--target", r->scratch});
    if (!restored.ok()) {
        r->restore_failure =
            restic.report("kavrel-shadow offsite check", CR_STATUS_CORRUPT, "restic restore", restored);
    } else {
        r->verified = true;
        restic.progress("checking the snapshot's export");
        if (kshadow::verify_export(r->scratch + r->newest.path, &r->manifest, &r->reports) != CR_STATUS_OK) {
            r->unreadable =
                "the export in snapshot " + r->newest.short_id + " cannot be read: " + r->manifest.reason;
        }
    }
    r->scratch_removed = scratch_dir.remove();
    return CR_STATUS_OK;
}

}  // namespace

cr_status_t push(CatalogShadowContext& context, const Restic& restic, const std::string& pool, PushResult* r) {
    const RunClock clock;
    RepositoryRecord repo;
    const cr_status_t status = push_shadow(context, restic, pool, r, &repo);
    // Success as the command's exit status tells it: a snapshot of every
    // database, old snapshots forgotten, the scratch copy gone.
    const bool clean = r->exported.problems.empty() && r->forget_failure.empty() && r->scratch_removed;
    record_run(context, RecordedRun::push, clock, status != CR_STATUS_OK ? status : clean ? 0 : CR_STATUS_FAILED,
               &repo);
    return status;
}

cr_status_t check(CatalogShadowContext& context, const Restic& restic, const std::string& pool, CheckResult* r) {
    const RunClock clock;
    RepositoryRecord repo;
    const cr_status_t status = check_shadow_copy(context, restic, pool, r, &repo);
    bool clean = r->repository_ok && r->has_snapshot && r->verified && r->unreadable.empty() &&
                 r->manifest.problems.empty() && r->scratch_removed;
    for (const auto& report : r->reports) clean = clean && report.problems.empty();
    record_run(context, RecordedRun::check, clock, status != CR_STATUS_OK ? status : clean ? 0 : CR_STATUS_CORRUPT,
               &repo);
    return status;
}

}  // namespace koffsite
