// The output of the offsite commands, and snapshots and restore.
#include "tool/offsite_output.h"

#include <stdio.h>

#include <string>
#include <vector>

#include "offsite/json_text.h"
#include "offsite/offsite_forget.h"
#include "tool/shadow_report.h"

namespace koffsite {

using kshadow::cannot_run;
using kshadow::kExitOk;
using kshadow::kExitProblems;
using kshadow::plural;
using ktool::json;
using ktool::json_text;

Output::Output(const OffsiteOptions& options, const std::string& command, const std::string& items)
    : options_(options), command_(command), items_name_(items), items_(json::array()) {}

void Output::text(const std::string& line) {
    if (options_.json || options_.json_lines) return;
    printf("%s%s", line.c_str(), !line.empty() && line.back() == '\n' ? "" : "\n");
    fflush(stdout);
}

void Output::item(const json& value) {
    if (options_.json_lines) {
        printf("%s\n", ktool::json_line(value).c_str());
        fflush(stdout);
    } else {
        items_.push_back(value);
    }
}

int Output::finish(json summary, int exit_code) {
    summary["exit_code"] = exit_code;
    json doc;
    doc["schema"] = 1;
    doc["command"] = command_;
    if (options_.json) {
        if (!items_name_.empty()) doc[items_name_] = items_;
        doc["summary"] = summary;
        printf("%s\n", doc.dump(2).c_str());
    } else if (options_.json_lines) {
        doc["summary"] = summary;
        printf("%s\n", ktool::json_line(doc).c_str());
    }
    fflush(stdout);
    return exit_code;
}

int Output::fail(const std::string& command, const std::string& why) {
    complain(command + ": " + why);
    json summary;
    summary["error"] = json_text(why);
    return finish(summary, kExitProblems);
}

void complain(const std::string& what) { fprintf(stderr, "kavrel-shadow: %s\n", what.c_str()); }

// One snapshot: a line of the table and a JSON item; `action` (forget's
// verdict) leads both when it is given.
void print_snapshot(Output& out, const Snapshot& s, const std::string& action, bool with_pool = false) {
    char line[512];
    snprintf(line, sizeof(line), "%-*s%-8s  %-20s  %-20s  %9s  %s", action.empty() ? 0 : 14, action.c_str(),
             s.short_id.c_str(), ktool::iso8601_utc(s.time).c_str(), s.host.c_str(),
             s.databases.empty() ? "-" : s.databases.c_str(), s.rows.empty() ? "-" : s.rows.c_str());
    out.text(with_pool ? line + std::string(s.rows.size() < 4 ? 4 - s.rows.size() : 0, ' ') + "  " + s.pool
                       : std::string(line));
    json j;
    if (!action.empty()) j["action"] = action;
    j["id"] = s.id;
    j["short_id"] = s.short_id;
    j["time"] = ktool::iso8601_utc(s.time);
    j["host"] = json_text(s.host);
    j["pool"] = json_text(s.pool);
    j["path"] = json_text(s.path);
    j["databases"] = s.databases.empty() ? json() : json(std::stoull(s.databases));
    j["rows"] = s.rows.empty() ? json() : json(std::stoull(s.rows));
    out.item(j);
}

const char kTableHead[] = "snapshot  time                  host                  databases  rows";

int run_snapshots(const Restic& restic, const std::string& pool, const OffsiteOptions& options) {
    std::vector<Snapshot> snapshots;
    std::string reason;
    size_t others = 0;
    if (list_snapshots(restic, options.all ? "" : pool, &snapshots, &reason, &others) != CR_STATUS_OK) {
        return cannot_run(reason);
    }
    Output out(options, "offsite snapshots", "snapshots");
    if (!snapshots.empty()) out.text(std::string(kTableHead) + (options.all ? "  database root" : ""));
    for (const Snapshot& s : snapshots) print_snapshot(out, s, "", options.all);
    const std::string repository = shown_repository(restic.config().repository);
    out.text("offsite snapshots: " + plural(snapshots.size(), "snapshot") +
             (options.all ? " of every pool" : " of pool " + pool) + " in " + repository +
             (others > 0 ? " (" + std::to_string(others) + " of other pools: --all-pools lists them)" : ""));
    json summary;
    summary["snapshots"] = snapshots.size();
    summary["pool"] = options.all ? json() : json_text(pool);
    summary["repository"] = repository;
    return out.finish(summary, kExitOk);
}

int run_forget(const Restic& restic, const std::string& pool, const OffsiteOptions& options) {
    ForgetResult r;
    const cr_status_t status = forget(restic, pool, options.dry_run, &r);
    if (status != CR_STATUS_OK && r.stop == Stop::not_started) return cannot_run(r.reason);
    const std::string command = options.dry_run ? "offsite forget --dry-run" : "offsite forget";
    Output out(options, command, "snapshots");
    if (status != CR_STATUS_OK) return out.fail(command, r.reason);
    if (!r.kept.empty() || !r.removed.empty()) out.text(std::string("action        ") + kTableHead);
    for (const Snapshot& s : r.removed) print_snapshot(out, s, options.dry_run ? "would remove" : "remove");
    for (const Snapshot& s : r.kept) print_snapshot(out, s, "keep");
    out.text(command + ": " + std::to_string(r.kept.size()) + " kept, " + std::to_string(r.removed.size()) +
             (options.dry_run ? " to remove" : " removed") + " of pool " + pool + " in " + r.repository + " (" +
             r.rule + ")");
    const json summary = {{"kept", r.kept.size()}, {"removed", r.removed.size()}, {"rule", r.rule},
                          {"pool", json_text(pool)}, {"repository", r.repository}};
    return out.finish(summary, kExitOk);
}

namespace {

json restored_json(const RestoredDatabase& r) {
    json j;
    j["type"] = r.report.target.type;
    j["dir"] = json_text(r.report.target.dir);
    j["shadow"] = r.shadow;
    j["live"] = r.live;
    j["set_aside"] = r.set_aside.empty() ? json() : json_text(r.set_aside);
    j["covered"] = r.covered.empty() ? json() : json_text(r.covered);
    j["rows_expected"] = r.rows_known ? json(r.rows_expected) : json();
    j["rows"] = r.report.live.rows_known ? json(r.report.live.rows) : json();
    j["integrity"] = r.report.live.integrity;
    j["row_checksums"] = r.report.live.row_checksums;
    json problems = json::array();
    for (const auto& p : r.problems) problems.push_back(json_text(p));
    j["problems"] = problems;
    return j;
}

std::string restored_text(const RestoredDatabase& r) {
    std::string text = r.report.target.type + " " + r.report.target.dir + "\n";
    text += kshadow::labelled_line("shadow", r.shadow + (r.set_aside.empty() ? "" : ", set aside " + r.set_aside));
    std::string live = r.live;
    if (r.report.live.rows_known) live += ", " + std::to_string(r.report.live.rows) + " rows";
    if (r.rows_known && r.live != "kept") live += " (snapshot: " + std::to_string(r.rows_expected) + ")";
    if (r.report.live.integrity != kshadow::kUnknown) live += ", integrity " + r.report.live.integrity;
    if (r.report.live.row_checksums != kshadow::kUnknown) live += ", row checksums " + r.report.live.row_checksums;
    text += kshadow::labelled_line("live", live);
    if (!r.covered.empty()) text += kshadow::labelled_line("covered", r.covered);
    for (const auto& p : r.problems) text += kshadow::labelled_line("problem", p);
    return text;
}

}  // namespace

int run_restore(CatalogShadowContext& context, const Restic& restic, const std::string& pool,
                const OffsiteOptions& options) {
    RestoreRequest request;
    request.snapshot = options.snapshot;
    request.has_before = options.has_before;
    request.before = options.before;
    request.dry_run = options.dry_run;
    RestoreResult r;
    const cr_status_t status = restore(context, restic, pool, request, &r);
    if (status != CR_STATUS_OK && !r.chosen) {
        if (r.stop == Stop::not_started) return cannot_run(r.reason);
        complain("offsite restore: " + r.reason);
        return kExitProblems;
    }
    const std::string command = options.dry_run ? "offsite restore --dry-run" : "offsite restore";
    Output out(options, command, "databases");
    const Snapshot& snap = r.snapshot;
    out.text((options.dry_run ? "would restore snapshot " : "restoring snapshot ") + snap.short_id + " of " +
             ktool::iso8601_utc(snap.time) + " (host " + snap.host +
             (snap.pool != pool ? ", database root " + snap.pool : "") + ")");
    if (status != CR_STATUS_OK && r.stop == Stop::not_started) return cannot_run(r.reason);
    if (status != CR_STATUS_OK) {
        for (const auto& d : r.damaged) out.text(kshadow::database_text("verify --export", d));
        return out.fail("offsite restore", r.reason);
    }
    for (const RestoredDatabase& d : r.databases) {
        out.text(restored_text(d));
        out.item(restored_json(d));
    }
    out.text(command + ": snapshot " + snap.short_id + ", " + plural(r.manifest.databases.size(), "database") + ": " +
             plural(r.restored, "shadow") + (options.dry_run ? " to restore, " : " restored, ") +
             plural(r.rebuilt, "database") + (options.dry_run ? " to rebuild, " : " rebuilt, ") +
             std::to_string(r.kept) + " kept, " + plural(r.problems, "problem"));
    json summary;
    summary["snapshot"] = snap.id;
    summary["time"] = ktool::iso8601_utc(snap.time);
    summary["databases"] = r.manifest.databases.size();
    summary["shadows_restored"] = r.restored;
    summary["databases_rebuilt"] = r.rebuilt;
    summary["kept"] = r.kept;
    summary["problems"] = r.problems;
    return out.finish(summary, r.problems == 0 ? kExitOk : kExitProblems);
}

}  // namespace koffsite
