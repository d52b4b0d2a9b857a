// The catalog application: the service that names, opens, queries and changes
// the catalog databases of one data store under the access rule.
//
// A service gets one from catalog_application_factory::create_catalog and
// owns it:
//
//   std::unique_ptr<appdb::catalog_application> catalog(
//       appdb::catalog_application_factory::create_catalog(
//           dsid, "/srv/pool/db/databases", appdb::APP_D_CATALOG, nullptr, 5));
//   cr_status_t st = catalog->update_catalog(user, appdb::APP_ROLE_APP, item.to_string());
//
// Each client and policy of the data store has its own SQLite database,
// database_root/application/DSID/CLIENT/POLICY/app.db, created by the first
// update_catalog that needs it. Within one database a file name is unique: it
// is the row's key (the column "name"), so a second item with the same file
// name is refused (4).
#ifndef APPDB_CATALOG_APPLICATION_H_
#define APPDB_CATALOG_APPLICATION_H_

#include <string>
#include <vector>

#include "appdb/app_catalog_item.h"
#include "appdb/app_query.h"
#include "appdb/catalog_item_sink.h"
#include "dct/status.h"

class CatalogShadowContext;

namespace dct {
struct environment;
}

namespace appdb {

// File name of every application database.
extern const char* const app_db_filename;  // "app.db"

// The public interface of the catalog of one data store. `user` is the
// caller's user name (null reads as ""), `role` its role (1 administrator,
// 4 application user). Every operation returns 0 or the status of its failure,
// which it has logged; none throws.
//
// Statuses common to the operations that reach a database: 4 for a text or
// query that does not parse, or whose client or policy is no plain directory
// name (check_db_names); 11 when the database stayed busy through the
// retries (a 10-second busy timeout per statement, 60 tries one second apart)
// or its directory lock was not had within 60 seconds (nothing was done; try
// again); 21 when the database cannot be opened
// or read; 22 out of memory; 67 for a corrupt database or a row whose checksum
// does not match; 106 when the access rule refuses the caller.
//
// Threads and processes: one object may be shared by several threads, and
// operations on different databases run in parallel. Every operation holds the
// directory lock of its database (CatalogDirectoryLock) from its first read to
// its last write, journal and checksum file included; operations on one
// database, from any thread, object or process, wait for each other there
// (up to 60 seconds, then 11). The lock is taken before the database's
// connection is borrowed from the cache. A call may block for as long as
// another process holds the database. Changes (update, delete, expire) that
// threads of one object make to one database at the same moment are
// committed together, under one hold of the lock: one transaction, one
// journal append and sync; each call still returns its own status, once its
// change is durable (dct::environment::commit_group_changes).
//
// Items and result vectors are the caller's; the object keeps no reference to
// them after the call.
class catalog_application {
public:
    // Directory below the database root that holds the application databases.
    static const std::string catalog_root_name_;  // "application"

    virtual ~catalog_application();

    // Adds the record given in its line form (app_catalog_item::to_string),
    // creating the database of its client and policy when missing. The
    // access rule grants every caller the insert; a text that does not hold
    // all 28 fields, or whose stored text holds a NUL byte
    // (unstorable_text_field), gives 4 and creates nothing. The shadow kind never
    // recreates empty a missing database that has a shadow copy: it recovers
    // it. A file name that the catalog holds already is refused with 4 (the
    // name is the row's key; SQLite reports the clash, which is logged). On 0
    // the row is committed.
    virtual cr_status_t update_catalog(const char* user, unsigned int role,
                                       const std::string& item_text) = 0;
    // Runs `query` (app_query grammar) and returns the records the user may
    // read in the list form: the number of records in decimal, "|", then each
    // record's line form (app_catalog_item::to_string, 28 fields each ended by
    // "|") back to back, as in "2|<28 fields>|<28 fields>|"; "" when none is
    // left. Read it back with appdb::from_string one record at a time after
    // the count. `result` is left alone on failure.
    virtual cr_status_t find_catalog(const char* user, unsigned int role, const std::string& query,
                                     std::string& result) = 0;
    // The same, returning the records. Records the user
    // may not read are dropped without error; a database that does not exist
    // yet gives no records and 0, one that this process may not read 106. On
    // failure `result` holds nothing useful.
    virtual cr_status_t find_catalog(const char* user, unsigned int role, const std::string& query,
                                     std::vector<app_catalog_item>& result) = 0;
    // The same, handing each readable record to `sink` as it is read: nothing
    // is held, so a catalog of any size is read in the memory of one record.
    // Same statuses and log records as the vector form. When the result is
    // not 0, what the sink took is void (a row with a bad checksum gives 67
    // after the rows before it were taken).
    virtual cr_status_t find_catalog(const char* user, unsigned int role, const std::string& query,
                                     catalog_item_sink& sink) = 0;
    // Removes every record of the backup of a header image (one whose name
    // has "_HDR" at or after its last "_C"; the backup id is the part before
    // that "_C"). Any other image, or a backup without records, is a success
    // that removes nothing; so is a lookup of the backup that fails. The
    // access rule is checked on every record of the backup inside the
    // removal's transaction: only the caller's records go (a warning counts
    // those that stay), and 106 when none of them is the caller's.
    // `lock` says whether to take the directory lock of the database; pass
    // true unless the caller holds it.
    virtual cr_status_t expire_catalog(const char* user, unsigned int role,
                                       const std::string& client, const std::string& policy,
                                       const std::string& image_name, bool lock) = 0;
    // Removes the record named by a "name|" query (to_query_by_file_name);
    // the name is compared literally ("Z*" names the record "Z*"). The access
    // rule is checked on that record inside the removal's transaction.
    // 4 for a text that does not parse or a query of another kind, 72 when no
    // record has that name, 106 when the access rule refuses the caller.
    virtual cr_status_t del_catalog(const char* user, unsigned int role,
                                    const std::string& query) = 0;
    // Closes the cached connection of the database directory `path`
    // (database_root/application/DSID/CLIENT/POLICY, no file name), so that
    // the file may be moved or removed. A connection lent to a running
    // operation is left open. 4 when `path` has no client and policy
    // components. `n` is not used; `lock` as for expire_catalog.
    virtual cr_status_t close_db(const std::string& path, unsigned int n, bool lock) = 0;
    // The first record of the backup an image belongs to (backup id: the
    // image name before its last "_C"); 72 when none, 4 for an image name
    // without "_C" that is no event name either. More than one record is
    // logged as an error and still gives the first. The access rule is not
    // applied. `lock` as for expire_catalog.
    virtual cr_status_t find_by_image_name(const std::string& client, const std::string& policy,
                                           const std::string& image_name,
                                           app_catalog_item& result, bool lock) = 0;
    // The first record of a file name; 72 when none. More than one is logged
    // as an error and still gives the first. The access rule is not applied.
    // `lock` as for expire_catalog.
    virtual cr_status_t find_by_file_name(const std::string& client, const std::string& policy,
                                          const std::string& file_name, app_catalog_item& result,
                                          bool lock) = 0;
};

// Kinds of catalog application the factory builds, and the durability each
// gives a change that returned 0:
//   APP_D_CATALOG         the change is committed by SQLite (its own rollback
//                         journal); a database found corrupt is reported (67)
//                         and stays so.
//   APP_D_CATALOG_SHADOW  in addition the change is in the database's shadow
//                         journal, fsynced, before the call returns (or, when
//                         the journal could not take it, in a new shadow copy
//                         taken at once; when that fails too the call returns
//                         the failure although the change is made); a corrupt
//                         or missing database is rebuilt from its newest good
//                         shadow copy plus the journals, and the operation is
//                         tried once more (catalog_application_shadow.h).
enum application_d_t {
    APP_D_CATALOG = 1,         // catalog_application_impl
    APP_D_CATALOG_SHADOW = 2,  // catalog_application_impl_shadow
};

class catalog_application_factory {
public:
    // A new catalog application of `type` for data store `dsid`, owned by the
    // caller, with a cache of `cache_size` connections (at least 2) and its own
    // CatalogDirectoryLock; `shadow_ctx` (not owned) serves the shadow kind
    // only. Null, logged, for an unknown type or when allocation fails.
    //
    // `database_root` is the directory that holds "application" (the pool's
    // database root followed by "/databases"). Nothing is opened or created
    // here. A shadow context, when given, must have run init() and must
    // outlive the application; a null one leaves the shadow kind without
    // backups, journals or recovery. Destroying the application closes every
    // connection its cache holds.
    //
    // The shadow kind keeps an environment (dct/environment.h): in the first
    // form the shadow context's (the process-wide defaults without a
    // context), in the second a copy of `env`, which a service gives both the
    // context and the factory. The plain kind runs on the process-wide
    // defaults either way: its connections, busy retries and cache clock do
    // not take an environment yet.
    static catalog_application* create_catalog(unsigned int dsid, const std::string& database_root,
                                               application_d_t type,
                                               CatalogShadowContext* shadow_ctx,
                                               unsigned int cache_size);
    static catalog_application* create_catalog(unsigned int dsid, const std::string& database_root,
                                               application_d_t type,
                                               CatalogShadowContext* shadow_ctx,
                                               unsigned int cache_size,
                                               const dct::environment& env);
};

}  // namespace appdb

#endif  // APPDB_CATALOG_APPLICATION_H_
