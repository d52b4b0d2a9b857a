// What the parts of catalog_store share inside the library: the small
// steps every row operation is built of. Private to catalog_store*.cpp.
#ifndef APPDB_CATALOG_STORE_INTERNAL_H_
#define APPDB_CATALOG_STORE_INTERNAL_H_

#include <string>

#include "appdb/catalog_fields.h"
#include "appdb/catalog_store.h"
#include "sqlitedb/sqlite_statement.h"

namespace appdb {

// Texts are bound without a copy (statement_ref::bind_text, bind_bytes):
// every caller's text outlives the statement's use. Items holding a NUL are
// refused before they are bound up to their first NUL.

// Decodes the columns that carry a field into `item` (the key column repeats
// the file name and is not read).
void decode_row(sqlitedb::statement_ref stmt, app_catalog_item& item);

// Log a failure of one step of `fn` on the database file `name` with the
// system's texts and return its status mapped; a busy step is a warning, for
// the caller's retry.
cr_status_t step_failure(const char* fn, const sqlitedb::connection& db, const std::string& name,
                         const char* format_what, const std::string& what, int rc);
cr_status_t prepare_failure(const char* fn, const std::string& name, const char* sql, int rc);
cr_status_t bind_failure(const char* fn, const std::string& name, const std::string& sql,
                         const std::string& key, int rc);

// The stored checksum of a decoded row.
inline uint32_t stored_crc(sqlitedb::statement_ref stmt) {
    return static_cast<uint32_t>(stmt.column_int(catalog_crc_column));
}

}  // namespace appdb

#endif  // APPDB_CATALOG_STORE_INTERNAL_H_
