// Inside sqlitedb/ the calls belong: the check passes over this file.
#include <sqlite3.h>

int allowed_open(sqlite3** db) { return sqlite3_open_v2(":memory:", db, SQLITE_OPEN_READWRITE, nullptr); }
