// The `catalog` table of an application database: its schema, index and the
// statement texts of the row operations. These texts are part of the on-disk
// format and of the shadow journals, so they never change.
#ifndef APPDB_CATALOG_TABLE_H_
#define APPDB_CATALOG_TABLE_H_

#include <stddef.h>

namespace appdb {

// Columns of a `catalog` row; the crc column is the last one.
constexpr int catalog_column_count = 28;

// Size of the buffer the literal insert and delete texts are formatted into;
// longer texts are cut by it.
constexpr size_t catalog_literal_sql_size = 3072;

extern const char* const catalog_create_table_sql;
extern const char* const catalog_create_index_sql;
extern const char* const catalog_insert_sql;           // 28 "?" parameters
extern const char* const catalog_insert_literal_format;  // sqlite3_snprintf format
extern const char* const catalog_delete_by_name_sql;
extern const char* const catalog_delete_by_backup_id_sql;
extern const char* const catalog_delete_literal_format;  // key column, key value

}  // namespace appdb

#endif  // APPDB_CATALOG_TABLE_H_
