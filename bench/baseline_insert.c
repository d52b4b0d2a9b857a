/* baseline_insert DBROOT COUNT
 *
 * What update_catalog does for one new row, done by a plain C program: a
 * loop of single-row INSERTs through one prepared statement, each committed
 * on its own (autocommit), into DBROOT/databases/application/1/client0000/
 * daily/app.db with the catalog's schema and SQLite's default settings (the
 * library's: rollback journal, full sync). The database is created and its
 * first row inserted before the clock starts, as on the library's side;
 * then COUNT rows are inserted and the time is reported. */
#include "bench_catalog.h"

int main(int argc, char** argv) {
    char dir[4096], file[4200];
    sqlite3* db = NULL;
    sqlite3_stmt* s = NULL;
    bench_row* rows;
    long count, i;
    int64_t start;
    if (argc != 3) {
        fprintf(stderr, "usage: baseline_insert DBROOT COUNT\n");
        return 2;
    }
    count = atol(argv[2]);
    snprintf(dir, sizeof(dir), "%s/databases/application/%d/client0000/%s", argv[1], BENCH_DSID, BENCH_POLICY);
    snprintf(file, sizeof(file), "%s/app.db", dir);
    if (bench_make_dirs(dir) != 0 || sqlite3_open(file, &db) != SQLITE_OK) {
        fprintf(stderr, "baseline_insert: cannot open %s\n", file);
        return 1;
    }
    sqlite3_busy_timeout(db, 10000);
    if (bench_exec(db, BENCH_CREATE_TABLE_SQL) != SQLITE_OK || bench_exec(db, BENCH_CREATE_INDEX_SQL) != SQLITE_OK ||
        sqlite3_prepare_v2(db, BENCH_INSERT_SQL, -1, &s, NULL) != SQLITE_OK) {
        return 1;
    }
    rows = (bench_row*)malloc(sizeof(bench_row) * (size_t)(count + 1));
    if (rows == NULL) return 1;
    for (i = 0; i <= count; ++i) bench_make_row(i, &rows[i]);

    start = 0;
    for (i = 0; i <= count; ++i) {
        if (i == 1) start = bench_now_ns();
        if (bench_bind_row(s, &rows[i]) != SQLITE_OK || sqlite3_step(s) != SQLITE_DONE) {
            fprintf(stderr, "baseline_insert: %s\n", sqlite3_errmsg(db));
            return 1;
        }
        sqlite3_reset(s);
    }
    bench_report(bench_now_ns() - start, count);
    sqlite3_finalize(s);
    sqlite3_close(db);
    free(rows);
    return 0;
}
