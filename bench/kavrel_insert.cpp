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

#include "bench_item.h"

int main(int argc, char** argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: kavrel_insert 1|2 DBROOT COUNT\n");
        return 2;
    }
    const int type = atoi(argv[1]);
    const std::string root = argv[2];
    const long count = atol(argv[3]);

    std::unique_ptr<CatalogShadowContext> ctx;
    std::unique_ptr<appdb::catalog_application> app = bench_open_catalog(type, root, &ctx);
    if (!app) return 1;

    std::vector<std::string> lines;
    for (long i = 0; i <= count; ++i) {
        bench_row r;
        bench_make_row(i, &r);
        lines.push_back(bench_item(r, "client0000").to_string());
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
