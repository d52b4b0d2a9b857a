// ChecksumFile: the checksum file of one database type in a shadow directory,
// as a value, with its text and its atomic write.
//
// The text (each line ends with one "\n", numbers in decimal without sign):
//   format=1
//   current=N                       newest version number
//   count=C                         versions listed
//   T.N=db_crc                      } for each version, newest first,
//   T.N.journal=journal_crc         } numbered N, N-1, ...
//   T.N.journal.len=journal_lines   }
//   self=S                          Adler-32 of the preceding lines' texts
//
// Reading is strict and in file order: the first line that is not what is
// expected there ends it, with the reason named below. What the reader takes:
// a first line that begins with "format=1"; "current" up to 2^64-1; "count"
// no larger than current nor 2^32-1; sums and line counts up to 2^32-1; at
// most twenty digits a number; the last line without its "\n"; anything after
// the self line. A value that render() writes is always taken back by
// parse() when validate() holds for it.
//
// Not locked: a value type. The owner of the file (PODBShadow) serialises.
#ifndef CATALOG_SHADOW_CHECKSUMFILE_H_
#define CATALOG_SHADOW_CHECKSUMFILE_H_

#include <stdint.h>

#include <istream>
#include <string>
#include <vector>

#include "catalog_shadow/ShadowCrc.h"
#include "catalog_shadow/ShadowVersion.h"
#include "dct/status.h"

// Reads the whole of a small file (a checksum file) into `text`. False (and
// `text` empty) when it cannot be opened.
bool read_small_file(const std::string& path, std::string* text);

class ChecksumFile {
public:
    // What the file records about one version.
    struct Entry {
        uint64_t version = 0;
        uint32_t db_crc = 1;
        uint32_t journal_crc = 1;
        uint32_t journal_lines = 0;
    };

    std::string type;            // the type word whose keys the lines carry
    uint64_t current = 0;        // newest version number handed out
    std::vector<Entry> entries;  // newest first; count= is their number

    // The value of `type`'s list (newest first).
    static ChecksumFile of(const std::string& type, uint64_t current, const ShadowVersionList& versions);
    // The versions listed, with their files in `shadow_dir`.
    void to_versions(const std::string& shadow_dir, ShadowVersionList* list) const;

    // The file's text, self line included. Keys are named after each entry's
    // own number.
    std::string render() const;

    // True when render()'s text would be taken back unchanged: entries are
    // numbered current, current-1, ... and no more than current of them.
    // Otherwise false with the first fault in `reason`.
    bool validate(std::string* reason) const;

    // Reads `text` as the checksum file of `type`. False on the first fault,
    // with the reason: "file read error" (no first line), "bad line format"
    // (first line), "can't get value of " KEY (a line missing, out of place,
    // malformed or out of range), "CRC mismatch for " `name` (self sum).
    static bool parse(const std::string& text, const std::string& type, const std::string& name,
                      ChecksumFile* out, std::string* reason);

    // Reads the file at `path` and parses it (named by its path). A file that
    // cannot be opened is "open file " PATH " failed.". The bytes read go to
    // `text` unless it is null.
    static bool load(const std::string& path, const std::string& type, ChecksumFile* out, std::string* text,
                     std::string* reason);

    // Reads one line of `in` into `line`; it must be `key` "=" followed by a
    // decimal number, which is stored in `value`, and the line's text is
    // appended to `crc`. 0, or 67 with `reason` (when given) set to "file
    // read error" (no line) or "bad line format"; `value` and `crc` are then
    // left as they were. Nothing is logged: the caller names the file.
    static cr_status_t read_line(std::istream& in, const std::string& key, ShadowCrc& crc, std::string* line,
                                 uint64_t* value, const char** reason = nullptr);

    // A whole decimal number without sign, at most twenty digits, no overflow.
    static bool parse_decimal(const std::string& text, uint64_t* value);

    // Replaces the file at `path` (in directory `dir`) by `text`: written to
    // `path` ".tmp", synced, renamed over `path`, then `dir` synced, so that a
    // crash leaves either the whole old file or the whole new one. A failure
    // before the rename leaves the old file and no temporary file. Every
    // failure is logged ("persist_chksum: failed to open file %s to persist
    // data (%s)." or "can't persist version info file %s.") and its status
    // returned. `replaced` tells whether `path` now holds `text`: true also
    // when only the directory sync failed.
    static cr_status_t write(const std::string& dir, const std::string& path, const std::string& text,
                             bool* replaced);
};

#endif  // CATALOG_SHADOW_CHECKSUMFILE_H_
