// A tool that still drives SQLite itself: the check must refuse it.
#include <sqlite3.h>

int sample_count(sqlite3* db) { return sqlite3_exec(db, "SELECT 1;", nullptr, nullptr, nullptr); }
