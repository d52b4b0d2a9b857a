// PODBShadow: consistent copies of SQLite database files and their integrity
// check.
//
// A copy of a live database must be a state that some commit left. The copy
// is therefore taken under a read transaction of the source, opened through
// SQLite: before it grants the read lock SQLite plays back the hot journal of
// a writer that died mid-transaction, and while the lock is held no writer can
// commit. The source is opened read-write (never created): playing a hot
// journal back needs write access, and a read-only connection refuses a file
// with a hot journal instead (SQLITE_READONLY_ROLLBACK).
//
// The bytes are read through the connection's own file handle. POSIX record
// locks belong to the process, and closing ANY descriptor of a file drops
// every one of them: a second open()/close() of the source here would silently
// release the locks of this connection and of every other connection of the
// process to the same database (a catalog service keeps such connections
// open), letting a writer commit under a reader that believes itself safe.
//
// Any SQLite client may switch a database to write-ahead logging, and the mode
// is kept in the file. Commits of such a database may then lie in its "-wal"
// file rather than the main file, so before the bytes are read the log is
// checkpointed into the main file and emptied (TRUNCATE), and the read lock
// is taken only once the log is found empty: a reader that started on an
// empty log reads the main file alone, and no checkpoint writes into the main
// file while such a reader holds its lock. A copy of such a database is
// written in rollback-journal mode (the two file-format bytes that name the
// mode are set back to 1, as SQLite does when it leaves the mode), so that
// every copy opens as the rest of the system expects. A database whose log
// cannot be emptied (read-only access) is not copied from its main file.
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "dct/file_io.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "sqlitedb/busy_retry.h"
#include "sqlitedb/connection.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace {

const size_t kBlockSize = 32768;
// Polls of the read lock while a writer commits: every 100 microseconds at
// first, then every millisecond, about ten seconds in all.
const int kFastBusyPolls = 10000;
const int kBusyPolls = kFastBusyPolls + 9000;
const unsigned long kCloseRetries = 3;
// Offsets of the file-format write and read version bytes in a database's
// header: 1 for rollback-journal mode, 2 for write-ahead logging.
const size_t kWriteVersionOffset = 18;
const size_t kReadVersionOffset = 19;
const char kRollbackFormat = 1;

// Busy handler of the copy's connection. A writer shuts readers out only while
// it commits, but a writer that commits without pause leaves gaps of a few
// microseconds between its commits: SQLite's own handler, whose waits grow to
// 100 ms, would wake inside a commit nearly every time. Short polls catch the
// gaps.
int poll_busy(void*, int count) {
    if (count >= kBusyPolls) return 0;
    usleep(count < kFastBusyPolls ? 100 : 1000);
    return 1;
}

// A connection to the copy's source holding a read transaction for as long as
// it lives.
class SourceSnapshot {
public:
    explicit SourceSnapshot(const std::string& path) : path_(path) {}
    ~SourceSnapshot() {
        // A read transaction has nothing to keep; ending it releases the lock.
        // The connection closes itself.
        end_read();
    }
    SourceSnapshot(const SourceSnapshot&) = delete;
    SourceSnapshot& operator=(const SourceSnapshot&) = delete;

    // Opens the source and takes a read lock under which the main file holds
    // every commit. SQLITE_OK, or the SQLite result of the step that failed.
    // With SQLITE_CORRUPT or SQLITE_NOTADB the connection stays usable for
    // reading the raw bytes, without a lock.
    int open() {
        if (db_.open(path_, sqlitedb::open_mode::existing) != CR_STATUS_OK) return db_.code();
        int rc = SQLITE_OK;
        // Replaces the connection's busy timeout.
        db_.set_busy_handler(poll_busy, nullptr);
        // A writer may commit into the log between the checkpoint that
        // emptied it and the read lock: the log is emptied once more at once,
        // and after that as often as a busy database is tried.
        sqlitedb::retry_while_busy(
            [&] {
                for (int pass = 0; pass < 2; ++pass) {
                    rc = begin_read();
                    if (rc != SQLITE_OK || !wal_ || log_is_empty()) return CR_STATUS_OK;
                    end_read();
                    rc = db_.checkpoint_truncate();
                    const int primary = rc & 0xFF;
                    // Anything but a busy log (read-only access, damage) ends the copy.
                    if (primary != SQLITE_OK && primary != SQLITE_BUSY) return CR_STATUS_OK;
                }
                rc = SQLITE_BUSY;
                return CR_STATUS_BUSY;
            },
            [](unsigned int) { return true; });
        return rc;
    }

    // Whether the source is in write-ahead-log mode (known once open() took
    // its lock): its copy is then written in rollback-journal mode.
    bool wal() const { return wal_; }

    // The main database file, read through the connection's own handle of
    // it: SQLITE_OK, or SQLite's failure (also when it has none open).
    int size(int64_t* bytes) const { return db_.main_file_size(bytes); }
    int read(int64_t offset, void* buffer, int bytes) const { return db_.read_main_file(offset, buffer, bytes); }

    const char* errmsg() const { return db_.errmsg(); }

private:
    // Takes the read lock and learns the journal mode under it.
    int begin_read() {
        if (db_.exec("BEGIN;") != CR_STATUS_OK) return db_.code();
        int rc = SQLITE_OK;
        in_transaction_ = true;
        // Reading the schema takes the shared lock, after any hot journal has
        // been played back. Inside BEGIN the lock stays until the end.
        // When the polls ran out, the read lock is tried again one second
        // apart, as every busy database is.
        sqlitedb::retry_while_busy(
            [&] {
                db_.exec("SELECT count(*) FROM sqlite_master;");
                rc = db_.code();
                return (rc & 0xFF) == SQLITE_BUSY ? CR_STATUS_BUSY : CR_STATUS_OK;
            },
            [](unsigned int) { return true; });
        if (rc != SQLITE_OK) return rc;
        return read_journal_mode();
    }

    void end_read() {
        if (in_transaction_) db_.exec("ROLLBACK;");
        in_transaction_ = false;
    }

    int read_journal_mode() {
        std::string mode;
        db_.read_value("PRAGMA main.journal_mode;", &mode);
        wal_ = strcasecmp(mode.c_str(), "wal") == 0;
        return db_.code();
    }

    // Whether the log holds no frame: then this read transaction reads the
    // main file alone. A log that holds frames is never emptied while a
    // reader of them holds its lock, so an empty one means none was there.
    bool log_is_empty() const {
        int64_t size = -1;
        return db_.log_file_size(&size) == SQLITE_OK && size == 0;
    }

    std::string path_;
    // Its database file is the one read, through SQLite's own handle of it.
    sqlitedb::connection db_;
    bool in_transaction_ = false;
    bool wal_ = false;
};

// Logs a failed copy (which removed its partial destination); errno is kept
// for the caller's message.
cr_status_t copy_failed(const std::string& src, const std::string& dst, cr_status_t status) {
    const int e = errno;
    ErrorA(status, "failed to copy data from %s to %s.", src.c_str(), dst.c_str());
    errno = e;
    return status;
}

}  // namespace

cr_status_t PODBShadow::duplicate(const std::string& src, const std::string& dst, uint32_t* crc) {
    __TraceA("Duplicate file from %s to %s.", src.c_str(), dst.c_str());

    if (wa_access(src, R_OK) != 0) {
        cr_status_t status = _crMapError("duplicate", __FILE__, __LINE__);
        ErrorA(status, "failed to open file %s for reading.", src.c_str());
        return status;
    }
    SourceSnapshot snapshot(src);
    int rc = snapshot.open();
    if (rc != SQLITE_OK) {
        const int primary = rc & 0xFF;
        if (primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB) {
            // Nothing to be consistent with: copy the bytes as they are, and
            // let the integrity check that follows every copy judge them.
            __TraceA("%s: %s is not a sound database (%s), copy it as it stands", "duplicate", src.c_str(),
                     snapshot.errmsg());
        } else {
            cr_status_t status = sqlitedb::db_exception::dberr_to_crstatus(rc);
            ErrorA(status, "failed to open file %s for reading.", src.c_str());
            return status;
        }
    }
    int64_t size = 0;
    if (snapshot.size(&size) != SQLITE_OK) {
        ErrorA(CR_STATUS_IO, "failed to open file %s for reading.", src.c_str());
        return CR_STATUS_IO;
    }

    // The copy is renamed into place next: its bytes must be on disk first.
    // Its mode exactly, whatever the umask: a copy holds the catalog's rows.
    dct::copy_options copy;
    copy.length = static_cast<uint64_t>(size);
    copy.block_size = kBlockSize;
    const dct::block_reader read = [&](char* block, size_t n, uint64_t offset) -> ssize_t {
        if (snapshot.read(static_cast<int64_t>(offset), block, static_cast<int>(n)) != SQLITE_OK) {
            // A short read (the file shrank under us) is as bad as a failed one.
            errno = EIO;
            return -1;
        }
        if (offset == 0 && snapshot.wal() && n > kReadVersionOffset) {
            block[kWriteVersionOffset] = kRollbackFormat;
            block[kReadVersionOffset] = kRollbackFormat;
        }
        return static_cast<ssize_t>(n);
    };
    uint32_t sum = 1;
    dct::file_failure failure;
    const cr_status_t status = dct::copy_from(read, src, dst, copy, &sum, &failure);
    if (status != CR_STATUS_OK && failure.step == dct::file_step::create) {
        ErrorA(status, "failed to open file %s for writing.", dst.c_str());
        return status;
    }
    if (status != CR_STATUS_OK) return copy_failed(src, dst, status);

    __TraceA("Checksum for %s is: %u.", dst.c_str(), sum);
    if (crc != nullptr) *crc = sum;
    return CR_STATUS_OK;
}

bool PODBShadow::sqlite_integrity_check(const std::string& file) { return sqlitedb::check_database_integrity(file); }

bool PODBShadow::sqlite_holds_no_table(const std::string& file) {
    if (wa_access(file, 0) != 0) return false;
    sqlitedb::sqlite3_wrapper db(file);
    if (db.open_db() != CR_STATUS_OK) return false;
    std::string count;
    const bool none = db.run_pragma("SELECT count(*) FROM sqlite_master;", "0", &count);
    db.close_db(kCloseRetries);
    return none;
}
