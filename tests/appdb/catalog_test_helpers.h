// Shared tools of the catalog application tests: items, a fixture with a
// temporary database root, a captured log and a counting sleep, and plain
// SQLite access to the databases the library writes (no library code), with
// the row checksum recomputed independently through zlib.
#ifndef KAVREL_TESTS_APPDB_CATALOG_TEST_HELPERS_H_
#define KAVREL_TESTS_APPDB_CATALOG_TEST_HELPERS_H_

#include <sqlite3.h>
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>
#include <zlib.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/catalog_application_impl.h"
#include "common/test_util.h"

namespace catt {

using appdb::app_catalog_item;

// These tests commit many small transactions, and on a disk each commit waits
// for fsync. Durability is not what they check, so unless TMPDIR says
// otherwise their temporary directories go to the memory file system.
inline bool prefer_memory_tmpdir() {
    const char* tmpdir = getenv("TMPDIR");
    if ((tmpdir == nullptr || *tmpdir == '\0') && access("/dev/shm", W_OK | X_OK) == 0) {
        setenv("TMPDIR", "/dev/shm", 0);
    }
    return true;
}
[[maybe_unused]] static const bool memory_tmpdir_chosen = prefer_memory_tmpdir();

inline app_catalog_item make_item(const std::string& client, const std::string& policy,
                                  const std::string& file_name, const std::string& backup_id,
                                  int64_t start_time = 100, const std::string& owner = "alice",
                                  uint32_t owner_role = 4) {
    app_catalog_item item;
    item.client = client;
    item.policy = policy;
    item.file_name = file_name;
    item.backup_id = backup_id;
    item.file_len = 4096 + static_cast<uint64_t>(file_name.size());
    item.policy_type = 7;
    item.schedule_type = 2;
    item.frag_nums = 3;
    item.app_id = "app-" + file_name;
    item.data_object = "obj";
    item.app_expire_time = start_time + 1000;
    item.orvo_expire_time = start_time + 2000;
    item.backup_start_time = start_time;
    item.backup_stop_time = start_time + 10;
    item.owner = owner;
    item.owner_role = owner_role;
    item.description = "desc " + file_name;
    item.reserver0 = "r0";
    item.reserver9 = "r9";
    return item;
}

// ---- plain SQLite on the files the library wrote ----

inline sqlite3* raw_open(const std::string& file) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << "cannot open " << file;
        sqlite3_close(db);
        return nullptr;
    }
    return db;
}

inline void raw_exec(sqlite3* db, const std::string& sql) {
    char* err = nullptr;
    const int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err);
    EXPECT_EQ(SQLITE_OK, rc) << sql << ": " << (err ? err : "");
    sqlite3_free(err);
}

// Makes the stored checksum of the row `name` wrong, as a bit flip on disk
// would: the row reads back with a checksum its fields do not give.
inline void spoil_row_crc(const std::string& file, const std::string& name) {
    sqlite3* db = raw_open(file);
    if (db == nullptr) return;
    raw_exec(db, "UPDATE catalog SET crc = crc + 1 WHERE name = '" + name + "'");
    sqlite3_close(db);
}

// First column of the first row as text ("" when there is none).
inline std::string raw_scalar(const std::string& file, const std::string& sql) {
    sqlite3* db = raw_open(file);
    if (db == nullptr) return "";
    sqlite3_stmt* stmt = nullptr;
    std::string out;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW && sqlite3_column_text(stmt, 0) != nullptr) {
        out = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
    } else {
        ADD_FAILURE() << sql << ": " << sqlite3_errmsg(db);
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return out;
}

inline long raw_count(const std::string& file, const std::string& where = "") {
    return std::stol(raw_scalar(file, "SELECT count(*) FROM catalog" +
                                          (where.empty() ? std::string() : " WHERE " + where)));
}

// One row as stored, column by column.
struct raw_row {
    uint32_t version = 0;
    std::string name;
    std::string file_name;
    int64_t file_len = 0;
    std::string backup_id;
    uint32_t policy_type = 0, schedule_type = 0, frag_nums = 0;
    std::string app_id, data_object;
    int64_t times[4] = {0, 0, 0, 0};
    std::string owner;
    uint32_t owner_role = 0;
    std::string description;
    std::string reserver[10];
    int64_t crc = 0;  // as stored (a 32-bit signed integer)
};

inline std::string col_text(sqlite3_stmt* s, int i) {
    const unsigned char* t = sqlite3_column_text(s, i);
    return t ? reinterpret_cast<const char*>(t) : "";
}

inline std::vector<raw_row> raw_rows(const std::string& file, const std::string& order = "name") {
    std::vector<raw_row> rows;
    sqlite3* db = raw_open(file);
    if (db == nullptr) return rows;
    sqlite3_stmt* s = nullptr;
    const std::string sql = "SELECT * FROM catalog ORDER BY " + order;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << sqlite3_errmsg(db);
        sqlite3_close(db);
        return rows;
    }
    while (sqlite3_step(s) == SQLITE_ROW) {
        raw_row r;
        r.version = static_cast<uint32_t>(sqlite3_column_int64(s, 0));
        r.name = col_text(s, 1);
        r.file_name = col_text(s, 2);
        r.file_len = sqlite3_column_int64(s, 3);
        r.backup_id = col_text(s, 4);
        r.policy_type = static_cast<uint32_t>(sqlite3_column_int64(s, 5));
        r.schedule_type = static_cast<uint32_t>(sqlite3_column_int64(s, 6));
        r.frag_nums = static_cast<uint32_t>(sqlite3_column_int64(s, 7));
        r.app_id = col_text(s, 8);
        r.data_object = col_text(s, 9);
        for (int i = 0; i < 4; ++i) r.times[i] = sqlite3_column_int64(s, 10 + i);
        r.owner = col_text(s, 14);
        r.owner_role = static_cast<uint32_t>(sqlite3_column_int64(s, 15));
        r.description = col_text(s, 16);
        for (int i = 0; i < 10; ++i) r.reserver[i] = col_text(s, 17 + i);
        r.crc = sqlite3_column_int64(s, 27);
        rows.push_back(r);
    }
    sqlite3_finalize(s);
    sqlite3_close(db);
    return rows;
}

// Every row of `file` as stored, ordered by name: each column as its SQLite
// storage class and its exact value (the integer, or every byte of the
// text), so two dumps are equal only for byte-for-byte equal rows.
inline std::vector<std::string> raw_dump(const std::string& file) {
    std::vector<std::string> rows;
    sqlite3* db = raw_open(file);
    if (db == nullptr) return rows;
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT * FROM catalog ORDER BY name", -1, &s, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << sqlite3_errmsg(db);
        sqlite3_close(db);
        return rows;
    }
    while (sqlite3_step(s) == SQLITE_ROW) {
        std::string row;
        for (int i = 0; i < sqlite3_column_count(s); ++i) {
            const int type = sqlite3_column_type(s, i);
            row += std::to_string(type) + ":";
            if (type == SQLITE_INTEGER) {
                row += std::to_string(sqlite3_column_int64(s, i));
            } else if (type != SQLITE_NULL) {
                const void* bytes = sqlite3_column_blob(s, i);
                row.append(static_cast<const char*>(bytes), static_cast<size_t>(sqlite3_column_bytes(s, i)));
            }
            row += "|";
        }
        rows.push_back(row);
    }
    sqlite3_finalize(s);
    sqlite3_close(db);
    return rows;
}

inline void put_le(std::vector<unsigned char>& b, uint64_t v, int n) {
    for (int i = 0; i < n; ++i) b.push_back(static_cast<unsigned char>(v >> (8 * i)));
}

inline void put_text(std::vector<unsigned char>& b, const std::string& s) {
    b.insert(b.end(), s.begin(), s.end());
}

// The documented checksum of a stored row, computed with zlib from the
// column values: numbers little-endian (4 or 8 bytes), text raw.
inline uint32_t independent_crc(const raw_row& r) {
    std::vector<unsigned char> b;
    put_le(b, r.version, 4);
    put_text(b, r.file_name);
    put_le(b, static_cast<uint64_t>(r.file_len), 8);
    put_text(b, r.backup_id);
    put_le(b, r.policy_type, 4);
    put_le(b, r.schedule_type, 4);
    put_le(b, r.frag_nums, 4);
    put_text(b, r.app_id);
    put_text(b, r.data_object);
    for (int i = 0; i < 4; ++i) put_le(b, static_cast<uint64_t>(r.times[i]), 8);
    put_text(b, r.owner);
    put_le(b, r.owner_role, 4);
    put_text(b, r.description);
    for (int i = 0; i < 10; ++i) put_text(b, r.reserver[i]);
    uLong a = adler32(0L, Z_NULL, 0);
    a = adler32(a, b.data(), static_cast<uInt>(b.size()));
    return static_cast<uint32_t>(a);
}

// Number of this process's open file descriptors on `file`: tells whether a
// connection to it is still open.
inline int open_fds_on(const std::string& file_in) {
    char resolved[4096];
    const std::string file = realpath(file_in.c_str(), resolved) ? resolved : file_in;
    int n = 0;
    for (const std::string& fd : kt::list_dir("/proc/self/fd")) {
        char target[4096];
        const std::string link = "/proc/self/fd/" + fd;
        const ssize_t len = readlink(link.c_str(), target, sizeof(target) - 1);
        if (len <= 0) continue;
        target[len] = '\0';
        if (file == target) ++n;
    }
    return n;
}

// Restores the process-wide busy timeout at scope end.
class busy_timeout_scope {
public:
    explicit busy_timeout_scope(int ms)
        : previous_(appdb::catalog_application_base::busy_timeout_ms()) {
        appdb::catalog_application_base::set_busy_timeout_ms(ms);
    }
    ~busy_timeout_scope() { appdb::catalog_application_base::set_busy_timeout_ms(previous_); }

private:
    int previous_;
};

// A second connection that holds an exclusive lock on a database until
// released: every other connection's statements are busy meanwhile.
class exclusive_holder {
public:
    explicit exclusive_holder(const std::string& file) : db_(raw_open(file)) {
        if (db_ != nullptr) raw_exec(db_, "BEGIN EXCLUSIVE TRANSACTION");
    }
    ~exclusive_holder() { release(); }
    void release() {
        if (db_ == nullptr) return;
        raw_exec(db_, "ROLLBACK TRANSACTION");
        sqlite3_close(db_);
        db_ = nullptr;
    }

private:
    sqlite3* db_;
};

// A fresh database root with a captured log and instant sleeps; `app` is a
// plain catalog application of data store 2 with its directory lock.
class catalog_fixture : public ::testing::Test {
protected:
    void SetUp() override {
        root = tmp.path() + "/databases";
        app.reset(new appdb::catalog_application_impl(2, root, 5));
        app->dir_lock.reset(new CatalogDirectoryLock());
        log.clear();
    }
    void TearDown() override { app.reset(); }

    std::string db_file(const std::string& client, const std::string& policy) const {
        return root + "/application/2/" + client + "/" + policy + "/app.db";
    }

    // Inserts through the public operation, as an administrator.
    void insert(const app_catalog_item& item) {
        ASSERT_EQ(0u, app->update_catalog("admin", 1, item.to_string())) << log.dump();
    }

    bool logged(dct::log_level level, cr_status_t status, const std::string& message) const {
        return log.contains(level, status, message);
    }
    // Trace records carry no status of their own.
    bool traced(const std::string& message) const {
        return log.contains(dct::log_level::trace, CR_STATUS_NONE, message);
    }

    kt::TempDir tmp;
    kt::LogCapture log;
    kt::SleepCounter sleeps;
    std::string root;
    std::unique_ptr<appdb::catalog_application_impl> app;
};

}  // namespace catt

#endif  // KAVREL_TESTS_APPDB_CATALOG_TEST_HELPERS_H_
