/* baseline_query DBROOT KIND ROWS COUNT [prepare]
 *
 * The catalog's query of KIND (bench_query.h) done by a plain C program on
 * DBROOT/databases/application/1/client0000/daily/app.db: one connection, the
 * same SELECT prepared once, and for each query bind, step and decode every
 * row into a record (numbers, and the text columns copied into one block per
 * row), kept until the query is done. No checksum check, no access rule. One
 * query runs before the clock starts; then COUNT queries are timed. With
 * "prepare" the statement is prepared and finalized for every query instead,
 * as the catalog does. */
#include "bench_query.h"

/* A decoded row: the numbers and the 16 text columns the catalog decodes. */
typedef struct c_item {
    uint32_t version, policy_type, schedule_type, frag_nums, owner_role;
    uint64_t file_len;
    int64_t times[4];
    const char* text[16]; /* filename, backupid, app_id, dataobject, owner, description, reserver0..9 */
    char* block;
} c_item;

static const int k_text_columns[16] = {2, 4, 8, 9, 14, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26};

static int decode(sqlite3_stmt* s, c_item* it) {
    size_t total = 0, len[16];
    int k;
    char* p;
    for (k = 0; k < 16; ++k) {
        len[k] = (size_t)sqlite3_column_bytes(s, k_text_columns[k]);
        total += len[k] + 1;
    }
    it->block = p = (char*)malloc(total);
    if (p == NULL) return -1;
    for (k = 0; k < 16; ++k) {
        const unsigned char* t = sqlite3_column_text(s, k_text_columns[k]);
        if (len[k] > 0) memcpy(p, t, len[k]);
        p[len[k]] = '\0';
        it->text[k] = p;
        p += len[k] + 1;
    }
    it->version = (uint32_t)sqlite3_column_int(s, 0);
    it->file_len = (uint64_t)sqlite3_column_int64(s, 3);
    it->policy_type = (uint32_t)sqlite3_column_int(s, 5);
    it->schedule_type = (uint32_t)sqlite3_column_int(s, 6);
    it->frag_nums = (uint32_t)sqlite3_column_int(s, 7);
    for (k = 0; k < 4; ++k) it->times[k] = sqlite3_column_int64(s, 10 + k);
    it->owner_role = (uint32_t)sqlite3_column_int(s, 15);
    return 0;
}

/* Runs one query; the number of rows, or -1. */
static long run_query(sqlite3_stmt* s, const char* kind, const bench_query* q, c_item** items, long* cap) {
    long n = 0, i;
    int rc;
    if (strcmp(kind, "range") == 0) {
        /* The catalog binds the range as 32-bit integers. */
        sqlite3_bind_int(s, 1, (int)q->start);
        sqlite3_bind_int(s, 2, (int)q->stop);
    } else {
        sqlite3_bind_text(s, 1, q->key, -1, SQLITE_STATIC);
    }
    while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
        if (n == *cap) {
            *cap = *cap ? 2 * *cap : 64;
            *items = (c_item*)realloc(*items, sizeof(c_item) * (size_t)*cap);
            if (*items == NULL) return -1;
        }
        if (decode(s, &(*items)[n]) != 0) return -1;
        ++n;
    }
    sqlite3_reset(s);
    for (i = 0; i < n; ++i) free((*items)[i].block);
    return rc == SQLITE_DONE ? n : -1;
}

int main(int argc, char** argv) {
    char file[4096];
    const char* kind;
    long rows, count, k, cap = 0;
    sqlite3* db = NULL;
    sqlite3_stmt* s = NULL;
    c_item* items = NULL;
    bench_query* queries;
    int64_t start;
    int reprepare;
    if (argc != 5 && !(argc == 6 && strcmp(argv[5], "prepare") == 0)) {
        fprintf(stderr, "usage: baseline_query DBROOT id|glob|name|range ROWS COUNT [prepare]\n");
        return 2;
    }
    reprepare = argc == 6;
    kind = argv[2];
    rows = atol(argv[3]);
    count = atol(argv[4]);
    queries = (bench_query*)malloc(sizeof(bench_query) * (size_t)(count + 1));
    for (k = 0; k <= count; ++k) {
        if (bench_make_query(kind, rows, k, &queries[k]) != 0) {
            fprintf(stderr, "baseline_query: no %s query on %ld rows\n", kind, rows);
            return 2;
        }
    }
    snprintf(file, sizeof(file), "%s/databases/application/%d/client0000/%s/app.db", argv[1], BENCH_DSID,
             BENCH_POLICY);
    if (sqlite3_open_v2(file, &db, SQLITE_OPEN_READWRITE, NULL) != SQLITE_OK ||
        sqlite3_prepare_v2(db, bench_query_sql(kind), -1, &s, NULL) != SQLITE_OK) {
        fprintf(stderr, "baseline_query: %s: %s\n", file, sqlite3_errmsg(db));
        return 1;
    }
    sqlite3_busy_timeout(db, 10000);
    start = 0;
    for (k = 0; k <= count; ++k) {
        long n;
        if (k == 1) start = bench_now_ns();
        if (reprepare && k > 0) {
            sqlite3_finalize(s);
            if (sqlite3_prepare_v2(db, bench_query_sql(kind), -1, &s, NULL) != SQLITE_OK) return 1;
        }
        n = run_query(s, kind, &queries[k], &items, &cap);
        if (n != queries[k].expect) {
            fprintf(stderr, "baseline_query: %s query %ld returned %ld rows, not %ld\n", kind, k, n,
                    queries[k].expect);
            return 1;
        }
    }
    bench_report(bench_now_ns() - start, count);
    sqlite3_finalize(s);
    sqlite3_close(db);
    free(items);
    free(queries);
    return 0;
}
