// Scope guards of the catalog row operations: a borrowed database goes back to
// its cache, and a database directory is locked for exactly one scope, on
// every way out of an operation.
#ifndef APPDB_CATALOG_GUARDS_H_
#define APPDB_CATALOG_GUARDS_H_

#include <new>
#include <string>

#include "catalog_shadow/DirectoryLock.h"
#include "dct/status.h"

namespace appdb {

class appdb_cache;
struct appdb_value;

// Whether `value` is the store of the group of changes the calling thread is
// committing (catalog_group_commit.cpp): the group keeps it borrowed until
// its end, and the changes inside it give nothing back.
bool held_by_running_group(const appdb_value* value);

// Gives `value` back to `cache` under `path` (appdb_cache::return_db) when the
// scope ends. A null cache or value, or the store of the thread's running
// group, makes it do nothing.
class Auto_Return_DB {
public:
    Auto_Return_DB(appdb_cache* cache, const std::string& path, appdb_value* value);
    ~Auto_Return_DB();
    Auto_Return_DB(const Auto_Return_DB&) = delete;
    Auto_Return_DB& operator=(const Auto_Return_DB&) = delete;

private:
    appdb_cache* cache_;
    std::string path_;
    appdb_value* value_;
};

// Holds the directory lock of one database directory for one scope, through
// DirectoryLock::ScopedLock. When the lock state cannot be learned it logs
// "%s: failed to get %s lock status" (function, dir) with that status, and
// status() returns it; the caller must then leave the database alone. A null
// lock takes no lock and always succeeds.
class dir_lock_scope {
public:
    dir_lock_scope(DirectoryLock* lock, const std::string& dir, const char* function);
    dir_lock_scope(const dir_lock_scope&) = delete;
    dir_lock_scope& operator=(const dir_lock_scope&) = delete;

    cr_status_t status() const { return status_; }

private:
    DirectoryLock::ScopedLock lock_;
    cr_status_t status_;
};

}  // namespace appdb

#endif  // APPDB_CATALOG_GUARDS_H_
