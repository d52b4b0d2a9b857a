// PODBShadow: rebuilding a database from its versions and journals
// (merge_shadows, carry_out), and removing a whole shadow (destroy).
#include <errno.h>
#include <string.h>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "catalog_shadow/RecoveryPlan.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace {

const char kPoCleanup[] = "DELETE FROM po WHERE basename LIKE '%[R_%]';";
const unsigned long kCloseRetries = 3;
// destroy: tries of the tree deletion, and the pause after a failed one.
const int kDeleteTreeTries = 10;
const unsigned kDeleteTreePauseSeconds = 3;

// Drops PO rows whose base name carries the bracketed marker. Only the PO
// database has a po table: on any other database SQLite answers with a plain
// error ("no such table"), which is traced and is no failure. Any other answer
// means the rebuilt file itself is in trouble. 0 or the mapped status.
cr_status_t po_cleanup(sqlitedb::sqlite3_wrapper& db) {
    sqlitedb::connection& conn = db.db();
    if (conn.exec(kPoCleanup) == CR_STATUS_OK) return CR_STATUS_OK;
    const int rc = conn.code();
    const std::string text = conn.exec_message() != nullptr ? conn.exec_message() : sqlitedb::errstr(rc);
    if ((rc & 0xFF) == SQLITE_ERROR) {
        __TraceA("%s: [%s] does not apply to %s (%d:%s)", "merge_shadows", kPoCleanup, db.path.c_str(), rc,
                 text.c_str());
        return CR_STATUS_OK;
    }
    const cr_status_t status = sqlitedb::db_exception::dberr_to_crstatus(rc);
    ErrorA(status, "%s: Catch sqlite database runtime exception [%d]: %s", "merge_shadows", rc, text.c_str());
    return status;
}

}  // namespace

// Plans the recovery with the repairing judge (RecoveryPlan.h) and carries
// the plan out into `target`. 0 when `target` holds the rebuilt database;
// otherwise a status, and `target` may hold anything (the caller removes it).
// `done`, when given, receives the plan.
cr_status_t PODBShadow::merge_shadows(const std::string& dir, const std::string& target, const std::string& type,
                                      RecoveryPlan* done) {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    ShadowVersionListPtr versions = get_db_versions_(type);
    const std::string real_db = dir + "/" + db_file_name(type);
    RepairingJudge judge(environment_of(context_));
    if (versions->empty()) {
        ErrorA(CR_STATUS_NOT_FOUND, "%s: Can't recover the database for %s, there're no backups.", "merge_shadows",
               real_db.c_str());
        if (done != nullptr) *done = plan_recovery(*versions, real_db, judge);
        return CR_STATUS_NOT_FOUND;
    }
    // The journal being read back must not be written to meanwhile.
    reset_db_active_journal_(type, boost::shared_ptr<JournalStream>());

    const RecoveryPlan plan = plan_recovery(*versions, real_db, judge);
    if (done != nullptr) *done = plan;
    if (!plan.possible()) {
        ErrorA(CR_STATUS_CORRUPT, "%s: Can't find appropriate shadow backup to recover %s", "merge_shadows",
               real_db.c_str());
        if (type == _podb_type_) {
            ErrorA(CR_STATUS_CORRUPT, "%s: %s is corrupt, can't manage to recover the PO database.", "merge_shadows",
                   real_db.c_str());
        }
        return CR_STATUS_CORRUPT;
    }
    return carry_out(plan, target);
}

cr_status_t PODBShadow::carry_out(const RecoveryPlan& plan, const std::string& target) {
    InfoA(CR_STATUS_OK, "%s: Using %s as the base dbfile, duplicate it to %s", "merge_shadows", plan.base_path.c_str(),
          target.c_str());
    uint32_t crc = 1;
    cr_status_t status = duplicate(plan.base_path, target, &crc);
    if (status != CR_STATUS_OK) return status;
    if (crc != plan.base_crc) {
        // The version changed between its check and the copy.
        ErrorA(CR_STATUS_CORRUPT, "Detected CRC mismatch for %s. Expected %u, actually %u", target.c_str(),
               plan.base_crc, crc);
        return CR_STATUS_CORRUPT;
    }

    sqlitedb::sqlite3_wrapper db(target);
    status = db.open_db();
    if (status != CR_STATUS_OK) {
        ErrorA(status, "%s: Can't open database %s", "merge_shadows", target.c_str());
        return status;
    }
    try {
        // Busy answers are retried 60 times, one second apart, by the wrapper.
        status = db.begin_transaction();
        if (status != CR_STATUS_OK) return status;

        status = apply_journal_files_(plan.journals, &db);
        InfoA(CR_STATUS_OK, "%s: The status value for apply_journals is %d", "merge_shadows",
              static_cast<int>(status));
        if (status != CR_STATUS_OK) {
            db.rollback_transaction();
            return status;
        }
        status = db.commit_transaction();
        if (status != CR_STATUS_OK) {
            ErrorA(status, "%s: Failed to commit database %s, rollback all operations now.", "merge_shadows",
                   target.c_str());
            db.rollback_transaction();
            return status;
        }
        status = po_cleanup(db);
        if (status != CR_STATUS_OK) return status;
    } catch (const sqlitedb::db_exception& e) {
        ErrorA(e.cr_status(), "%s: Catch sqlite database runtime exception [%d]: %s", "merge_shadows", e.errcode(),
               e.what());
        return e.cr_status();
    }
    status = db.close_db(kCloseRetries);
    return status;
}

// Forgets every version and deletes the shadow directory with all below it,
// retrying a failed deletion: 10 tries, 3 seconds apart. 0 or the status of
// the last failure.
cr_status_t PODBShadow::destroy() {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    const std::string* types[] = {&_podb_type_, &_uldb_type_, &_appdb_type_};
    for (const std::string* type : types) {
        TypeState& s = state_(*type);
        s.journal.reset();
        s.mark = JournalMark();
        reset_db_versions_(*type, nullptr);
    }
    if (wa_access(shadow_dir_, 0) != 0) return CR_STATUS_OK;

    for (int attempt = 1;; ++attempt) {
        if (wa_deletetree(shadow_dir_) == 0) break;
        int e = errno;
        cr_status_t status = _crMapError("destroy", __FILE__, __LINE__);
        if (attempt >= kDeleteTreeTries) {
            ErrorA(status, "Failed to delete tree %s (%s).", shadow_dir_.c_str(), strerror(e));
            return status;
        }
        WarningA(status, "Failed to delete tree %s (%s), will retry after a while.", shadow_dir_.c_str(),
                 strerror(e));
        environment_of(context_).sleep_seconds(kDeleteTreePauseSeconds);
    }
    // Make the removal durable in the parent directory.
    const size_t slash = shadow_dir_.rfind('/');
    if (slash != std::string::npos && slash > 0) wa_syncdir(shadow_dir_.substr(0, slash));
    return CR_STATUS_OK;
}
