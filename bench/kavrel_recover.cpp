// kavrel_recover DBROOT DIR
//
// Recovery of the lost application database in DIR through a shadow context
// on DBROOT/pool.cfg, as a service runs it: CatalogShadowContext::recover,
// which checks the version's and the journal's checksums, runs SQLite's
// integrity check on the version, copies it, replays its journal in one
// transaction, commits and renames the result into place. The whole process
// is timed from outside; the exit status tells success.
#include <string>

#include "bench_catalog.h"
#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/ConfigFileShadowProxy.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: kavrel_recover DBROOT DIR\n");
        return 2;
    }
    const std::string root = argv[1];
    CatalogShadowContext ctx(new ConfigFileShadowProxy(root + "/pool.cfg", root), new CatalogDirectoryLock());
    if (ctx.init() != CR_STATUS_OK) {
        fprintf(stderr, "kavrel_recover: shadow context init failed\n");
        return 1;
    }
    if (ctx.recover(argv[2], "appdb", 0) != CR_STATUS_OK) {
        fprintf(stderr, "kavrel_recover: recovery of %s failed\n", argv[2]);
        return 1;
    }
    return 0;
}
