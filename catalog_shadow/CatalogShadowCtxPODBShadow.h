// PODBShadow: the shadow of one real catalog directory.
//
// For each database type ("podb", "uldb", "appdb") it keeps a short history of
// copies of the database ("versions", newest first), each with an operation
// journal of what was done to the database after the copy was taken, and a
// checksum file that lists the versions with Adler-32 sums of their files and
// of itself. Files inside the shadow directory, for type T and version N:
//
//   T.N              version database          podb.7
//   T.N.journal      version journal           podb.7.journal
//   .chksum.T        checksum file             .chksum.podb
//   .chksum.T.tmp    checksum file being written (never a checksum file)
//   .chksum          legacy checksum file, migrated by load_versions
//   #corrupt_T_S     damaged material set aside at S seconds since the epoch
//
// The checksum file's text and its atomic write are ChecksumFile's
// (ChecksumFile.h), a version and the version list ShadowVersion's
// (ShadowVersion.h), the open journal JournalStream's (JournalStream.h), the
// recovery plan RecoveryPlan's (RecoveryPlan.h); this class coordinates them
// for one directory, under the directory lock its callers hold
// (DirectoryLock.h), and keeps their state in memory.
//
// Error handling: internal failures are thrown as C-string exceptions and
// caught by the public operation that met them, which logs
// "%s: Got exception: [%s]" and returns a status. Members ending in "_" are
// building blocks for the operations of this class.
//
// Thread safety: a PODBShadow is shared by the users of the shadow pool. Its
// state (versions, current numbers, active journals) is guarded by mutex(), a
// recursive mutex that every member takes. A caller that iterates a list from
// get_db_versions_() or runs several operations as one unit holds mutex()
// itself.
#ifndef CATALOG_SHADOW_CATALOGSHADOWCTXPODBSHADOW_H_
#define CATALOG_SHADOW_CATALOGSHADOWCTXPODBSHADOW_H_

#include <stddef.h>
#include <stdint.h>

#include <istream>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "catalog_shadow/ChecksumFile.h"
#include "catalog_shadow/JournalStream.h"
#include "catalog_shadow/ShadowCrc.h"
#include "catalog_shadow/ShadowVersion.h"
#include "dct/environment.h"
#include "dct/fileutil.h"  // the directory walk; its includers use the file calls too
#include "dct/status.h"

class CatalogShadowContext;
struct PlannedJournal;
struct RecoveryPlan;

namespace sqlitedb {
class sqlite3_wrapper;
}

class PODBShadow {
public:
    static const std::string _podb_type_;       // "podb"
    static const std::string _uldb_type_;       // "uldb"
    static const std::string _appdb_type_;      // "appdb"
    static const std::string _corrupt_prefix_;  // "#corrupt_"

    // Running Adler-32 (ShadowCrc.h).
    typedef ShadowCrc CRC;

    // `dir` is the real catalog directory, `shadow_dir` its mirror in the
    // shadow tree. `context` gives the version count; it may be null (then
    // get_max_version_count() is the configured default, 5) and must outlive
    // the shadow otherwise. Every type starts with no versions, current 0.
    PODBShadow(CatalogShadowContext* context, const std::string& dir, const std::string& shadow_dir);
    virtual ~PODBShadow();
    PODBShadow(const PODBShadow&) = delete;
    PODBShadow& operator=(const PODBShadow&) = delete;

    const std::string& get_dir() const { return dir_; }
    const std::string& get_shadow_dir() const { return shadow_dir_; }
    std::recursive_mutex& mutex() const { return mutex_; }

    // ".chksum." T.
    static std::string chksum_file(const std::string& type);
    // Database file name of a type: "po.db", "ul.db" or "app.db"; "" for an
    // unknown type.
    static std::string db_file_name(const std::string& type);
    // True when `type` is one of the three type words.
    static bool is_valid_type(const std::string& type);
    // True when `name` is a version database, a version journal or the
    // checksum file of `type` (the files move_all_as_backup sets aside).
    static bool is_type_file(const std::string& name, const std::string& type);

    // --- Checksum file (versions) ---

    // Writes the checksum file of `type` through ".chksum.T.tmp" (synced, then
    // renamed over the checksum file, then the directory synced), so that a
    // crash leaves either the old or the new file. A failure leaves the old file
    // untouched and no temporary file. 0, or the status of the step that
    // failed (logged there).
    cr_status_t persist_chksum(const std::string& type);

    // Reads the checksum file of `type` into its version list. A leftover
    // ".chksum.T.tmp" is removed first; a legacy ".chksum" is renamed to the
    // typed name when that is missing. When the file is missing or damaged the
    // list is emptied and, if `reset_if_damaged`, the type's files are moved
    // into a "#corrupt_" directory, the current version is raised by
    // get_max_version_count() above the highest number in use, and a fresh
    // checksum file is written (initialize). 0 when loaded, 67 when damaged
    // (and reset, when asked); when the reset's set-aside or new checksum
    // file failed, that failure's status.
    cr_status_t load_versions(const std::string& type, bool reset_if_damaged);

    // Reads the checksum file of `type` in `shadow_dir` (or a lone legacy
    // ".chksum") without touching anything on disk or in a shadow: for
    // programs that only inspect. Fills `current` and `list` (newest first).
    // 0 when read; 2 when there is no checksum file; 67 (logged "failed to
    // load chksum file %s: %s") when it is damaged, with the reason in
    // `reason`; 4 for an unknown type.
    static cr_status_t read_chksum(const std::string& shadow_dir, const std::string& type,
                                   uint64_t* current, ShadowVersionList* list, std::string* reason);

    // Reads one line of `in` into `line`; it must be `key` "=" followed by a
    // decimal number, which is stored in `value`; the line's text is appended
    // to `crc`. Throws "file read error" or "bad line format".
    static void getline_parse(std::string& line, std::istream& in, const std::string& key, CRC& crc,
                              uint64_t& value);

    // Empties the type's history (closing its journal), creates the shadow
    // directory when missing and writes a checksum file with no versions. The
    // current version number is kept.
    cr_status_t initialize(const std::string& type);

    // Both the shadow directory and the type's checksum file are present.
    bool exist(const std::string& type) const;

    // True when the type lists no version although version numbers were
    // handed out before: its history was found damaged and set aside
    // (load_versions), and no copy has been taken since. Numbers start at 1
    // and only a damaged checksum file empties a list, so this holds across
    // restarts through the checksum file itself.
    bool history_lost(const std::string& type) const;

    // For "podb", "uldb", "appdb" in turn: load_versions(type, true) when
    // exist(type), else an empty history in memory only (nothing is written:
    // the shadow directory and checksum file are made by the first backup).
    // Used when the shadow enters the pool and when it is reloaded.
    void load_all();

    // Makes the in-memory state of `type` the disk's again when another
    // process has changed it: compares the checksum file's bytes with those
    // last persisted or loaded here, and the active journal's length with what
    // this object wrote. On a difference the journal stream is closed (its
    // reopening checks the journal and cuts lines a killed writer left) and
    // the checksum file is reloaded (load_versions(type, reset_if_damaged)),
    // or the history emptied when the file is gone. Called under the
    // directory lock before a journal line, a backup or a recovery. 0, or the
    // status of the reload.
    cr_status_t refresh_from_disk(const std::string& type, bool reset_if_damaged);

    // Creates the shadow directory tree when it is missing.
    cr_status_t checkCreateWorkDir();

    // --- Journals ---

    // Appends statement ";" "\n" to the newest version's journal and advances
    // its journal_crc / journal_lines. With no version, logs that there is no
    // active shadow and returns 0 without writing. A journal that fails its
    // check when first opened is refused ("journal corrupted"). A line that
    // cannot be written leaves no part of it behind; the lines before it stay.
    // 0 or a status.
    cr_status_t write_journal(const std::string& type, const std::string& statement);
    // The same for several statements, in order, written with one append:
    // all of them are in the journal afterwards, or none.
    cr_status_t write_journal_lines(const std::string& type, const std::vector<std::string>& statements);

    // Syncs the active journal, then persists the checksum file that counts its
    // lines. 0 when nothing was pending. On a failed sync the lines not yet
    // counted by the checksum file are dropped again (file and counters).
    cr_status_t flush_journal(const std::string& type);

    // Replaces the type's active journal stream; null closes it.
    void reset_db_active_journal_(const std::string& type, boost::shared_ptr<JournalStream> stream);

    // Replays, in range order, the journal of each version that has a
    // non-empty journal file onto `db` (open), then runs the PO clean-up
    // statement when `db` has a po table. 0 or the status of the failed replay.
    cr_status_t apply_journals(ShadowVersionList::const_iterator first,
                               ShadowVersionList::const_iterator last, sqlitedb::sqlite3_wrapper* db);
    // The same, oldest first when given a reverse range of the newest-first list.
    cr_status_t apply_journals(ShadowVersionList::const_reverse_iterator first,
                               ShadowVersionList::const_reverse_iterator last,
                               sqlitedb::sqlite3_wrapper* db);

    // --- Setting damaged material aside ---

    // Creates shadow_dir "/" "#corrupt_" T "_" seconds and returns it in `dir`.
    cr_status_t new_backup_dir(const std::string& type, std::string* dir);
    // Moves one file (full path) into a new backup directory.
    cr_status_t move_file_as_backup(const std::string& type, const std::string& file);
    // Moves every file of the type (is_type_file) into a new backup directory.
    cr_status_t move_all_as_backup(const std::string& type);

    // --- Per-type state ---
    uint64_t get_db_current_ver_(const std::string& type) const;
    void set_db_current_ver_(const std::string& type, uint64_t version);
    // The type's list, newest first; never null. Hold mutex() while using it.
    ShadowVersionListPtr get_db_versions_(const std::string& type) const;
    // Replaces the list and takes ownership of `list`; null empties it.
    void reset_db_versions_(const std::string& type, ShadowVersionList* list);
    uint32_t get_version_count(const std::string& type) const;
    // The context's version count (1..256).
    virtual uint32_t get_max_version_count() const;

    // --- Backup and recovery (built in their own sources) ---
    // Makes `tmp_file` (in the shadow directory, checksum `crc`) the newest
    // version. 0 when added, or when the newest version already holds `crc`
    // (then nothing changes, the copy is left to the caller and *unchanged,
    // when given, is set); else the status of the failed step, logged.
    cr_status_t add_new_version(const std::string& type, const std::string& tmp_file, uint32_t crc,
                                bool* unchanged = nullptr);
    // Copies `src` to `dst`, computing the copy's Adler-32 into `crc`.
    cr_status_t duplicate(const std::string& src, const std::string& dst, uint32_t* crc);
    // Whether the database `file` passes SQLite's integrity check
    // (sqlitedb::check_database_integrity, which logs).
    static bool sqlite_integrity_check(const std::string& file);
    // Whether the SQLite database `file` holds no table at all (what a
    // creation that failed half-way leaves). Such a file is never taken as a
    // version: restored, it would be a database without its table. False
    // when the file cannot be read.
    static bool sqlite_holds_no_table(const std::string& file);
    cr_status_t remove_version(const ShadowVersion& version);
    // Rebuilds the database of `type` into `target` by the plan of
    // plan_recovery (RecoveryPlan.h); `done`, when given, receives the plan.
    cr_status_t merge_shadows(const std::string& dir, const std::string& target, const std::string& type,
                              RecoveryPlan* done = nullptr);
    // Copies the plan's base to `target` (checked against its recorded
    // checksum) and replays the plan's journals onto it in one transaction.
    // 0, or the status of the step that failed.
    cr_status_t carry_out(const RecoveryPlan& plan, const std::string& target);
    cr_status_t destroy();

private:
    // What the checksum file last persisted says about the newest version's
    // journal, and how long the journal file was then.
    struct JournalMark {
        bool valid = false;
        uint64_t version = 0;
        uint32_t crc = 1;
        uint32_t lines = 0;
        bool size_known = false;
        uint64_t size = 0;
    };

    struct TypeState {
        uint64_t current = 0;
        ShadowVersionListPtr versions;             // newest first, never null
        boost::shared_ptr<JournalStream> journal;  // active journal, or null
        JournalMark mark;
        // The checksum file's bytes as last persisted or loaded here; empty
        // when there was none.
        std::string on_disk;
        // The file's identity (inode, size, times) when it was known to hold
        // on_disk: while it is unchanged the bytes need not be read again.
        bool signature_known = false;
        uint64_t signature[6] = {0, 0, 0, 0, 0, 0};
    };

    // The identity of the checksum file of `type` as it is now; false when it
    // cannot be stat'ed.
    bool chksum_signature_(const std::string& type, uint64_t (&signature)[6]) const;
    // Records that the checksum file of `type` now holds on_disk.
    void remember_chksum_signature_(const std::string& type);

    // The slot of a type word; throws "bad parameter" for any other word.
    TypeState& state_(const std::string& type) const;

    std::string compose_chksum_(const std::string& type) const;
    // Loads the checksum file at `path` into the type's state: true, or false
    // with why in `reason`.
    bool load_versions_from_(const std::string& type, const std::string& path, std::string* reason);
    uint64_t highest_version_on_disk_(const std::string& type) const;
    cr_status_t open_active_journal_(const std::string& type, ShadowVersion& newest);
    // Drops what was appended since the last persisted checksum file: the
    // journal file is cut back, the newest version's counters restored and the
    // stream closed.
    void abandon_journal_(const std::string& type);
    cr_status_t apply_journal_files_(const std::vector<PlannedJournal>& journals, sqlitedb::sqlite3_wrapper* db);

    CatalogShadowContext* context_;
    std::string dir_;
    std::string shadow_dir_;
    mutable std::recursive_mutex mutex_;
    mutable TypeState states_[3];  // "podb", "uldb", "appdb"
};

#endif  // CATALOG_SHADOW_CATALOGSHADOWCTXPODBSHADOW_H_
