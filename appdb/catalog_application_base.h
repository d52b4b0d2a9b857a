// What the two catalog kinds share (catalog_application_base): naming,
// creation and opening through the cache, the row operations with their busy
// retries, the flows of the public operations and the access rule. Private to
// the library; services use catalog_application.h.
#ifndef APPDB_CATALOG_APPLICATION_BASE_H_
#define APPDB_CATALOG_APPLICATION_BASE_H_

#include <stdint.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "appdb/app_catalog_item.h"
#include "appdb/app_query.h"
#include "appdb/appdb_cache.h"
#include "appdb/authentication_application.h"
#include "appdb/catalog_application.h"
#include "appdb/catalog_filter.h"
#include "appdb/catalog_guards.h"
#include "appdb/catalog_item_sink.h"
#include "appdb/catalog_store.h"
#include "appdb/commit_queue.h"
#include "catalog_shadow/DirectoryLock.h"
#include "dct/environment.h"
#include "dct/status.h"

namespace appdb {

// What the two implementations share: where the databases of a client and
// policy lie, how they are created and opened (through the cache of open
// stores), the row operations on the `catalog` table with their busy
// retries, and the access rule. The database work itself is the catalog
// store's (catalog_store.h); nothing here names a SQLite type.
//
// Databases live at app_root/CLIENT/POLICY/app.db with
// app_root = database_root/application/DSID. The cache is keyed by the
// database directory (to_db_full_path).
class catalog_application_base : public catalog_application {
public:
    catalog_application_base(unsigned int dsid, const std::string& database_root,
                             unsigned int cache_size);
    ~catalog_application_base() override;
    catalog_application_base(const catalog_application_base&) = delete;
    catalog_application_base& operator=(const catalog_application_base&) = delete;

    // Whether a shadow copy of the database of client and policy exists. The
    // base has none: false.
    virtual bool shadow_copy_exist(const std::string& client, const std::string& policy);

    // The item checksum stored in (and verified against) the row's crc
    // column: catalog_row_crc (catalog_fields.h).
    static uint32_t crc_value(const app_catalog_item& item);

    // The list form: the item count in decimal, "|", then each item's line
    // form back to back ("0|" for no items).
    static std::string to_string(const std::vector<app_catalog_item>& items);

    // Parses `query` into `q` and chooses its SELECT statement into `sql`.
    // Returns 0, or 4 (logged) when the query does not parse or has no
    // statement.
    static cr_status_t parse_query(const std::string& query, app_query& q, std::string& sql);

    // SQLite result code -> status: catalog_store::map_status.
    static cr_status_t dberr_to_crstatus(int rc);

    // The busy timeout of every connection this layer opens:
    // catalog_store::set_busy_timeout_ms.
    static void set_busy_timeout_ms(int ms);
    static int busy_timeout_ms();

    // ---- naming ----

    // app_root/CLIENT/POLICY: the database directory, also the cache key.
    std::string to_db_full_path(const std::string& client, const std::string& policy) const;
    // to_db_full_path/app.db
    std::string to_db_full_name(const std::string& client, const std::string& policy) const;
    // The primary-key form of a name: the name itself.
    std::string to_primary_name(const std::string& name);
    // Whether the database file of client and policy exists.
    bool db_existed(const std::string& client, const std::string& policy) const;
    // Whether this process may read the database of client and policy: 106
    // (logged once, "%s: app db %s is not readable (permission denied)" with
    // `function`) when the file or a directory on its way refuses this
    // process, 0 otherwise (missing included). A database that is there but
    // may not be read is neither missing nor damaged: nothing is created,
    // recovered or reported empty in its place.
    cr_status_t check_db_readable(const char* function, const std::string& client,
                                  const std::string& policy) const;
    // Client and policy name directory levels below app_root, so each must
    // be one plain directory name: not empty, not "." or "..", without "/"
    // or a NUL byte. Returns 0, or 4 after logging one error for `function`.
    // Every operation that builds a database path checks its names first.
    static cr_status_t check_db_names(const char* function, const std::string& client,
                                      const std::string& policy);

    // ---- creation and opening ----

    // Creates the directory (dct::private_dir_mode) when missing and a new database with
    // the `catalog` table and its backupid index. Returns 0, 4 when the
    // directory cannot be made, or the mapped SQLite status; a file left by a
    // failed table or index creation stays on disk.
    cr_status_t create_db(const std::string& client, const std::string& policy);
    // Creates the database of the item's client and policy unless it exists
    // or has a shadow copy (a database with a shadow is left to recovery,
    // never recreated empty). An existing empty file without a shadow (a
    // creation that failed half-way) gets its schema now.
    // `created` tells whether a file was made or completed.
    cr_status_t need_create_db(const app_catalog_item& item, bool& created);
    // Opens the existing database of client and policy (catalog_store::open:
    // read-write, never created). On failure *store is empty and the mapped
    // status (21 for a missing file) is returned.
    cr_status_t open_db(const std::string& client, const std::string& policy,
                        std::unique_ptr<catalog_store>* store);
    // The busy timeout of the connections open_db makes: a service's
    // environment (dct::environment::busy_timeout_ms) or, unset, the process
    // default (set_busy_timeout_ms). Set before the object is shared.
    void use_busy_timeout_ms(std::optional<int> ms) { busy_timeout_ms_ = ms; }
    std::optional<int> connection_busy_timeout_ms() const { return busy_timeout_ms_; }
    // The environment the object serves with (a copy of `env`): its busy
    // timeout (use_busy_timeout_ms), the cache's clock, and the thread's
    // environment during every public operation (clock, sleep, fault seam,
    // log sink). The default environment until given; set before the object
    // is shared.
    void use_environment(const dct::environment& env);
    const dct::environment& service_environment() const { return service_env_; }
    // Borrows the store of client and policy from the cache, opening and
    // registering it when the cache has none or its file was replaced. The
    // caller gives it back with the cache's return_db (Auto_Return_DB).
    // Returns 0, the open's status, or 4 when the cache refuses the store (it
    // is in use elsewhere).
    cr_status_t open_db_with_cached(const std::string& client, const std::string& policy,
                                    appdb_value** value);

    // ---- group commit (catalog_group_commit.cpp) ----

    // The bounds of the groups of changes this object commits together
    // (commit_queue.h); unset members keep the defaults. Set before the
    // object is shared. A bound of 1 change commits every change alone.
    void use_commit_bounds(std::optional<unsigned> changes, std::optional<size_t> bytes);
    const commit_bounds& group_bounds() const { return commits_->bounds(); }
    // What the groups of this object have been so far.
    commit_statistics group_statistics() const { return commits_->statistics(); }
    // Changes in line for the database directory `path`, the one being
    // committed included.
    size_t waiting_changes(const std::string& path) const { return commits_->waiting(path); }

    // ---- access rule and names ----

    // The process's access rule; a logged denial adds
    // "%s: auth failed owner %s user %s".
    cr_status_t authenticate(const std::string& user, unsigned int role,
                             const app_catalog_item* item, auth_application_ac access, bool log);
    // Backup id of a backup-object name: the part before the last "_C", or for
    // an "EVENT_" name the client followed by its "_"-delimited time part.
    bool from_po_name_to_bid(const std::string& client, const std::string& policy,
                             const std::string& po_name, std::string& backup_id);
    // Whether `image_name` is a header image ("_HDR" at or after its last
    // "_C"); if so its backup id is the part before that "_C".
    bool is_HDR_image(const std::string& image_name, std::string& backup_id) const;

    // ---- rows of the `catalog` table ----
    //
    // try_do_db_* make one attempt on a store borrowed from the cache;
    // do_db_* repeat it while the database is busy (status 11), through
    // sqlitedb::retry_while_busy. The literal SQL of a change is handed back
    // in `sql` (for the shadow journal) once binding succeeded.

    cr_status_t try_do_db_insert(const app_catalog_item& item, std::string& sql);
    cr_status_t do_db_insert(const app_catalog_item& item, std::string& sql);

    // Runs the SELECT `sql` chosen for `query` (parse_query; when empty it is
    // taken from query.query_sql), verifying each row's checksum: a mismatch
    // fails the whole query with 67. A database that is missing (and has no
    // shadow) yields no rows and 0. Each row is handed to `sink` as it is
    // read. One attempt (try_do_db_query) never restarts the sink; the
    // retrying form restarts it before every attempt. The vector forms
    // append to `items` (try_do_db_query) or empty it before every attempt.
    // A status the sink returns ends the query as it is: it is not retried,
    // even when it reads as busy, and `*stopped_by_sink` (when given) tells
    // the caller so, that it does not take it for the database's own.
    cr_status_t try_do_db_query(const app_query& query, catalog_item_sink& sink,
                                const std::string& sql);
    cr_status_t do_db_query(const app_query& query, catalog_item_sink& sink,
                            const std::string& sql, bool* stopped_by_sink = nullptr);
    cr_status_t try_do_db_query(const app_query& query, std::vector<app_catalog_item>& items,
                                const std::string& sql);
    cr_status_t do_db_query(const app_query& query, std::vector<app_catalog_item>& items,
                            const std::string& sql);

    // A filter's statement (catalog_filter.h) on the database of client and
    // policy, as try_do_db_query / do_db_query run a query's: same missing
    // database rule, checksum check, busy retries and log records.
    cr_status_t try_do_db_filter(const std::string& client, const std::string& policy,
                                 const catalog_filter_statement& statement,
                                 catalog_item_sink& sink);
    cr_status_t do_db_filter(const std::string& client, const std::string& policy,
                             const catalog_filter_statement& statement, catalog_item_sink& sink);

    // A missing database is reported as the open failure. With a `check`,
    // only the rows the caller may remove go (see removal_check), a missing
    // database without a shadow copy matches nothing, and `sql` is left empty
    // when nothing was removed.
    cr_status_t try_do_db_delete_by_file_name(const std::string& client, const std::string& policy,
                                              const std::string& file_name, std::string& sql,
                                              removal_check* check = nullptr);
    cr_status_t do_db_delete_by_file_name(const std::string& client, const std::string& policy,
                                          const std::string& file_name, std::string& sql,
                                          removal_check* check = nullptr);
    // A database that is missing and has no shadow copy has nothing to delete:
    // success, nothing opened. `check` as for the delete by file name.
    cr_status_t try_do_db_delete_by_backup_id(const std::string& client,
                                              const std::string& policy,
                                              const std::string& backup_id, std::string& sql,
                                              removal_check* check = nullptr);
    cr_status_t do_db_delete_by_backup_id(const std::string& client, const std::string& policy,
                                          const std::string& backup_id, std::string& sql,
                                          removal_check* check = nullptr);

    // Runs a single-value statement on the cached (idle) connection of client
    // and policy; true at the first value equal to `expect`. Every value read
    // is appended to *result when given. False when the cache holds no idle
    // connection for it (nothing is opened here).
    bool run_pragma(const std::string& client, const std::string& policy, const std::string& sql,
                    const std::string& expect, std::string* result);
    // "PRAGMA integrity_check;" gives "ok".
    bool db_intergartion_check(const std::string& client, const std::string& policy);

    // ---- shared steps of the operations ----

    // Closes the cached connection of the database directory `path` (its
    // last two components are client and policy). `n` is not used.
    cr_status_t do_db_close(const std::string& path, unsigned int n);
    // Deletes every record of the backup of a header image (with a `check`,
    // those the caller may remove); other images are left alone (success).
    cr_status_t expire_catalog_by_image_name(const std::string& client, const std::string& policy,
                                             const std::string& image_name, std::string& sql,
                                             removal_check* check = nullptr);

    unsigned int dsid;
    std::string app_root;  // database_root/application/DSID, no trailing "/"
    std::string db_name;   // "app.db"
    std::unique_ptr<appdb_cache> cache;  // null when it could not be allocated
    std::string db_type;   // "appdb": the kind name known to the shadow subsystem
    std::string database_root;

protected:
    // ---- the operations, written once for both kinds ----
    //
    // Each flow below is the whole of one public operation: parsing, access
    // rule, directory lock (`dir_lock`, the calling kind's) and logging. The
    // database call itself is the kind's step (the *_step hooks), so that the
    // shadow kind adds its recovery and journal there and nowhere else. The
    // flows reach find_catalog, find_by_image_name and find_by_file_name
    // through their virtual slots, as a caller would.

    cr_status_t update_catalog_flow(CatalogDirectoryLock* dir_lock, const char* user,
                                    unsigned int role, const std::string& item_text);
    // Records the user may not read are passed over, one by one, before
    // they reach `sink`.
    cr_status_t find_catalog_flow(CatalogDirectoryLock* dir_lock, const char* user,
                                  unsigned int role, const std::string& query_text,
                                  catalog_item_sink& sink);
    cr_status_t find_catalog_flow(CatalogDirectoryLock* dir_lock, const char* user,
                                  unsigned int role, const std::string& query_text,
                                  std::vector<app_catalog_item>& records);
    // find_catalog with a filter's statement on the database of client and
    // policy instead of a query text.
    cr_status_t find_filtered_flow(CatalogDirectoryLock* dir_lock, const char* user,
                                   unsigned int role, const std::string& client,
                                   const std::string& policy,
                                   const catalog_filter_statement& statement,
                                   catalog_item_sink& sink);
    // The list form, over the record form's virtual slot.
    cr_status_t find_catalog_text_flow(const char* user, unsigned int role,
                                       const std::string& query_text, std::string& result);
    cr_status_t find_by_image_name_flow(CatalogDirectoryLock* dir_lock,
                                        const std::string& client, const std::string& policy,
                                        const std::string& image_name, app_catalog_item& result,
                                        bool lock);
    cr_status_t find_by_file_name_flow(CatalogDirectoryLock* dir_lock, const std::string& client,
                                       const std::string& policy, const std::string& file_name,
                                       app_catalog_item& result, bool lock);
    // `denied_format` is the kind's own text for a refused caller (arguments:
    // operation, user, record owner).
    cr_status_t expire_catalog_flow(CatalogDirectoryLock* dir_lock, const char* denied_format,
                                    const char* user, unsigned int role,
                                    const std::string& client, const std::string& policy,
                                    const std::string& image_name, bool lock);
    cr_status_t del_catalog_flow(CatalogDirectoryLock* dir_lock, const char* user,
                                 unsigned int role, const std::string& query_text);
    cr_status_t close_db_flow(CatalogDirectoryLock* dir_lock, const std::string& path,
                              unsigned int n, bool lock);

    // ---- the database steps of the flows; called under the directory
    // lock (or the caller's), `function` names the public operation. These
    // are the plain calls, with busy retries only; the shadow kind wraps them.

    // Creates the database when needed and inserts `item`.
    virtual cr_status_t insert_step(const char* function, const app_catalog_item& item);
    // Runs the SELECT `sql` of `query`, handing the rows to `sink`
    // (restarted before every attempt).
    virtual cr_status_t query_step(const char* function, const app_query& query,
                                   catalog_item_sink& sink, const std::string& sql);
    // Deletes the records of the backup of header image `image_name` that
    // `check`'s caller may remove.
    virtual cr_status_t expire_step(const std::string& client, const std::string& policy,
                                    const std::string& image_name, removal_check& check);
    // Deletes the record of `file_name` if `check`'s caller may remove it.
    virtual cr_status_t delete_step(const char* function, const std::string& client,
                                    const std::string& policy, const std::string& file_name,
                                    removal_check& check);

    // ---- group commit of the changes (catalog_group_commit.cpp) ----

    // Runs `step`, one change of operation `function` to the database of
    // client and policy, under the directory lock of that database: alone,
    // or in one group with the changes other threads make to the same
    // database at the same moment, in one transaction (each change in its own
    // savepoint) and, for the shadow kind, one journal append and sync.
    // `bytes` is the size of the change's text, for the group's bound.
    // Returns the change's own status, once its change is durable.
    cr_status_t commit_change(CatalogDirectoryLock* dir_lock, const char* function,
                              const std::string& client, const std::string& policy, size_t bytes,
                              const std::function<cr_status_t()>& step);
    // Whether a group may run on the database of client and policy without
    // creating anything first: the database file exists and is not empty.
    virtual bool group_ready(const std::string& client, const std::string& policy);
    // After a group's commit, the committed changes' `lines` (their journal
    // texts, in order) are made durable beyond the database: nothing here;
    // the shadow kind journals them. 0, or the status every change with a
    // line then reports.
    virtual cr_status_t protect_group(const std::string& path, const std::vector<std::string>& lines);
    // While this thread runs a group on `path`: keeps `statement`, the
    // journal text of the change being run, for the group's one append, and
    // returns true. False outside a group.
    bool defer_journal_line(const std::string& path, const std::string& statement);
    // While this thread runs a group on `path`: gives the group up (it is
    // rolled back and each of its changes runs again alone, where it may
    // recover its database) and returns true. False outside a group.
    bool give_up_group(const std::string& path);

private:
    std::optional<int> busy_timeout_ms_;  // see use_busy_timeout_ms
    dct::environment service_env_;        // see use_environment
    std::unique_ptr<commit_queue> commits_{new commit_queue(commit_bounds())};

    // The store of the group this thread runs on `path` for this object, or
    // null: the group's changes share the one borrowed store.
    appdb_value* group_store_(const std::string& path) const;
    // Runs the group, led by its first change, under the directory lock, and
    // sets each member's status; false when the group was given up (nothing
    // of it stays, each change is to run alone).
    bool run_group_(const std::string& client, const std::string& policy,
                    std::vector<commit_queue::change*>& group);

    // The read of a find: names checked, the directory of client and policy
    // locked, `read` given a sink that passes on only the records the user
    // may read; a failure logged "%s: failed to query %s for %s" with `what`.
    template <typename Read>
    cr_status_t read_locked(CatalogDirectoryLock* dir_lock, const char* function, const char* user,
                            unsigned int role, const std::string& client, const std::string& policy,
                            const std::string& what, catalog_item_sink& sink, Read read);
    // parse_query, logging "%s: failed to parse %s" for `function` on failure.
    cr_status_t parse_query_logged(const char* function, const std::string& query_text,
                                   app_query& query, std::string& sql);
    // The query behind find_by_image_name and find_by_file_name.
    cr_status_t find_one(CatalogDirectoryLock* dir_lock, const char* function,
                         const std::string& client, const std::string& policy,
                         const std::string& query_text, const char* too_many_format,
                         const std::string& key, app_catalog_item& result, bool lock);

    // The status and the one log record of a checked removal (`check`) that
    // ran: 0 when it removed rows (a warning names the rows left in place),
    // `none_found` when nothing matched, 106 with `denied_format` (operation,
    // user, owner) when every matched row belongs to somebody else.
    static cr_status_t removal_outcome(const char* function, const removal_check& check,
                                       const std::string& key, cr_status_t none_found,
                                       const char* denied_format);
};

}  // namespace appdb

#endif  // APPDB_CATALOG_APPLICATION_BASE_H_
