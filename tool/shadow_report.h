// How the shadow command prints what it found: aligned text for people, or
// JSON (one document per command, or one record per line) for programs.
//
// JSON schema 1 (the names and kinds below are stable; new members may be
// added, none is renamed or removed without a new schema number):
//   document    {"schema":1, "command":C, "databases":[DATABASE...], "summary":SUMMARY}
//   JSON Lines  one DATABASE per line, then {"schema":1,"command":C,"summary":SUMMARY}
//   DATABASE    {"dir", "type", "live":LIVE, "checksum_file", "versions":[VERSION...],
//                "journal_lines_since_newest", "newest_age_seconds" (null: no version),
//                "recovery":RECOVERY, "problems":[{"path","problem"}...], "action":ACTION|null}
//   LIVE        {"path", "exists", "size", "rows" (null: not counted), "integrity", "row_checksums"}
//   VERSION     {"version", "path", "exists", "size", "age_seconds", "checksum",
//                "journal":{"path", "lines", "recorded_lines", "checksum"}, "integrity"}
//   RECOVERY    {"possible", "base_version" (null: none), "base_path" (null), "journal_lines",
//                "rows_after" (null: not rehearsed), "passed_over":[N...], "set_aside":[PATH...],
//                "reason" (null when possible)}
//   ACTION      {"name", "result", "status", "version" (null: none), "detail",
//                "journal_lines", "passed_over":[N...], "set_aside":[PATH...]}
//   SUMMARY     {"databases", "with_problems", "problems", "recoverable", "exit_code",
//                "not_readable", "unreadable":[PATH...]}
// export and verify --export add their own members (tool/shadow_export_command.h
// and the manual page).
// A problem is {"path", "problem", "not_readable"}: "not_readable" is true for
// the problem "not readable (permission denied)" of a file or directory that
// exists but that this user may not read. "unreadable" lists the directories
// the search for databases could not enter; each counts as one problem.
// Check results are "ok", "bad", "missing", "denied" (not readable) or
// "unknown" (not checked). "live" has "readable" besides "exists".
// Every text (paths, names, messages) is a JSON string when its bytes are
// valid UTF-8; otherwise it is the object {"hex": H}, H holding each byte as
// two lower-case hexadecimal digits, so that it reads back to the same bytes
// (offsite/json_text.h).
#ifndef TOOL_SHADOW_REPORT_H_
#define TOOL_SHADOW_REPORT_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "offsite/json_text.h"
#include "offsite/shadow_model.h"

namespace kshadow {

const int kJsonSchema = 1;

// Exit status of kavrel-shadow: all well, problems found, usage, could not
// run, some file or directory could not be read and nothing else was wrong.
const int kExitOk = 0;
const int kExitProblems = 1;
const int kExitUsage = 2;
const int kExitCannotRun = 3;
const int kExitNotReadable = 4;

// The output forms of every command.
enum class Output { text, json, json_lines };

// Says on standard error why the command cannot run and where the log
// records that tell more went ("kavrel-shadow: WHY (log records went to
// ...)"); returns kExitCannotRun.
int cannot_run(const std::string& why);

// Starts the shadow of `context` as every command that reads it does
// (CatalogShadowContext::init). 0 when it runs; otherwise the exit status
// after one line on standard error: kExitNotReadable when this user may not
// read the identity file, kExitCannotRun when the shadow is off or its root
// lost its identity file.
int start_shadow(CatalogShadowContext& context);

// A problem as JSON: {"path", "problem", "not_readable"}.
ktool::json problem_json(const Problem& problem);

struct Summary {
    uint64_t databases = 0;
    uint64_t with_problems = 0;
    uint64_t problems = 0;      // the not-readable ones included
    uint64_t recoverable = 0;
    uint64_t not_readable = 0;  // problems "not readable (permission denied)"
    std::vector<std::string> unreadable;  // directories the search could not enter
    std::vector<Problem> pool_problems;   // of no one database (counted in problems)
    int exit_code = 0;
};

// Counts of `reports` and of the `unreadable` directories; exit_code is left
// to the caller.
Summary summarize(const std::vector<DatabaseReport>& reports, const std::vector<std::string>& unreadable);

// "N WORDs", or "1 WORD".
std::string plural(uint64_t n, const char* word);

// "  LABEL" padded to the label column, then `text` and a newline.
std::string labelled_line(const std::string& label, const std::string& text);

// One DATABASE record on one line (no newline).
std::string database_json(const DatabaseReport& report);
// The whole document of a command, ended by a newline.
std::string document_json(const std::string& command, const std::vector<DatabaseReport>& reports,
                          const Summary& summary);
// The summary record of JSON Lines, ended by a newline.
std::string summary_json_line(const std::string& command, const Summary& summary);

// The text block of one database, every line ended by a newline.
std::string database_text(const std::string& command, const DatabaseReport& report);
// The problem lines of the unreadable directories, then the closing summary
// line of a command (", N not readable" only when there are such problems).
std::string summary_text(const std::string& command, const Summary& summary);

}  // namespace kshadow

#endif  // TOOL_SHADOW_REPORT_H_
