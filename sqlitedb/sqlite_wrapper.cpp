#include "sqlitedb/sqlite_wrapper.h"

#include <sys/stat.h>

#include <stdarg.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <limits>
#include <new>

#include "dct/fs.h"
#include "dct/log.h"
#include "sqlitedb/busy_retry.h"
#include "sqlitedb/sqlite_statement.h"
#include "sqlitedb/sqlite_status.h"

namespace sqlitedb {

namespace {

// Closes made on the way (destructor, reopen, failed open, drop) retry this often.
const unsigned long kCloseRetries = 3;
// A failing statement longer than this is logged cut short.
const size_t kLoggedSqlMax = 1024;
const size_t kLoggedSqlCut = 1020;

}  // namespace

bool format_sql(std::string& out, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    char* text = sqlite3_vmprintf(format, ap);
    va_end(ap);
    if (text == nullptr) return false;
    try {
        out.assign(text);
    } catch (const std::bad_alloc&) {
        sqlite3_free(text);
        return false;
    }
    sqlite3_free(text);
    return true;
}

// ---------------------------------------------------------------- db_exception

db_exception::db_exception(int code)
    : errcode_(code), message_(sqlite3_errstr(code)), cr_status_(dberr_to_crstatus(code)) {}

db_exception::db_exception(int code, const char* msg)
    : errcode_(code), message_(msg != nullptr ? msg : ""), cr_status_(dberr_to_crstatus(code)) {}

db_exception::db_exception(int code, cr_status_t st)
    : errcode_(code), message_(sqlite3_errstr(code)), cr_status_(st) {}

db_exception::~db_exception() = default;

const char* db_exception::what() const { return message_.c_str(); }

cr_status_t db_exception::dberr_to_crstatus(int rc) { return sqlite_to_crstatus(rc, cantopen_rule::failure); }

// ------------------------------------------------------------- sqlite3_wrapper

sqlite3_wrapper::sqlite3_wrapper(const std::string& p) : path(p), handle(nullptr), opened(false) {}

sqlite3_wrapper::~sqlite3_wrapper() { close_db(kCloseRetries); }

void sqlite3_wrapper::forget_handle() {
    handle = nullptr;
    opened = false;
}

cr_status_t sqlite3_wrapper::open_db() {
    // Opening over a live connection would lose it.
    if (handle != nullptr) close_db(kCloseRetries);
    InfoA(0, "Open SQLite database %s", path.c_str());
    const cr_status_t status = conn_.open(path, open_mode::create);
    handle = conn_.handle();
    if (status == CR_STATUS_OK) {
        opened = true;
        return CR_STATUS_OK;
    }
    if (handle == nullptr) {
        ErrorA(status, "Failed to open database %s", path.c_str());
    } else {
        ErrorA(status, "Failed to set extended result code for %s", path.c_str());
    }
    close_db(kCloseRetries);
    return status;
}

cr_status_t sqlite3_wrapper::open_db(const std::string& p) {
    if (handle != nullptr) close_db(kCloseRetries);
    path = p;
    return open_db();
}

cr_status_t sqlite3_wrapper::checkopen() {
    if (handle != nullptr) return CR_STATUS_OK;
    if (wa_access(path, 0) != 0) return CR_STATUS_MISSING;
    struct stat st;
    if (wa_stat(path, &st) == 0 && st.st_size >= 1) return open_db();
    return CR_STATUS_EMPTY;
}

cr_status_t sqlite3_wrapper::exec(const std::string& sql) {
    if (handle == nullptr) {
        ErrorA(CR_STATUS_MISSING, "%s is not opened.", path.c_str());
        return CR_STATUS_MISSING;
    }
    __TraceA("Exec sql statement [[[%s]]] for %s", sql.c_str(), path.c_str());

    if (conn_.exec(sql) == CR_STATUS_OK) return CR_STATUS_OK;
    const int rc = conn_.code();
    const std::string errtext = conn_.exec_message() != nullptr ? conn_.exec_message() : "null";

    const std::string shown =
        sql.size() > kLoggedSqlMax ? sql.substr(0, kLoggedSqlCut) + "...." : sql;
    const cr_status_t status = db_exception::dberr_to_crstatus(rc);
    if (rc == SQLITE_BUSY) {
        InfoA(status, "%s: [[[\"%s\"]]] (%d:%s) returns SQLITE_BUSY.", path.c_str(), shown.c_str(),
              rc, errtext.c_str());
    } else {
        ErrorA(status, "%s: failed to execute [[[\"%s\"]]] (%d:%s)", path.c_str(), shown.c_str(), rc,
               errtext.c_str());
    }
    return on_db_error(rc);
}

cr_status_t sqlite3_wrapper::exec_file(const std::string& file) {
    return exec_file(file, std::numeric_limits<uint64_t>::max());
}

cr_status_t sqlite3_wrapper::exec_file(const std::string& file, uint64_t max_bytes) {
    if (handle == nullptr) {
        ErrorA(CR_STATUS_MISSING, "%s is not opened.", path.c_str());
        return CR_STATUS_MISSING;
    }
    __TraceA("Execute sql file %s", file.c_str());
    std::string content;
    try {
        std::ifstream in(file.c_str(), std::ios::in | std::ios::binary | std::ios::ate);
        const std::streamoff size = in ? static_cast<std::streamoff>(in.tellg()) : 0;
        if (size > 0) {
            const uint64_t wanted = std::min<uint64_t>(static_cast<uint64_t>(size), max_bytes);
            content.resize(static_cast<size_t>(wanted));
            in.seekg(0);
            in.read(&content[0], static_cast<std::streamsize>(wanted));
            content.resize(static_cast<size_t>(in.gcount()));
        }
    } catch (const std::bad_alloc&) {
        ErrorA(CR_STATUS_FAILED, "Failed to load the content of %s", file.c_str());
        return CR_STATUS_FAILED;
    }
    return exec(content);
}

cr_status_t sqlite3_wrapper::run_transaction_statement(const char* function, const char* sql) {
    if (handle == nullptr) {
        ErrorA(CR_STATUS_MISSING, "%s is not opened.", path.c_str());
        return CR_STATUS_MISSING;
    }
    try {
        // exec logs each busy try itself.
        return retry_while_busy([&] { return exec(sql); },
                                [](unsigned int) { return true; });
    } catch (const db_exception& e) {
        ErrorA(e.cr_status(), "%s: Catch sqlite database runtime exception [%d]: %s", function,
               e.errcode(), e.what());
        return e.cr_status();
    }
}

cr_status_t sqlite3_wrapper::begin_transaction() {
    return run_transaction_statement("begin_transaction", "BEGIN IMMEDIATE TRANSACTION;");
}

cr_status_t sqlite3_wrapper::commit_transaction() {
    return run_transaction_statement("commit_transaction", "COMMIT TRANSACTION;");
}

cr_status_t sqlite3_wrapper::rollback_transaction() {
    return run_transaction_statement("rollback_transaction", "ROLLBACK TRANSACTION;");
}

bool sqlite3_wrapper::pragma_ready(const std::string& sql, const std::string& expect) {
    if (handle == nullptr) {
        ErrorA(CR_STATUS_MISSING, "%s is not opened.", path.c_str());
        return false;
    }
    // "datase" is how this line has always read; log filters match on it.
    __TraceA("Run \"%s\" on SQLite datase, expect result: %s", sql.c_str(), expect.c_str());
    return true;
}

bool sqlite3_wrapper::run_pragma(const std::string& sql, const std::string& expect,
                                 std::string* result) {
    return pragma_ready(sql, expect) && conn_.value_matches(sql.c_str(), expect, result);
}

bool sqlite3_wrapper::run_integrity_check(std::string& result) {
    return pragma_ready("PRAGMA integrity_check;", "ok") && conn_.integrity_check(&result);
}

cr_status_t sqlite3_wrapper::close_db(unsigned long retries) {
    InfoA(0, "Close SQLite database %s", path.c_str());
    if (handle == nullptr) {
        forget_handle();
        return CR_STATUS_OK;
    }
    try {
        const int rc = conn_.close(retries, [this](unsigned long) {
            __TraceA("Database %s is busy, sleep 1 second before retry", path.c_str());
        });
        if (rc == SQLITE_BUSY) {
            // Still busy: give the handle up rather than block the caller for
            // ever. Its statements keep it alive inside SQLite.
            forget_handle();
            return CR_STATUS_OK;
        }
        const cr_status_t status = db_exception::dberr_to_crstatus(rc);
        if (status == CR_STATUS_OK) forget_handle();
        return status;
    } catch (const db_exception& e) {
        ErrorA(e.cr_status(), "%s: Catch sqlite database runtime exception [%d]: %s", "close_db",
               e.errcode(), e.what());
        if (e.cr_status() == CR_STATUS_OK) forget_handle();
        return e.cr_status();
    }
}

cr_status_t sqlite3_wrapper::on_db_error(int rc) {
    const char* message = sqlite3_errstr(rc);
    const cr_status_t status = db_exception::dberr_to_crstatus(rc);
    InfoA(CR_STATUS_NONE, "[DBERR %08X]: %s", static_cast<unsigned>(rc), message);
    if (status == CR_STATUS_CORRUPT) throw db_exception(rc, message);
    return status;
}

bool check_database_integrity(const std::string& file) {
    __TraceA("Run integrity check on SQLite database %s", file.c_str());
    // The wrapper creates a missing file on open; a missing database is not
    // one that passes.
    if (wa_access(file, 0) != 0) {
        ErrorA(CR_STATUS_MISSING, "Can't open database %s", file.c_str());
        return false;
    }
    sqlite3_wrapper db(file);
    cr_status_t status = db.open_db();
    if (status != CR_STATUS_OK) {
        ErrorA(status, "Can't open database %s", file.c_str());
        return false;
    }
    std::string result;
    const bool ok = db.run_integrity_check(result);
    if (ok) {
        InfoA(CR_STATUS_OK, "Run integrity check on %s successfully.", file.c_str());
    } else {
        WarningA(CR_STATUS_CORRUPT, "Run integrity check on %s failed: %s", file.c_str(), result.c_str());
    }
    // The check only read: a failed close changes nothing of the answer.
    status = db.close_db(kCloseRetries);
    if (status != CR_STATUS_OK) WarningA(status, "%s: failed to close db %s", "check_database_integrity", file.c_str());
    return ok;
}

}  // namespace sqlitedb
