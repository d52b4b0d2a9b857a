// What the two halves of catalog_store share inside the library: the small
// steps every row operation is built of. Private to catalog_store*.cpp.
#ifndef APPDB_CATALOG_STORE_INTERNAL_H_
#define APPDB_CATALOG_STORE_INTERNAL_H_

#include <string>

#include <sqlite3.h>

#include "appdb/catalog_fields.h"
#include "appdb/catalog_store.h"

namespace appdb {

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
