// ShadowVersion: one version of one database type in a shadow directory, and
// the version list.
//
// A version N of type T is the database copy "T.N" and its operation journal
// "T.N.journal" (every change made after the copy was taken, one statement and
// ";" a line). The checksum file (ChecksumFile.h) records for each version the
// Adler-32 of the database, of the journal and the journal's line count; the
// members below carry those values and check the files against them.
//
// The version list of a type is newest first, numbered N, N-1, ... A
// ShadowVersion is a value; lists are shared through ShadowVersionListPtr and
// guarded by their owner's mutex (PODBShadow::mutex()).
#ifndef CATALOG_SHADOW_SHADOWVERSION_H_
#define CATALOG_SHADOW_SHADOWVERSION_H_

#include <stdint.h>

#include <list>
#include <string>

#include <boost/shared_ptr.hpp>

#include "dct/environment.h"
#include "dct/status.h"

// One version of one database type in a shadow directory.
class ShadowVersion {
public:
    ShadowVersion(const std::string& dir, const std::string& type, uint64_t version);

    // T "." N and T "." N ".journal" (bare names, no directory).
    static std::string get_db_name(const std::string& type, uint64_t version);
    static std::string get_journal_name(const std::string& type, uint64_t version);

    // Whether the whole-file Adler-32 of the database matches db_crc. A
    // mismatch logs "Detected CRC mismatch for %s. Expected %u, actually %u";
    // a file that cannot be read is logged and does not match.
    bool check_crc_db();

    // Checks the journal against journal_crc / journal_lines. Lines written
    // after the checksum file was last persisted are cut away when the
    // recorded prefix still matches. A recorded count of 0 with journal_crc 1
    // is an empty journal: every line found is cut away (synced), since the
    // writer died before any was counted. With journal_lines 0 and another
    // checksum the whole journal is taken and journal_lines filled in (unless
    // `env` turns auto-fix off; the first form asks the process-wide
    // defaults). Whether the journal matches. `after`, when given, receives
    // the journal as the check leaves it (declared below).
    struct JournalScan;
    bool check_crc_journal(JournalScan* after = nullptr);
    bool check_crc_journal(const dct::environment& env, JournalScan* after = nullptr);

    // What one read of the journal file found: whether it could be opened,
    // its lines, the Adler-32 of all of them, and the Adler-32 and byte
    // position after the first journal_lines lines (1 and 0 when it has fewer).
    struct JournalScan {
        bool exists = false;
        uint32_t lines = 0;
        uint32_t crc = 1;
        uint32_t crc_at_recorded = 1;
        uint64_t position_at_recorded = 0;
        uint64_t bytes = 0;  // length of the file
        // Lines follow the recorded ones and the recorded prefix matches
        // `recorded_crc` (or none was recorded, with crc 1): a check cuts the
        // journal back to that prefix.
        bool prefix_repairable(uint32_t recorded_lines, uint32_t recorded_crc) const;
        // The checksum a check compares: that of the recorded prefix when it
        // is repairable, else crc.
        uint32_t effective_crc(uint32_t recorded_lines, uint32_t recorded_crc) const;
        // The bytes a recovery replays: the prefix when repairable, else all.
        uint64_t replayed_bytes(uint32_t recorded_lines, uint32_t recorded_crc) const;
    };
    // Reads the journal; changes nothing.
    JournalScan scan_journal() const;

    // check_crc_journal without its repairs, for programs that only inspect:
    // lines beyond the recorded count are accepted when the recorded prefix
    // matches (a check would cut them away), nothing is written and
    // journal_lines is left as it is. Whether the journal matches; a mismatch
    // logs as check_crc_journal does. `scan`, when given, receives what was
    // read.
    bool verify_journal(JournalScan* scan = nullptr) const;

    // Truncates the journal file to `length` bytes and syncs it. 0, or the
    // status of the step that failed (logged).
    cr_status_t fix_journal(uint64_t length);

    uint64_t version;
    std::string type;
    std::string db_name;
    std::string journal_name;
    std::string db_path;
    std::string journal_path;
    uint32_t db_crc;
    uint32_t journal_crc;
    uint32_t journal_lines;
    // Set by the last check_crc_db / check_crc_journal that passed, cleared by
    // one that failed. Nothing else reads them.
    bool db_verified;
    bool journal_verified;
};

typedef std::list<ShadowVersion> ShadowVersionList;
typedef boost::shared_ptr<ShadowVersionList> ShadowVersionListPtr;

#endif  // CATALOG_SHADOW_SHADOWVERSION_H_
