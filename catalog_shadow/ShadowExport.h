// One database's shadow copied out as of one moment: its checksum file, every
// version the checksum file lists and each version's journal cut at the line
// count the checksum file records: exactly what a recovery of that moment
// reads, and nothing a writer added after it.
//
// The copy is taken under the database's directory lock, so no backup,
// recovery or journal write of the database runs meanwhile (the lock is
// re-entrant: a caller that reads the live database at the same moment holds
// it around both). Versions never change once in place: they are hard-linked
// where the file system allows and their mode is the private one, and copied
// otherwise; journals and the checksum file are copied with their
// modification times, so that an unchanged file looks unchanged to a later
// copy of the copy. Every file is made dct::private_file_mode.
#ifndef CATALOG_SHADOW_SHADOWEXPORT_H_
#define CATALOG_SHADOW_SHADOWEXPORT_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "dct/status.h"

// One file of an exported database: its bare name, size and Adler-32.
struct ShadowExportFile {
    std::string name;
    uint64_t size = 0;
    uint32_t adler32 = 1;
    bool linked = false;  // hard-linked rather than copied
};

// One version of an exported database and the journal lines that belong to it.
struct ShadowExportVersion {
    uint64_t version = 0;
    uint32_t journal_lines = 0;
};

// A damaged or missing part, with the path it concerns.
struct ShadowExportProblem {
    std::string path;
    std::string what;
};

// What export_database_shadow did.
struct ShadowExport {
    // false: nothing to export (no version listed, a damaged checksum
    // file); `problems` says why.
    bool exported = false;
    uint64_t current = 0;                      // the checksum file's current version
    std::vector<ShadowExportVersion> versions;  // newest first
    std::vector<ShadowExportFile> files;        // the checksum file first
    // Nothing exported and why, or versions and journals that do not match
    // the checksum file, exported as they are.
    std::vector<ShadowExportProblem> problems;
    uint64_t bytes_linked = 0;
    uint64_t bytes_copied = 0;
    std::string reason;  // why the export failed (one line)
};

// How export_database_shadow writes.
struct ShadowExportOptions {
    // Every file synced and `out_dir` made durable: an export that is kept.
    bool durable = true;
};

// Exports the shadow of the database of `type` in real directory `real_dir`
// (locked when it exists) from `shadow_dir` into `out_dir`, created
// dct::private_dir_mode when missing. 0, also when there was nothing to
// export (result->exported false); otherwise the failing status with
// result->reason set and logged once: 106 for a file this user may not read
// ("%s: failed to read %s: not readable (permission denied)"), the mapped
// status of a file that cannot be read, linked or written, 11 (or the lock's
// status) when the directory lock is not taken. What a failed export wrote
// below `out_dir` stays: the caller removes the whole export.
cr_status_t export_database_shadow(const std::string& real_dir, const std::string& shadow_dir,
                                   const std::string& type, const std::string& out_dir,
                                   const ShadowExportOptions& options, ShadowExport* result);

#endif  // CATALOG_SHADOW_SHADOWEXPORT_H_
