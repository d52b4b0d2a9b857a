#include "sqlitedb/sqlite_status.h"

#include <sqlite3.h>

namespace sqlitedb {

cr_status_t sqlite_to_crstatus(int rc, cantopen_rule cantopen) {
    const int primary = rc & 0xFF;
    if (cantopen == cantopen_rule::io_error && primary == SQLITE_CANTOPEN) return CR_STATUS_IO;
    switch (primary) {
        case SQLITE_OK:
        case SQLITE_ROW:
        case SQLITE_DONE:
            return CR_STATUS_OK;
        case SQLITE_BUSY:
            return CR_STATUS_BUSY;
        case SQLITE_IOERR:
            return CR_STATUS_IO;
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return CR_STATUS_CORRUPT;
        case SQLITE_READONLY:
            // The file was renamed or unlinked under an open connection: what
            // the connection sees is no longer the database it opened.
            return rc == SQLITE_READONLY_DBMOVED ? CR_STATUS_CORRUPT : CR_STATUS_FAILED;
        default:
            return CR_STATUS_FAILED;
    }
}

const char* errstr(int rc) { return sqlite3_errstr(rc); }

bool glob_match(const char* pattern, const char* text) { return sqlite3_strglob(pattern, text) == 0; }

}  // namespace sqlitedb
