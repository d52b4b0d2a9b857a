// Scope guards of the catalog row operations: a borrowed database goes back to
// its cache, a prepared statement is finalized, and a database directory is
// locked for exactly one scope, on every way out of an operation.
#ifndef APPDB_CATALOG_GUARDS_H_
#define APPDB_CATALOG_GUARDS_H_

#include <new>
#include <string>

#include <sqlite3.h>

#include "catalog_shadow/DirectoryLock.h"
#include "dct/status.h"

namespace appdb {

class appdb_cache;
struct appdb_value;

// Gives `value` back to `cache` under `path` (appdb_cache::return_db) when the
// scope ends. A null cache or value makes it do nothing.
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

// sqlite3_finalize; null is allowed.
void release_stmt(sqlite3_stmt* stmt);

// How auto_release<T> lets go of a T; specialised per type.
template <typename T>
void release_object(T* object);

template <>
inline void release_object<sqlite3_stmt>(sqlite3_stmt* stmt) {
    release_stmt(stmt);
}

// Logs the allocation failure of a releasing destructor; see auto_release.
void log_release_out_of_memory(const char* function);

// Owns one object and releases it through release_object<T> at scope end.
template <typename T>
class auto_release {
public:
    explicit auto_release(T* object = nullptr) : object_(object) {}
    ~auto_release() {
        try {
            release_object<T>(object_);
        } catch (const std::bad_alloc&) {
            log_release_out_of_memory("~auto_release");
        }
    }
    auto_release(const auto_release&) = delete;
    auto_release& operator=(const auto_release&) = delete;

    T* get() const { return object_; }

private:
    T* object_;
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
