// kavrel_insert_procs TYPE DBROOT COUNT PROCS DBS
//
// Aggregate insert throughput of several processes: PROCS processes, each
// with its own catalog (and for TYPE 2 its own shadow context), insert COUNT
// rows between them, COUNT / PROCS each, one row per update_catalog call;
// process p writes into database p % DBS (clients client0000 ...). The
// databases are created (with their first shadow copy) before the clock
// starts, and every process has built its catalog and its rows before it is
// released; the time is from the release to the end of the last process.
// Rows as kavrel_insert's.
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "bench_item.h"

namespace {

// One inserting process: builds its catalog and lines, says so on `ready`,
// waits for the release on `go`, inserts. Exit status 0 when every insert
// succeeded.
int insert_part(int type, const std::string& root, long first, long count, long db, int ready, int go) {
    std::unique_ptr<CatalogShadowContext> ctx;
    std::unique_ptr<appdb::catalog_application> app = bench_open_catalog(type, root, &ctx);
    if (!app) return 1;
    std::vector<std::string> lines;
    for (long i = first; i < first + count; ++i) {
        bench_row r;
        bench_make_row(i, &r);
        lines.push_back(bench_item(r, bench_client_name(db)).to_string());
    }
    char byte = 'r';
    if (write(ready, &byte, 1) != 1 || read(go, &byte, 1) != 1) return 1;
    for (const std::string& line : lines) {
        if (app->update_catalog("oracle", appdb::APP_ROLE_APP, line) != CR_STATUS_OK) {
            fprintf(stderr, "kavrel_insert_procs: update_catalog failed\n");
            return 1;
        }
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        fprintf(stderr, "usage: kavrel_insert_procs 1|2 DBROOT COUNT PROCS DBS\n");
        return 2;
    }
    const int type = atoi(argv[1]);
    const std::string root = argv[2];
    const long count = atol(argv[3]);
    const long procs = atol(argv[4]);
    const long dbs = atol(argv[5]);
    if (count < 1 || procs < 1 || dbs < 1 || dbs > procs) {
        fprintf(stderr, "kavrel_insert_procs: need COUNT >= 1 and 1 <= DBS <= PROCS\n");
        return 2;
    }

    // Each database made, with its first row (numbered past the measured ones).
    {
        std::unique_ptr<CatalogShadowContext> ctx;
        std::unique_ptr<appdb::catalog_application> app = bench_open_catalog(type, root, &ctx);
        if (!app || !bench_make_databases(*app, count, dbs, "kavrel_insert_procs")) return 1;
    }

    int ready[2];
    int go[2];
    if (pipe(ready) != 0 || pipe(go) != 0) return 1;
    std::vector<pid_t> children;
    const long per = count / procs;
    for (long p = 0; p < procs; ++p) {
        const long part = p == procs - 1 ? count - per * (procs - 1) : per;
        fflush(stdout);
        const pid_t pid = fork();
        if (pid < 0) return 1;
        if (pid == 0) _exit(insert_part(type, root, p * per, part, p % dbs, ready[1], go[0]));
        children.push_back(pid);
    }
    char byte = 0;
    for (long p = 0; p < procs; ++p) {
        if (read(ready[0], &byte, 1) != 1) return 1;
    }
    const int64_t start = bench_now_ns();
    for (long p = 0; p < procs; ++p) {
        if (write(go[1], "g", 1) != 1) return 1;
    }
    int failed = 0;
    for (pid_t pid : children) {
        int status = 0;
        if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) ++failed;
    }
    const int64_t elapsed = bench_now_ns() - start;
    if (failed != 0) {
        fprintf(stderr, "kavrel_insert_procs: %d processes failed\n", failed);
        return 1;
    }
    bench_report(elapsed, count);
    return 0;
}
