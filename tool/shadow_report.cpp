#include "tool/shadow_report.h"

#include <stdio.h>

#include "dct/log.h"
#include "offsite/json_text.h"

namespace kshadow {

int cannot_run(const std::string& why) {
    fprintf(stderr, "kavrel-shadow: %s (%s)\n", why.c_str(), where_logged().c_str());
    return kExitCannotRun;
}

int start_shadow(CatalogShadowContext& context) {
    const cr_status_t started = context.init();
    if (started == CR_STATUS_ACCESS_DENIED) {
        fprintf(stderr, "kavrel-shadow: %s: %s\n", context.identity->get_identity_file().c_str(), kNotReadable);
        return kExitNotReadable;
    }
    if (started == CR_STATUS_OK && context.enabled) return kExitOk;
    return cannot_run(context.shadow_path.empty() || !context.identity
                          ? "the catalog shadow of this pool is disabled"
                          : "the catalog shadow of this pool is disabled or has lost its identity file " +
                                context.identity->get_identity_file());
}

namespace {

using ktool::json;
using ktool::json_line;
using ktool::json_text;

// Width of the label column of the text form.
const int kLabelWidth = 14;


std::string age_text(int64_t seconds) {
    if (seconds < 0) return "-";
    if (seconds < 120) return std::to_string(seconds) + "s";
    if (seconds < 7200) return std::to_string(seconds / 60) + "m";
    if (seconds < 172800) return std::to_string(seconds / 3600) + "h";
    return std::to_string(seconds / 86400) + "d";
}

// Every text goes through json_text: paths and messages are bytes, and one
// that is not UTF-8 is written as {"hex": ...} (see json_text.h).
json text(const std::string& s) { return json_text(s); }

// The value, or null when it is not `present`.
template <typename T>
json or_null(bool present, const T& value) {
    return present ? json(value) : json();
}

json live_json(const DatabaseReport& r) {
    json o = json::object();
    o["path"] = text(r.target.db_path);
    o["exists"] = r.live.exists;
    o["readable"] = !r.live.denied;
    o["size"] = r.live.size;
    o["rows"] = or_null(r.live.rows_known, r.live.rows);
    o["integrity"] = text(r.live.integrity);
    o["row_checksums"] = text(r.live.row_checksums);
    return o;
}

json version_json(const VersionState& v) {
    json o = json::object();
    o["version"] = v.number;
    o["path"] = text(v.path);
    o["exists"] = v.exists;
    o["size"] = v.size;
    o["age_seconds"] = v.age_seconds;
    o["checksum"] = text(v.checksum);
    json journal = json::object();
    journal["path"] = text(v.journal_path);
    journal["lines"] = static_cast<uint64_t>(v.journal_lines);
    journal["recorded_lines"] = static_cast<uint64_t>(v.journal_recorded_lines);
    journal["checksum"] = text(v.journal);
    o["journal"] = journal;
    o["integrity"] = text(v.integrity);
    return o;
}

json recovery_json(const RecoveryPlan& p) {
    json o = json::object();
    o["possible"] = p.possible;
    o["base_version"] = or_null(p.base_version != 0, p.base_version);
    o["base_path"] = p.base_path.empty() ? json() : text(p.base_path);
    o["journal_lines"] = p.journal_lines;
    o["rows_after"] = or_null(p.rows_known, p.rows_after);
    json passed_over = json::array();
    for (uint64_t n : p.passed_over) passed_over.push_back(n);
    o["passed_over"] = passed_over;
    json set_aside = json::array();
    for (const std::string& path : p.set_aside) set_aside.push_back(text(path));
    o["set_aside"] = set_aside;
    o["reason"] = p.reason.empty() ? json() : text(p.reason);
    return o;
}

json action_json(const Action& a) {
    if (a.name.empty()) return json();
    json o = json::object();
    o["name"] = text(a.name);
    o["result"] = text(a.result);
    o["status"] = static_cast<uint64_t>(a.status);
    o["version"] = or_null(a.version != 0, a.version);
    o["detail"] = text(a.detail);
    o["journal_lines"] = a.journal_lines;
    json passed_over = json::array();
    for (uint64_t n : a.passed_over) passed_over.push_back(n);
    o["passed_over"] = passed_over;
    json set_aside = json::array();
    for (const std::string& path : a.set_aside) set_aside.push_back(text(path));
    o["set_aside"] = set_aside;
    return o;
}

json summary_json(const Summary& s) {
    json o = json::object();
    o["databases"] = s.databases;
    o["with_problems"] = s.with_problems;
    o["problems"] = s.problems;
    o["recoverable"] = s.recoverable;
    o["exit_code"] = static_cast<int64_t>(s.exit_code);
    o["not_readable"] = s.not_readable;
    json unreadable = json::array();
    for (const std::string& path : s.unreadable) unreadable.push_back(text(path));
    o["unreadable"] = unreadable;
    o["pool_problems"] = json::array();
    for (const Problem& p : s.pool_problems) o["pool_problems"].push_back(problem_json(p));
    return o;
}

json head_json(const std::string& command) {
    json o = json::object();
    o["schema"] = static_cast<int64_t>(kJsonSchema);
    o["command"] = text(command);
    return o;
}

json database_object(const DatabaseReport& r) {
    json o = json::object();
    o["dir"] = text(r.target.dir);
    o["type"] = text(r.target.type);
    o["live"] = live_json(r);
    o["checksum_file"] = text(r.checksum_file);
    json versions = json::array();
    for (const VersionState& v : r.versions) versions.push_back(version_json(v));
    o["versions"] = versions;
    o["journal_lines_since_newest"] = static_cast<uint64_t>(r.journal_lines_since_newest);
    o["newest_age_seconds"] = or_null(r.newest_age_seconds >= 0, r.newest_age_seconds);
    o["recovery"] = recovery_json(r.recovery);
    json problems = json::array();
    for (const Problem& p : r.problems) problems.push_back(problem_json(p));
    o["problems"] = problems;
    o["action"] = action_json(r.action);
    return o;
}

}  // namespace

json problem_json(const Problem& p) {
    json problem = json::object();
    problem["path"] = text(p.path);
    problem["problem"] = text(p.what);
    problem["not_readable"] = p.not_readable;
    return problem;
}

std::string plural(uint64_t n, const char* word) {
    return std::to_string(n) + " " + word + (n == 1 ? "" : "s");
}

std::string labelled_line(const std::string& label, const std::string& text) {
    char buf[64];
    snprintf(buf, sizeof(buf), "  %-*s", kLabelWidth, label.c_str());
    return buf + text + "\n";
}

Summary summarize(const std::vector<DatabaseReport>& reports, const std::vector<std::string>& unreadable) {
    Summary s;
    for (const DatabaseReport& r : reports) {
        ++s.databases;
        if (!r.problems.empty()) ++s.with_problems;
        s.problems += r.problems.size();
        for (const Problem& p : r.problems) s.not_readable += p.not_readable ? 1 : 0;
        if (r.recovery.possible) ++s.recoverable;
    }
    s.unreadable = unreadable;
    s.problems += unreadable.size();
    s.not_readable += unreadable.size();
    return s;
}

std::string database_json(const DatabaseReport& r) { return json_line(database_object(r)); }

std::string document_json(const std::string& command, const std::vector<DatabaseReport>& reports,
                          const Summary& summary) {
    json doc = head_json(command);
    json databases = json::array();
    for (const DatabaseReport& r : reports) databases.push_back(database_object(r));
    doc["databases"] = databases;
    doc["summary"] = summary_json(summary);
    return json_line(doc) + "\n";
}

std::string summary_json_line(const std::string& command, const Summary& summary) {
    json doc = head_json(command);
    doc["summary"] = summary_json(summary);
    return json_line(doc) + "\n";
}

std::string database_text(const std::string& command, const DatabaseReport& r) {
    std::string out = r.target.type + " " + r.target.dir + "\n";
    const LiveState& live = r.live;
    std::string text = live.exists   ? "present, " + plural(live.size, "byte")
                       : live.denied ? std::string(kNotReadable)
                                     : std::string("missing");
    if (live.rows_known) text += ", " + plural(live.rows, "row");
    if (live.exists) text += ", integrity " + live.integrity + ", row checksums " + live.row_checksums;
    out += labelled_line("live", text);
    out += labelled_line("checksums", r.checksum_file == kDenied ? std::string(kNotReadable) : r.checksum_file);
    for (const VersionState& v : r.versions) {
        std::string vt = v.exists ? plural(v.size, "byte") + ", age " + age_text(v.age_seconds) : std::string("missing");
        vt += ", checksum " + v.checksum + ", journal " + v.journal + " (" + plural(v.journal_lines, "line") + ")";
        vt += ", integrity " + v.integrity;
        out += labelled_line("version " + std::to_string(v.number), vt);
    }
    if (!r.versions.empty()) {
        out += labelled_line("journal", plural(r.journal_lines_since_newest, "line") + " since version " +
                                   std::to_string(r.versions.front().number) + ", age " +
                                   age_text(r.newest_age_seconds));
    }
    const RecoveryPlan& p = r.recovery;
    std::string pt;
    if (p.possible) {
        pt = (command == "recover --dry-run" ? "would use version " : "possible from version ") +
             std::to_string(p.base_version) + ", " + plural(p.journal_lines, "journal line");
        if (p.rows_known) pt += ", " + plural(p.rows_after, "row") + " afterwards";
        if (!p.passed_over.empty()) {
            pt += ", passing over version";
            for (uint64_t n : p.passed_over) pt += " " + std::to_string(n);
        }
        if (live.exists) pt += ", replaces the live file";
        for (const std::string& path : p.set_aside) pt += ", sets aside " + path;
    } else {
        pt = "impossible: " + p.reason;
    }
    out += labelled_line(command == "recover --dry-run" ? "plan" : "recovery", pt);
    for (const Problem& problem : r.problems) out += labelled_line("problem", problem.path + ": " + problem.what);
    const Action& a = r.action;
    if (!a.name.empty()) {
        std::string at = a.result;
        if (a.version != 0) at += (a.name == "recover" ? " from version " : " version ") + std::to_string(a.version);
        if (!a.detail.empty()) at += " (" + a.detail + ")";
        if (a.status != 0) at += " [status " + std::to_string(a.status) + "]";
        out += labelled_line(a.name, at);
    }
    return out;
}

std::string summary_text(const std::string& command, const Summary& s) {
    std::string out;
    for (const std::string& path : s.unreadable) out += labelled_line("problem", path + ": " + kNotReadable);
    for (const Problem& p : s.pool_problems) out += labelled_line("problem", p.path + ": " + p.what);
    if (!s.unreadable.empty() || !s.pool_problems.empty()) out += "\n";
    out += command + ": " + plural(s.databases, "database") + ", " + std::to_string(s.with_problems) +
           " with problems, " + plural(s.problems, "problem") + ", " + std::to_string(s.recoverable) +
           " recoverable";
    if (s.not_readable > 0) out += ", " + std::to_string(s.not_readable) + " not readable";
    return out + "\n";
}

}  // namespace kshadow
