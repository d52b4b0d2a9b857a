/* Shared by the comparison programs of bench/: the catalog's on-disk format
 * (schema, column order, item checksum, line form) written out independently
 * of the library, the rows every generator writes, and a clock.
 *
 * Plain C, usable from C++ as well. The baselines include only this, SQLite
 * and zlib: they are what a program that knows the format would do, with no
 * library in between. */
#ifndef BENCH_BENCH_CATALOG_H_
#define BENCH_BENCH_CATALOG_H_

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <sqlite3.h>
#include <zlib.h>

/* The table and index exactly as a catalog database holds them. */
#define BENCH_CREATE_TABLE_SQL                                                                     \
    "CREATE TABLE catalog (version INTEGER,     name TEXT PRIMARY KEY,     filename TEXT,     "    \
    "filelen INTEGER,     backupid TEXT,     policy_type INTEGER,     schedule_type INTEGER,     " \
    "frag_nums INTEGER,     app_id TEXT,     dataobject TEXT,     backup_app_expire_time INTEGER," \
    "     backup_orvo_expire_time INTEGER,     backup_start_time INTEGER,     backup_stop_time "   \
    "INTEGER,     owner TEXT,     owner_role INTEGER,     description TEXT,     reserver0 TEXT,"   \
    "     reserver1 TEXT,     reserver2 TEXT,     reserver3 TEXT,     reserver4 TEXT,     "        \
    "reserver5 TEXT,     reserver6 TEXT,     reserver7 TEXT,     reserver8 TEXT,     reserver9 "   \
    "TEXT,     crc INTEGER)"
#define BENCH_CREATE_INDEX_SQL "CREATE INDEX IF NOT EXISTS catalog_backupid ON catalog(backupid)"
#define BENCH_INSERT_SQL                                                                           \
    "INSERT INTO catalog VALUES( ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "  \
    "?, ?, ?, ?, ?, ?, ?)"
/* The text of a journalled insert (sqlite3_snprintf format). */
#define BENCH_INSERT_LITERAL_FORMAT                                                                \
    "INSERT INTO catalog VALUES (%u, %Q, %Q, %llu, %Q, %u, %u, %u, %Q, %Q, %llu, %llu, %llu, "     \
    "%llu, %Q, %u, %Q, %Q, %Q, %Q, %Q, %Q, %Q, %Q, %Q, %Q, %Q, %u)"

/* The statements the catalog prepares for its four query kinds. */
#define BENCH_SELECT_ID_SQL "SELECT * FROM catalog WHERE backupid = ?"
#define BENCH_SELECT_ID_GLOB_SQL \
    "SELECT * FROM catalog WHERE backupid GLOB ? ORDER BY backup_start_time ASC"
#define BENCH_SELECT_NAME_SQL "SELECT * FROM catalog WHERE name = ?"
#define BENCH_SELECT_RANGE_SQL                                                          \
    "SELECT * FROM catalog WHERE backup_start_time >= ? and backup_start_time <= ? " \
    "ORDER BY backup_start_time ASC"

/* Layout of the generated trees: DBROOT/databases/application/1/CLIENT/daily. */
#define BENCH_DSID 1
#define BENCH_POLICY "daily"
#define BENCH_ROWS_PER_BACKUP 100
#define BENCH_FIRST_START_TIME 1700000000LL

/* Row i of a generated database: about 200 bytes of text, as an application
 * backup item usually carries; a new backup id every 100 rows, start times
 * ascending. */
typedef struct bench_row {
    uint32_t version;
    char file_name[96];
    uint64_t file_len;
    char backup_id[24];
    uint32_t policy_type;
    uint32_t schedule_type;
    uint32_t frag_nums;
    const char* app_id;
    char data_object[64];
    int64_t app_expire_time;
    int64_t orvo_expire_time;
    int64_t backup_start_time;
    int64_t backup_stop_time;
    const char* owner;
    uint32_t owner_role;
    const char* description;
    const char* reserver[10];
} bench_row;

static inline void bench_file_name(long i, char* out, size_t size) {
    snprintf(out, size, "/u01/app/oracle/fast_recovery_area/ORCL/archivelog/o1_mf_1_%ld.arc", i);
}

static inline void bench_backup_id(long i, char* out, size_t size) {
    snprintf(out, size, "B%ld", 100000 + i / BENCH_ROWS_PER_BACKUP);
}

static inline void bench_make_row(long i, bench_row* r) {
    int k;
    r->version = 1;
    bench_file_name(i, r->file_name, sizeof(r->file_name));
    r->file_len = 268435456ULL + (uint64_t)i;
    bench_backup_id(i, r->backup_id, sizeof(r->backup_id));
    r->policy_type = 4;
    r->schedule_type = 1;
    r->frag_nums = 2;
    r->app_id = "ORCL";
    snprintf(r->data_object, sizeof(r->data_object), "archivelog thread 1 sequence %ld", i);
    r->app_expire_time = 1702592000;
    r->orvo_expire_time = 1702592000;
    r->backup_start_time = BENCH_FIRST_START_TIME + i;
    r->backup_stop_time = BENCH_FIRST_START_TIME + 420 + i;
    r->owner = "oracle";
    r->owner_role = 4;
    r->description = "nightly archive log backup, level 0";
    for (k = 0; k < 10; ++k) r->reserver[k] = "";
}

/* The item checksum: Adler-32 from 1 over version (4 bytes LE), file name,
 * file_len (8 LE), backup id, policy_type, schedule_type, frag_nums (4 LE
 * each), app_id, data_object, the four times (8 LE each), owner, owner_role
 * (4 LE), description and reserver0..9; text without terminators, no
 * separators. Texts are given with their lengths, as they come from a row. */
typedef struct bench_crc_input {
    uint32_t version;
    const char* file_name;
    size_t file_name_len;
    uint64_t file_len;
    const char* backup_id;
    size_t backup_id_len;
    uint32_t policy_type, schedule_type, frag_nums;
    const char* app_id;
    size_t app_id_len;
    const char* data_object;
    size_t data_object_len;
    int64_t times[4];
    const char* owner;
    size_t owner_len;
    uint32_t owner_role;
    const char* tail[11]; /* description, reserver0..9 */
    size_t tail_len[11];
} bench_crc_input;

static inline unsigned char* bench_put_le(unsigned char* p, uint64_t v, int n) {
    int k;
    for (k = 0; k < n; ++k) *p++ = (unsigned char)(v >> (8 * k));
    return p;
}

static inline unsigned char* bench_put_text(unsigned char* p, const char* s, size_t n) {
    if (n > 0) memcpy(p, s, n);
    return p + n;
}

/* Lays the checksummed bytes out in `buf` (large enough: 64 + all text) and
 * returns their Adler-32. */
static inline uint32_t bench_crc(const bench_crc_input* in, unsigned char* buf) {
    unsigned char* p = buf;
    int k;
    p = bench_put_le(p, in->version, 4);
    p = bench_put_text(p, in->file_name, in->file_name_len);
    p = bench_put_le(p, in->file_len, 8);
    p = bench_put_text(p, in->backup_id, in->backup_id_len);
    p = bench_put_le(p, in->policy_type, 4);
    p = bench_put_le(p, in->schedule_type, 4);
    p = bench_put_le(p, in->frag_nums, 4);
    p = bench_put_text(p, in->app_id, in->app_id_len);
    p = bench_put_text(p, in->data_object, in->data_object_len);
    for (k = 0; k < 4; ++k) p = bench_put_le(p, (uint64_t)in->times[k], 8);
    p = bench_put_text(p, in->owner, in->owner_len);
    p = bench_put_le(p, in->owner_role, 4);
    for (k = 0; k < 11; ++k) p = bench_put_text(p, in->tail[k], in->tail_len[k]);
    return (uint32_t)adler32(1L, buf, (uInt)(p - buf));
}

static inline uint32_t bench_row_crc(const bench_row* r) {
    bench_crc_input in;
    unsigned char buf[1024];
    int k;
    in.version = r->version;
    in.file_name = r->file_name;
    in.file_name_len = strlen(r->file_name);
    in.file_len = r->file_len;
    in.backup_id = r->backup_id;
    in.backup_id_len = strlen(r->backup_id);
    in.policy_type = r->policy_type;
    in.schedule_type = r->schedule_type;
    in.frag_nums = r->frag_nums;
    in.app_id = r->app_id;
    in.app_id_len = strlen(r->app_id);
    in.data_object = r->data_object;
    in.data_object_len = strlen(r->data_object);
    in.times[0] = r->app_expire_time;
    in.times[1] = r->orvo_expire_time;
    in.times[2] = r->backup_start_time;
    in.times[3] = r->backup_stop_time;
    in.owner = r->owner;
    in.owner_len = strlen(r->owner);
    in.owner_role = r->owner_role;
    in.tail[0] = r->description;
    for (k = 0; k < 10; ++k) in.tail[k + 1] = r->reserver[k];
    for (k = 0; k < 11; ++k) in.tail_len[k] = strlen(in.tail[k]);
    return bench_crc(&in, buf);
}

/* Binds row r to the 28 parameters of BENCH_INSERT_SQL (the crc column is
 * bound as a 32-bit integer, as the catalog does). SQLITE_OK or the first
 * failing bind's code. */
static inline int bench_bind_row(sqlite3_stmt* s, const bench_row* r) {
    int rc = SQLITE_OK, k = 0, j;
#define BENCH_BIND(call) \
    if (rc == SQLITE_OK) rc = (call)
    BENCH_BIND(sqlite3_bind_int(s, ++k, (int)r->version));
    BENCH_BIND(sqlite3_bind_text(s, ++k, r->file_name, -1, SQLITE_STATIC));
    BENCH_BIND(sqlite3_bind_text(s, ++k, r->file_name, -1, SQLITE_STATIC));
    BENCH_BIND(sqlite3_bind_int64(s, ++k, (sqlite3_int64)r->file_len));
    BENCH_BIND(sqlite3_bind_text(s, ++k, r->backup_id, -1, SQLITE_STATIC));
    BENCH_BIND(sqlite3_bind_int(s, ++k, (int)r->policy_type));
    BENCH_BIND(sqlite3_bind_int(s, ++k, (int)r->schedule_type));
    BENCH_BIND(sqlite3_bind_int(s, ++k, (int)r->frag_nums));
    BENCH_BIND(sqlite3_bind_text(s, ++k, r->app_id, -1, SQLITE_STATIC));
    BENCH_BIND(sqlite3_bind_text(s, ++k, r->data_object, -1, SQLITE_STATIC));
    BENCH_BIND(sqlite3_bind_int64(s, ++k, r->app_expire_time));
    BENCH_BIND(sqlite3_bind_int64(s, ++k, r->orvo_expire_time));
    BENCH_BIND(sqlite3_bind_int64(s, ++k, r->backup_start_time));
    BENCH_BIND(sqlite3_bind_int64(s, ++k, r->backup_stop_time));
    BENCH_BIND(sqlite3_bind_text(s, ++k, r->owner, -1, SQLITE_STATIC));
    BENCH_BIND(sqlite3_bind_int(s, ++k, (int)r->owner_role));
    BENCH_BIND(sqlite3_bind_text(s, ++k, r->description, -1, SQLITE_STATIC));
    for (j = 0; j < 10; ++j) BENCH_BIND(sqlite3_bind_text(s, ++k, r->reserver[j], -1, SQLITE_STATIC));
    BENCH_BIND(sqlite3_bind_int(s, ++k, (int)bench_row_crc(r)));
#undef BENCH_BIND
    return rc;
}

/* mkdir -p: 0 or -1 with errno set. */
static inline int bench_make_dirs(const char* path) {
    char buf[4096];
    size_t n = strlen(path), k;
    if (n >= sizeof(buf)) return -1;
    memcpy(buf, path, n + 1);
    for (k = 1; k <= n; ++k) {
        if (buf[k] == '/' || buf[k] == '\0') {
            char c = buf[k];
            buf[k] = '\0';
            if (mkdir(buf, 0755) != 0 && errno != EEXIST) return -1;
            buf[k] = c;
        }
    }
    return 0;
}

/* sqlite3_exec that reports its failure on standard error. */
static inline int bench_exec(sqlite3* db, const char* sql) {
    char* err = NULL;
    int rc = sqlite3_exec(db, sql, NULL, NULL, &err);
    if (rc != SQLITE_OK) fprintf(stderr, "bench: %s: %s\n", sql, err ? err : sqlite3_errstr(rc));
    sqlite3_free(err);
    return rc;
}

/* Writes a new catalog database `file` (replacing any) holding rows first ..
 * first+rows-1, in one transaction with syncs off: a generator's shortcut, the
 * result is an ordinary rollback-journal database. 0 or 1 (reported). */
static inline int bench_write_database(const char* file, long first, long rows) {
    sqlite3* db = NULL;
    sqlite3_stmt* s = NULL;
    bench_row r;
    long i;
    int rc;
    remove(file);
    if (sqlite3_open(file, &db) != SQLITE_OK) {
        fprintf(stderr, "bench: cannot open %s\n", file);
        return 1;
    }
    rc = bench_exec(db, "PRAGMA synchronous=OFF; PRAGMA journal_mode=MEMORY;");
    if (rc == SQLITE_OK) rc = bench_exec(db, BENCH_CREATE_TABLE_SQL);
    if (rc == SQLITE_OK) rc = bench_exec(db, BENCH_CREATE_INDEX_SQL);
    if (rc == SQLITE_OK) rc = bench_exec(db, "BEGIN");
    if (rc == SQLITE_OK) rc = sqlite3_prepare_v2(db, BENCH_INSERT_SQL, -1, &s, NULL);
    for (i = first; rc == SQLITE_OK && i < first + rows; ++i) {
        bench_make_row(i, &r);
        rc = bench_bind_row(s, &r);
        if (rc == SQLITE_OK && sqlite3_step(s) != SQLITE_DONE) rc = sqlite3_errcode(db);
        sqlite3_reset(s);
    }
    sqlite3_finalize(s);
    if (rc == SQLITE_OK) rc = bench_exec(db, "COMMIT");
    if (rc != SQLITE_OK) fprintf(stderr, "bench: %s: %s\n", file, sqlite3_errmsg(db));
    sqlite3_close(db);
    return rc == SQLITE_OK ? 0 : 1;
}

/* Monotonic clock in nanoseconds. */
static inline int64_t bench_now_ns(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

/* What every timed program prints on standard output when its measured part
 * is over; the runner reads it. */
static inline void bench_report(int64_t elapsed_ns, long ops) {
    printf("elapsed_ns=%lld ops=%ld\n", (long long)elapsed_ns, ops);
    fflush(stdout);
}

#endif /* BENCH_BENCH_CATALOG_H_ */
