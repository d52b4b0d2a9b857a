// kavrel_insert TYPE DBROOT COUNT
//
// update_catalog through the library, one row per call, as a service adds the
// items of a backup: TYPE 1 is the plain catalog, TYPE 2 the shadow-protected
// one (a shadow context on DBROOT/pool.cfg; every insert is also journalled
// and synced). The rows are those of baseline_insert, handed over in their
// line form, into client0000/daily below DBROOT/databases. The first insert
// creates the database (and, for TYPE 2, its first shadow copy) before the
// clock starts; then COUNT inserts are timed and reported.
#include <memory>
#include <string>
#include <vector>

#include "appdb/catalog_application.h"
#include "bench_catalog.h"
#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/ConfigFileShadowProxy.h"

namespace {

appdb::app_catalog_item to_item(const bench_row& r) {
    appdb::app_catalog_item it;
    it.version = r.version;
    it.file_name = r.file_name;
    it.file_len = r.file_len;
    it.backup_id = r.backup_id;
    it.policy = BENCH_POLICY;
    it.policy_type = r.policy_type;
    it.schedule_type = r.schedule_type;
    it.frag_nums = r.frag_nums;
    it.client = "client0000";
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

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: kavrel_insert 1|2 DBROOT COUNT\n");
        return 2;
    }
    const int type = atoi(argv[1]);
    const std::string root = argv[2];
    const long count = atol(argv[3]);

    std::unique_ptr<CatalogShadowContext> ctx;
    if (type == 2) {
        CatalogShadowIdentity((root + "/storage/catalogshadow").c_str()).create_identity();
        ctx.reset(new CatalogShadowContext(new ConfigFileShadowProxy(root + "/pool.cfg", root),
                                           new CatalogDirectoryLock()));
        if (ctx->init() != CR_STATUS_OK) {
            fprintf(stderr, "kavrel_insert: shadow context init failed\n");
            return 1;
        }
    }
    std::unique_ptr<appdb::catalog_application> app(appdb::catalog_application_factory::create_catalog(
        BENCH_DSID, root + "/databases", type == 2 ? appdb::APP_D_CATALOG_SHADOW : appdb::APP_D_CATALOG, ctx.get(),
        5));
    if (!app) return 1;

    std::vector<std::string> lines;
    for (long i = 0; i <= count; ++i) {
        bench_row r;
        bench_make_row(i, &r);
        lines.push_back(to_item(r).to_string());
    }

    int64_t start = 0;
    for (long i = 0; i <= count; ++i) {
        if (i == 1) start = bench_now_ns();
        if (app->update_catalog("oracle", appdb::APP_ROLE_APP, lines[i]) != CR_STATUS_OK) {
            fprintf(stderr, "kavrel_insert: update_catalog failed at row %ld\n", i);
            return 1;
        }
    }
    bench_report(bench_now_ns() - start, count);
    return 0;
}
