#include "sqlitedb/kept_statements.h"

#include <string.h>

namespace sqlitedb {

statement_ref kept_statements::get(sqlite3* db, const char* sql, size_t length, int* rc,
                                   statement* once) {
    *rc = SQLITE_OK;
    for (auto& entry : kept_) {
        if (entry.first.size() == length && memcmp(entry.first.data(), sql, length) == 0) {
            return entry.second.ref();
        }
    }
    statement fresh;
    // The length handed over includes the terminator: SQLite then need not
    // copy the text.
    *rc = fresh.prepare(db, sql, static_cast<int>(length + 1), kept_.size() < max_kept);
    // A text without a statement (empty, or only a comment) prepares to none.
    if (*rc != SQLITE_OK || !fresh) return statement_ref();
    if (kept_.size() >= max_kept) {
        *once = std::move(fresh);
        return once->ref();
    }
    kept_.emplace_back(std::string(sql, length), std::move(fresh));
    return kept_.back().second.ref();
}

}  // namespace sqlitedb
