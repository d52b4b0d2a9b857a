#include "tool/shadow_export_command.h"

#include <stdio.h>

#include <string>
#include <vector>

#include "offsite/json_text.h"
#include "offsite/shadow_export.h"

namespace kshadow {

namespace {

using ktool::json;
using ktool::json_line;

const char kExportCommand[] = "export";
const char kVerifyCommand[] = "verify --export";

struct Totals {
    uint64_t files = 0, linked = 0, bytes = 0, rows = 0;
};

Totals totals_of(const ExportedDatabase& db) {
    Totals t;
    for (const ExportedFile& f : db.files) {
        ++t.files;
        t.linked += f.linked ? 1 : 0;
        t.bytes += f.size;
    }
    t.rows = db.rows_known ? db.rows : 0;
    return t;
}

std::string files_text(const Totals& t, bool how) {
    std::string out = plural(t.files, "file");
    if (how) out += " (" + std::to_string(t.linked) + " linked, " + std::to_string(t.files - t.linked) + " copied)";
    return out + ", " + plural(t.bytes, "byte");
}

std::string rows_text(const ExportedDatabase& db) {
    return db.rows_known ? plural(db.rows, "row") : std::string("rows not counted (live database missing or unreadable)");
}

std::string export_block(const ExportedDatabase& db) {
    std::string out = db.target.type + " " + db.target.dir + "\n";
    out += labelled_line("export", db.relative + ": " + files_text(totals_of(db), true) + ", " + rows_text(db));
    for (const ExportedVersion& v : db.versions) {
        out += labelled_line("version " + std::to_string(v.version),
                             "journal cut at " + plural(v.journal_lines, "line"));
    }
    return out;
}

json export_summary(const ExportReport& r, int exit_code) {
    Totals all;
    for (const ExportedDatabase& db : r.databases) {
        const Totals t = totals_of(db);
        all.files += t.files;
        all.linked += t.linked;
        all.bytes += t.bytes;
        all.rows += t.rows;
    }
    json s = json::object();
    s["databases"] = r.databases.size();
    s["files"] = all.files;
    s["linked"] = all.linked;
    s["copied"] = all.files - all.linked;
    s["bytes"] = all.bytes;
    s["bytes_linked"] = r.bytes_linked;
    s["bytes_copied"] = r.bytes_copied;
    s["rows"] = all.rows;
    s["problems"] = r.problems.size();
    s["exit_code"] = exit_code;
    return s;
}

json head(const char* command) {
    json o = json::object();
    o["schema"] = kJsonSchema;
    o["command"] = command;
    return o;
}

json problems_json(const std::vector<Problem>& problems) {
    json list = json::array();
    for (const Problem& p : problems) list.push_back(problem_json(p));
    return list;
}

// The problems that belong to no database, then an empty line.
std::string loose_problems_text(const std::vector<Problem>& problems) {
    std::string out;
    for (const Problem& p : problems) out += labelled_line("problem", p.path + ": " + p.what);
    return problems.empty() ? out : out + "\n";
}

json export_json(const ExportReport& manifest) {
    json o = json::object();
    o["dir"] = ktool::json_text(manifest.dir);
    o["pool"] = ktool::json_text(manifest.pool);
    o["host"] = ktool::json_text(manifest.host);
    o["started"] = manifest.started;
    o["finished"] = manifest.finished;
    o["problems"] = problems_json(manifest.problems);
    return o;
}

}  // namespace

// The database block of the check of an export: what `verify` prints, the
// manifest's line in place of the live file's.
std::string verified_block(const ExportedDatabase& db, const DatabaseReport& r) {
    std::string block = database_text(kVerifyCommand, r);
    const size_t live = block.find('\n') + 1;
    const size_t after = block.find('\n', live) + 1;
    return block.substr(0, live) + labelled_line("manifest", files_text(totals_of(db), false) + ", " + rows_text(db)) +
           block.substr(after);
}

int run_export(CatalogShadowContext& context, const std::string& dir, Output output, std::string* why) {
    ExportReport report;
    const cr_status_t status = export_shadow(context, dir, &report);
    if (status != CR_STATUS_OK) {
        *why = "export " + dir + ": " + report.reason;
        return status == CR_STATUS_ACCESS_DENIED ? kExitNotReadable : kExitCannotRun;
    }
    const int exit_code = report.problems.empty() ? kExitOk : kExitProblems;
    const json summary = export_summary(report, exit_code);
    if (output == Output::text) {
        for (const ExportedDatabase& db : report.databases) printf("%s\n", export_block(db).c_str());
        std::string line = std::string(kExportCommand) + " " + dir + ": " +
                           plural(summary["databases"].get<uint64_t>(), "database") + ", " +
                           files_text(Totals{summary["files"].get<uint64_t>(), summary["linked"].get<uint64_t>(),
                                             summary["bytes"].get<uint64_t>(), 0},
                                      true) +
                           ", " + plural(summary["rows"].get<uint64_t>(), "row");
        if (!report.problems.empty()) line += ", " + plural(report.problems.size(), "problem");
        printf("%s%s\n", loose_problems_text(report.problems).c_str(), line.c_str());
    } else {
        const json manifest = json::parse(manifest_text(report));
        json doc = head(kExportCommand);
        if (output == Output::json) {
            doc["export"] = manifest;
        } else {
            for (const json& db : manifest["databases"]) printf("%s\n", json_line(db).c_str());
        }
        doc["problems"] = problems_json(report.problems);
        doc["summary"] = summary;
        printf("%s\n", json_line(doc).c_str());
    }
    return exit_code;
}

int run_verify_export(const std::string& dir, Output output, std::string* why) {
    const cr_status_t usable = probe_export_dir(dir, why);
    if (usable != CR_STATUS_OK) return usable == CR_STATUS_ACCESS_DENIED ? kExitNotReadable : kExitCannotRun;
    ExportReport manifest;
    std::vector<DatabaseReport> reports;
    const cr_status_t status = verify_export(dir, &manifest, &reports);
    if (status != CR_STATUS_OK) {
        // The export is there but cannot be checked: a problem of the export.
        const std::string path = dir + "/" + kManifestName;
        manifest.problems.push_back(status == CR_STATUS_ACCESS_DENIED ? not_readable_problem(path)
                                                                      : Problem{path, manifest.reason});
    }
    Summary summary = summarize(reports, {});
    summary.problems += manifest.problems.size();
    for (const Problem& p : manifest.problems) summary.not_readable += p.not_readable ? 1 : 0;
    summary.exit_code = summary.problems > summary.not_readable ? kExitProblems
                        : summary.not_readable > 0              ? kExitNotReadable
                                                                : kExitOk;
    switch (output) {
        case Output::text:
            for (size_t i = 0; i < reports.size(); ++i) {
                printf("%s\n", verified_block(manifest.databases[i], reports[i]).c_str());
            }
            printf("%s%s", loose_problems_text(manifest.problems).c_str(),
                   summary_text(kVerifyCommand, summary).c_str());
            break;
        case Output::json: {
            json doc = json::parse(document_json(kVerifyCommand, reports, summary));
            doc["export"] = export_json(manifest);
            printf("%s\n", json_line(doc).c_str());
            break;
        }
        case Output::json_lines: {
            for (const DatabaseReport& r : reports) printf("%s\n", database_json(r).c_str());
            json doc = json::parse(summary_json_line(kVerifyCommand, summary));
            doc["export"] = export_json(manifest);
            printf("%s\n", json_line(doc).c_str());
            break;
        }
    }
    return summary.exit_code;
}

}  // namespace kshadow
