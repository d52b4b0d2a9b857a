// A point-in-time copy of the whole catalog shadow in one directory, and the
// check of such a copy on its own.
//
// Layout of an export DIR (the shadow's own layout, cut to what a recovery
// needs):
//
//   DIR/MANIFEST.json                   what the export holds (below)
//   DIR/<shadow-relative dir>/.chksum.T the checksum file of type T
//   DIR/<shadow-relative dir>/T.N       every version the checksum file lists
//   DIR/<shadow-relative dir>/T.N.journal  its journal, cut at the recorded
//                                       line count
//
// Each database is exported under its directory lock, so it is as of one
// moment while the services keep running. Versions never change once in
// place: they are hard-linked where the file system allows and copied
// otherwise; journals and checksum files are copied (their modification time
// kept, so that an unchanged file looks unchanged to the off-site copy). Every
// directory is made 0750 and every file 0640.
//
// MANIFEST.json:
//   {"format": 1, "pool": POOL, "host": HOST, "database_root": ROOT,
//    "shadow_root": SHADOW, "started": EPOCH, "finished": EPOCH,
//    "databases": [{"type": T, "dir": REAL-DIR, "shadow": RELATIVE-DIR,
//                   "database": REAL-FILE, "current": N,
//                   "versions": [{"version": N, "journal_lines": L}, ...],
//                   "files": [{"name": NAME, "size": BYTES, "adler32": SUM}, ...],
//                   "rows": ROWS or null}, ...],
//    "summary": {"databases": D, "rows": R, "files": F, "bytes": B}}
// POOL is the pool's identity: its database root (ROOT of
// ROOT/databases/application). Texts that are not UTF-8 are written as
// {"hex": ...} (tool/json_text.h). "rows" is the live
// database's row count at the moment of the export (null when the live file
// is missing or unreadable); a recovery from the export must give exactly that
// many rows.
#ifndef TOOL_SHADOW_EXPORT_H_
#define TOOL_SHADOW_EXPORT_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "dct/status.h"
#include "tool/json_text.h"
#include "tool/shadow_inspect.h"
#include "tool/shadow_model.h"

namespace kshadow {

// The manifest's file name in an export directory.
extern const char* const kManifestName;  // "MANIFEST.json"

struct ExportedFile {
    std::string name;  // bare name in the database's directory of the export
    uint64_t size = 0;
    uint32_t adler32 = 1;
    bool linked = false;  // hard-linked rather than copied
};

struct ExportedVersion {
    uint64_t version = 0;
    uint32_t journal_lines = 0;
};

struct ExportedDatabase {
    Target target;         // the live database and its shadow directory
    std::string relative;  // the shadow directory below the shadow root
    uint64_t current = 0;
    std::vector<ExportedVersion> versions;  // newest first
    std::vector<ExportedFile> files;
    bool rows_known = false;
    uint64_t rows = 0;
};

struct ExportReport {
    std::string dir;
    std::string pool;
    std::string host;
    std::string database_root;
    std::string shadow_root;
    int64_t started = 0;  // seconds since the epoch
    int64_t finished = 0;
    std::vector<ExportedDatabase> databases;
    // Databases that were not exported (no version, a damaged checksum
    // file), and damaged versions or journals exported as they are.
    std::vector<Problem> problems;
    uint64_t bytes_linked = 0;
    uint64_t bytes_copied = 0;
    std::string reason;  // why the export failed as a whole
};

// How an export is written.
struct ExportOptions {
    // Every file and directory synced before the manifest, written last,
    // names it: an export that is kept. A scratch export that is read at once
    // and removed (the off-site push) needs no sync; one a crash interrupts
    // is removed by the next push.
    bool durable = true;
};

// Exports every database of the pool (find_all_databases) into `dir`, which
// must not exist or be empty (3, "DIR is not empty"); it is created 0750 (an
// existing empty one keeps its mode). A database with no version in its
// shadow, or with a damaged checksum file, is a problem and is not exported;
// a version or journal that does not match its checksum file is exported as
// it is and is a problem. A directory the inventory could not enter, or a
// file that cannot be read (106) or written, stops the export. 0 when the
// manifest was written and synced (the problems are in report->problems);
// otherwise the failing status with report->reason set (one line, logged
// once), and whatever was written below `dir` removed again (`dir` itself too
// when this call created it). The pool's identity is its database root, taken
// from the context's application root.
cr_status_t export_shadow(CatalogShadowContext& context, const std::string& dir, ExportReport* report,
                          const ExportOptions& options = ExportOptions());

// The manifest of `report` as written into MANIFEST.json (above).
ktool::json manifest_json(const ExportReport& report);

// Reads the manifest of the export in `dir`. 0, or 2 when it is missing, 106
// when it may not be read, 67 when it cannot be parsed or names a path outside
// `dir` (reason set: why, without the path).
cr_status_t read_manifest(const std::string& dir, ExportReport* manifest, std::string* reason);

// Checks the export in `dir` on its own, reading only: every file against the
// manifest's size and checksum, each checksum file and its versions and
// journals, SQLite's integrity check of every version, and a recovery
// rehearsal per database on a scratch copy whose row count must equal the
// manifest's. One report per database in `reports` (target.shadow_dir is the
// database's directory in the export, target.db_path the absent live file
// there: the rehearsal replaces nothing), each problem with the path it
// concerns.
// Files below `dir` that the manifest does not name are problems too: in the
// report of their database directory, else in manifest->problems.
// 0 when the manifest was read and every database checked (the problems are
// in the reports); 2 / 106 / 67 as read_manifest (manifest->reason set).
// `depth` Depth::status leaves out the rehearsal and the integrity check of
// all but the base version (and so the row count): for a caller that
// carries the recovery out next and checks its result itself.
cr_status_t verify_export(const std::string& dir, ExportReport* manifest, std::vector<DatabaseReport>* reports,
                          Depth depth = Depth::verify);

}  // namespace kshadow

#endif  // TOOL_SHADOW_EXPORT_H_
