// The rows of bench_make_row as catalog items, for the programs that insert
// through the library.
#ifndef BENCH_BENCH_ITEM_H_
#define BENCH_BENCH_ITEM_H_

#include <stdio.h>

#include <memory>
#include <string>

#include "appdb/app_catalog_item.h"
#include "appdb/catalog_application_base.h"
#include "bench_catalog.h"
#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/ConfigFileShadowProxy.h"

// Row `r` as an item of `client`, policy BENCH_POLICY.
inline appdb::app_catalog_item bench_item(const bench_row& r, const std::string& client) {
    appdb::app_catalog_item it;
    it.version = r.version;
    it.file_name = r.file_name;
    it.file_len = r.file_len;
    it.backup_id = r.backup_id;
    it.policy = BENCH_POLICY;
    it.policy_type = r.policy_type;
    it.schedule_type = r.schedule_type;
    it.frag_nums = r.frag_nums;
    it.client = client;
    it.app_id = r.app_id;
    it.data_object = r.data_object;
    it.app_expire_time = r.app_expire_time;
    it.orvo_expire_time = r.orvo_expire_time;
    it.backup_start_time = r.backup_start_time;
    it.backup_stop_time = r.backup_stop_time;
    it.owner = r.owner;
    it.owner_role = r.owner_role;
    it.description = r.description;
    return it;
}

// The catalog of data store BENCH_DSID below DBROOT/databases: TYPE 1 plain,
// TYPE 2 shadow-protected, with a shadow context on DBROOT/pool.cfg put into
// `ctx` (its identity file made when missing). Null, reported, on failure.
inline std::unique_ptr<appdb::catalog_application> bench_open_catalog(int type, const std::string& root,
                                                                     std::unique_ptr<CatalogShadowContext>* ctx) {
    if (type == 2) {
        CatalogShadowIdentity((root + "/storage/catalogshadow").c_str()).create_identity();
        ctx->reset(new CatalogShadowContext(new ConfigFileShadowProxy(root + "/pool.cfg", root),
                                            new CatalogDirectoryLock()));
        if ((*ctx)->init() != CR_STATUS_OK) {
            fprintf(stderr, "bench: shadow context init failed\n");
            return nullptr;
        }
    }
    std::unique_ptr<appdb::catalog_application> app(appdb::catalog_application_factory::create_catalog(
        BENCH_DSID, root + "/databases", type == 2 ? appdb::APP_D_CATALOG_SHADOW : appdb::APP_D_CATALOG,
        ctx->get(), 5));
    if (!app) fprintf(stderr, "bench: no catalog of type %d\n", type);
    return app;
}

// The client of database `db` of the programs that write several:
// client0000, client0001, ...
inline std::string bench_client_name(long db) {
    char name[32];
    snprintf(name, sizeof(name), "client%04ld", db);
    return name;
}

// Makes databases 0 .. dbs-1 through `app`, each with its first row (rows
// count, count + 1, ..., numbered past the measured ones). False, reported
// for `program`, when one fails.
inline bool bench_make_databases(appdb::catalog_application& app, long count, long dbs, const char* program) {
    for (long db = 0; db < dbs; ++db) {
        bench_row r;
        bench_make_row(count + db, &r);
        if (app.update_catalog("oracle", appdb::APP_ROLE_APP, bench_item(r, bench_client_name(db)).to_string()) !=
            CR_STATUS_OK) {
            fprintf(stderr, "%s: creating database %ld failed\n", program, db);
            return false;
        }
    }
    return true;
}

#endif  // BENCH_BENCH_ITEM_H_
