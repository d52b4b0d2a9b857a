// The one table that turns SQLite result codes into platform status codes,
// SQLite's texts of those codes, and its GLOB rule for matching outside SQL.
//
// Only the primary code (the low byte) is looked at, apart from a database that
// was moved or unlinked while open (READONLY_DBMOVED), which counts as corrupt.
//   OK, ROW, DONE        -> 0
//   BUSY                 -> 11
//   IOERR                -> 21
//   CORRUPT, NOTADB      -> 67
//   READONLY_DBMOVED     -> 67 (any other READONLY -> 4)
//   CANTOPEN             -> 4, or 21 under cantopen_rule::io_error
//   anything else        -> 4
//
// The one exception to the table is CANTOPEN, and it is named: a catalog file
// that cannot be opened is an input/output problem to the catalog layer
// (cantopen_rule::io_error), while the wrapper and the shadow report it as a
// plain failure (cantopen_rule::failure). A connection is given its rule when
// it is made (sqlitedb/connection.h) and maps every result with it.
#ifndef SQLITEDB_SQLITE_STATUS_H_
#define SQLITEDB_SQLITE_STATUS_H_

#include "dct/status.h"

namespace sqlitedb {

// How CANTOPEN maps: the table's one exception.
enum class cantopen_rule {
    failure,   // CANTOPEN -> 4 (db_exception::dberr_to_crstatus, the shadow)
    io_error,  // CANTOPEN -> 21 (catalog_store::map_status)
};

cr_status_t sqlite_to_crstatus(int rc, cantopen_rule cantopen);

// SQLite's own English text of the result code `rc` (static; never null).
const char* errstr(int rc);

// Whether `text` matches the GLOB `pattern` as SQL's GLOB operator decides
// (case-sensitive; "*", "?" and "[...]").
bool glob_match(const char* pattern, const char* text);

// The same, the rule given as a flag: true is cantopen_rule::io_error.
inline cr_status_t sqlite_to_crstatus(int rc, bool cantopen_is_io) {
    return sqlite_to_crstatus(rc, cantopen_is_io ? cantopen_rule::io_error : cantopen_rule::failure);
}

}  // namespace sqlitedb

#endif  // SQLITEDB_SQLITE_STATUS_H_
