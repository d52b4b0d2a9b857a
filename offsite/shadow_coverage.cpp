#include "offsite/shadow_coverage.h"

#include <stdlib.h>

#include <memory>

#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "catalog_shadow/DirectoryLock.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "offsite/shadow_inspect.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace kshadow {

namespace {

const char* const kFn = "compare_catalog_rows";

// A count the statement `sql` gives on `db`; false (logged) when it fails.
bool count_of(sqlitedb::connection& db, const std::string& name, const std::string& sql, uint64_t* n) {
    std::string value;
    if (db.read_value(sql.c_str(), &value) != CR_STATUS_OK) {
        const cr_status_t status = db.map(db.code());
        ErrorA(status, "%s: DB[%s] failed to run [%s] (%d, %s).", kFn, name.c_str(), sql.c_str(), db.code(),
               db.errmsg());
        return false;
    }
    *n = strtoull(value.c_str(), nullptr, 10);
    return true;
}

}  // namespace

cr_status_t compare_catalog_rows(const std::string& live, const std::string& rehearsed, Coverage* out) {
    *out = Coverage();
    sqlitedb::sqlite3_wrapper db(rehearsed);
    cr_status_t status = db.checkopen();
    std::string attach;
    if (status == CR_STATUS_OK && !sqlitedb::format_sql(attach, "ATTACH DATABASE %Q AS live;", live.c_str())) {
        status = CR_STATUS_NOMEM;
    }
    // The connection's own exec: a live file that is no database is a status here.
    if (status == CR_STATUS_OK && (status = db.db().exec(attach.c_str())) != CR_STATUS_OK) {
        ErrorA(status, "%s: cannot attach %s to %s (%s)", kFn, live.c_str(), rehearsed.c_str(),
               db.db().exec_message() != nullptr ? db.db().exec_message() : "");
    }
    // Rows are compared by their key, the file name: a catalog row is only
    // ever inserted or removed, never changed. A row of one name whose other
    // columns differ is damage, which the row checksums show.
    if (status == CR_STATUS_OK &&
        (!count_of(db.db(), live, "SELECT count(*) FROM live.catalog;", &out->live_rows) ||
         !count_of(db.db(), rehearsed, "SELECT count(*) FROM main.catalog;", &out->recovered_rows) ||
         !count_of(db.db(), live,
                   "SELECT count(*) FROM (SELECT name FROM live.catalog EXCEPT SELECT name FROM main.catalog);",
                   &out->lost_rows) ||
         !count_of(db.db(), rehearsed,
                   "SELECT count(*) FROM (SELECT name FROM main.catalog EXCEPT SELECT name FROM live.catalog);",
                   &out->returned_rows))) {
        status = CR_STATUS_IO;
    }
    db.close_db(3);
    if (status != CR_STATUS_OK) {
        *out = Coverage();
        out->reason = "the rows could not be compared (status " + std::to_string(status) + ")";
        return status;
    }
    out->known = true;
    return CR_STATUS_OK;
}

cr_status_t shadow_coverage(const Target& target, Coverage* out) {
    *out = Coverage();
    if (target.type != PODBShadow::_appdb_type_) {
        out->reason = "a " + target.type + " database holds no catalog rows";
        return CR_STATUS_FAILED;
    }
    CatalogDirectoryLock lock;
    std::unique_ptr<DirectoryLock::ScopedLock> guard;
    if (wa_isdir(target.dir)) {
        guard.reset(new DirectoryLock::ScopedLock(&lock, target.dir));
        if (guard->GetStatus() != CR_STATUS_OK) {
            out->reason = "directory lock not taken (status " + std::to_string(guard->GetStatus()) + ")";
            return guard->GetStatus();
        }
    }
    DatabaseReport report;
    report.target = target;
    inspect_database(Depth::status, &report);
    *out = report.recovery.coverage;
    if (out->known) return CR_STATUS_OK;
    if (report.live.denied || report.recovery.reason == kNotReadable) {
        out->reason = kNotReadable;
        return CR_STATUS_ACCESS_DENIED;
    }
    if (!report.live.exists) {
        out->reason = "live database missing";
    } else if (!report.recovery.possible) {
        out->reason = "recovery impossible: " + report.recovery.reason;
    }
    return out->reason.empty() ? CR_STATUS_IO : CR_STATUS_MISSING;
}

cr_status_t cover_live_database(CatalogShadowContext& context, const Target& target, Cover* cover) {
    *cover = Cover();
    CatalogDirectoryLock lock;
    DirectoryLock::ScopedLock guard(&lock, target.dir);
    if (guard.GetStatus() != CR_STATUS_OK) return guard.GetStatus();
    cr_status_t status = shadow_coverage(target, &cover->before);
    if (status != CR_STATUS_OK) return status;
    if (cover->before.lost_rows == 0 && cover->before.returned_rows == 0) {
        cover->after = cover->before;
        return CR_STATUS_OK;
    }
    InfoA(CR_STATUS_OK, "%s: recovery of %s would lose %llu rows and bring back %llu; taking a version of it now",
          "cover_live_database", target.db_path.c_str(), static_cast<unsigned long long>(cover->before.lost_rows),
          static_cast<unsigned long long>(cover->before.returned_rows));
    status = context.backup(target.dir, target.type);
    if (status != CR_STATUS_OK) return status;
    DatabaseReport after;
    after.target = target;
    inspect_database(Depth::status, &after);
    cover->after = after.recovery.coverage;
    cover->version = after.versions.empty() ? 0 : after.versions.front().number;
    if (cover->after.known && cover->after.lost_rows == 0 && cover->after.returned_rows == 0) return CR_STATUS_OK;
    ErrorA(CR_STATUS_CORRUPT, "%s: the shadow of %s does not cover it after a new version", "cover_live_database",
           target.db_path.c_str());
    return CR_STATUS_CORRUPT;
}

}  // namespace kshadow
