// kavrel_query DBROOT KIND ROWS COUNT
//
// find_catalog through the library (plain catalog, cache of 5, administrator)
// on DBROOT/databases/application/1/client0000/daily/app.db: the queries of
// bench_query.h, as query strings, each result checked for its row count.
// One query runs before the clock starts (it opens the database into the
// cache, as a running service has it); then COUNT queries are timed.
#include <memory>
#include <string>
#include <vector>

#include "appdb/catalog_application_base.h"
#include "bench_query.h"

int main(int argc, char** argv) {
    if (argc != 5) {
        fprintf(stderr, "usage: kavrel_query DBROOT id|glob|name|range ROWS COUNT\n");
        return 2;
    }
    const std::string root = argv[1];
    const std::string kind = argv[2];
    const long rows = atol(argv[3]);
    const long count = atol(argv[4]);

    std::vector<std::string> texts;
    std::vector<long> expect;
    for (long k = 0; k <= count; ++k) {
        bench_query q;
        if (bench_make_query(kind.c_str(), rows, k, &q) != 0) {
            fprintf(stderr, "kavrel_query: no %s query on %ld rows\n", kind.c_str(), rows);
            return 2;
        }
        if (kind == "range") {
            texts.push_back("time_range|client0000," BENCH_POLICY "," + std::to_string(q.start) + "," +
                            std::to_string(q.stop));
        } else if (kind == "name") {
            texts.push_back(appdb::to_query_by_file_name("client0000", BENCH_POLICY, q.key));
        } else {
            texts.push_back(appdb::to_query_by_backup_id("client0000", BENCH_POLICY, q.key));
        }
        expect.push_back(q.expect);
    }

    std::unique_ptr<appdb::catalog_application> app(appdb::catalog_application_factory::create_catalog(
        BENCH_DSID, root + "/databases", appdb::APP_D_CATALOG, nullptr, 5));
    if (!app) return 1;
    std::vector<appdb::app_catalog_item> items;
    int64_t start = 0;
    for (long k = 0; k <= count; ++k) {
        if (k == 1) start = bench_now_ns();
        items.clear();
        if (app->find_catalog("", appdb::APP_ROLE_ADMIN, texts[k], items) != CR_STATUS_OK ||
            static_cast<long>(items.size()) != expect[k]) {
            fprintf(stderr, "kavrel_query: %s returned %zu rows, not %ld\n", texts[k].c_str(), items.size(),
                    expect[k]);
            return 1;
        }
    }
    bench_report(bench_now_ns() - start, count);
    return 0;
}
