// Steps and reads a statement itself: the check must refuse both lines.
int first_value(sqlite3_stmt* stmt) {
    return sqlite3_step(stmt) == 100 ? sqlite3_column_int(stmt, 0) : -1;
}
