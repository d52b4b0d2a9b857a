/* baseline_list DBROOT [BACKUP_ID]
 * baseline_list --find DBROOT [--client GLOB] [--since TIME] [--summary]
 *
 * The listing of `kavrel -listall -dbpath DBROOT` done by a plain C program:
 * walk the tree, and for every directory DBROOT/databases/application/DSID/
 * CLIENT/POLICY open its app.db, step the statement kavrel runs for the
 * pattern "*", recompute each row's checksum with zlib over the documented
 * byte layout, compare it with the crc column, and print the same text:
 * "[dir]", one line per row, "total app catalog N" and an empty line. Rows are
 * printed as they are read. A checksum mismatch is reported on standard error
 * and makes the exit status 1.
 *
 * With --find, the same for `kavrel-find --dbpath DBROOT`: no "[dir]" and
 * total lines; client directories whose name does not match GLOB (SQLite's
 * GLOB) are not entered; --since selects rows whose backup started at or
 * after TIME inside the SELECT; --summary prints one line per catalog with a
 * row, "DSID|CLIENT|POLICY|ITEMS|BYTES|OLDEST|NEWEST|EARLIEST EXPIRY|", from
 * a GROUP BY that SQLite computes (no row is read or checksummed). It keeps
 * freed memory as kavrel-find does. */
#include <dirent.h>
#include <malloc.h>
#include <sys/stat.h>

#include "bench_catalog.h"

static int g_failed = 0;

/* A growing output line. */
typedef struct line_buf {
    char* data;
    size_t len, cap;
} line_buf;

static void need(line_buf* b, size_t more) {
    if (b->len + more <= b->cap) return;
    while (b->len + more > b->cap) b->cap = b->cap ? 2 * b->cap : 1024;
    b->data = (char*)realloc(b->data, b->cap);
    if (b->data == NULL) {
        fprintf(stderr, "baseline_list: out of memory\n");
        exit(1);
    }
}

static void put_text(line_buf* b, const char* s, size_t n) {
    need(b, n + 1);
    memcpy(b->data + b->len, s, n);
    b->len += n;
    b->data[b->len++] = '|';
}

static void put_number(line_buf* b, uint64_t v) {
    char tmp[24];
    int n = 0;
    need(b, 22);
    do {
        tmp[n++] = (char)('0' + v % 10);
        v /= 10;
    } while (v != 0);
    while (n > 0) b->data[b->len++] = tmp[--n];
    b->data[b->len++] = '|';
}

static const char* col_text(sqlite3_stmt* s, int i, size_t* n) {
    const char* t = (const char*)sqlite3_column_text(s, i);
    *n = t ? (size_t)sqlite3_column_bytes(s, i) : 0;
    return t ? t : "";
}

/* The backup id to list: "*" (every row) unless given; a pattern when it
   ends in "*", else an exact id, as the catalog's query chooses. */
static const char* g_backup_id = "*";

/* --find and its options. */
static int g_find = 0;
static const char* g_client = NULL;
static int g_since_set = 0;
static sqlite3_int64 g_since = 0;
static int g_summary = 0;

#define FIND_SQL "SELECT * FROM catalog ORDER BY backup_start_time ASC"
#define FIND_SINCE_SQL "SELECT * FROM catalog WHERE backup_start_time >= ? ORDER BY backup_start_time ASC"
#define SUMMARY_SQL                                                                              \
    "SELECT count(*), sum(filelen), min(backup_start_time), max(backup_start_time),"           \
    " min(CASE WHEN backup_app_expire_time > 0 THEN backup_app_expire_time END),"              \
    " min(CASE WHEN backup_orvo_expire_time > 0 THEN backup_orvo_expire_time END)"             \
    " FROM catalog GROUP BY NULL"

static void summarize_database(const char* file, const char* dsid, const char* client, const char* policy) {
    sqlite3* db = NULL;
    sqlite3_stmt* s = NULL;
    if (sqlite3_open_v2(file, &db, SQLITE_OPEN_READONLY, NULL) != SQLITE_OK ||
        sqlite3_prepare_v2(db, SUMMARY_SQL, -1, &s, NULL) != SQLITE_OK) {
        fprintf(stderr, "baseline_list: %s: %s\n", file, sqlite3_errmsg(db));
        g_failed = 1;
    } else if (sqlite3_step(s) == SQLITE_ROW && sqlite3_column_int64(s, 0) > 0) {
        char expiry[32] = "";
        int have_app = sqlite3_column_type(s, 4) != SQLITE_NULL;
        int have_orvo = sqlite3_column_type(s, 5) != SQLITE_NULL;
        if (have_app || have_orvo) {
            sqlite3_int64 app = sqlite3_column_int64(s, 4), orvo = sqlite3_column_int64(s, 5);
            sqlite3_int64 e = !have_app ? orvo : !have_orvo ? app : (app < orvo ? app : orvo);
            snprintf(expiry, sizeof(expiry), "%lld", (long long)e);
        }
        printf("%ld|%s|%s|%lld|%llu|%lld|%lld|%s|\n", atol(dsid), client, policy,
               (long long)sqlite3_column_int64(s, 0), (unsigned long long)sqlite3_column_int64(s, 1),
               (long long)sqlite3_column_int64(s, 2), (long long)sqlite3_column_int64(s, 3), expiry);
    }
    sqlite3_finalize(s);
    sqlite3_close(db);
}

static void list_database(const char* dir, const char* dsid, const char* client, const char* policy) {
    char file[4200];
    sqlite3* db = NULL;
    sqlite3_stmt* s = NULL;
    unsigned count = 0;
    line_buf line = {NULL, 0, 0};
    unsigned char* crc_buf = NULL;
    size_t crc_cap = 0, client_len = strlen(client), policy_len = strlen(policy);
    int rc, k;

    snprintf(file, sizeof(file), "%s/app.db", dir);
    if (g_find) {
        struct stat st;
        if (stat(file, &st) != 0) return; /* a directory without its database has no items */
        if (g_summary) {
            summarize_database(file, dsid, client, policy);
            return;
        }
    } else {
        printf("[%s]\n", dir);
    }
    if (sqlite3_open_v2(file, &db, SQLITE_OPEN_READONLY, NULL) != SQLITE_OK ||
        sqlite3_prepare_v2(db, g_find ? (g_since_set ? FIND_SINCE_SQL : FIND_SQL)
                           : g_backup_id[0] != '\0' && g_backup_id[strlen(g_backup_id) - 1] == '*'
                               ? BENCH_SELECT_ID_GLOB_SQL
                               : BENCH_SELECT_ID_SQL,
                           -1, &s, NULL) != SQLITE_OK ||
        (g_find ? (g_since_set ? sqlite3_bind_int64(s, 1, g_since) : SQLITE_OK)
                : sqlite3_bind_text(s, 1, g_backup_id, -1, SQLITE_STATIC)) != SQLITE_OK) {
        fprintf(stderr, "baseline_list: %s: %s\n", file, sqlite3_errmsg(db));
        g_failed = 1;
        sqlite3_finalize(s);
        sqlite3_close(db);
        return;
    }
    while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
        bench_crc_input in;
        size_t need_crc = 64;
        in.version = (uint32_t)sqlite3_column_int(s, 0);
        in.file_name = col_text(s, 2, &in.file_name_len);
        in.file_len = (uint64_t)sqlite3_column_int64(s, 3);
        in.backup_id = col_text(s, 4, &in.backup_id_len);
        in.policy_type = (uint32_t)sqlite3_column_int(s, 5);
        in.schedule_type = (uint32_t)sqlite3_column_int(s, 6);
        in.frag_nums = (uint32_t)sqlite3_column_int(s, 7);
        in.app_id = col_text(s, 8, &in.app_id_len);
        in.data_object = col_text(s, 9, &in.data_object_len);
        for (k = 0; k < 4; ++k) in.times[k] = sqlite3_column_int64(s, 10 + k);
        in.owner = col_text(s, 14, &in.owner_len);
        in.owner_role = (uint32_t)sqlite3_column_int(s, 15);
        for (k = 0; k < 11; ++k) in.tail[k] = col_text(s, 16 + k, &in.tail_len[k]);

        need_crc += in.file_name_len + in.backup_id_len + in.app_id_len + in.data_object_len + in.owner_len;
        for (k = 0; k < 11; ++k) need_crc += in.tail_len[k];
        if (need_crc > crc_cap) {
            crc_cap = 2 * need_crc;
            crc_buf = (unsigned char*)realloc(crc_buf, crc_cap);
            if (crc_buf == NULL) exit(1);
        }
        if (bench_crc(&in, crc_buf) != (uint32_t)sqlite3_column_int(s, 27)) {
            fprintf(stderr, "baseline_list: crc mismatch in %s\n", file);
            g_failed = 1;
        }

        line.len = 0;
        put_number(&line, in.version);
        put_text(&line, in.file_name, in.file_name_len);
        put_number(&line, in.file_len);
        put_text(&line, in.backup_id, in.backup_id_len);
        put_text(&line, policy, policy_len);
        put_number(&line, in.policy_type);
        put_number(&line, in.schedule_type);
        put_number(&line, in.frag_nums);
        put_text(&line, client, client_len);
        put_text(&line, in.app_id, in.app_id_len);
        put_text(&line, in.data_object, in.data_object_len);
        for (k = 0; k < 4; ++k) put_number(&line, (uint64_t)in.times[k]);
        put_text(&line, in.owner, in.owner_len);
        put_number(&line, in.owner_role);
        for (k = 0; k < 11; ++k) put_text(&line, in.tail[k], in.tail_len[k]);
        need(&line, 1);
        line.data[line.len++] = '\n';
        fwrite(line.data, 1, line.len, stdout);
        ++count;
    }
    if (rc != SQLITE_DONE) {
        fprintf(stderr, "baseline_list: %s: %s\n", file, sqlite3_errmsg(db));
        g_failed = 1;
    }
    sqlite3_finalize(s);
    sqlite3_close(db);
    free(line.data);
    free(crc_buf);
    if (!g_find) printf("total app catalog %u\n\n", count);
}

/* `rel` is the path below DBROOT; catalog directories are exactly
 * databases/application/DSID/CLIENT/POLICY. */
static void visit(const char* path, const char* rel) {
    const char* parts[6];
    const char* p = rel;
    int n = 0;
    while (*p != '\0' && n < 6) {
        parts[n++] = p;
        p = strchr(p, '/');
        if (p == NULL) break;
        ++p;
    }
    if (n == 5 && strncmp(parts[0], "databases/", 10) == 0 && strncmp(parts[1], "application/", 12) == 0) {
        char client[1024];
        size_t len = (size_t)(parts[4] - parts[3] - 1);
        if (len >= sizeof(client)) return;
        memcpy(client, parts[3], len);
        client[len] = '\0';
        list_database(path, parts[2], client, parts[4]);
    }
}

/* Whether the walk enters `rel`: with --client, a client directory
 * (databases/application/DSID/CLIENT) only when its name matches. */
static int enter(const char* rel) {
    const char* p = rel;
    int slashes = 0;
    if (g_client == NULL || strncmp(rel, "databases/application/", 22) != 0) return 1;
    for (; *p != '\0'; ++p) slashes += *p == '/';
    if (slashes != 3) return 1;
    return sqlite3_strglob(g_client, strrchr(rel, '/') + 1) == 0;
}

static void walk(const char* dir, size_t root_len) {
    DIR* d = opendir(dir);
    struct dirent* e;
    if (d == NULL) return;
    while ((e = readdir(d)) != NULL) {
        char path[4096];
        struct stat st;
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
        snprintf(path, sizeof(path), "%s/%s", dir, e->d_name);
        if (stat(path, &st) != 0 || !S_ISDIR(st.st_mode)) continue;
        if (!enter(path + root_len + 1)) continue;
        visit(path, path + root_len + 1);
        walk(path, root_len);
    }
    closedir(d);
}

int main(int argc, char** argv) {
    int i;
    if (argc >= 3 && strcmp(argv[1], "--find") == 0) {
        /* kavrel-find's allocator settings: SQLite's sorter gets and frees
           large blocks for every catalog, and returning them to the system
           each time costs more than the search. */
        mallopt(M_MMAP_THRESHOLD, 16 << 20);
        mallopt(M_TRIM_THRESHOLD, 32 << 20);
        g_find = 1;
        for (i = 3; i < argc; ++i) {
            if (strcmp(argv[i], "--client") == 0 && i + 1 < argc) {
                g_client = argv[++i];
            } else if (strcmp(argv[i], "--since") == 0 && i + 1 < argc) {
                g_since_set = 1;
                g_since = atoll(argv[++i]);
            } else if (strcmp(argv[i], "--summary") == 0) {
                g_summary = 1;
            } else {
                fprintf(stderr, "baseline_list: unknown option %s\n", argv[i]);
                return 2;
            }
        }
        walk(argv[2], strlen(argv[2]));
        return g_failed;
    }
    if (argc != 2 && argc != 3) {
        fprintf(stderr, "usage: baseline_list DBROOT [BACKUP_ID]\n"
                        "       baseline_list --find DBROOT [--client GLOB] [--since TIME] [--summary]\n");
        return 2;
    }
    if (argc == 3) g_backup_id = argv[2];
    walk(argv[1], strlen(argv[1]));
    return g_failed;
}
