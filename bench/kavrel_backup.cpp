// kavrel_backup DBROOT DIR
//
// One shadow backup of the application database in DIR (a catalog directory
// below DBROOT/databases/application) through a shadow context on
// DBROOT/pool.cfg, as a service runs it: CatalogShadowContext::backup, which
// copies the file under a read lock while computing its Adler-32, syncs the
// copy, runs SQLite's integrity check on it and makes it the newest version.
// The whole process is timed from outside; the exit status tells success.
#include <memory>
#include <string>

#include "bench_catalog.h"
#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/ConfigFileShadowProxy.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: kavrel_backup DBROOT DIR\n");
        return 2;
    }
    const std::string root = argv[1];
    CatalogShadowIdentity((root + "/storage/catalogshadow").c_str()).create_identity();
    CatalogShadowContext ctx(new ConfigFileShadowProxy(root + "/pool.cfg", root), new CatalogDirectoryLock());
    if (ctx.init() != CR_STATUS_OK) {
        fprintf(stderr, "kavrel_backup: shadow context init failed\n");
        return 1;
    }
    if (ctx.backup(argv[2], "appdb") != CR_STATUS_OK) {
        fprintf(stderr, "kavrel_backup: backup of %s failed\n", argv[2]);
        return 1;
    }
    return 0;
}
