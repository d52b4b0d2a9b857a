// The statement texts of the `catalog` table. The schema and the insert are
// built from the column table (catalog_fields.h); all of them are part of the
// on-disk format and of the shadow journals, so they never change.
#ifndef APPDB_CATALOG_TABLE_H_
#define APPDB_CATALOG_TABLE_H_

namespace appdb {

// "CREATE TABLE catalog (version INTEGER,     name TEXT PRIMARY KEY, ...)":
// each column with its declaration, ",     " between them, as existing
// databases carry it in their schema text.
const char* catalog_create_table_sql();
// "INSERT INTO catalog VALUES( ?, ?, ... ?)", one parameter per column.
const char* catalog_insert_sql();

extern const char* const catalog_create_index_sql;
extern const char* const catalog_delete_by_name_sql;
extern const char* const catalog_delete_by_backup_id_sql;
// sqlitedb::format_sql format of a delete's journal text: key column, value.
extern const char* const catalog_delete_literal_format;
// Followed by the quoted names, ", " between them, and ")": the journal text
// of a removal that took only some of the rows its key selected.
extern const char* const catalog_delete_names_literal_prefix;

}  // namespace appdb

#endif  // APPDB_CATALOG_TABLE_H_
