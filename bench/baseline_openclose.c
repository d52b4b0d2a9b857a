/* baseline_openclose DBROOT NDBS COUNT
 *
 * What a program without a connection cache does for every operation: open
 * the database file (read-write, never create), set the busy timeout and
 * extended result codes as the catalog does, and close it again; COUNT times,
 * going round the databases of client0000 .. client(NDBS-1). Reports the time
 * of the loop. */
#include "bench_catalog.h"

int main(int argc, char** argv) {
    long ndbs, count, i;
    char** files;
    int64_t start;
    if (argc != 4) {
        fprintf(stderr, "usage: baseline_openclose DBROOT NDBS COUNT\n");
        return 2;
    }
    ndbs = atol(argv[2]);
    count = atol(argv[3]);
    if (ndbs < 1) return 2;
    files = (char**)malloc(sizeof(char*) * (size_t)ndbs);
    for (i = 0; i < ndbs; ++i) {
        files[i] = (char*)malloc(4096);
        snprintf(files[i], 4096, "%s/databases/application/%d/client%04ld/%s/app.db", argv[1], BENCH_DSID, i,
                 BENCH_POLICY);
    }
    start = bench_now_ns();
    for (i = 0; i < count; ++i) {
        sqlite3* db = NULL;
        if (sqlite3_open_v2(files[i % ndbs], &db, SQLITE_OPEN_READWRITE, NULL) != SQLITE_OK) {
            fprintf(stderr, "baseline_openclose: cannot open %s\n", files[i % ndbs]);
            return 1;
        }
        sqlite3_busy_timeout(db, 10000);
        sqlite3_extended_result_codes(db, 1);
        sqlite3_close(db);
    }
    bench_report(bench_now_ns() - start, count);
    for (i = 0; i < ndbs; ++i) free(files[i]);
    free(files);
    return 0;
}
