// catalog_application_base: creating an application database with its schema,
// deciding when to create one, and opening one directly or through the cache.
#include "appdb/catalog_application_base.h"

#include <sys/stat.h>

#include "appdb/catalog_table.h"
#include "dct/fs.h"
#include "dct/log.h"

namespace appdb {

namespace {

// Runs one schema statement; logs (for `fn`) and returns the mapped status
// of a failure.
cr_status_t exec_schema_statement(const char* fn, sqlite3* db, const std::string& name,
                                  const char* sql) {
    char* message = nullptr;
    const int rc = sqlite3_exec(db, sql, nullptr, nullptr, &message);
    if (rc == SQLITE_OK) return CR_STATUS_OK;
    const cr_status_t status = catalog_application_base::dberr_to_crstatus(rc);
    ErrorA(status, "%s: %s: failed to execute \"%s\", (%d, %s)", fn, name.c_str(), sql, rc,
           message != nullptr ? message : sqlite3_errstr(rc));
    sqlite3_free(message);
    return status;
}

// The `catalog` table and its index.
cr_status_t create_schema(const char* fn, sqlite3* db, const std::string& name) {
    cr_status_t status = exec_schema_statement(fn, db, name, catalog_create_table_sql);
    if (status == CR_STATUS_OK) status = exec_schema_statement(fn, db, name, catalog_create_index_sql);
    return status;
}

// Whether the file `db` has open is no longer the one its name leads to.
bool file_has_moved(sqlite3* db) {
    int moved = 0;
    if (sqlite3_file_control(db, "main", SQLITE_FCNTL_HAS_MOVED, &moved) != SQLITE_OK) return false;
    return moved != 0;
}

}  // namespace

// Whether the open database holds no schema object at all. Anything that
// cannot be read (not a database, busy, damaged) counts as not empty: it is
// left for the operation to meet and report.
bool catalog_holds_no_table(sqlite3* db) {
    sqlite3_stmt* stmt = nullptr;
    bool empty = false;
    if (sqlite3_prepare_v2(db, "SELECT count(*) FROM sqlite_master", -1, &stmt, nullptr) ==
            SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW) {
        empty = sqlite3_column_int64(stmt, 0) == 0;
    }
    sqlite3_finalize(stmt);
    return empty;
}

// A file that holds no table at all is what a creation that failed half-way
// leaves behind (the file made, the table not): it holds no rows, so it is
// completed with the schema, inside one immediate transaction so that two
// openers cannot both create the table. A file holding anything else is
// left alone. `completed` tells whether the schema was added here.
cr_status_t complete_tableless_catalog(sqlite3* db, const std::string& name, bool& completed) {
    const char* const fn = "complete_db";
    completed = false;
    if (!catalog_holds_no_table(db)) return CR_STATUS_OK;
    cr_status_t status = exec_schema_statement(fn, db, name, "BEGIN IMMEDIATE TRANSACTION;");
    if (status != CR_STATUS_OK) return status;
    if (catalog_holds_no_table(db)) {
        InfoA(CR_STATUS_OK, "%s: app db %s holds no table, creating its catalog table", fn,
              name.c_str());
        status = create_schema(fn, db, name);
        completed = status == CR_STATUS_OK;
    }
    if (status == CR_STATUS_OK) {
        status = exec_schema_statement(fn, db, name, "COMMIT TRANSACTION;");
        if (status != CR_STATUS_OK) completed = false;
    }
    if (status != CR_STATUS_OK) sqlite3_exec(db, "ROLLBACK TRANSACTION;", nullptr, nullptr, nullptr);
    return status;
}


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
    const cr_status_t status = create_schema("create_db", db, name);
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
        // An empty file is what a creation that failed half-way leaves (the
        // file is made at the open, its first page written only with the
        // table): it is completed now and counts as created, so that the
        // shadow kind takes its first copy of it as of a new database. Only
        // the size is looked at here, so a sound database costs no open.
        struct stat st;
        if (wa_stat(name, &st) != 0 || st.st_size != 0) return CR_STATUS_OK;
        sqlite3* db = nullptr;
        cr_status_t status = open_db(item.client, item.policy, &db);
        if (status == CR_STATUS_OK) status = complete_tableless_catalog(db, name, created);
        sqlite3_close(db);
        return status;
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
