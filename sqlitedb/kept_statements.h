// The statements a connection prepares once and keeps, keyed by their text.
//
// A connection that serves the same few texts again and again (the catalog's
// insert, deletes and selects) prepares each of them the first time and then
// only looks it up: no allocation and no system call per use. The list is
// short and searched in order; texts beyond its bound are prepared for one
// use into a statement the caller owns, so a caller's many ad-hoc texts cannot
// grow it. Kept statements hold their connection open: the owner clears them
// before it closes the connection (sqlitedb::connection does).
#ifndef SQLITEDB_KEPT_STATEMENTS_H_
#define SQLITEDB_KEPT_STATEMENTS_H_

#include <stddef.h>

#include <string>
#include <utility>
#include <vector>

#include <sqlite3.h>

#include "sqlitedb/sqlite_statement.h"

namespace sqlitedb {

class kept_statements {
public:
    static constexpr size_t max_kept = 16;

    // The prepared statement of the NUL-terminated text `sql` of `length`
    // bytes on `db`, prepared (and kept) when new. When the list is full, a
    // new text is prepared into `once`, which the caller owns for this use.
    // Null when the text does not prepare (SQLite's code in *rc) or holds no
    // statement (*rc is 0).
    statement_ref get(sqlite3* db, const char* sql, size_t length, int* rc, statement* once);

    size_t size() const { return kept_.size(); }

    // Finalises every kept statement.
    void clear() { kept_.clear(); }

private:
    std::vector<std::pair<std::string, statement>> kept_;
};

}  // namespace sqlitedb

#endif  // SQLITEDB_KEPT_STATEMENTS_H_
