// CatalogShadowContext: entry object of the shadow subsystem, which keeps
// versioned, checksummed copies ("shadows") of the pool's catalog databases in
// a separate shadow tree, journals every change made to them, and rebuilds a
// corrupt or missing database from its newest good copy.
//
// A context is built, then init() reads the configuration, checks the identity
// file of the shadow root and creates the pool of per-directory shadows. Its
// configuration is written only by init(); afterwards the context may be used
// from several threads. Public operations return cr_status_t (0 = success) and
// never let an exception out.
//
// An embedding service builds one context for the pool, with its own proxy:
//
//   CatalogShadowContext shadow(new MyProxy(...), new CatalogDirectoryLock());
//   if (shadow.init() != CR_STATUS_OK) { /* logged; the feature is off */ }
//   catalog_application_factory::create_catalog(dsid, root, APP_D_CATALOG_SHADOW,
//                                                &shadow, cache_size);
//
// The context must outlive every catalog application given it. Directories
// named in the operations below are real database directories (the directory
// that holds the database file), and `type` is one of the type words
// shadow_type_podb ("podb"), shadow_type_uldb ("uldb") and shadow_type_appdb
// ("appdb"). Work on one directory's shadow (backup, recovery, journal lines)
// is serialised inside the context, and between contexts and processes by the
// directory lock of that directory (with a CatalogDirectoryLock); different
// directories proceed in parallel. Under the lock, a shadow reloads what
// another process changed (PODBShadow::refresh_from_disk) before it appends a
// journal line, backs up or recovers. Looking a shadow up, and has_shadow_copy,
// write nothing: the shadow directory and checksum files appear with the first
// backup.
#ifndef CATALOG_SHADOW_CATALOGSHADOWCTX_H_
#define CATALOG_SHADOW_CATALOGSHADOWCTX_H_

#include <stdint.h>

#include <atomic>
#include <string>
#include <vector>

#include <boost/scoped_ptr.hpp>
#include <boost/shared_ptr.hpp>

#include "catalog_shadow/DirectoryLock.h"
#include "dct/environment.h"
#include "dct/status.h"

class PODBShadowPool;

// The type words of the databases a shadow keeps, as backup, recover and
// has_shadow_copy take them.
extern const char* const shadow_type_podb;   // "podb": the PO database
extern const char* const shadow_type_uldb;   // "uldb": the UL database
extern const char* const shadow_type_appdb;  // "appdb": a catalog's app.db

// Implemented by the embedding program: where the configuration lies and where
// the real catalog trees are. The context owns its proxy and reads it from
// init() on, possibly from several threads; the answers must not change
// afterwards. app_db_root is set before init(). The PO/UL root is tried first
// when a real path is mapped, so it must not be a prefix of app_db_root (use,
// say, DBROOT/databases/po beside DBROOT/databases/application).
//
// on_identity_missing is called, on the thread that runs init() or a
// backup_all / recover operation, when the shadow root has lost its identity
// file; the feature is already off then. It is the place to raise an alert. It
// must not call back into the context.
class CatalogShadowProxy {
public:
    virtual ~CatalogShadowProxy();
    virtual std::string get_config_file() const = 0;  // configuration file to read
    virtual std::string get_podb_root() const = 0;    // root of the PO/UL catalog tree
    virtual void on_identity_missing(const std::string& identity_file) = 0;
    std::string app_db_root;  // root of the application databases: DBROOT/databases/application
};

// An open PO database handle whose pending statements are to be journalled.
class PODB {
public:
    virtual ~PODB();
    // The real directory of the database.
    virtual std::string get_dir() const = 0;
    // Statements changed since the handle was opened, in order.
    virtual std::vector<std::string> get_pending_statements() const = 0;
};

// The identity file ".catalog_shadow_identity" marks a shadow root that belongs
// to this pool. Only create_identity() makes it; nothing creates it on its own,
// so that a root that lost it is never silently adopted again.
class CatalogShadowIdentity {
public:
    explicit CatalogShadowIdentity(const char* dir);

    static const char* the_file_name();  // ".catalog_shadow_identity"
    // The root, "/" (unless the root ends in one) and the file name.
    const std::string& get_identity_file() const { return file_; }
    bool identity_exist() const;
    // Creates the root when missing and the empty identity file, then syncs the
    // root so that the file survives a crash. 0 or the failure's status.
    cr_status_t create_identity();

private:
    std::string dir_;
    std::string file_;
};

class CatalogShadowContext {
public:
    // Takes ownership of both (either may be null: no proxy disables the
    // feature at init, no lock means the no-op base lock). Reads nothing yet.
    // The first form runs on the process-wide defaults
    // (dct::default_environment()); the second on a copy of `env`, whose
    // switches load_configurations may set from the configuration file.
    CatalogShadowContext(CatalogShadowProxy* proxy, DirectoryLock* lock);
    CatalogShadowContext(CatalogShadowProxy* proxy, DirectoryLock* lock, const dct::environment& env);
    ~CatalogShadowContext();
    CatalogShadowContext(const CatalogShadowContext&) = delete;
    CatalogShadowContext& operator=(const CatalogShadowContext&) = delete;

    // load_configurations, the identity object for shadow_path, check_identity
    // (skipped when the configuration turned the feature off), and the pool.
    // 0, or the status of the failed step (the feature is then off):
    // CR_STATUS_NONE for a missing storage path, 4 for a missing identity file,
    // 106 for one this process may not read.
    // Call it once, on one thread, before any other operation. With the
    // feature off, backups and journal writes are successes that do nothing
    // and recoveries fail with 4; catalog applications keep working, without
    // shadows.
    cr_status_t init();

    // Reads the shadow settings from the proxy's configuration file:
    // [Paths] StorageDatabase, CatalogBackup, CatalogAutoRecovery,
    // CatalogBackupVersionCount, CatalogShadowPath, CatalogShadowPoolSize and
    // [Storage] Storage Path. 0, or CR_STATUS_NONE when a storage path is
    // missing (the feature is then off).
    // [Paths] DisableCatalogAutoFixJournal, when the file sets it to a
    // boolean, becomes the environment's switch (whatever the environment
    // said); otherwise the switch stays as given, and unset it leaves the
    // decision to the process configuration object.
    cr_status_t load_configurations();

    // What this context runs with: its clock, sleep, fault seam and switches.
    // Written by the constructor and init() only.
    const dct::environment& environment() const { return env_; }

    // 0 when the identity file exists. Otherwise notifies the proxy, turns the
    // feature and auto recovery off and returns 4; when the file may be there
    // but this process may not look (permission denied), the proxy is not
    // told of a loss, the feature is off all the same, and the result is 106.
    cr_status_t check_identity();

    // Real directory -> its shadow directory (shadow_path replaces the real
    // root). "" for a path below neither root, logged once ("%s: %s is an
    // invalid podb directory path.").
    std::string real_to_shadow_path(const std::string& real);
    // Shadow directory -> real directory (application root for "appdb", PO/UL
    // root otherwise). "" for a path outside shadow_path, logged once ("%s: %s
    // is an invalid shadow directory path.").
    std::string shadow_to_real_path(const std::string& shadow, const std::string& type);

    // Whether the shadow of `dir` holds at least one version of the PO database
    // (first form) or of `type`. False when the feature is off.
    bool has_shadow_copy(const std::string& dir);
    bool has_shadow_copy(const std::string& dir, const std::string& type);
    // Whether the shadow of `dir` lost the history of `type` to a damaged
    // checksum file and holds no version taken since (PODBShadow::
    // history_lost). A database of `type` that is missing then has nothing
    // to be rebuilt from and must not be created empty in its place either.
    // False when the feature is off.
    bool shadow_history_lost(const std::string& dir, const std::string& type);

    // Journals every pending statement of a PO database handle, then flushes.
    // 0 at once when the feature is off.
    // When a line cannot be written (the write or the sync fails, or the
    // journal fails its check), the lines written before it stay and a new
    // version of the database is taken at once (backup_unlocked; the caller
    // holds the directory lock), so that the change is protected and the
    // journal starts clean: 0 then. Only when that backup fails too is the
    // journal's status returned, with the error "%s: the change to %s in %s
    // is in the database but not protected by its shadow".
    cr_status_t write_journal(boost::shared_ptr<PODB> podb);
    // Journals one statement of database `type` in real directory `dir` and
    // makes it durable before returning, falling back to a new version as
    // above. 0 at once when the feature is off.
    cr_status_t write_journal(const std::string& dir, const std::string& type,
                              const std::string& statement);
    // Journals several statements of one database at once, in order: one
    // append, one sync and one checksum file for all of them (a group of
    // changes committed together), with the same fallback to a new version
    // for all of them.
    cr_status_t write_journal(const std::string& dir, const std::string& type,
                              const std::vector<std::string>& statements);

    // Rereads the checksum files of the shadow of `dir` (closing its journals).
    cr_status_t reload_podb(const std::string& dir);

    // --- Backup (built in its own sources) ---

    // backup_unlocked of the PO database (first form) or of `type` in `dir`,
    // under the directory lock of `dir`. When the lock is not had (11 after
    // the wait limit, 106 or another status when the directory cannot be
    // opened) the backup does not start and that status is returned.
    cr_status_t backup(const std::string& dir);
    cr_status_t backup(const std::string& dir, const std::string& type);
    // Copies the database of `type` in `dir` into its shadow directory as the
    // newest version, when the copy passes SQLite's integrity check and
    // differs from the newest version; the new version's journal starts
    // empty, and versions beyond max_version_count are deleted, oldest first.
    // The caller holds the directory lock of `dir`. 0 also when nothing
    // changed and when the feature is off; 2 when the database file does not
    // exist; 67 when the copy fails the integrity check (the copy is set aside
    // in a "#corrupt_" directory, no version is added); 4 for an unknown type
    // or a directory below neither real root; the copy's status when reading
    // or writing fails. Earlier versions are never touched by a failure.
    // `flags` has no meaning yet: pass 0.
    cr_status_t backup_unlocked(const std::string& dir, const std::string& type, unsigned flags = 0);
    // Backs up every application database (app true) or every PO/UL database
    // (false) below the proxy's real roots, each under its directory lock.
    // 0 when every backup succeeded (also when the feature is off or the tree
    // does not exist yet); 4 when the identity file is missing or any backup
    // failed (each failure is logged).
    cr_status_t backup_all(bool app);

    // --- Recovery (built in its own sources) ---

    // recover_unlocked of the PO database (first form) or of `type` in `dir`,
    // after checking the identity file, under the directory lock of `dir`.
    // When the lock is not had the recovery does not start and the lock's
    // status is returned (11, 106, ...).
    // 4 when the feature is off or the identity file is missing.
    cr_status_t recover(const std::string& dir, unsigned flags);
    cr_status_t recover(const std::string& dir, const std::string& type, unsigned flags);
    // Rebuilds the database of `type` in `dir`: copies the newest version that
    // passes its checksums and SQLite's integrity check, replays that
    // version's journal and every newer one in one transaction, and only after
    // the commit renames the result over the real database (the old file's
    // SQLite journal files are set aside in a "#corrupt_" directory first). The
    // directory is created when missing. The caller holds the directory lock
    // of `dir`; a shadow-protected catalog application calls this itself when
    // an operation finds its database corrupt or missing. 0, or: 4 when the
    // feature is off or the type is unknown; 72 when the shadow holds no
    // version; 67 when no version is usable; the SQLite or file system status
    // of a step that failed. Until the rebuilt copy is committed the real
    // database is left as it was. `flags` has no meaning yet: pass 0.
    cr_status_t recover_unlocked(const std::string& dir, const std::string& type, unsigned flags);
    // Walks the shadow tree of the application databases (app true) or of the
    // PO/UL databases (false) and recovers every database whose real file is
    // missing and whose shadow holds a version; databases that are present
    // are left alone. 0 when every one succeeded (none missing included); 4
    // when the feature is off, the identity file is missing or any recovery
    // failed. recover_all_missing does the same with flags 0 and logs how many
    // were recovered.
    cr_status_t recover_all(bool app, unsigned flags);
    cr_status_t recover_all_missing(bool app);
    // Deletes the shadow directory of `dir` (every version and journal) and
    // drops it from the pool: for a database that is given up for good. The
    // caller holds the directory lock of `dir`. 0 also when the feature is
    // off.
    cr_status_t remove_shadow_unlocked(const std::string& dir);

    // Settings, in this order; written by init() only.
    // The two switches are atomic because check_identity may turn them off
    // while other threads read them.
    boost::scoped_ptr<CatalogShadowProxy> proxy;
    std::atomic<bool> enabled;
    std::atomic<bool> auto_recovery;
    uint32_t max_version_count;  // 1..256
    int64_t shadow_pool_size;
    std::string shadow_path;
    boost::scoped_ptr<PODBShadowPool> pool;
    boost::scoped_ptr<CatalogShadowIdentity> identity;
    boost::scoped_ptr<DirectoryLock> dir_lock;

private:
    dct::environment env_;

    // After a failed journal line: backup_unlocked(dir, type); 0 when it
    // succeeded, else `failure`, logged as an unprotected change.
    cr_status_t protect_by_backup_(const std::string& dir, const std::string& type, cr_status_t failure);
    // The proxy's roots; "" without a proxy (an empty root matches nothing).
    std::string podb_root_() const;
    std::string app_db_root_() const;
};

// The environment of `context`, or the process-wide defaults without one
// (a shadow built on its own, as tools and tests do).
const dct::environment& environment_of(const CatalogShadowContext* context);

#endif  // CATALOG_SHADOW_CATALOGSHADOWCTX_H_
