/* The query sequences both sides of a query comparison run: the k-th query of
 * a kind over a database of `rows` generated rows (bench_make_row 0 ..
 * rows-1), and how many rows it must return. Keys jump around the table
 * (stride 7919) so that no two neighbouring queries read the same pages.
 *
 *   id     backupid = B..., one backup: 100 rows
 *   glob   backupid GLOB 'B....*', ten backups: 1,000 rows, by start time
 *   name   name = file name: 1 row
 *   range  start time within 1,000 seconds: 1,000 rows, by start time (the
 *          start time has no index: every query reads the whole table) */
#ifndef BENCH_BENCH_QUERY_H_
#define BENCH_BENCH_QUERY_H_

#include "bench_catalog.h"

typedef struct bench_query {
    char key[96];      /* backup id, pattern or file name */
    int64_t start, stop; /* range */
    long expect;       /* rows it must return */
} bench_query;

/* 0, or -1 for an unknown kind or a database too small for it. */
static inline int bench_make_query(const char* kind, long rows, long k, bench_query* q) {
    const long backups = rows / BENCH_ROWS_PER_BACKUP;
    const long pick = k * 7919L;
    q->key[0] = '\0';
    q->start = q->stop = 0;
    if (strcmp(kind, "id") == 0) {
        if (backups < 1) return -1;
        snprintf(q->key, sizeof(q->key), "B%ld", 100000 + pick % backups);
        q->expect = BENCH_ROWS_PER_BACKUP;
    } else if (strcmp(kind, "glob") == 0) {
        if (backups < 10) return -1;
        snprintf(q->key, sizeof(q->key), "B%ld*", (100000 + pick % (backups - backups % 10)) / 10);
        q->expect = 10 * BENCH_ROWS_PER_BACKUP;
    } else if (strcmp(kind, "name") == 0) {
        if (rows < 1) return -1;
        bench_file_name(pick % rows, q->key, sizeof(q->key));
        q->expect = 1;
    } else if (strcmp(kind, "range") == 0) {
        if (rows < 1000) return -1;
        q->start = BENCH_FIRST_START_TIME + pick % (rows - 999);
        q->stop = q->start + 999;
        q->expect = 1000;
    } else {
        return -1;
    }
    return 0;
}

static inline const char* bench_query_sql(const char* kind) {
    if (strcmp(kind, "id") == 0) return BENCH_SELECT_ID_SQL;
    if (strcmp(kind, "glob") == 0) return BENCH_SELECT_ID_GLOB_SQL;
    if (strcmp(kind, "name") == 0) return BENCH_SELECT_NAME_SQL;
    return BENCH_SELECT_RANGE_SQL;
}

#endif /* BENCH_BENCH_QUERY_H_ */
