// A program built against the installed headers may use SQLite as it likes.
int open_own(sqlite3** db) { return sqlite3_open(":memory:", db); }
