// catalog_application_base: where and when an application database is created,
// and opening one directly or through the cache. The database work itself is
// the catalog store's.
#include "appdb/catalog_application_base.h"

#include <errno.h>
#include <string.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "dct/fs.h"
#include "dct/log.h"

namespace appdb {

namespace {

// Whether the file `value`'s store has open is no longer the one `leaf` names
// in its directory (another process replaced or removed it). `dir_fd` is the
// directory's descriptor held by this thread's lock, or -1. With it and a
// known identity the check is one fstatat in the directory; otherwise the
// store asks by the whole path, and a store found in place has its identity
// recorded (looked up before the store's check, so that it is the identity of
// the file the store has open).
bool store_has_moved(appdb_value& value, int dir_fd, const std::string& leaf) {
    struct stat st;
    if (dir_fd >= 0 && value.identity_known) {
        if (fstatat(dir_fd, leaf.c_str(), &st, 0) != 0) return true;
        return st.st_dev != value.file_dev || st.st_ino != value.file_ino;
    }
    const bool listed = dir_fd >= 0 && fstatat(dir_fd, leaf.c_str(), &st, 0) == 0;
    if (value.store->has_moved()) return true;
    if (listed) {
        value.identity_known = true;
        value.file_dev = st.st_dev;
        value.file_ino = st.st_ino;
    }
    return false;
}

}  // namespace

cr_status_t catalog_application_base::create_db(const std::string& client,
                                                const std::string& policy) {
    const std::string dir = to_db_full_path(client, policy);
    const std::string name = to_db_full_name(client, policy);
    if (wa_access(dir, 0) != 0) {
        if (CreateTreeA(dir, dct::private_dir_mode) != 0) {
            ErrorA(CR_STATUS_FAILED, "%s: can't create folder: %s", "create_db", dir.c_str());
            return CR_STATUS_FAILED;
        }
        // The directory was locked through an ancestor while it was missing;
        // now it is locked itself. Whoever got in first made the database.
        const cr_status_t locked = CatalogDirectoryLock::LockCreated(dir);
        if (locked != CR_STATUS_OK) return locked;
        if (wa_access(name, 0) == 0) return CR_STATUS_OK;
    }
    const cr_status_t status = catalog_store::create(name);
    // SQLite makes the file 0644 less the umask, and its journals take the
    // file's mode: the catalog is as private as its directory.
    if (status == CR_STATUS_OK && wa_restrict_mode(name) != 0) {
        int e = errno;
        WarningA(_crMapError("create_db", __FILE__, __LINE__), "%s: could not restrict the mode of %s (%s)",
                 "create_db", name.c_str(), strerror(e));
    }
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
        std::unique_ptr<catalog_store> store;
        cr_status_t status = open_db(item.client, item.policy, &store);
        if (status == CR_STATUS_OK) status = store->complete_tableless(created);
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
                                              std::unique_ptr<catalog_store>* store) {
    const cr_status_t status = catalog_store::open(to_db_full_name(client, policy), store);
    if (status == CR_STATUS_OK && busy_timeout_ms_) (*store)->db().set_busy_timeout_ms(*busy_timeout_ms_);
    return status;
}

cr_status_t catalog_application_base::open_db_with_cached(const std::string& client,
                                                          const std::string& policy,
                                                          appdb_value** value) {
    const std::string key = to_db_full_path(client, policy);
    // The changes of a group share the store the group borrowed.
    *value = group_store_(key);
    if (*value != nullptr) return CR_STATUS_OK;
    if (cache) {
        *value = cache->get_db(key);
        if (*value != nullptr &&
            !store_has_moved(**value, CatalogDirectoryLock::held_descriptor(key), db_name))
            return CR_STATUS_OK;
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
    std::unique_ptr<catalog_store> store;
    const cr_status_t status = open_db(client, policy, &store);
    if (status != CR_STATUS_OK) {
        ErrorA(status, "%s: failed to open db path %s", "open_db_with_cached", key.c_str());
        return status;
    }
    // The cache closes the store itself when it refuses it.
    if (cache) *value = cache->create_db(key, std::move(store));
    if (*value == nullptr) {
        ErrorA(CR_STATUS_FAILED, "%s: failed to create_db to cache for %s", "open_db_with_cached",
               key.c_str());
        return CR_STATUS_FAILED;
    }
    return CR_STATUS_OK;
}

}  // namespace appdb
