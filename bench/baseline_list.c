/* baseline_list DBROOT
 *
 * The listing of `kavrel -listall -dbpath DBROOT` done by a plain C program:
 * walk the tree, and for every directory DBROOT/databases/application/DSID/
 * CLIENT/POLICY open its app.db, step the statement kavrel runs for the
 * pattern "*", recompute each row's checksum with zlib over the documented
 * byte layout, compare it with the crc column, and print the same text:
 * "[dir]", one line per row, "total app catalog N" and an empty line. Rows are
 * printed as they are read. A checksum mismatch is reported on standard error
 * and makes the exit status 1. */
#include <dirent.h>
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

static void list_database(const char* dir, const char* client, const char* policy) {
    char file[4200];
    sqlite3* db = NULL;
    sqlite3_stmt* s = NULL;
    unsigned count = 0;
    line_buf line = {NULL, 0, 0};
    unsigned char* crc_buf = NULL;
    size_t crc_cap = 0, client_len = strlen(client), policy_len = strlen(policy);
    int rc, k;

    printf("[%s]\n", dir);
    snprintf(file, sizeof(file), "%s/app.db", dir);
    if (sqlite3_open_v2(file, &db, SQLITE_OPEN_READONLY, NULL) != SQLITE_OK ||
        sqlite3_prepare_v2(db, g_backup_id[0] != '\0' && g_backup_id[strlen(g_backup_id) - 1] == '*'
                                   ? BENCH_SELECT_ID_GLOB_SQL
                                   : BENCH_SELECT_ID_SQL,
                           -1, &s, NULL) != SQLITE_OK ||
        sqlite3_bind_text(s, 1, g_backup_id, -1, SQLITE_STATIC) != SQLITE_OK) {
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
    printf("total app catalog %u\n\n", count);
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
        list_database(path, client, parts[4]);
    }
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
        visit(path, path + root_len + 1);
        walk(path, root_len);
    }
    closedir(d);
}

int main(int argc, char** argv) {
    if (argc != 2 && argc != 3) {
        fprintf(stderr, "usage: baseline_list DBROOT [BACKUP_ID]\n");
        return 2;
    }
    if (argc == 3) g_backup_id = argv[2];
    walk(argv[1], strlen(argv[1]));
    return g_failed;
}
