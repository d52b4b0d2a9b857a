// Statement texts of the `catalog` table.
#include "appdb/catalog_table.h"

#include <string>

#include "appdb/catalog_fields.h"

namespace appdb {

namespace {

struct built_texts {
    std::string create_table;
    std::string insert;

    built_texts() {
        create_table = "CREATE TABLE catalog (";
        insert = "INSERT INTO catalog VALUES(";
        for (int c = 0; c < catalog_column_count; ++c) {
            if (c != 0) {
                create_table += ",     ";
                insert += ",";
            }
            create_table += catalog_columns[c].name;
            create_table += ' ';
            create_table += catalog_columns[c].declaration;
            insert += " ?";
        }
        create_table += ')';
        insert += ')';
    }
};

const built_texts& texts() {
    static const built_texts instance;
    return instance;
}

}  // namespace

const char* catalog_create_table_sql() { return texts().create_table.c_str(); }

const char* catalog_insert_sql() { return texts().insert.c_str(); }

const char* const catalog_create_index_sql =
    "CREATE INDEX IF NOT EXISTS catalog_backupid ON catalog(backupid)";

const char* const catalog_delete_by_name_sql = "DELETE FROM catalog WHERE name = ?";

const char* const catalog_delete_by_backup_id_sql = "DELETE FROM catalog WHERE backupid = ?";

const char* const catalog_delete_literal_format = "DELETE FROM catalog WHERE %s = (%Q)";

const char* const catalog_delete_names_literal_prefix = "DELETE FROM catalog WHERE name IN (";

}  // namespace appdb
