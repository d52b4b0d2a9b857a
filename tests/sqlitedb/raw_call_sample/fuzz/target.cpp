// A fuzz target binding by hand: the check must refuse it.
int bind_one(sqlite3_stmt* stmt) { return sqlite3_bind_int64(stmt, 1, 0); }
