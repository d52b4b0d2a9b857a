// A catalog writer that does not use the catalog library: it creates app.db
// with the plain SQLite API and the documented schema, and computes each row's
// checksum itself with zlib's adler32 over the documented byte layout. A
// listing of its databases shows that the tool reads what any conforming
// writer produces, not only what its own library wrote.
#ifndef KAVREL_TESTS_TOOL_RAW_CATALOG_H_
#define KAVREL_TESTS_TOOL_RAW_CATALOG_H_

#include <sqlite3.h>
#include <stdint.h>
#include <zlib.h>

#include <string>
#include <vector>

namespace kt {

// One row, with the item's fields; client and policy are the database's.
struct RawRow {
    uint32_t version = 1;
    std::string file_name;
    uint64_t file_len = 0;
    std::string backup_id;
    uint32_t policy_type = 4;
    uint32_t schedule_type = 0;
    uint32_t frag_nums = 0;
    std::string app_id;
    std::string data_object;
    int64_t app_expire_time = 0;
    int64_t orvo_expire_time = 0;
    int64_t backup_start_time = 0;
    int64_t backup_stop_time = 0;
    std::string owner;
    uint32_t owner_role = 4;
    std::string description;
    std::string reserver[10];
};

inline void raw_append_le(std::vector<unsigned char>& out, uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<unsigned char>(value >> (8 * i)));
}

inline void raw_append_text(std::vector<unsigned char>& out, const std::string& s) {
    out.insert(out.end(), s.begin(), s.end());
}

// The bytes the row checksum covers, in order: numbers little-endian (4 or 8
// bytes), text without terminator or separator; client and policy excluded.
inline std::vector<unsigned char> raw_checksum_bytes(const RawRow& r) {
    std::vector<unsigned char> b;
    raw_append_le(b, r.version, 4);
    raw_append_text(b, r.file_name);
    raw_append_le(b, r.file_len, 8);
    raw_append_text(b, r.backup_id);
    raw_append_le(b, r.policy_type, 4);
    raw_append_le(b, r.schedule_type, 4);
    raw_append_le(b, r.frag_nums, 4);
    raw_append_text(b, r.app_id);
    raw_append_text(b, r.data_object);
    raw_append_le(b, static_cast<uint64_t>(r.app_expire_time), 8);
    raw_append_le(b, static_cast<uint64_t>(r.orvo_expire_time), 8);
    raw_append_le(b, static_cast<uint64_t>(r.backup_start_time), 8);
    raw_append_le(b, static_cast<uint64_t>(r.backup_stop_time), 8);
    raw_append_text(b, r.owner);
    raw_append_le(b, r.owner_role, 4);
    raw_append_text(b, r.description);
    for (const auto& s : r.reserver) raw_append_text(b, s);
    return b;
}

inline uint32_t raw_checksum(const RawRow& r) {
    std::vector<unsigned char> b = raw_checksum_bytes(r);
    uLong a = adler32(0L, Z_NULL, 0);
    a = adler32(a, b.empty() ? Z_NULL : b.data(), static_cast<uInt>(b.size()));
    return static_cast<uint32_t>(a);
}

inline const char* raw_catalog_schema() {
    return "CREATE TABLE catalog (version INTEGER,     name TEXT PRIMARY KEY,     filename TEXT,     "
           "filelen INTEGER,     backupid TEXT,     policy_type INTEGER,     schedule_type INTEGER,     "
           "frag_nums INTEGER,     app_id TEXT,     dataobject TEXT,     backup_app_expire_time INTEGER,     "
           "backup_orvo_expire_time INTEGER,     backup_start_time INTEGER,     backup_stop_time INTEGER,     "
           "owner TEXT,     owner_role INTEGER,     description TEXT,     reserver0 TEXT,     reserver1 TEXT,     "
           "reserver2 TEXT,     reserver3 TEXT,     reserver4 TEXT,     reserver5 TEXT,     reserver6 TEXT,     "
           "reserver7 TEXT,     reserver8 TEXT,     reserver9 TEXT,     crc INTEGER)";
}

// Creates `path` (a new app.db) with the catalog table and its index and
// inserts `rows`. Returns "" on success, else the SQLite message.
inline std::string raw_write_catalog(const std::string& path, const std::vector<RawRow>& rows) {
    sqlite3* db = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    if (rc != SQLITE_OK) {
        std::string msg = sqlite3_errstr(rc);
        sqlite3_close(db);
        return msg;
    }
    auto fail = [&](const std::string& what) {
        std::string msg = what + ": " + sqlite3_errmsg(db);
        sqlite3_close(db);
        return msg;
    };
    if (sqlite3_exec(db, raw_catalog_schema(), nullptr, nullptr, nullptr) != SQLITE_OK) return fail("create");
    if (sqlite3_exec(db, "CREATE INDEX IF NOT EXISTS catalog_backupid ON catalog(backupid)", nullptr, nullptr,
                     nullptr) != SQLITE_OK)
        return fail("index");
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(db,
                           "INSERT INTO catalog VALUES( ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
                           "?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
                           -1, &st, nullptr) != SQLITE_OK)
        return fail("prepare");
    for (const RawRow& r : rows) {
        sqlite3_reset(st);
        int i = 1;
        auto text = [&](const std::string& s) {
            sqlite3_bind_text(st, i++, s.c_str(), static_cast<int>(s.size()), SQLITE_TRANSIENT);
        };
        sqlite3_bind_int(st, i++, static_cast<int>(r.version));
        text(r.file_name);
        text(r.file_name);
        sqlite3_bind_int64(st, i++, static_cast<sqlite3_int64>(r.file_len));
        text(r.backup_id);
        sqlite3_bind_int(st, i++, static_cast<int>(r.policy_type));
        sqlite3_bind_int(st, i++, static_cast<int>(r.schedule_type));
        sqlite3_bind_int(st, i++, static_cast<int>(r.frag_nums));
        text(r.app_id);
        text(r.data_object);
        sqlite3_bind_int64(st, i++, r.app_expire_time);
        sqlite3_bind_int64(st, i++, r.orvo_expire_time);
        sqlite3_bind_int64(st, i++, r.backup_start_time);
        sqlite3_bind_int64(st, i++, r.backup_stop_time);
        text(r.owner);
        sqlite3_bind_int(st, i++, static_cast<int>(r.owner_role));
        text(r.description);
        for (const auto& s : r.reserver) text(s);
        // The crc column holds the checksum as a 32-bit integer.
        sqlite3_bind_int(st, i++, static_cast<int>(raw_checksum(r)));
        if (sqlite3_step(st) != SQLITE_DONE) {
            sqlite3_finalize(st);
            return fail("insert " + r.file_name);
        }
    }
    sqlite3_finalize(st);
    sqlite3_close(db);
    return "";
}

// Runs one statement on an existing database; "" on success.
inline std::string raw_exec(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    if (rc != SQLITE_OK) {
        std::string msg = sqlite3_errstr(rc);
        sqlite3_close(db);
        return msg;
    }
    std::string msg;
    char* err = nullptr;
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err) != SQLITE_OK) {
        msg = err != nullptr ? err : "error";
        sqlite3_free(err);
    }
    sqlite3_close(db);
    return msg;
}

// The line form of a row listed from the database of `client` and `policy`:
// every field followed by "|", numbers unsigned decimal.
inline std::string raw_line_form(const RawRow& r, const std::string& client, const std::string& policy) {
    std::string s;
    auto add = [&](const std::string& v) { s += v + "|"; };
    add(std::to_string(r.version));
    add(r.file_name);
    add(std::to_string(r.file_len));
    add(r.backup_id);
    add(policy);
    add(std::to_string(r.policy_type));
    add(std::to_string(r.schedule_type));
    add(std::to_string(r.frag_nums));
    add(client);
    add(r.app_id);
    add(r.data_object);
    add(std::to_string(static_cast<uint64_t>(r.app_expire_time)));
    add(std::to_string(static_cast<uint64_t>(r.orvo_expire_time)));
    add(std::to_string(static_cast<uint64_t>(r.backup_start_time)));
    add(std::to_string(static_cast<uint64_t>(r.backup_stop_time)));
    add(r.owner);
    add(std::to_string(r.owner_role));
    add(r.description);
    for (const auto& v : r.reserver) add(v);
    return s;
}

}  // namespace kt

#endif  // KAVREL_TESTS_TOOL_RAW_CATALOG_H_
