// kavrel-shadow offsite: the dispatch, push and check.
#include "tool/offsite_command.h"

#include <stdio.h>

#include <string>
#include <vector>

#include "offsite/json_text.h"
#include "offsite/offsite.h"
#include "offsite/offsite_forget.h"
#include "tool/offsite_output.h"
#include "tool/progress.h"
#include "tool/shadow_export_command.h"
#include "tool/shadow_report.h"

namespace koffsite {

namespace {

using kshadow::cannot_run;
using kshadow::kExitOk;
using kshadow::kExitProblems;
using kshadow::plural;
using kshadow::problem_json;
using ktool::json;
using ktool::json_text;

// The databases of the export and its problems.
void print_exported(const kshadow::ExportReport& exported, Output& out) {
    for (const auto& d : exported.databases) {
        uint32_t lines = 0;
        for (const auto& v : d.versions) lines += v.journal_lines;
        out.text("  " + d.target.type + " " + d.target.dir + ": " +
                 (d.rows_known ? std::to_string(d.rows) + " rows" : std::string("rows unknown")) + ", " +
                 std::to_string(d.versions.size()) + (d.versions.size() == 1 ? " version" : " versions") + ", " +
                 std::to_string(lines) + " journal lines");
        json j;
        j["type"] = d.target.type;
        j["dir"] = json_text(d.target.dir);
        j["rows"] = d.rows_known ? json(d.rows) : json();
        j["versions"] = d.versions.size();
        j["journal_lines"] = lines;
        out.item(j);
    }
    for (const auto& p : exported.problems) out.text("  problem " + p.path + ": " + p.what);
}

json push_summary(const PushResult& r, const std::string& pool) {
    json summary;
    summary["snapshot"] = r.snapshot;
    summary["repository"] = r.repository;
    summary["pool"] = json_text(pool);
    summary["started"] = ktool::iso8601_utc(r.exported.started);
    summary["finished"] = ktool::iso8601_utc(r.exported.finished);
    summary["databases"] = r.exported.databases.size();
    summary["rows"] = r.rows;
    summary["bytes_added"] = r.bytes_added;
    summary["files_new"] = r.files_new;
    summary["files_changed"] = r.files_changed;
    summary["files_unmodified"] = r.files_unmodified;
    summary["repository_created"] = false;  // only offsite init makes one
    summary["forgotten"] = r.forgotten;
    summary["append_only"] = r.append_only || r.deletion_refused;
    json problems = json::array();
    for (const auto& p : r.exported.problems) problems.push_back(problem_json(p));
    if (!r.forget_failure.empty()) problems.push_back(problem_json(kshadow::Problem{r.repository, r.forget_failure}));
    summary["problems"] = problems;
    return summary;
}

int run_push(CatalogShadowContext& context, const Restic& restic, const std::string& pool,
             const OffsiteOptions& options) {
    const int started = kshadow::start_shadow(context);
    if (started != kExitOk) return started;
    PushResult r;
    const cr_status_t status = push(context, restic, pool, &r);
    const bool exported = r.exported.started != 0 && !r.export_failed;
    if (status != CR_STATUS_OK && !exported && r.stop == Stop::not_started) return cannot_run(r.reason);
    Output out(options, "offsite push", "databases");
    if (r.export_failed) return out.fail("offsite push", "the export failed: " + r.reason);
    print_exported(r.exported, out);
    if (status != CR_STATUS_OK && r.stop == Stop::not_started) return cannot_run(r.reason);
    if (status != CR_STATUS_OK) {
        complain("offsite push: " + r.reason);
        json summary;
        summary["error"] = json_text(r.reason);
        summary["restic_exit_status"] = r.restic_exit_status;
        return out.finish(summary, kExitProblems);
    }
    int exit_code = r.exported.problems.empty() ? kExitOk : kExitProblems;
    if (!r.forget_failure.empty()) {
        complain("offsite push: " + r.forget_failure);
        exit_code = kExitProblems;
    }
    if (!r.scratch_removed) exit_code = kExitProblems;
    std::string retention =
        std::to_string(r.forgotten) + " old snapshots forgotten (" + retention_text(restic.config()) + ")";
    if (r.append_only || r.deletion_refused) retention = "retention left to the repository's host";
    if (r.deletion_refused) {
        out.text("offsite push: the repository refuses deletion: retention is left to the repository's host "
                 "(set [Offsite] AppendOnly = yes to stop asking)");
    }
    out.text("offsite push: snapshot " + r.snapshot.substr(0, 8) + " in " + r.repository + ": " +
             std::to_string(r.exported.databases.size()) + " databases, " + std::to_string(r.rows) + " rows as of " +
             ktool::iso8601_utc(r.exported.started) + ", " + std::to_string(r.bytes_added) + " bytes added, " +
             retention);
    return out.finish(push_summary(r, pool), exit_code);
}

// What check found in the newest snapshot's export.
void print_checked(const CheckResult& r, Output& out, json& summary, json& problems) {
    if (!r.unreadable.empty()) {
        out.text(r.unreadable);
        problems.push_back(problem_json(kshadow::Problem{r.newest.id, r.unreadable}));
    }
    // Files outside every database's directory that the manifest does not name.
    for (const auto& p : r.manifest.problems) {
        out.text("problem " + p.path + ": " + p.what);
        problems.push_back(problem_json(p));
    }
    uint64_t with_problems = 0;
    for (size_t i = 0; i < r.reports.size(); ++i) {
        out.text(kshadow::verified_block(r.manifest.databases[i], r.reports[i]));
        out.item(json::parse(kshadow::database_json(r.reports[i])));
        if (!r.reports[i].problems.empty()) ++with_problems;
        for (const auto& p : r.reports[i].problems) problems.push_back(problem_json(p));
    }
    summary["databases"] = r.reports.size();
    summary["with_problems"] = with_problems;
}

int run_check(CatalogShadowContext& context, const Restic& restic, const std::string& pool,
              const OffsiteOptions& options) {
    const int started = kshadow::start_shadow(context);
    if (started != kExitOk) return started;
    CheckResult r;
    const cr_status_t status = check(context, restic, pool, &r);
    if (status != CR_STATUS_OK && !r.has_snapshot) return cannot_run(r.reason);
    Output out(options, "offsite check", "databases");
    json summary;
    json problems = json::array();
    summary["repository"] = r.repository;
    summary["repository_check"] = r.repository_ok ? "ok" : "bad";
    if (r.repository_ok) {
        out.text("repository " + r.repository + ": restic check passed");
    } else {
        out.text("repository " + r.repository + ": " + r.repository_failure);
        problems.push_back(problem_json(kshadow::Problem{r.repository, r.repository_failure}));
    }
    if (!r.has_snapshot) {
        const std::string none = "no snapshot of pool " + pool + " in the repository";
        out.text("offsite check: " + none);
        problems.push_back(problem_json(kshadow::Problem{r.repository, none}));
        summary["snapshot"] = json();
        summary["problems"] = problems;
        return out.finish(summary, kExitProblems);
    }
    if (status != CR_STATUS_OK) return cannot_run(r.reason);
    summary["snapshot"] = r.newest.id;
    summary["time"] = ktool::iso8601_utc(r.newest.time);
    if (!r.verified) {
        out.text("snapshot " + r.newest.short_id + ": " + r.restore_failure);
        problems.push_back(problem_json(kshadow::Problem{r.newest.id, r.restore_failure}));
    } else {
        print_checked(r, out, summary, problems);
    }
    if (!r.scratch_removed) {
        problems.push_back(problem_json(kshadow::Problem{r.scratch, "the scratch directory could not be removed"}));
    }
    summary["problems"] = problems;
    out.text("offsite check: snapshot " + r.newest.short_id + " of " + ktool::iso8601_utc(r.newest.time) + ": " +
             (problems.empty() ? std::string("all well") : plural(problems.size(), "problem")));
    return out.finish(summary, problems.empty() ? kExitOk : kExitProblems);
}

int run_init(CatalogShadowContext& context, const Restic& restic, const OffsiteOptions& options) {
    InitRepositoryResult r;
    const int started = kshadow::start_shadow(context);
    if (started != kExitOk) return started;
    if (init_repository(context, restic, &r) != CR_STATUS_OK) return cannot_run(r.reason);
    Output out(options, "offsite init", "databases");
    out.text("offsite init: " + r.repository + (r.created ? " created" : " found") + ", id " + r.id.substr(0, 8) +
             (r.previous_id.empty() ? "" : " (was " + r.previous_id.substr(0, 8) + ")") + ", remembered by the pool");
    return out.finish({{"repository", r.repository}, {"id", r.id}, {"created", r.created}, {"was", r.previous_id}}, kExitOk);
}

}  // namespace

int run_offsite(CatalogShadowContext& context, const std::string& cr_config, const std::string& root,
                const OffsiteOptions& options) {
    OffsiteConfig config;
    std::string reason;
    const cr_status_t opened = open_offsite(cr_config, &config, &reason);
    if (opened == CR_STATUS_NOT_FOUND && options.if_configured) {
        printf("offsite %s: no [Offsite] Repository in %s; nothing to do\n", options.command.c_str(),
               cr_config.c_str());
        return kExitOk;
    }
    if (opened != CR_STATUS_OK) return cannot_run(reason);
    Restic restic(config);
    restic.set_note(complain);
    kshadow::Progress progress("", 0);
    restic.set_progress([&progress](const std::string& what) { progress.show(what); });
    if (options.command == "unlock") {
        Output out(options, "offsite unlock", "");
        const std::string repo = shown_repository(config.repository);
        if (restic.unlock(options.all, &reason) != CR_STATUS_OK) return out.fail("offsite unlock", reason);
        out.text(std::string("offsite unlock: ") + (options.all ? "every lock" : "the stale locks") +
                 " removed from " + repo);
        return out.finish(json{{"repository", repo}, {"all", options.all}}, kExitOk);
    }
    if (options.command == "push") return run_push(context, restic, root, options);
    if (options.command == "snapshots") return run_snapshots(restic, root, options);
    if (options.command == "check") return run_check(context, restic, root, options);
    if (options.command == "init") return run_init(context, restic, options);
    if (options.command == "forget") return run_forget(restic, root, options);
    return run_restore(context, restic, root, options);
}

}  // namespace koffsite
