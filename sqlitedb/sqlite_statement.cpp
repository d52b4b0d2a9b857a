#include "sqlitedb/sqlite_statement.h"

#include "dct/environment.h"

namespace sqlitedb {

statement& statement::operator=(statement&& other) noexcept {
    if (this != &other) {
        finalize();
        stmt_ = other.stmt_;
        other.stmt_ = nullptr;
    }
    return *this;
}

int statement::prepare(sqlite3* db, const char* sql, int bytes, bool persistent) {
    finalize();
    const unsigned int flags = persistent ? SQLITE_PREPARE_PERSISTENT : 0;
    const int rc = sqlite3_prepare_v3(db, sql, bytes, flags, &stmt_, nullptr);
    if (rc != SQLITE_OK) finalize();
    return rc;
}

void statement::finalize() {
    // sqlite3_finalize(NULL) is a harmless no-op.
    sqlite3_finalize(stmt_);
    stmt_ = nullptr;
}

int close_retrying(sqlite3* db, unsigned long retries,
                   const std::function<void(unsigned long)>& on_busy) {
    for (unsigned long busy = 0;; ++busy) {
        const int rc = sqlite3_close(db);
        if (rc != SQLITE_BUSY) return rc;
        if (on_busy) on_busy(busy);
        dct::current_environment().sleep_seconds(1);
        if (busy >= retries) return rc;
    }
}

}  // namespace sqlitedb
