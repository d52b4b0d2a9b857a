#include "tool/shadow_report.h"

#include <stdio.h>

#include "tool/json_writer.h"

namespace kshadow {

namespace {

// Width of the label column of the text form.
const int kLabelWidth = 14;


std::string plural(uint64_t n, const char* word) {
    return std::to_string(n) + " " + word + (n == 1 ? "" : "s");
}

std::string age_text(int64_t seconds) {
    if (seconds < 0) return "-";
    if (seconds < 120) return std::to_string(seconds) + "s";
    if (seconds < 7200) return std::to_string(seconds / 60) + "m";
    if (seconds < 172800) return std::to_string(seconds / 3600) + "h";
    return std::to_string(seconds / 86400) + "d";
}

void write_live(JsonWriter& w, const DatabaseReport& r) {
    w.begin_object();
    w.member("path", r.target.db_path);
    w.member("exists", r.live.exists);
    w.member("readable", !r.live.denied);
    w.member("size", r.live.size);
    w.member_or_null("rows", r.live.rows_known, r.live.rows);
    w.member("integrity", r.live.integrity);
    w.member("row_checksums", r.live.row_checksums);
    w.end_object();
}

void write_version(JsonWriter& w, const VersionState& v) {
    w.begin_object();
    w.member("version", v.number);
    w.member("path", v.path);
    w.member("exists", v.exists);
    w.member("size", v.size);
    w.member("age_seconds", v.age_seconds);
    w.member("checksum", v.checksum);
    w.key("journal");
    w.begin_object();
    w.member("path", v.journal_path);
    w.member("lines", static_cast<uint64_t>(v.journal_lines));
    w.member("recorded_lines", static_cast<uint64_t>(v.journal_recorded_lines));
    w.member("checksum", v.journal);
    w.end_object();
    w.member("integrity", v.integrity);
    w.end_object();
}

void write_recovery(JsonWriter& w, const RecoveryPlan& p) {
    w.begin_object();
    w.member("possible", p.possible);
    w.member_or_null("base_version", p.base_version != 0, p.base_version);
    w.member_or_null("base_path", !p.base_path.empty(), p.base_path);
    w.member("journal_lines", p.journal_lines);
    w.member_or_null("rows_after", p.rows_known, p.rows_after);
    w.key("passed_over");
    w.begin_array();
    for (uint64_t n : p.passed_over) w.value(n);
    w.end_array();
    w.key("set_aside");
    w.begin_array();
    for (const std::string& path : p.set_aside) w.value(path);
    w.end_array();
    w.member_or_null("reason", !p.reason.empty(), p.reason);
    w.end_object();
}

void write_action(JsonWriter& w, const Action& a) {
    if (a.name.empty()) {
        w.null();
        return;
    }
    w.begin_object();
    w.member("name", a.name);
    w.member("result", a.result);
    w.member("status", static_cast<uint64_t>(a.status));
    w.member_or_null("version", a.version != 0, a.version);
    w.member("detail", a.detail);
    w.member("journal_lines", a.journal_lines);
    w.key("passed_over");
    w.begin_array();
    for (uint64_t n : a.passed_over) w.value(n);
    w.end_array();
    w.key("set_aside");
    w.begin_array();
    for (const std::string& path : a.set_aside) w.value(path);
    w.end_array();
    w.end_object();
}

void write_summary(JsonWriter& w, const Summary& s) {
    w.begin_object();
    w.member("databases", s.databases);
    w.member("with_problems", s.with_problems);
    w.member("problems", s.problems);
    w.member("recoverable", s.recoverable);
    w.member("exit_code", static_cast<int64_t>(s.exit_code));
    w.member("not_readable", s.not_readable);
    w.key("unreadable");
    w.begin_array();
    for (const std::string& path : s.unreadable) w.value(path);
    w.end_array();
    w.end_object();
}

void write_head(JsonWriter& w, const std::string& command) {
    w.member("schema", static_cast<int64_t>(kJsonSchema));
    w.member("command", command);
}

}  // namespace

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

std::string database_json(const DatabaseReport& r) {
    JsonWriter w;
    w.begin_object();
    w.member("dir", r.target.dir);
    w.member("type", r.target.type);
    w.key("live");
    write_live(w, r);
    w.member("checksum_file", r.checksum_file);
    w.key("versions");
    w.begin_array();
    for (const VersionState& v : r.versions) write_version(w, v);
    w.end_array();
    w.member("journal_lines_since_newest", static_cast<uint64_t>(r.journal_lines_since_newest));
    w.member_or_null("newest_age_seconds", r.newest_age_seconds >= 0, r.newest_age_seconds);
    w.key("recovery");
    write_recovery(w, r.recovery);
    w.key("problems");
    w.begin_array();
    for (const Problem& p : r.problems) {
        w.begin_object();
        w.member("path", p.path);
        w.member("problem", p.what);
        w.member("not_readable", p.not_readable);
        w.end_object();
    }
    w.end_array();
    w.key("action");
    write_action(w, r.action);
    w.end_object();
    return w.str();
}

std::string document_json(const std::string& command, const std::vector<DatabaseReport>& reports,
                          const Summary& summary) {
    JsonWriter w;
    w.begin_object();
    write_head(w, command);
    w.key("databases");
    w.begin_array();
    for (const DatabaseReport& r : reports) w.raw(database_json(r));
    w.end_array();
    w.key("summary");
    write_summary(w, summary);
    w.end_object();
    return w.str() + "\n";
}

std::string summary_json_line(const std::string& command, const Summary& summary) {
    JsonWriter w;
    w.begin_object();
    write_head(w, command);
    w.key("summary");
    write_summary(w, summary);
    w.end_object();
    return w.str() + "\n";
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
    if (!s.unreadable.empty()) out += "\n";
    out += command + ": " + plural(s.databases, "database") + ", " + std::to_string(s.with_problems) +
           " with problems, " + plural(s.problems, "problem") + ", " + std::to_string(s.recoverable) +
           " recoverable";
    if (s.not_readable > 0) out += ", " + std::to_string(s.not_readable) + " not readable";
    return out + "\n";
}

}  // namespace kshadow
