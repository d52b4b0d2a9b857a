// appdb_cache: open application databases (catalog stores, each with its
// connection and prepared statements) kept between operations.
//
// A connection is either idle in the cache or handed out to exactly one
// borrower until it is given back. When idle plus handed-out connections exceed
// the capacity, the idle connection visited longest ago is closed (at most one
// per create_db / return_db). When every connection is handed out the cache
// may stay over capacity: a borrower's connection is never closed under it.
//
// Thread-safe: one mutex serialises every public operation, including the
// closes with their one-second busy retries. No operation throws. Lock order:
// a caller may hold a database directory lock when it calls in; the cache never
// takes a directory lock while it holds its mutex.
#ifndef APPDB_APPDB_CACHE_H_
#define APPDB_APPDB_CACHE_H_

#include <pthread.h>
#include <sys/types.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "appdb/catalog_store.h"
#include "catalog_shadow/DirectoryLock.h"
#include "dct/environment.h"

namespace appdb {

// One open database. Owned by the cache while idle, by the borrower while
// handed out; deleting it closes the store.
struct appdb_value {
    std::unique_ptr<catalog_store> store;
    unsigned long time_visit;  // last hand-out or return, ms since the epoch (the cache's clock)
    // The file the store has open, as its directory named it when the store
    // was last found not moved: later checks look its name up in the locked
    // directory's descriptor and compare, instead of resolving the whole path.
    bool identity_known = false;
    dev_t file_dev = 0;
    ino_t file_ino = 0;
};

class appdb_cache {
public:
    // capacity = max(size, 2).
    explicit appdb_cache(unsigned int size);
    // Closes every idle connection, as close_all_db().
    ~appdb_cache();
    appdb_cache(const appdb_cache&) = delete;
    appdb_cache& operator=(const appdb_cache&) = delete;

    // The clock the visits are timed by: `env`'s (a copy is kept); the
    // default environment's until given. Set before the cache is shared.
    void use_environment(const dct::environment& env) { env_ = env; }

    // Hands out the idle connection of `path`, or null when there is none
    // (the caller then opens the file and registers it with create_db).
    appdb_value* get_db(const std::string& path);

    // Registers a freshly opened store as handed out. On null (another store
    // of `path` is idle or handed out, or memory ran out) `store` has been
    // closed; a null `store` is refused.
    appdb_value* create_db(const std::string& path, std::unique_ptr<catalog_store> store);

    // Gives a handed-out connection back. False when `path` is idle already or
    // was not handed out; `v` then stays the caller's. A false caused by
    // memory running out has closed the connection.
    bool return_db(const std::string& path, appdb_value* v);

    // Closes a handed-out connection of `path` and forgets it, instead of
    // taking it back: for a connection whose file another process has
    // replaced or removed. False when `path` was not handed out; `v` then
    // stays the caller's.
    bool discard_db(const std::string& path, appdb_value* v);

    // Closes the idle connection of `path`; a handed-out one is left alone.
    void close_db(const std::string& path);

    // Closes every idle connection and forgets the handed-out ones: their
    // borrowers own them, a later return_db of one is refused, and the
    // borrower closes it (Auto_Return_DB does so).
    void close_all_db();

    // Observers for tests and diagnostics; each takes the mutex.
    bool check_invariant() const;
    size_t idle_count() const;
    size_t handed_out_count() const;
    // Whether `path` is handed out at this moment.
    bool is_handed_out(const std::string& path) const;
    size_t priority_time_count() const;
    unsigned int capacity() const { return capacity_; }

private:
    class scoped_mutex;

    // The operations below run with mutex_ held.
    // Takes `path` out of no_return_cache_; false (logged under `function`)
    // when it was not handed out.
    bool end_borrow(const char* function, const std::string& path);
    void reclaim();
    bool add_priority(unsigned long time, const std::string& path);
    bool del_priority(unsigned long time, const std::string& path);
    void log_state();
    void clear_cache_priority();

    std::map<std::string, appdb_value*> cache_;  // idle connections by path
    // Paths of idle connections by their time_visit, in insertion order;
    // the first entry is the least recently visited.
    std::map<unsigned long, std::vector<std::string>*> cache_priority_;
    std::set<std::string> no_return_cache_;  // paths handed out and not yet returned
    const unsigned int capacity_;
    mutable pthread_mutex_t mutex_;
    CatalogDirectoryLock* dir_lock_;  // may be null if its allocation failed
    dct::environment env_;            // its clock times the visits
};

}  // namespace appdb

#endif  // APPDB_APPDB_CACHE_H_
