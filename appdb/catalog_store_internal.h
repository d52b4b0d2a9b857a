// What the two halves of catalog_store share inside the library: the kept
// statements and the small steps every row operation is built of. Private to
// catalog_store*.cpp.
#ifndef APPDB_CATALOG_STORE_INTERNAL_H_
#define APPDB_CATALOG_STORE_INTERNAL_H_

#include <string.h>

#include <string>
#include <utility>
#include <vector>

#include <sqlite3.h>

#include "appdb/catalog_fields.h"
#include "appdb/catalog_store.h"
#include "sqlitedb/sqlite_statement.h"

namespace appdb {

// The statements of one connection, keyed by their text. The catalog's own
// texts are few (one insert, two deletes, five selects), so a short list
// searched in order is enough; a caller's own SELECT texts beyond the bound
// are prepared for one use and not kept.
class catalog_store::statements {
public:
    static constexpr size_t max_kept = 16;

    // The prepared statement of the NUL-terminated text `sql` of `length`
    // bytes, prepared (and kept) when new. When the list is full, a new text
    // is prepared into `once`, which the caller owns for this use. Null when
    // the text does not prepare (SQLite's code in *rc) or holds no statement
    // (*rc is 0).
    sqlite3_stmt* get(sqlite3* db, const char* sql, size_t length, int* rc,
                      sqlitedb::statement* once);
    sqlite3_stmt* get(sqlite3* db, const std::string& sql, int* rc, sqlitedb::statement* once) {
        return get(db, sql.c_str(), sql.size(), rc, once);
    }
    sqlite3_stmt* get(sqlite3* db, const char* sql, int* rc, sqlitedb::statement* once) {
        return get(db, sql, strlen(sql), rc, once);
    }

    // Finalises every kept statement.
    void clear() { kept_.clear(); }

private:
    std::vector<std::pair<std::string, sqlitedb::statement>> kept_;
};

// Binds `text` up to its first NUL, without a copy: every caller's text
// outlives the statement's use. (Items holding a NUL are refused before.)
inline int bind_text(sqlite3_stmt* stmt, int index, const std::string& text) {
    return sqlite3_bind_text(stmt, index, text.c_str(), -1, SQLITE_STATIC);
}

// Binds the whole of `text`, NUL bytes included.
inline int bind_bytes(sqlite3_stmt* stmt, int index, const std::string& text) {
    return sqlite3_bind_text(stmt, index, text.data(), static_cast<int>(text.size()),
                             SQLITE_STATIC);
}

// Decodes the columns that carry a field into `item` (the key column repeats
// the file name and is not read).
void decode_row(sqlite3_stmt* stmt, app_catalog_item& item);

// The stored checksum of a decoded row.
inline uint32_t stored_crc(sqlite3_stmt* stmt) {
    return static_cast<uint32_t>(sqlite3_column_int(stmt, catalog_crc_column));
}

}  // namespace appdb

#endif  // APPDB_CATALOG_STORE_INTERNAL_H_
