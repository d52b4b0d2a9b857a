// seed_pool: fills a pool's catalog with sample items through the catalog
// library, the way a backup service records what it wrote.
//
//   seed_pool DATABASE_ROOT [CONFIG_FILE]
//
// The catalogs are created below
// DATABASE_ROOT/databases/application/DSID/CLIENT/POLICY/app.db:
//
//   data stores 1 and 2 x clients clientA, clientB x policies daily, weekly,
//   four items each (two backups of two files), and
//   data store 2, client clientC, policy archive: a catalog whose only item
//   was added and then deleted again, so that it exists and is empty.
//
// When the pool's CR configuration file is given and names the shadow settings
// ([Paths] StorageDatabase and [Storage] Storage Path), the catalogs are made with
// shadow protection: each new database gets a first copy in the shadow tree
// (by default STORAGE_PATH/catalogshadow) and every change is journaled
// there, so that a lost or damaged database can be rebuilt.
//
// Exit status 0 when every item was stored, 1 otherwise. Log records go where
// DCT_LOG says (syslog by default).
#include <stdio.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <vector>

#include "appdb/app_catalog_item.h"
#include "appdb/catalog_application.h"
#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/ConfigFileShadowProxy.h"
#include "dct/status.h"

namespace {

// Who the sample service acts as: an application user owns what it stores,
// and may later read and remove it (an administrator reads everything).
const char kServiceUser[] = "svc_backup";
const unsigned int kServiceRole = appdb::APP_ROLE_APP;

// Connections a catalog application keeps open between calls.
const unsigned int kCacheSize = 5;

// First backup start time of the sample: 2023-11-14 22:13:20 UTC.
const int64_t kFirstBackup = 1700000000;

// The pool's shadow context, or null when the configuration has no shadow
// settings. ConfigFileShadowProxy reads them from `config_file` and places the
// real trees below `database_root`. A new pool's shadow root is marked as the
// pool's own with its identity file first: the context stays disabled on a
// root without one.
std::unique_ptr<CatalogShadowContext> open_shadow_context(const std::string& config_file,
                                                          const std::string& database_root) {
    if (config_file.empty()) return nullptr;
    std::unique_ptr<CatalogShadowContext> ctx(new CatalogShadowContext(
        new ConfigFileShadowProxy(config_file, database_root), new CatalogDirectoryLock));
    if (ctx->load_configurations() != CR_STATUS_OK || !ctx->enabled) return nullptr;
    if (CatalogShadowIdentity(ctx->shadow_path.c_str()).create_identity() != CR_STATUS_OK) return nullptr;
    if (ctx->init() != CR_STATUS_OK) return nullptr;
    return ctx;
}

// A catalog application for one data store. Its databases lie below
// `database_root` + "/databases"; it owns its cache and directory lock, and
// closes every connection when it is destroyed.
//
// With a shadow context the factory builds the shadow-protected kind
// (APP_D_CATALOG_SHADOW), which keeps versioned copies and journals of every
// database; the context is not owned and must outlive the application.
std::unique_ptr<appdb::catalog_application> open_catalog(unsigned int dsid, const std::string& database_root,
                                                         CatalogShadowContext* shadow) {
    const appdb::application_d_t type = shadow != nullptr ? appdb::APP_D_CATALOG_SHADOW : appdb::APP_D_CATALOG;
    return std::unique_ptr<appdb::catalog_application>(appdb::catalog_application_factory::create_catalog(
        dsid, database_root + "/databases", type, shadow, kCacheSize));
}

// One item as a backup of `client` under `policy` would record it.
appdb::app_catalog_item sample_item(const std::string& client, const std::string& policy, int backup,
                                    int file) {
    const int64_t start = kFirstBackup + backup * 86400;
    appdb::app_catalog_item item;
    item.client = client;
    item.policy = policy;
    item.backup_id = client + "_" + std::to_string(start);
    item.file_name = item.backup_id + "_C1_F" + std::to_string(file + 1);
    item.file_len = 1048576u * static_cast<uint64_t>(file + 1);
    item.policy_type = 4;
    item.schedule_type = policy == "weekly" ? 1 : 0;
    item.frag_nums = 1;
    item.app_id = "orcl";
    item.data_object = file == 0 ? "DATAFILE" : "CONTROLFILE";
    item.backup_start_time = start;
    item.backup_stop_time = start + 600;
    item.app_expire_time = start + 30 * 86400;
    item.orvo_expire_time = start + 35 * 86400;
    item.owner = kServiceUser;
    item.owner_role = kServiceRole;
    item.description = policy + " backup of " + client;
    return item;
}

// Stores `item`; update_catalog takes the item in its line form and creates
// the database of its client and policy on first use.
bool store(appdb::catalog_application& catalog, const appdb::app_catalog_item& item) {
    cr_status_t st = catalog.update_catalog(kServiceUser, kServiceRole, item.to_string());
    if (st != CR_STATUS_OK) {
        fprintf(stderr, "seed_pool: storing %s failed with status %u\n", item.file_name.c_str(), st);
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3 || argv[1][0] == '\0') {
        fprintf(stderr, "usage: seed_pool DATABASE_ROOT [CONFIG_FILE]\n");
        return 1;
    }
    const std::string root = argv[1];
    const std::string config_file = argc == 3 ? argv[2] : "";
    // Declared before the catalogs, so that it outlives them.
    const std::unique_ptr<CatalogShadowContext> shadow = open_shadow_context(config_file, root);

    bool ok = true;
    unsigned stored = 0;
    for (unsigned int dsid : {1u, 2u}) {
        std::unique_ptr<appdb::catalog_application> catalog = open_catalog(dsid, root, shadow.get());
        if (!catalog) {
            fprintf(stderr, "seed_pool: no catalog application for data store %u\n", dsid);
            return 1;
        }
        for (const std::string client : {"clientA", "clientB"}) {
            for (const std::string policy : {"daily", "weekly"}) {
                for (int backup = 0; backup < 2; ++backup) {
                    for (int file = 0; file < 2; ++file) {
                        if (store(*catalog, sample_item(client, policy, backup + 2 * (dsid - 1), file))) {
                            ++stored;
                        } else {
                            ok = false;
                        }
                    }
                }
            }
        }

        if (dsid == 2) {
            // An empty catalog: store one item, then remove it by file name.
            const appdb::app_catalog_item item = sample_item("clientC", "archive", 0, 0);
            ok = store(*catalog, item) && ok;
            const std::string query = appdb::to_query_by_file_name(item.client, item.policy, item.file_name);
            cr_status_t st = catalog->del_catalog(kServiceUser, kServiceRole, query);
            if (st != CR_STATUS_OK) {
                fprintf(stderr, "seed_pool: removing %s failed with status %u\n", item.file_name.c_str(), st);
                ok = false;
            }
        }

        // Read back what this data store holds, as an administrator sees it.
        std::vector<appdb::app_catalog_item> found;
        const std::string all = appdb::to_query_by_backup_id("clientA", "daily", "*");
        if (catalog->find_catalog("", appdb::APP_ROLE_ADMIN, all, found) == CR_STATUS_OK) {
            printf("data store %u: clientA/daily holds %zu items\n", dsid, found.size());
        } else {
            ok = false;
        }
    }
    printf("seed_pool: stored %u items below %s/databases\n", stored, root.c_str());
    if (shadow) printf("seed_pool: shadow copies and journals below %s\n", shadow->shadow_path.c_str());
    return ok ? 0 : 1;
}
