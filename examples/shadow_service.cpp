// shadow_service: a minimal service that embeds a shadow-protected catalog.
//
//   shadow_service [WORK_DIR]
//
// It lays out a small pool below WORK_DIR (a new temporary directory, removed
// at the end, when none is given; a given one is kept for inspection):
//
//   WORK_DIR/pool.cfg                 shadow settings ([Paths], [Storage])
//   WORK_DIR/db/databases/application the catalog databases (DSID/CLIENT/POLICY/app.db)
//   WORK_DIR/storage/catalogshadow    the shadow tree: versions and journals
//
// and then does what a backup service does with its catalog: records the items
// of two backups, looks them up, expires the first backup, takes a shadow
// backup, records a third backup, then records two more at the same moment
// from two processes (a second process of the service with its own context
// and catalog on the same pool), and finally loses the database file. The
// next query notices the loss, rebuilds the database from the newest shadow
// copy plus its journal, and finds every item that was acknowledged.
//
// Several processes may work on one pool: every operation on a database
// directory holds that directory's lock (CatalogDirectoryLock) from its first
// read to its last write, so the processes take turns per database, and each
// finds the shadow as the others left it.
//
// Exit status 0 when the catalog answered as expected at every step. Errors
// and warnings of the library are printed through a log sink, in line with
// the steps (prefixed "log:"); info and trace records are counted only. Two
// steps log errors on purpose: expiring a backup of several items reports
// that its lookup found more than one, and the lost database is reported on
// the way to its recovery.
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <system_error>
#include <string>
#include <vector>

#include "appdb/app_catalog_item.h"
#include "appdb/app_query.h"
#include "appdb/catalog_application.h"
#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/DirectoryLock.h"
#include "dct/log.h"
#include "dct/status.h"

namespace {

// The directory and its missing parents; true when it exists afterwards.
bool make_tree(const std::string& dir) {
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    return !ec;
}

// Removes the work directory and everything in it, as far as it can.
void remove_tree(const std::string& dir) {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    if (ec) fprintf(stderr, "shadow_service: cannot remove %s: %s\n", dir.c_str(), ec.message().c_str());
}

const unsigned int kDataStore = 7;
const char kClient[] = "mailsrv";
const char kPolicy[] = "nightly";
// The service stores items as an application user and owns them.
const char kUser[] = "svc_mail";
const unsigned int kRole = appdb::APP_ROLE_APP;
const unsigned int kCacheSize = 4;

int failures = 0;

void check(bool ok, const char* what) {
    printf("  %-58s %s\n", what, ok ? "ok" : "FAILED");
    if (!ok) ++failures;
}

bool write_file(const std::string& path, const std::string& text) {
    FILE* f = fopen(path.c_str(), "w");
    if (f == nullptr) return false;
    bool ok = fputs(text.c_str(), f) >= 0;
    return fclose(f) == 0 && ok;
}

// The service's side of the shadow subsystem: where its configuration lies,
// where the real catalog trees are, and what to do when the shadow root has
// lost its identity file (the feature is then off; a real service would
// raise an alert).
class MailShadowProxy : public CatalogShadowProxy {
public:
    MailShadowProxy(const std::string& config_file, const std::string& databases)
        : config_file_(config_file), podb_root_(databases + "/po") {
        app_db_root = databases + "/application";
    }
    std::string get_config_file() const override { return config_file_; }
    std::string get_podb_root() const override { return podb_root_; }
    void on_identity_missing(const std::string& identity_file) override {
        fprintf(stderr, "shadow_service: ALERT: %s is missing, catalog shadows are off\n",
                identity_file.c_str());
    }

private:
    std::string config_file_;
    std::string podb_root_;
};

// One item of backup `backup_id`; file "HDR" is the backup's header image.
appdb::app_catalog_item make_item(const std::string& backup_id, int64_t start,
                                  const std::string& file) {
    appdb::app_catalog_item item;
    item.client = kClient;
    item.policy = kPolicy;
    item.backup_id = backup_id;
    item.file_name = backup_id + "_C1_" + file;
    item.file_len = 4096;
    item.app_id = "mail";
    item.data_object = file;
    item.backup_start_time = start;
    item.backup_stop_time = start + 300;
    item.app_expire_time = start + 14 * 86400;
    item.owner = kUser;
    item.owner_role = kRole;
    return item;
}

// Records the header image and two files of one backup.
bool record_backup(appdb::catalog_application& catalog, const std::string& backup_id,
                   int64_t start) {
    for (const char* file : {"HDR", "F1", "F2"}) {
        // The catalog takes items in their line form.
        if (catalog.update_catalog(kUser, kRole, make_item(backup_id, start, file).to_string()) !=
            CR_STATUS_OK) {
            return false;
        }
    }
    return true;
}

// How many items of the client and policy the service may read.
int count_items(appdb::catalog_application& catalog) {
    std::vector<appdb::app_catalog_item> items;
    cr_status_t st =
        catalog.find_catalog(kUser, kRole, appdb::to_query_by_backup_id(kClient, kPolicy, "*"), items);
    return st == CR_STATUS_OK ? static_cast<int>(items.size()) : -1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 2) {
        fprintf(stderr, "usage: shadow_service [WORK_DIR]\n");
        return 2;
    }
    std::string work;
    const bool keep = argc == 2;
    if (keep) {
        work = argv[1];
    } else {
        char templ[] = "/tmp/shadow-service-XXXXXX";
        if (mkdtemp(templ) == nullptr) return 2;
        work = templ;
    }

    // Library log records: errors and warnings shown among the steps, the rest
    // counted. A service would send them to its own log. The sink is called on
    // the thread that logs, so it must be thread-safe when the service runs
    // several threads (this one runs one).
    unsigned long quiet_records = 0;
    dct::set_log_sink([&](dct::log_level level, cr_status_t status, const std::string& message) {
        if (level == dct::log_level::error || level == dct::log_level::warning) {
            printf("    log: %s [%u] %s\n", dct::log_level_name(level), status, message.c_str());
        } else {
            ++quiet_records;
        }
    });

    const std::string databases = work + "/db/databases";
    const std::string shadow_root = work + "/storage/catalogshadow";
    const std::string config = work + "/pool.cfg";
    if (!make_tree(databases + "/application") ||
        !write_file(config, "[Paths]\n"
                            "StorageDatabase = " + work + "/db\n"
                            "CatalogShadowPath = " + shadow_root + "\n"
                            "CatalogBackupVersionCount = 3\n"
                            "[Storage]\n"
                            "Storage Path = " + work + "/storage\n")) {
        fprintf(stderr, "shadow_service: cannot lay out %s\n", work.c_str());
        return 2;
    }

    // The identity file marks the shadow root as this pool's. Only an explicit
    // step creates it (here: first start of the service), so that a shadow
    // root that has lost it is never adopted silently.
    printf("setting up the shadow context\n");
    CatalogShadowIdentity identity(shadow_root.c_str());
    check(identity.create_identity() == CR_STATUS_OK, "identity file created");

    // The context owns its proxy and directory lock; it must outlive every
    // catalog application that uses it.
    CatalogShadowContext shadow(new MailShadowProxy(config, databases), new CatalogDirectoryLock());
    check(shadow.init() == CR_STATUS_OK && shadow.enabled, "shadow context initialised");

    // The catalog application of one data store, shadow-protected. The caller
    // owns it; it owns its cache of open databases and its directory lock.
    std::unique_ptr<appdb::catalog_application> catalog(appdb::catalog_application_factory::create_catalog(
        kDataStore, databases, appdb::APP_D_CATALOG_SHADOW, &shadow, kCacheSize));
    if (!catalog) {
        fprintf(stderr, "shadow_service: the factory built no shadow-protected catalog\n");
        if (!keep) remove_tree(work);
        return 1;
    }
    const std::string db_dir =
        databases + "/application/" + std::to_string(kDataStore) + "/" + kClient + "/" + kPolicy;
    const std::string db_file = db_dir + "/app.db";

    printf("recording two backups\n");
    const std::string first = std::string(kClient) + "_1700000000";
    const std::string second = std::string(kClient) + "_1700086400";
    const std::string third = std::string(kClient) + "_1700172800";
    check(record_backup(*catalog, first, 1700000000), "backup 1 recorded (database and first shadow made)");
    check(record_backup(*catalog, second, 1700086400), "backup 2 recorded");
    check(count_items(*catalog) == 6, "6 items found");

    appdb::app_catalog_item found;
    check(catalog->find_by_file_name(kClient, kPolicy, second + "_C1_F2", found, true) == CR_STATUS_OK &&
              found.backup_id == second,
          "item found by file name");

    printf("expiring backup 1 through its header image\n");
    check(catalog->expire_catalog(kUser, kRole, kClient, kPolicy, first + "_C1_HDR", true) == CR_STATUS_OK,
          "backup 1 expired");
    check(count_items(*catalog) == 3, "3 items left");

    printf("taking a shadow backup, then recording backup 3 (journalled)\n");
    check(shadow.backup(db_dir, shadow_type_appdb) == CR_STATUS_OK, "shadow backup taken");
    check(record_backup(*catalog, third, 1700172800), "backup 3 recorded");

    printf("recording backups 4 and 5 at once from two processes\n");
    const std::string fourth = std::string(kClient) + "_1700259200";
    const std::string fifth = std::string(kClient) + "_1700345600";
    fflush(stdout);
    const pid_t other = fork();
    if (other == 0) {
        // The second process: a context and a catalog of its own, as a second
        // instance of the service would have. Nothing is shared but the disk.
        CatalogShadowContext its_shadow(new MailShadowProxy(config, databases), new CatalogDirectoryLock());
        if (its_shadow.init() != CR_STATUS_OK) _exit(1);
        std::unique_ptr<appdb::catalog_application> its_catalog(appdb::catalog_application_factory::create_catalog(
            kDataStore, databases, appdb::APP_D_CATALOG_SHADOW, &its_shadow, kCacheSize));
        const bool ok = its_catalog && record_backup(*its_catalog, fourth, 1700259200);
        its_catalog.reset();
        fflush(stdout);
        _exit(ok ? 0 : 1);
    }
    const bool mine = record_backup(*catalog, fifth, 1700345600);
    int other_status = 1;
    const bool waited = other > 0 && waitpid(other, &other_status, 0) == other;
    check(mine, "backup 5 recorded by this process");
    check(waited && WIFEXITED(other_status) && WEXITSTATUS(other_status) == 0,
          "backup 4 recorded by the second process meanwhile");
    check(count_items(*catalog) == 12, "12 items found");

    printf("losing the database file\n");
    // Close the cached connection first: an open connection would keep the
    // deleted file alive.
    check(catalog->close_db(db_dir, 0, true) == CR_STATUS_OK, "cached connection closed");
    check(unlink(db_file.c_str()) == 0, "app.db removed");

    printf("querying again: the catalog recovers the database from its shadow\n");
    check(count_items(*catalog) == 12, "12 items found after recovery");
    check(access(db_file.c_str(), F_OK) == 0, "app.db is back");
    check(catalog->find_by_file_name(kClient, kPolicy, third + "_C1_HDR", found, true) == CR_STATUS_OK,
          "backup 3 (journalled after the shadow backup) is there");
    check(catalog->find_by_file_name(kClient, kPolicy, fourth + "_C1_F2", found, true) == CR_STATUS_OK,
          "backup 4 (the second process's) is there");

    // Connections close when the application is destroyed; the context goes
    // after every application that uses it.
    catalog.reset();
    dct::set_log_sink(nullptr);
    if (!keep) remove_tree(work);
    printf("shadow_service: %s (%lu info/trace records)\n", failures == 0 ? "ok" : "FAILED", quiet_records);
    return failures == 0 ? 0 : 1;
}
