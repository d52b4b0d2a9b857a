// The `catalog` table of an application database: its schema, index and the
// statement texts of the row operations. These texts are part of the on-disk
// format and of the shadow journals, so they never change.
#ifndef APPDB_CATALOG_TABLE_H_
#define APPDB_CATALOG_TABLE_H_

#include <stddef.h>

#include <string>

#include <sqlite3.h>

#include "dct/status.h"

namespace appdb {

// Columns of a `catalog` row; the crc column is the last one.
constexpr int catalog_column_count = 28;

extern const char* const catalog_create_table_sql;
extern const char* const catalog_create_index_sql;
extern const char* const catalog_insert_sql;           // 28 "?" parameters
// sqlitedb::format_sql formats of the literal texts handed to the journal;
// they are formatted whole, whatever their length. Every number is written as
// the value the prepared statement binds (32-bit fields as signed int, the
// size and the times as signed 64-bit), so a replayed row is the bound row.
extern const char* const catalog_insert_literal_format;
extern const char* const catalog_delete_by_name_sql;
extern const char* const catalog_delete_by_backup_id_sql;
extern const char* const catalog_delete_literal_format;  // key column, key value
// Followed by the quoted names, ", " between them, and ")": the journal text
// of a removal that took only some of the rows its key selected.
extern const char* const catalog_delete_names_literal_prefix;

// Whether the open database `db` holds no schema object at all: what a
// creation that failed half-way leaves (the file made, the table not). Such a
// file holds no rows. Anything that cannot be read (not a database, busy,
// damaged) counts as not empty and is left for the operation to report.
bool catalog_holds_no_table(sqlite3* db);

// Completes a database that holds no table with the `catalog` table and its
// index, inside one immediate transaction (two openers cannot both create
// it); a database holding anything else is left alone. `completed` tells
// whether the schema was added. Returns 0 or the logged, mapped status.
cr_status_t complete_tableless_catalog(sqlite3* db, const std::string& name, bool& completed);

}  // namespace appdb

#endif  // APPDB_CATALOG_TABLE_H_
