// Fixtures of the backup and recovery tests: real SQLite files made and read
// with the plain SQLite API, damage of chosen kinds, and a pool whose changes
// are applied to the real database, to a reference copy and to the journal.
#ifndef KAVREL_TESTS_CATALOG_SHADOW_BACKUP_FIXTURES_H_
#define KAVREL_TESTS_CATALOG_SHADOW_BACKUP_FIXTURES_H_

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/PODBShadowPool.h"
#include "common/test_util.h"
#include "dct/fs.h"
#include "shadow_test_helpers.h"

namespace backup_test {

// Runs `sql` on the database file `path` (created when missing); fails the
// test on an error.
inline void sql_exec(const std::string& path, const std::string& sql) {
    const size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) wa_createtree(path.substr(0, slash), 0755);
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &db)) << path;
    sqlite3_busy_timeout(db, 10000);
    char* err = nullptr;
    int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err);
    std::string text = err != nullptr ? err : "";
    sqlite3_free(err);
    sqlite3_close(db);
    ASSERT_EQ(SQLITE_OK, rc) << sql << ": " << text;
}

// Every row of `query` on `path`, columns joined by "|"; opened read-only.
inline std::vector<std::string> sql_rows(const std::string& path, const std::string& query) {
    std::vector<std::string> out;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        ADD_FAILURE() << "cannot open " << path;
        return out;
    }
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, query.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << query << ": " << sqlite3_errmsg(db);
        sqlite3_close(db);
        return out;
    }
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        std::string row;
        for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
            if (i > 0) row += "|";
            const unsigned char* v = sqlite3_column_text(stmt, i);
            row += v != nullptr ? reinterpret_cast<const char*>(v) : "NULL";
        }
        out.push_back(row);
    }
    if (rc != SQLITE_DONE) ADD_FAILURE() << query << ": " << sqlite3_errmsg(db);
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return out;
}

// Every row of the catalog table of an application database, in key order.
inline std::vector<std::string> catalog_rows(const std::string& path) {
    return sql_rows(path, "SELECT id, backup_id, name, size, hex(data) FROM catalog ORDER BY id;");
}

inline bool integrity_ok(const std::string& path) {
    std::vector<std::string> r = sql_rows(path, "PRAGMA integrity_check;");
    return r.size() == 1 && r[0] == "ok";
}

// The catalog table of these tests, with an index on name so that damage to
// the index leaves the table readable.
inline const char* catalog_schema() {
    return "CREATE TABLE catalog (id INTEGER PRIMARY KEY, backup_id TEXT, name TEXT, size INTEGER, data BLOB);"
           "CREATE INDEX catalog_name ON catalog(name);";
}

// The statement that inserts row `id`; every value is derived from `id`, so
// that replaying it gives the same row.
inline std::string insert_row(int id, int blob_bytes = 64) {
    return "INSERT INTO catalog (id, backup_id, name, size, data) VALUES (" + std::to_string(id) + ", 'bk-" +
           std::to_string(id % 7) + "', 'name-" + std::to_string(id) + "', " + std::to_string(id * 1000) +
           ", CAST(printf('%0" + std::to_string(blob_bytes) + "d', " + std::to_string(id) + ") AS BLOB))";
}

// Creates an application database with rows 1..rows.
inline void make_app_db(const std::string& path, int rows) {
    std::string sql = std::string(catalog_schema()) + "BEGIN;";
    for (int i = 1; i <= rows; ++i) sql += insert_row(i) + ";";
    sql += "COMMIT;";
    sql_exec(path, sql);
}

inline std::string read_bytes(const std::string& path) { return kt::read_file(path); }

// Overwrites `bytes` at `offset` of `path`.
inline void overwrite(const std::string& path, long offset, const std::string& bytes) {
    std::fstream f(path.c_str(), std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(offset);
    f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline int page_size(const std::string& path) {
    const std::string head = read_bytes(path).substr(0, 100);
    int size = (static_cast<unsigned char>(head[16]) << 8) | static_cast<unsigned char>(head[17]);
    return size == 1 ? 65536 : size;
}

// Damages the index of the catalog table: every "name-" in its leaf pages
// becomes "NAME-". The file still opens and its table still reads, but the
// integrity check reports index entries that match no row.
inline void damage_index(const std::string& path) {
    std::string content = read_bytes(path);
    const int ps = page_size(path);
    bool damaged = false;
    for (size_t page = 1; page * ps < content.size(); ++page) {  // page 1 holds the schema
        const size_t start = page * ps;
        if (static_cast<unsigned char>(content[start]) != 0x0a) continue;  // index leaf
        for (size_t at = content.find("name-", start); at != std::string::npos && at < start + ps;
             at = content.find("name-", at + 1)) {
            content.replace(at, 5, "NAME-");
            damaged = true;
        }
    }
    ASSERT_TRUE(damaged) << "no index leaf page in " << path;
    kt::write_file(path, content);
    ASSERT_FALSE(integrity_ok(path));
}

// Leaves a hot journal beside `db`: a child process writes a transaction big
// enough to reach the database file (rows first_id, first_id + 1, ...) and is
// killed before it commits.
inline void leave_hot_journal(const std::string& db, int first_id) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        sqlite3* handle = nullptr;
        if (sqlite3_open(db.c_str(), &handle) != SQLITE_OK) _exit(2);
        std::string sql = "PRAGMA cache_size=5; BEGIN;";
        for (int id = first_id; id < first_id + 2000; ++id) sql += insert_row(id, 200) + ";";
        if (sqlite3_exec(handle, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) _exit(3);
        kill(getpid(), SIGKILL);
        _exit(4);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFSIGNALED(status));
    struct stat st;
    ASSERT_EQ(0, stat((db + "-journal").c_str(), &st));
    ASSERT_GT(st.st_size, 0);
}

// Adler-32 of a whole file.
inline uint32_t file_crc(const std::string& path) { return shadow_test::adler(read_bytes(path)); }

// A pool layout with a shadow context and one application database directory.
// apply() runs a statement on the real database and on a reference database
// that is never damaged, and journals it, as the catalog does.
struct AppPool {
    shadow_test::PoolLayout layout;
    std::unique_ptr<CatalogShadowContext> ctx;
    std::string dir;
    std::string db;
    std::string reference;

    explicit AppPool(const std::string& paths_extra = "", const std::string& rel = "7/client/policy") {
        ctx = layout.context(true, paths_extra);
        dir = layout.app_dir(rel);
        db = dir + "/app.db";
        reference = layout.tmp.file("reference.db");
    }

    // Real and reference database with rows 1..rows.
    void create(int rows) {
        make_app_db(db, rows);
        make_app_db(reference, 0);
        sql_exec(reference, "ATTACH '" + db + "' AS real; INSERT INTO catalog SELECT * FROM real.catalog;");
    }

    void apply(const std::string& statement) {
        sql_exec(db, statement);
        sql_exec(reference, statement);
        ASSERT_EQ(CR_STATUS_OK, ctx->write_journal(dir, "appdb", statement));
    }

    boost::shared_ptr<PODBShadow> shadow() { return ctx->pool->get(dir); }
    std::string shadow_dir() { return shadow()->get_shadow_dir(); }
    std::string shadow_file(const std::string& name) { return shadow_dir() + "/" + name; }
};

// count(*), min(id), max(id) of the catalog table.
inline std::vector<std::string> row_span(const std::string& path) {
    return sql_rows(path, "SELECT count(*), ifnull(min(id), 0), ifnull(max(id), 0) FROM catalog;");
}

// The writer of the concurrency tests: inserts rows 2, 3, ... one commit each,
// as fast as it can, until a byte (or end of file) arrives on `stop`; then
// sends the last id committed on `result`. With `wal` it first switches the
// file to write-ahead logging, as any SQLite client may. Exits 0, or non-zero
// when any statement failed.
inline void row_writer(const std::string& db_path, int stop, int result, bool wal) {
    fcntl(stop, F_SETFL, O_NONBLOCK);
    sqlite3* db = nullptr;
    if (sqlite3_open(db_path.c_str(), &db) != SQLITE_OK) _exit(2);
    sqlite3_busy_timeout(db, 60000);
    if (wal && sqlite3_exec(db, "PRAGMA journal_mode=WAL;", nullptr, nullptr, nullptr) != SQLITE_OK) _exit(5);
    long last = 1;
    for (;;) {
        char c;
        if (read(stop, &c, 1) >= 0) break;
        if (sqlite3_exec(db, insert_row(static_cast<int>(last + 1), 200).c_str(), nullptr, nullptr, nullptr) !=
            SQLITE_OK) {
            _exit(3);
        }
        ++last;
    }
    sqlite3_close(db);
    if (write(result, &last, sizeof(last)) != static_cast<ssize_t>(sizeof(last))) _exit(4);
    _exit(0);
}

// `rounds` backups of the pool's database while row_writer commits in another
// process: each new version holds rows 1..n with none missing, n never
// shrinks, and the database ends with every row the writer committed.
inline void backups_while_writing(AppPool& p, int rounds, bool wal) {
    int stop[2];
    int result[2];
    ASSERT_EQ(0, pipe(stop));
    ASSERT_EQ(0, pipe(result));
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(stop[1]);
        close(result[0]);
        row_writer(p.db, stop[0], result[1], wal);
    }
    close(stop[0]);
    close(result[1]);

    long previous = 0;
    int versions_added = 0;
    for (int i = 0; i < rounds; ++i) {
        const uint64_t before = p.shadow()->get_db_current_ver_("appdb");
        ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb")) << "backup " << i;
        boost::shared_ptr<PODBShadow> shadow = p.shadow();
        if (shadow->get_db_current_ver_("appdb") == before) continue;  // the writer had not committed since
        ++versions_added;
        const std::string version = shadow->get_db_versions_("appdb")->front().db_path;
        ASSERT_TRUE(integrity_ok(version)) << version;
        std::vector<std::string> span = row_span(version);
        ASSERT_EQ(1u, span.size());
        const long count = std::stol(span[0].substr(0, span[0].find('|')));
        EXPECT_EQ(std::to_string(count) + "|1|" + std::to_string(count), span[0]);
        EXPECT_GE(count, previous);
        previous = count;
    }
    ASSERT_EQ(1, write(stop[1], "x", 1));
    close(stop[1]);
    long last = 0;
    ASSERT_EQ(static_cast<ssize_t>(sizeof(last)), read(result[0], &last, sizeof(last)));
    close(result[0]);
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the writer saw a failed insert";

    EXPECT_GT(versions_added, 1);
    EXPECT_GE(last, previous);
    EXPECT_GT(previous, 1) << "no version held a row the writer committed";
    EXPECT_EQ((std::vector<std::string>{std::to_string(last) + "|1|" + std::to_string(last)}), row_span(p.db));
    EXPECT_TRUE(integrity_ok(p.db));
}

// The application directories of a small pool: data stores 1, 2, 3, each with
// clients c1, c2 and policies p1, p2 (12 databases). With `rows`, each gets an
// app.db of its own size (1 + its index).
inline std::vector<std::string> app_tree(const shadow_test::PoolLayout& layout, bool rows) {
    std::vector<std::string> dirs;
    for (const char* dsid : {"1", "2", "3"}) {
        for (const char* client : {"c1", "c2"}) {
            for (const char* policy : {"p1", "p2"}) {
                dirs.push_back(layout.app_dir(std::string(dsid) + "/" + client + "/" + policy));
                if (rows) make_app_db(dirs.back() + "/app.db", static_cast<int>(dirs.size()));
            }
        }
    }
    return dirs;
}

// Names in `dir` that begin with "#corrupt_".
inline std::vector<std::string> corrupt_dirs(const std::string& dir) {
    return shadow_test::entries_with_prefix(dir, "#corrupt_");
}

// Every file below the "#corrupt_" directories of `dir`.
inline std::vector<std::string> set_aside_files(const std::string& dir) {
    std::vector<std::string> out;
    for (const std::string& d : corrupt_dirs(dir)) {
        for (const std::string& f : kt::list_dir(dir + "/" + d)) out.push_back(f);
    }
    return out;
}

}  // namespace backup_test

#endif  // KAVREL_TESTS_CATALOG_SHADOW_BACKUP_FIXTURES_H_
