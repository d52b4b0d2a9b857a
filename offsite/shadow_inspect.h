// Read-only inspection of one catalog database and its shadow: the live file,
// the checksum file, every version and journal, and what a recovery would do
// now. Nothing in the pool is written: the checksum file is parsed with
// PODBShadow::read_chksum and journals are checked with
// ShadowVersion::verify_journal, which never repair; a replay that shows the
// rows a recovery would produce runs on a scratch copy in a private temporary
// directory, removed afterwards. The caller holds the directory lock.
#ifndef OFFSITE_SHADOW_INSPECT_H_
#define OFFSITE_SHADOW_INSPECT_H_

#include <stdint.h>

#include <string>

#include "offsite/shadow_model.h"

namespace kshadow {

enum class Depth {
    // Sizes, row count, every version's checksums, and the SQLite integrity
    // check of the version a recovery would start from.
    status,
    // status, plus the replay of the recovery on a scratch copy (its rows).
    plan,
    // plan, plus the SQLite integrity check of every version and of the live
    // database, and every live row's checksum.
    verify,
};

// Fills `report` (whose target is set) and lists every problem found in
// report->problems, each with the path it concerns.
void inspect_database(Depth depth, DatabaseReport* report);

// Rows of an application database file, opened as the inspection opens it
// (never created); false when it has none to count (another type) or cannot
// be read.
bool count_rows(const std::string& type, const std::string& path, uint64_t* rows);

// The live database's integrity and row checksums into report->live (and
// problems), as verify checks them; used after a recovery.
void check_live_database(DatabaseReport* report);

// A scratch directory, removed with everything in it when the object goes:
// a new private one in TMPDIR (path() "" when none could be made), or `path`,
// which need not exist yet.
class ScratchDir {
public:
    ScratchDir();
    explicit ScratchDir(const std::string& path);
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    // Removes it now (it may be made again); true when it is gone, else the
    // failure is logged.
    bool remove();
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace kshadow

#endif  // OFFSITE_SHADOW_INSPECT_H_
