// What the shadow command learns about one catalog database and what it did
// to it: filled in by the inventory, the inspection and the actions, printed
// by the front ends.
#ifndef OFFSITE_SHADOW_MODEL_H_
#define OFFSITE_SHADOW_MODEL_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "dct/status.h"

namespace kshadow {

// Result words of the checks, as printed and as written into JSON.
extern const char* const kUnknown;  // "unknown": not checked
extern const char* const kOk;       // "ok"
extern const char* const kBad;      // "bad"
extern const char* const kMissing;  // "missing"
extern const char* const kDenied;   // "denied": there, but this user may not read it

// The problem of a file or directory that exists but may not be read: never
// damage, never a loss, and nothing a recovery would mend.
extern const char* const kNotReadable;  // "not readable (permission denied)"

// One catalog database: its real directory, type word and shadow directory.
struct Target {
    std::string dir;
    std::string type;
    std::string shadow_dir;
    std::string db_path;  // dir "/" the type's database file name
};

struct LiveState {
    bool exists = false;
    bool denied = false;  // there, or not known to be missing, but not readable
    uint64_t size = 0;
    bool rows_known = false;
    uint64_t rows = 0;
    std::string integrity = kUnknown;
    std::string row_checksums = kUnknown;
};

struct VersionState {
    uint64_t number = 0;
    std::string path;
    bool exists = false;
    uint64_t size = 0;
    int64_t age_seconds = -1;
    std::string checksum = kUnknown;  // the file against the checksum file
    std::string journal_path;
    uint32_t journal_lines = 0;           // lines in the journal file
    uint32_t journal_recorded_lines = 0;  // lines the checksum file counts
    std::string journal = kUnknown;       // the journal against the checksum file
    std::string integrity = kUnknown;
};

// The live database against what a recovery would give now (see
// offsite/shadow_coverage.h).
struct Coverage {
    bool known = false;          // both were read and compared
    uint64_t live_rows = 0;
    uint64_t recovered_rows = 0;  // rows a recovery would give
    uint64_t lost_rows = 0;       // live rows a recovery would not give back
    uint64_t returned_rows = 0;   // rows it would give that the live database does not hold
    std::string reason;           // why it is not known
};

// What a recovery would do now.
struct RecoveryPlan {
    bool possible = false;
    uint64_t base_version = 0;
    std::string base_path;
    uint64_t journal_lines = 0;  // lines replayed onto the base
    bool rows_known = false;     // the replay was tried on a scratch copy
    uint64_t rows_after = 0;
    std::vector<uint64_t> passed_over;   // versions that fail a check
    std::vector<std::string> set_aside;  // files a recovery moves away
    std::string reason;                  // why it is impossible
    Coverage coverage;                   // against the live database, when rehearsed
};

struct Problem {
    std::string path;
    std::string what;
    bool not_readable = false;  // `what` is kNotReadable
};

// "log records went to ...": for a message that refers people to the log.
std::string where_logged();

// The problem of `path` that this user may not read.
Problem not_readable_problem(const std::string& path);

// What backup or recover did to the database.
struct Action {
    std::string name;    // "" (none), "backup" or "recover"
    std::string result;  // "kept", "unchanged", "recovered", "failed", "skipped"
    cr_status_t status = CR_STATUS_OK;
    uint64_t version = 0;  // the version kept or recovered from (0: none)
    std::string detail;
    // What a recovery carried out (name "recover", result "recovered").
    uint64_t journal_lines = 0;
    std::vector<uint64_t> passed_over;
    std::vector<std::string> set_aside;
};

struct DatabaseReport {
    Target target;
    LiveState live;
    std::string checksum_file = kUnknown;  // ok, missing or bad
    std::vector<VersionState> versions;    // newest first
    uint32_t journal_lines_since_newest = 0;
    int64_t newest_age_seconds = -1;
    RecoveryPlan recovery;
    std::vector<Problem> problems;
    Action action;
};

}  // namespace kshadow

#endif  // OFFSITE_SHADOW_MODEL_H_
