// Reading a whole `catalog` table to check it: the row count, and every row's
// stored checksum against catalog_row_crc. For programs
// that inspect a database file outside a catalog application (the shadow
// command's verify and recovery checks).
#ifndef APPDB_CATALOG_ROW_CHECK_H_
#define APPDB_CATALOG_ROW_CHECK_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "dct/status.h"
#include "sqlitedb/connection.h"

namespace appdb {

// Rows of the `catalog` table of `db` (open; `name` names it in log lines)
// into `rows`. 0, or the mapped SQLite status (logged).
cr_status_t count_catalog_rows(sqlitedb::connection& db, const std::string& name, uint64_t* rows);

// Reads every row of the `catalog` table of `db` and compares its stored
// checksum with the one its fields give. `rows` receives the rows read;
// `bad_items` the line form of each row whose checksum does not match (each
// also logged "%s: crc mismatch for app cat item %s"). 0 when the whole table
// was read, whatever the rows held; the mapped SQLite status (logged) when it
// could not be.
cr_status_t check_catalog_rows(sqlitedb::connection& db, const std::string& name, uint64_t* rows,
                               std::vector<std::string>* bad_items);

}  // namespace appdb

#endif  // APPDB_CATALOG_ROW_CHECK_H_
