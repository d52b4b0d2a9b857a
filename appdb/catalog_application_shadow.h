// catalog_application_impl_shadow: the catalog operations with shadow
// protection. The same public operations as catalog_application_impl, but
// every application database stays recoverable:
//
//   - a database created here gets its first shadow copy at once (the empty
//     schema), through CatalogShadowContext::backup_unlocked;
//   - every successful change is appended to the database's operation
//     journal (CatalogShadowContext::write_journal, durable on return);
//   - a database call that fails because the database is corrupt (67), or
//     missing or unreadable while a shadow exists (21), evicts the database
//     from the cache, recovers it from the newest good shadow plus journals
//     (CatalogShadowContext::recover_unlocked) and tries the call once more.
//
// A public operation recovers at most once, even when it runs several
// database calls (a lookup and a delete) or calls other public operations of
// the same object on its thread (a text query runs the record query): a
// database that is still broken after its recovery is reported, not
// recovered again. Operations of other threads have their own single
// recovery.
//
// All shadow calls are made while the operation holds the directory lock of
// the database, hence the "unlocked" forms. With no shadow context, backups
// and journals are no-op successes and recovery fails with 4.
//
// Thread-safe as catalog_application_impl: callers may share one object; the
// shadow context serialises its own work per directory.
#ifndef APPDB_CATALOG_APPLICATION_SHADOW_H_
#define APPDB_CATALOG_APPLICATION_SHADOW_H_

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "appdb/catalog_application_base.h"
#include "catalog_shadow/DirectoryLock.h"
#include "dct/environment.h"
#include "dct/status.h"

class CatalogShadowContext;

namespace appdb {

class catalog_application_impl_shadow : public catalog_application_base {
public:
    // `shadow_ctx` is not owned and may be null; when given it must outlive
    // this object. dir_lock starts empty (no lock taken); the factory, or
    // whoever builds the object directly, gives it its CatalogDirectoryLock.
    // The first form runs on the context's environment (the process-wide
    // defaults without a context), the second on a copy of `env`.
    catalog_application_impl_shadow(unsigned int dsid, const std::string& database_root,
                                     unsigned int cache_size, CatalogShadowContext* shadow_ctx);
    catalog_application_impl_shadow(unsigned int dsid, const std::string& database_root,
                                     unsigned int cache_size, CatalogShadowContext* shadow_ctx,
                                     const dct::environment& env);
    // dir_lock goes first, then the base closes the cache; the shadow context
    // is left alone.
    ~catalog_application_impl_shadow() override;

    cr_status_t update_catalog(const char* user, unsigned int role,
                               const std::string& item_text) override;
    cr_status_t find_catalog(const char* user, unsigned int role, const std::string& query,
                             std::string& result) override;
    cr_status_t find_catalog(const char* user, unsigned int role, const std::string& query,
                             std::vector<app_catalog_item>& result) override;
    cr_status_t find_catalog(const char* user, unsigned int role, const std::string& query,
                             catalog_item_sink& sink) override;
    cr_status_t expire_catalog(const char* user, unsigned int role, const std::string& client,
                               const std::string& policy, const std::string& image_name,
                               bool lock) override;
    cr_status_t del_catalog(const char* user, unsigned int role, const std::string& query) override;
    cr_status_t close_db(const std::string& path, unsigned int n, bool lock) override;
    cr_status_t find_by_image_name(const std::string& client, const std::string& policy,
                                   const std::string& image_name, app_catalog_item& result,
                                   bool lock) override;
    cr_status_t find_by_file_name(const std::string& client, const std::string& policy,
                                  const std::string& file_name, app_catalog_item& result,
                                  bool lock) override;

    // Whether the shadow of the database of client and policy holds a copy.
    // False, logged as an error, when there is no shadow context.
    bool shadow_copy_exist(const std::string& client, const std::string& policy) override;

    // ---- calls into the shadow context; `path` is a database directory
    // (to_db_full_path) whose lock the caller holds ----

    // Takes a new shadow copy of the database in `path`. 0 with no context.
    cr_status_t backup_shadow(const std::string& path);
    // Appends `statement` to the database's journal and makes it durable; a
    // line that cannot be journalled is protected by a new shadow copy
    // instead (CatalogShadowContext::write_journal). 0 with no context, and
    // for an empty statement (nothing was changed); otherwise the failure of
    // both, when the change is in the database but unprotected.
    cr_status_t write_journal(const std::string& path, const std::string& statement);
    // Rebuilds the database of client and policy from its shadow. 4 at once
    // with no context.
    cr_status_t recover_from_journal(const std::string& client, const std::string& policy);

    // Whether a database call that returned `status` calls for a recovery:
    // always for 67; for 21 only when a shadow exists and the database file is
    // missing or fails its integrity check; never otherwise.
    bool need_recover_after_db_operation(cr_status_t status, const std::string& client,
                                         const std::string& policy);

    // Creates the database when it has never existed (with its first shadow
    // copy), inserts with busy retries (60 tries, DctSleep(1) after each busy
    // one) and journals the insert. Returns the insert's status, or, when
    // neither the journal nor a new shadow copy could protect the inserted
    // row, the journal's status (the row is in the database, unprotected).
    cr_status_t shadow_protected_db_insert(const app_catalog_item& item);

    // Deletes the records of a header image's backup (with a `check`, those
    // its caller may remove), journals the delete, and recovers the database
    // once when the delete calls for it.
    cr_status_t shadow_protected_expire_catalog(const std::string& client,
                                                const std::string& policy,
                                                const std::string& image_name,
                                                removal_check* check = nullptr);

    // What this object runs with (given at construction, never changed).
    const dct::environment& environment() const { return env_; }

    // Whether the calling thread is inside a public operation of this object,
    // and whether that operation has recovered its database already.
    bool in_operation();
    bool operation_recovered();

    std::unique_ptr<CatalogDirectoryLock> dir_lock;
    CatalogShadowContext* shadow_ctx;  // not owned; may be null

protected:
    // The protected database calls. Each recovers the database once (per
    // public operation) when its failure calls for it and tries once more;
    // the changing ones journal what they changed.
    cr_status_t insert_step(const char* function, const app_catalog_item& item) override;
    cr_status_t query_step(const char* function, const app_query& query,
                           catalog_item_sink& sink, const std::string& sql) override;
    cr_status_t expire_step(const std::string& client, const std::string& policy,
                            const std::string& image_name, removal_check& check) override;
    cr_status_t delete_step(const char* function, const std::string& client,
                            const std::string& policy, const std::string& file_name,
                            removal_check& check) override;
    // A group also needs the database's shadow copy: the change that takes
    // the first one runs alone.
    bool group_ready(const std::string& client, const std::string& policy) override;
    // Journals the group's committed lines: one append, one sync.
    cr_status_t protect_group(const std::string& path, const std::vector<std::string>& lines) override;

private:
    // One public operation: how deeply operations of this object are nested
    // in it on its thread, and whether it has recovered its database.
    struct operation_context {
        int depth = 0;
        bool recovered = false;
    };

    // Marks the extent of one public operation on the calling thread. The
    // outermost scope owns the operation's context and makes it the thread's
    // current one on this object; nested scopes only count. The object's
    // environment is the thread's meanwhile.
    class operation_scope {
    public:
        explicit operation_scope(catalog_application_impl_shadow& app);
        ~operation_scope();
        operation_scope(const operation_scope&) = delete;
        operation_scope& operator=(const operation_scope&) = delete;

    private:
        catalog_application_impl_shadow& app_;
        operation_context own_;     // used when this scope is the outermost
        operation_context* context_;  // the operation this scope belongs to
        dct::environment_scope environment_;  // the object's, for the thread
    };

    // The operation the calling thread runs on this object, or null outside
    // any (a helper called on its own is an operation of its own).
    operation_context* current_operation_();

    // The recovery step after a failed database call of operation `function`
    // that returned `status`: evicts the database from the cache and rebuilds
    // it. 0 when the call may be tried once more, else the recovery's status
    // (logged).
    cr_status_t recover_db(const char* function, cr_status_t status, const std::string& client,
                           const std::string& policy);
    // The database is missing and its shadow lost its history to a damaged
    // checksum file (CatalogShadowContext::shadow_history_lost).
    bool history_lost(const std::string& client, const std::string& policy);
    // need_recover_after_db_operation, and the operation has not recovered yet.
    bool may_recover(cr_status_t status, const std::string& client, const std::string& policy);
    // Runs the change `run` (it hands back the statement it ran); when its
    // failure calls for it, recovers the database once and runs it again.
    // The statement of the change that succeeded is journaled (its failure,
    // when no new shadow copy could stand in, is returned). A failure that
    // is not recovered is logged with `failed_format` (operation, key).
    cr_status_t change_with_recovery(const char* function, const char* failed_format,
                                     const std::string& client, const std::string& policy,
                                     const std::string& key,
                                     const std::function<cr_status_t(std::string&)>& run);
    // write_journal for one statement or a group's: each traced and, on
    // failure, logged.
    cr_status_t write_journal_lines_(const std::string& path, const std::vector<std::string>& lines);
    // True the first time `path` is given: a database found without a
    // shadow copy is copied once per object.
    bool first_adoption(const std::string& path);

    std::mutex adopted_mutex_;
    std::set<std::string> adopted_;  // directories given a first copy here

    dct::environment env_;
    // The running operation of each thread inside one; the contexts belong
    // to their outermost scopes.
    std::mutex operations_mutex_;
    std::map<std::thread::id, operation_context*> operations_;
};

}  // namespace appdb

#endif  // APPDB_CATALOG_APPLICATION_SHADOW_H_
