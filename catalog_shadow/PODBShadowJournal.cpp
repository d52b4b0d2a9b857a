// PODBShadow: appending to, syncing and replaying operation journals.
//
// A journal line is the statement, ";" and "\n"; the newest version's
// journal_crc / journal_lines follow every line written. flush_journal syncs
// the journal before it rewrites the checksum file that counts its lines, so a
// crash leaves at worst lines beyond the recorded count, which
// check_crc_journal cuts away.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "catalog_shadow/RecoveryPlan.h"
#include "dct/environment.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace {

const char kPoCleanup[] = "DELETE FROM po WHERE basename LIKE '%[R_%]';";

}  // namespace

void PODBShadow::reset_db_active_journal_(const std::string& type, boost::shared_ptr<JournalStream> stream) {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    state_(type).journal = stream;
}

// Opens the newest version's journal for appending. An existing journal is
// checked first (unless the context's environment turns auto-fix off): new
// lines must never make a damaged journal look valid. Throws "journal
// corrupted".
cr_status_t PODBShadow::open_active_journal_(const std::string& type, ShadowVersion& newest) {
    TypeState& s = state_(type);
    const bool existed = wa_access(newest.journal_path, 0) == 0;
    const dct::environment& env = environment_of(context_);
    if (existed && env.auto_fix_journal() && !newest.check_crc_journal(env)) throw "journal corrupted";

    boost::shared_ptr<JournalStream> stream = JournalStream::open(newest.journal_path);
    if (!stream) {
        ErrorA(CR_STATUS_IO, "failed to open journal file %s", newest.journal_path.c_str());
        return CR_STATUS_IO;
    }
    if (!existed && wa_syncdir(shadow_dir_) != 0) {
        // The new journal's name must be on disk before a checksum file counts
        // its lines.
        int e = errno;
        cr_status_t status = _crMapError("write_journal", __FILE__, __LINE__);
        ErrorA(status, "%s: failed to sync directory %s (%s)", "write_journal", shadow_dir_.c_str(), strerror(e));
        return status;
    }
    s.journal = stream;
    // The journal as it stands now is the state to fall back to.
    s.mark.valid = true;
    s.mark.version = newest.version;
    s.mark.crc = newest.journal_crc;
    s.mark.lines = newest.journal_lines;
    s.mark.size_known = true;
    s.mark.size = stream->size();
    return CR_STATUS_OK;
}

void PODBShadow::abandon_journal_(const std::string& type) {
    TypeState& s = state_(type);
    if (!s.versions->empty()) {
        ShadowVersion& newest = s.versions->front();
        if (s.mark.valid && s.mark.version == newest.version) {
            if (s.journal && s.mark.size_known && s.journal->path() == newest.journal_path) {
                s.journal->truncate(s.mark.size);
            }
            newest.journal_crc = s.mark.crc;
            newest.journal_lines = s.mark.lines;
        }
    }
    s.journal.reset();
}

cr_status_t PODBShadow::write_journal(const std::string& type, const std::string& statement) {
    return write_journal_lines(type, std::vector<std::string>(1, statement));
}

cr_status_t PODBShadow::flush_journal(const std::string& type) {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    try {
        TypeState& s = state_(type);
        if (!s.journal) return CR_STATUS_OK;  // nothing appended since the last flush
        if (s.journal->fd() < 0) {
            errno = EBADF;
            cr_status_t status = _crMapError("flush_journal", __FILE__, __LINE__);
            ErrorA(status, "%s: can not get file descriptor (%s)", "flush_journal", strerror(EBADF));
            abandon_journal_(type);
            return status;
        }
        if (s.journal->sync() != 0) {
            int e = errno;
            cr_status_t status = _crMapError("flush_journal", __FILE__, __LINE__);
            ErrorA(status, "Could not fsync journal file (%s)", strerror(e));
            // What the failed sync covered may be lost; never let a checksum
            // file count it.
            abandon_journal_(type);
            return status;
        }
        cr_status_t status = persist_chksum(type);
        if (status != CR_STATUS_OK) {
            // The journal is durable; the next flush counts its lines.
            ErrorA(status, "%s: failed to persist chksum file. ", "flush_journal");
            return status;
        }
        return CR_STATUS_OK;
    } catch (const char* e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "flush_journal", e);
        return CR_STATUS_FAILED;
    }
}

namespace {

// The whole journal of every version in the range whose journal file holds
// anything, in range order.
template <typename It>
std::vector<PlannedJournal> whole_journals(It first, It last) {
    std::vector<PlannedJournal> journals;
    for (; first != last; ++first) {
        struct stat st;
        if (wa_stat(first->journal_path, &st) != 0 || st.st_size < 1) continue;
        PlannedJournal j;
        j.version = first->version;
        j.path = first->journal_path;
        j.bytes = static_cast<uint64_t>(st.st_size);
        journals.push_back(j);
    }
    return journals;
}

}  // namespace

cr_status_t PODBShadow::apply_journals(ShadowVersionList::const_iterator first,
                                       ShadowVersionList::const_iterator last, sqlitedb::sqlite3_wrapper* db) {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    return apply_journal_files_(whole_journals(first, last), db);
}

cr_status_t PODBShadow::apply_journals(ShadowVersionList::const_reverse_iterator first,
                                       ShadowVersionList::const_reverse_iterator last,
                                       sqlitedb::sqlite3_wrapper* db) {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    return apply_journal_files_(whole_journals(first, last), db);
}

cr_status_t PODBShadow::apply_journal_files_(const std::vector<PlannedJournal>& journals,
                                             sqlitedb::sqlite3_wrapper* db) {
    for (const PlannedJournal& j : journals) {
        if (j.bytes == 0) continue;
        InfoA(CR_STATUS_OK, "Applying journal file %s", j.path.c_str());
        cr_status_t status;
        try {
            status = db->exec_file(j.path, j.bytes);
        } catch (const sqlitedb::db_exception& e) {
            status = e.cr_status();
        }
        if (status != CR_STATUS_OK) {
            ErrorA(status, "Failed to apply journal file %s", j.path.c_str());
            return status;
        }
    }

    // Drop PO rows whose base name carries the bracketed marker. Only the PO
    // database has a po table; elsewhere there is nothing to clean.
    if (!db->run_pragma("SELECT name FROM sqlite_master WHERE type='table' AND name='po';", "po", nullptr)) {
        __TraceA("%s: no po table in %s, skip [%s]", "apply_journals", db->path.c_str(), kPoCleanup);
        return CR_STATUS_OK;
    }
    cr_status_t status;
    try {
        status = db->exec(kPoCleanup);
    } catch (const sqlitedb::db_exception& e) {
        status = e.cr_status();
    }
    if (status != CR_STATUS_OK) {
        __TraceA("%s: [%s] failed on %s (status %u)", "apply_journals", kPoCleanup, db->path.c_str(), status);
    }
    return CR_STATUS_OK;
}
