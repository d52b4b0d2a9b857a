// Small tools for the wrapper tests: building sample databases with the raw
// SQLite API, damaging their bytes, and a fault hook that removes itself.
#ifndef KAVREL_TESTS_SQLITEDB_SQLITE_FIXTURES_H_
#define KAVREL_TESTS_SQLITEDB_SQLITE_FIXTURES_H_

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "dct/fault.h"

namespace sqlt {

const int kPageSize = 1024;

// Runs `sql` on a raw connection; fails the test on error.
inline void raw_exec(sqlite3* db, const std::string& sql) {
    char* err = nullptr;
    int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err);
    EXPECT_EQ(SQLITE_OK, rc) << sql << ": " << (err != nullptr ? err : "");
    sqlite3_free(err);
}

// Creates `path` with 1 KiB pages, table t(x TEXT) indexed by ti, and `rows`
// rows "row-NNNN-pad...". With `auto_vacuum` the file carries pointer-map pages.
inline void make_db(const std::string& path, int rows, bool auto_vacuum = false) {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &db));
    raw_exec(db, "PRAGMA page_size=1024;");
    if (auto_vacuum) raw_exec(db, "PRAGMA auto_vacuum=FULL;");
    raw_exec(db, "CREATE TABLE t(x TEXT); CREATE INDEX ti ON t(x); BEGIN;");
    for (int i = 0; i < rows; ++i) {
        char sql[128];
        snprintf(sql, sizeof sql, "INSERT INTO t VALUES('row-%04d-padpadpadpadpadpadpadpad');", i);
        raw_exec(db, sql);
    }
    raw_exec(db, "COMMIT;");
    ASSERT_EQ(SQLITE_OK, sqlite3_close(db));
}

inline std::vector<unsigned char> read_bytes(const std::string& path) {
    std::vector<unsigned char> bytes;
    FILE* f = fopen(path.c_str(), "rb");
    if (f == nullptr) return bytes;
    int c;
    while ((c = fgetc(f)) != EOF) bytes.push_back(static_cast<unsigned char>(c));
    fclose(f);
    return bytes;
}

// Overwrites `n` bytes at `offset` with `value`.
inline void overwrite(const std::string& path, long offset, unsigned char value, size_t n) {
    std::vector<unsigned char> junk(n, value);
    int fd = open(path.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(static_cast<ssize_t>(n), pwrite(fd, junk.data(), n, offset));
    close(fd);
}

// First page (1-based) whose b-tree page type byte is `type` (0x0d table leaf,
// 0x0a index leaf), or 0.
inline int find_page(const std::string& path, unsigned char type) {
    std::vector<unsigned char> bytes = read_bytes(path);
    for (size_t pg = 2; pg * kPageSize <= bytes.size(); ++pg) {
        if (bytes[(pg - 1) * kPageSize] == type) return static_cast<int>(pg);
    }
    return 0;
}

// Rewrites every "row-" in the first index leaf page as "ROW-": the table still
// reads, but its index no longer matches it.
inline void break_index(const std::string& path) {
    int pg = find_page(path, 0x0a);
    ASSERT_GT(pg, 0);
    std::vector<unsigned char> bytes = read_bytes(path);
    int fd = open(path.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    const size_t base = static_cast<size_t>(pg - 1) * kPageSize;
    for (size_t i = base; i + 4 <= base + kPageSize; ++i) {
        if (bytes[i] == 'r' && bytes[i + 1] == 'o' && bytes[i + 2] == 'w' && bytes[i + 3] == '-') {
            ASSERT_EQ(3, pwrite(fd, "ROW", 3, static_cast<off_t>(i)));
        }
    }
    close(fd);
}

// Every row of PRAGMA integrity_check read on a fresh raw connection.
inline std::vector<std::string> integrity_rows(const std::string& path) {
    std::vector<std::string> rows;
    sqlite3* db = nullptr;
    sqlite3_open(path.c_str(), &db);
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, "PRAGMA integrity_check;", -1, &stmt, nullptr) == SQLITE_OK) {
        while (sqlite3_step(stmt) == SQLITE_ROW) {
            const unsigned char* v = sqlite3_column_text(stmt, 0);
            rows.push_back(v != nullptr ? reinterpret_cast<const char*>(v) : "");
        }
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return rows;
}

// Installs a fault hook for one scope.
class FaultScope {
public:
    explicit FaultScope(dct::fault_hook hook) { dct::set_fault_hook(std::move(hook)); }
    ~FaultScope() { dct::set_fault_hook(nullptr); }
};

// Counts real closes of a connection: SQLite destroys a registered function's
// user data exactly when the connection goes away.
inline void watch_close(sqlite3* db, int* closes) {
    sqlite3_create_function_v2(
        db, "kavrel_close_probe", 0, SQLITE_UTF8, closes,
        [](sqlite3_context*, int, sqlite3_value**) {}, nullptr, nullptr,
        [](void* p) { ++*static_cast<int*>(p); });
}

}  // namespace sqlt

#endif  // KAVREL_TESTS_SQLITEDB_SQLITE_FIXTURES_H_
