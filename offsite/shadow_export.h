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
// Each database is exported by the shadow library (catalog_shadow/
// ShadowExport.h) under its directory lock, so it is as of one moment while
// the services keep running; its rows are counted under the same lock. Every
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
// {"hex": ...} (offsite/json_text.h). "rows" is the live
// database's row count at the moment of the export (null when the live file
// is missing or unreadable); a recovery from the export must give exactly that
// many rows.
#ifndef OFFSITE_SHADOW_EXPORT_H_
#define OFFSITE_SHADOW_EXPORT_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/ShadowExport.h"
#include "dct/status.h"
#include "offsite/shadow_inspect.h"
#include "offsite/shadow_model.h"

namespace kshadow {

// The manifest's file name in an export directory.
extern const char* const kManifestName;  // "MANIFEST.json"

// A file of an exported database, and a version with its journal lines.
typedef ShadowExportFile ExportedFile;
typedef ShadowExportVersion ExportedVersion;

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

// The manifest of `report` as written into MANIFEST.json (above): one JSON
// document on one line, without the newline.
std::string manifest_text(const ExportReport& report);

// Whether `dir` can hold an export to check: 0, 2 when it does not exist, 4
// when it is not a directory, 106 when this user may not read it (`why`
// set: "DIR does not exist", "DIR is not a directory", "DIR: not readable
// (permission denied)").
cr_status_t probe_export_dir(const std::string& dir, std::string* why);

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

#endif  // OFFSITE_SHADOW_EXPORT_H_
