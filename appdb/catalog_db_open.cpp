// catalog_application_base: creating an application database with its schema,
// deciding when to create one, and opening one directly or through the cache.
#include "appdb/catalog_application.h"

#include "appdb/catalog_table.h"
#include "dct/fs.h"
#include "dct/log.h"

namespace appdb {

namespace {

// Runs one schema statement of create_db; logs and returns the mapped status
// of a failure.
cr_status_t exec_schema_statement(sqlite3* db, const std::string& name, const char* sql) {
    char* message = nullptr;
    const int rc = sqlite3_exec(db, sql, nullptr, nullptr, &message);
    if (rc == SQLITE_OK) return CR_STATUS_OK;
    const cr_status_t status = catalog_application_base::dberr_to_crstatus(rc);
    ErrorA(status, "%s: %s: failed to execute \"%s\", (%d, %s)", "create_db", name.c_str(), sql, rc,
           message != nullptr ? message : sqlite3_errstr(rc));
    sqlite3_free(message);
    return status;
}

// Whether the file `db` has open is no longer the one its name leads to.
bool file_has_moved(sqlite3* db) {
    int moved = 0;
    if (sqlite3_file_control(db, "main", SQLITE_FCNTL_HAS_MOVED, &moved) != SQLITE_OK) return false;
    return moved != 0;
}

}  // namespace

cr_status_t catalog_application_base::create_db(const std::string& client,
                                                const std::string& policy) {
    const std::string dir = to_db_full_path(client, policy);
    const std::string name = to_db_full_name(client, policy);
    if (wa_access(dir, 0) != 0) {
        if (CreateTreeA(dir, 0750) != 0) {
            ErrorA(CR_STATUS_FAILED, "%s: can't create folder: %s", "create_db", dir.c_str());
            return CR_STATUS_FAILED;
        }
        // The directory was locked through an ancestor while it was missing;
        // now it is locked itself. Whoever got in first made the database.
        const cr_status_t locked = CatalogDirectoryLock::LockCreated(dir);
        if (locked != CR_STATUS_OK) return locked;
        if (wa_access(name, 0) == 0) return CR_STATUS_OK;
    }
    sqlite3* db = nullptr;
    const int rc =
        sqlite3_open_v2(name.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    if (rc != SQLITE_OK) {
        const cr_status_t status = dberr_to_crstatus(rc);
        ErrorA(status, "%s: could not open db %s, (%d, %s)", "create_db", name.c_str(), rc,
               sqlite3_errstr(rc));
        // SQLite hands out a handle even when the open fails; it holds no
        // file, only memory, so it is released here.
        sqlite3_close(db);
        return status;
    }
    sqlite3_busy_timeout(db, busy_timeout_ms());
    // A file left behind by a failed statement stays as it is: it is neither
    // deleted nor repaired here.
    cr_status_t status = exec_schema_statement(db, name, catalog_create_table_sql);
    if (status == CR_STATUS_OK) status = exec_schema_statement(db, name, catalog_create_index_sql);
    sqlite3_close(db);
    return status;
}

cr_status_t catalog_application_base::need_create_db(const app_catalog_item& item, bool& created) {
    created = false;
    const std::string name = to_db_full_name(item.client, item.policy);
    // A database with a shadow copy is never recreated empty: if it is
    // missing, recovery brings it back with its rows.
    if (shadow_copy_exist(item.client, item.policy)) return CR_STATUS_OK;
    InfoA(CR_STATUS_OK, "%s: app db %s shadow doesn't exist", "need_create_db", name.c_str());
    if (db_existed(item.client, item.policy)) {
        WarningA(CR_STATUS_OK, "%s: app db %s no shadow but db exist", "need_create_db",
                 name.c_str());
        return CR_STATUS_OK;
    }
    InfoA(CR_STATUS_OK, "%s: app db %s doesn't exist, going to create it", "need_create_db",
          name.c_str());
    const cr_status_t status = create_db(item.client, item.policy);
    if (status != CR_STATUS_OK) {
        ErrorA(status, "%s: failed to create db file %d", "need_create_db", static_cast<int>(status));
        return status;
    }
    created = true;
    return CR_STATUS_OK;
}

cr_status_t catalog_application_base::open_db(const std::string& client, const std::string& policy,
                                              sqlite3** db) {
    const std::string name = to_db_full_name(client, policy);
    // Read-write without create: a missing database is an error here, never
    // an empty new file.
    int rc = sqlite3_open_v2(name.c_str(), db, SQLITE_OPEN_READWRITE, nullptr);
    if (rc != SQLITE_OK) {
        sqlite3_close(*db);  // memory only; see create_db
        *db = nullptr;
        const cr_status_t status = dberr_to_crstatus(rc);
        ErrorA(status, "%s: could not open db %s,(%d, %s)", "open_db", name.c_str(), rc,
               sqlite3_errstr(rc));
        return status;
    }
    sqlite3_busy_timeout(*db, busy_timeout_ms());
    rc = sqlite3_extended_result_codes(*db, 1);
    if (rc != SQLITE_OK) {
        // Plain result codes still map to the same statuses; go on.
        ErrorA(dberr_to_crstatus(rc), "%s: Failed to set extended result code for (%d, %s)",
               "open_db", rc, name.c_str());
    }
    return CR_STATUS_OK;
}

cr_status_t catalog_application_base::open_db_with_cached(const std::string& client,
                                                          const std::string& policy,
                                                          appdb_value** value) {
    const std::string key = to_db_full_path(client, policy);
    *value = nullptr;
    if (cache) {
        *value = cache->get_db(key);
        if (*value != nullptr && !file_has_moved((*value)->db)) return CR_STATUS_OK;
        if (*value != nullptr) {
            // Another process replaced the file (a recovery renames a rebuilt
            // one over it) or removed it: nothing may be written to a file that
            // has lost its name. The path is opened afresh below.
            InfoA(CR_STATUS_OK, "%s: app db %s was replaced, reopen it", "open_db_with_cached",
                  key.c_str());
            cache->discard_db(key, *value);
            *value = nullptr;
        }
    }
    InfoA(CR_STATUS_OK, "%s: found no cache for %s", "open_db_with_cached", key.c_str());
    sqlite3* db = nullptr;
    const cr_status_t status = open_db(client, policy, &db);
    if (status != CR_STATUS_OK) {
        ErrorA(status, "%s: failed to open db path %s", "open_db_with_cached", key.c_str());
        return status;
    }
    // The cache closes the connection itself when it refuses it.
    if (cache) {
        *value = cache->create_db(key, db);
    } else {
        sqlite3_close(db);
    }
    if (*value == nullptr) {
        ErrorA(CR_STATUS_FAILED, "%s: failed to create_db to cache for %s", "open_db_with_cached",
               key.c_str());
        return CR_STATUS_FAILED;
    }
    return CR_STATUS_OK;
}

}  // namespace appdb
