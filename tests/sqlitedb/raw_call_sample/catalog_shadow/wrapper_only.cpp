// Names the wrapper class and a log text that only ends in the prefix: no call.
void check(const std::string& path) {
    sqlitedb::sqlite3_wrapper db(path);
    log("%s: busy", "close_sqlite3_db");
}
