// Statement texts of the `catalog` table.
#include "appdb/catalog_table.h"

namespace appdb {

// The blanks between the columns are kept as existing databases carry them in
// their schema text.
const char* const catalog_create_table_sql =
    "CREATE TABLE catalog (version INTEGER,     name TEXT PRIMARY KEY,     filename TEXT,     "
    "filelen INTEGER,     backupid TEXT,     policy_type INTEGER,     schedule_type INTEGER,     "
    "frag_nums INTEGER,     app_id TEXT,     dataobject TEXT,     backup_app_expire_time INTEGER,"
    "     backup_orvo_expire_time INTEGER,     backup_start_time INTEGER,     backup_stop_time "
    "INTEGER,     owner TEXT,     owner_role INTEGER,     description TEXT,     reserver0 TEXT,"
    "     reserver1 TEXT,     reserver2 TEXT,     reserver3 TEXT,     reserver4 TEXT,     "
    "reserver5 TEXT,     reserver6 TEXT,     reserver7 TEXT,     reserver8 TEXT,     reserver9 "
    "TEXT,     crc INTEGER)";

const char* const catalog_create_index_sql =
    "CREATE INDEX IF NOT EXISTS catalog_backupid ON catalog(backupid)";

const char* const catalog_insert_sql =
    "INSERT INTO catalog VALUES( ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
    "?, ?, ?, ?, ?, ?)";

const char* const catalog_insert_literal_format =
    "INSERT INTO catalog VALUES (%d, %Q, %Q, %lld, %Q, %d, %d, %d, %Q, %Q, %lld, %lld, %lld, "
    "%lld, %Q, %d, %Q, %Q, %Q, %Q, %Q, %Q, %Q, %Q, %Q, %Q, %Q, %d)";

const char* const catalog_delete_by_name_sql = "DELETE FROM catalog WHERE name = ?";

const char* const catalog_delete_by_backup_id_sql = "DELETE FROM catalog WHERE backupid = ?";

const char* const catalog_delete_literal_format = "DELETE FROM catalog WHERE %s = (%Q)";

const char* const catalog_delete_names_literal_prefix = "DELETE FROM catalog WHERE name IN (";

}  // namespace appdb
