// The one table that turns SQLite result codes into platform status codes.
//
// Only the primary code (the low byte) is looked at, apart from a database that
// was moved or unlinked while open (READONLY_DBMOVED), which counts as corrupt.
//   OK, ROW, DONE        -> 0
//   BUSY                 -> 11
//   IOERR                -> 21
//   CORRUPT, NOTADB      -> 67
//   READONLY_DBMOVED     -> 67 (any other READONLY -> 4)
//   CANTOPEN             -> 21 when `cantopen_is_io`, else 4
//   anything else        -> 4
// The wrapper (db_exception::dberr_to_crstatus) passes cantopen_is_io = false;
// the catalog layer passes true, since a catalog file that cannot be opened is
// an input/output problem there.
#ifndef SQLITEDB_SQLITE_STATUS_H_
#define SQLITEDB_SQLITE_STATUS_H_

#include "dct/status.h"

namespace sqlitedb {

cr_status_t sqlite_to_crstatus(int rc, bool cantopen_is_io);

}  // namespace sqlitedb

#endif  // SQLITEDB_SQLITE_STATUS_H_
