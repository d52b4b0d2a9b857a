// kavrel_cache DBROOT NDBS COUNT
//
// The open-database cache's hit path, what a catalog operation does instead
// of opening its database: get_db and return_db, COUNT times, going round the
// databases of client0000 .. client(NDBS-1) (all idle in a cache of NDBS,
// opened before the clock starts). Reports the time of the loop.
#include <memory>

#include <string>
#include <vector>

#include "appdb/appdb_cache.h"
#include "bench_catalog.h"

int main(int argc, char** argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: kavrel_cache DBROOT NDBS COUNT\n");
        return 2;
    }
    const std::string root = argv[1];
    const long ndbs = atol(argv[2]);
    const long count = atol(argv[3]);
    if (ndbs < 1) return 2;

    appdb::appdb_cache cache(static_cast<unsigned>(ndbs));
    std::vector<std::string> keys;
    for (long i = 0; i < ndbs; ++i) {
        char dir[4096];
        snprintf(dir, sizeof(dir), "%s/databases/application/%d/client%04ld/%s", root.c_str(), BENCH_DSID, i,
                 BENCH_POLICY);
        keys.push_back(dir);
        std::unique_ptr<appdb::catalog_store> store;
        if (appdb::catalog_store::open(keys.back() + "/app.db", &store) != 0) {
            fprintf(stderr, "kavrel_cache: cannot open %s/app.db\n", dir);
            return 1;
        }
        if (!cache.return_db(keys.back(), cache.create_db(keys.back(), std::move(store)))) return 1;
    }

    const int64_t start = bench_now_ns();
    for (long i = 0; i < count; ++i) {
        const std::string& key = keys[static_cast<size_t>(i % ndbs)];
        appdb::appdb_value* v = cache.get_db(key);
        if (v == nullptr || !cache.return_db(key, v)) {
            fprintf(stderr, "kavrel_cache: cache miss for %s\n", key.c_str());
            return 1;
        }
    }
    bench_report(bench_now_ns() - start, count);
    return 0;
}
