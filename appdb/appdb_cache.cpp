#include "appdb/appdb_cache.h"

#include <algorithm>
#include <new>

#include "dct/clock.h"
#include "dct/log.h"

namespace appdb {

namespace {
const unsigned int kMinCapacity = 2;

// Logs when the lock state of `dir` could not be learned; the caller goes on.
void report_lock_state(const DirectoryLock::ScopedLock& lock, const std::string& dir) {
    cr_status_t st = lock.GetLockStringStatus();
    if (st == CR_STATUS_OK) st = lock.GetStatus();
    if (st != CR_STATUS_OK)
        ErrorA(st, "%s: failed to get %s lock status", "close_all_db", dir.c_str());
}
}  // namespace

// Holds the cache's mutex for one scope.
class appdb_cache::scoped_mutex {
public:
    explicit scoped_mutex(pthread_mutex_t* m) : m_(m) { pthread_mutex_lock(m_); }
    ~scoped_mutex() { pthread_mutex_unlock(m_); }
    scoped_mutex(const scoped_mutex&) = delete;
    scoped_mutex& operator=(const scoped_mutex&) = delete;

private:
    pthread_mutex_t* m_;
};

appdb_cache::appdb_cache(unsigned int size)
    : capacity_(std::max(size, kMinCapacity)), dir_lock_(new (std::nothrow) CatalogDirectoryLock) {
    pthread_mutex_init(&mutex_, nullptr);
    InfoA(0, "%s: app db use cache size %u", "appdb_cache", capacity_);
}

appdb_cache::~appdb_cache() {
    close_all_db();
    delete dir_lock_;
    pthread_mutex_destroy(&mutex_);
}

appdb_value* appdb_cache::get_db(const std::string& path) {
    scoped_mutex lock(&mutex_);
    __TraceA("%s: get db %s", __func__, path.c_str());

    auto it = cache_.find(path);
    if (it == cache_.end()) {
        if (no_return_cache_.count(path) != 0)
            ErrorA(CR_STATUS_NONE, "%s: dup app db 2 path %s in no_return_cache", __func__, path.c_str());
        return nullptr;
    }
    appdb_value* v = it->second;
    del_priority(v->time_visit, path);
    v->time_visit = env_.now_ms();
    cache_.erase(it);
    if (no_return_cache_.count(path) != 0) {
        // Cannot happen while the invariant holds; the value is not put back.
        ErrorA(CR_STATUS_NONE, "%s: dup app db path %s in no_return_cache", __func__, path.c_str());
        return nullptr;
    }
    try {
        no_return_cache_.insert(path);
    } catch (const std::bad_alloc&) {
        delete v;
        ErrorA(CR_STATUS_NONE, "%s: out of memory when inserting no_return_cache_", __func__);
        return nullptr;
    }
    return v;
}

appdb_value* appdb_cache::create_db(const std::string& path, std::unique_ptr<catalog_store> store) {
    if (!store) {
        ErrorA(CR_STATUS_NONE, "%s: null db", __func__);
        return nullptr;
    }
    scoped_mutex lock(&mutex_);
    __TraceA("%s: create db %s", __func__, path.c_str());

    // Every refusal below closes the store as it goes out of scope.
    if (cache_.count(path) != 0) {
        ErrorA(CR_STATUS_NONE, "%s: duplicate app db found for %s", __func__, path.c_str());
        return nullptr;
    }
    InfoA(0, "%s: create app db cache value for %s", __func__, path.c_str());
    appdb_value* v = new (std::nothrow) appdb_value{std::move(store), env_.now_ms()};
    if (v == nullptr) {
        ErrorA(CR_STATUS_NONE, "%s: out of memory", __func__);
        return nullptr;
    }
    if (no_return_cache_.count(path) != 0) {
        delete v;
        ErrorA(CR_STATUS_NONE, "%s: dup db path %s in no_return_cache_", __func__, path.c_str());
        return nullptr;
    }
    try {
        no_return_cache_.insert(path);
    } catch (const std::bad_alloc&) {
        delete v;
        ErrorA(CR_STATUS_NONE, "%s: out of memory when inserting no_return_cache_", __func__);
        return nullptr;
    }
    reclaim();
    return v;
}

bool appdb_cache::end_borrow(const char* function, const std::string& path) {
    auto out = no_return_cache_.find(path);
    if (out == no_return_cache_.end()) {
        ErrorA(CR_STATUS_NONE, "%s: don't find app db path %s in no_return_cache", function,
               path.c_str());
        return false;
    }
    no_return_cache_.erase(out);
    return true;
}

bool appdb_cache::return_db(const std::string& path, appdb_value* v) {
    scoped_mutex lock(&mutex_);
    __TraceA("%s: return db %s", __func__, path.c_str());

    if (cache_.count(path) != 0) {
        ErrorA(CR_STATUS_NONE, "%s: dup db path %s", __func__, path.c_str());
        return false;
    }
    if (!end_borrow(__func__, path)) return false;
    try {
        cache_.emplace(path, v);
    } catch (const std::bad_alloc&) {
        ErrorA(CR_STATUS_NONE, "%s: out of memory for cache insert", __func__);
        delete v;
        return false;
    }
    v->time_visit = env_.now_ms();
    if (!add_priority(v->time_visit, path)) {
        ErrorA(CR_STATUS_NONE, "%s: add_priority failed for %s", __func__, path.c_str());
        cache_.erase(path);
        delete v;
        return false;
    }
    reclaim();
    return true;
}

bool appdb_cache::discard_db(const std::string& path, appdb_value* v) {
    scoped_mutex lock(&mutex_);
    if (!end_borrow(__func__, path)) return false;
    InfoA(0, "%s: close app db %s", __func__, path.c_str());
    delete v;
    return true;
}

bool appdb_cache::add_priority(unsigned long time, const std::string& path) {
    auto it = cache_priority_.find(time);
    if (it != cache_priority_.end()) {
        try {
            it->second->push_back(path);
        } catch (const std::bad_alloc&) {
            ErrorA(CR_STATUS_NONE, "%s: out of memory when insert cache_priority_ 2", __func__);
            return false;
        }
        __TraceA("%s: append app db name %s under time_visit_ %lu, cur size %d", __func__,
                 path.c_str(), time, static_cast<int>(it->second->size()));
        return true;
    }
    std::vector<std::string>* names = new (std::nothrow) std::vector<std::string>;
    if (names == nullptr) {
        ErrorA(CR_STATUS_NONE, "%s: out of memory", __func__);
        return false;
    }
    try {
        names->push_back(path);
        cache_priority_.emplace(time, names);
    } catch (const std::bad_alloc&) {
        delete names;
        ErrorA(CR_STATUS_NONE, "%s: out of memory when insert cache_priority_", __func__);
        return false;
    }
    __TraceA("%s: create priority cache for time_visit_ %lu", __func__, time);
    return true;
}

bool appdb_cache::del_priority(unsigned long time, const std::string& path) {
    auto it = cache_priority_.find(time);
    if (it == cache_priority_.end()) {
        ErrorA(CR_STATUS_NONE, "%s: don't find time_visit_ %lu", __func__, time);
        return false;
    }
    std::vector<std::string>* names = it->second;
    if (names->empty()) {
        ErrorA(CR_STATUS_NONE, "%s: fatal error, priority cache is 0 for time %lu", __func__, time);
        return false;
    }
    auto pos = std::find(names->begin(), names->end(), path);
    if (pos == names->end()) {
        ErrorA(CR_STATUS_NONE, "%s: don't find db name %s from time_visit_ %lu", __func__,
               path.c_str(), time);
        return false;
    }
    names->erase(pos);  // keeps the others in insertion order
    if (names->empty()) {
        delete names;
        cache_priority_.erase(it);
    }
    return true;
}

void appdb_cache::reclaim() {
    if (cache_.size() + no_return_cache_.size() <= capacity_) return;
    if (cache_priority_.empty()) {
        // Every connection is handed out: stay over capacity rather than
        // close a connection under its borrower.
        InfoA(0, "%s: cache_priority_ size is 0, no return cache %u, system is busy", __func__,
              static_cast<unsigned>(no_return_cache_.size()));
        return;
    }
    auto oldest = cache_priority_.begin();
    const unsigned long time = oldest->first;
    std::vector<std::string>* names = oldest->second;
    __TraceA("%s: begin to reclaim appdb cache, min visit time %lu, cached size %u", __func__, time,
             static_cast<unsigned>(cache_.size()));
    if (names->empty()) {
        ErrorA(CR_STATUS_NONE, "%s: fatal error %lucache_priority_ size is 0", __func__, time);
        return;
    }
    // Among connections visited in the same millisecond, the one added first goes.
    const std::string victim = names->front();
    auto it = cache_.find(victim);
    if (it == cache_.end()) {
        ErrorA(CR_STATUS_NONE, "%s: fatal error db name not found %s, cache size %u", __func__,
               victim.c_str(), static_cast<unsigned>(cache_.size()));
        return;
    }
    names->erase(names->begin());
    if (names->empty()) {
        delete names;
        cache_priority_.erase(oldest);
    }
    appdb_value* v = it->second;
    cache_.erase(it);
    delete v;
    InfoA(0, "%s: succeed to reclaim appdb cache, app db path %s, min visit time %lu", __func__,
          victim.c_str(), time);
}

void appdb_cache::close_db(const std::string& path) {
    scoped_mutex lock(&mutex_);
    auto it = cache_.find(path);
    if (it != cache_.end()) {
        InfoA(0, "%s: close app db %s", __func__, path.c_str());
        appdb_value* v = it->second;
        del_priority(v->time_visit, path);
        cache_.erase(it);
        delete v;
        return;
    }
    if (no_return_cache_.count(path) != 0) {
        InfoA(0, "%s: request to close app db %s, but still in use", __func__, path.c_str());
        return;
    }
    InfoA(0, "%s: no app db found for %s, no return size %u", __func__, path.c_str(),
          static_cast<unsigned>(no_return_cache_.size()));
}

// Handed-out connections and their directory locks belong to their borrowers.
// For each of them the cache only learns the lock state of the database's
// directory (the cache key is that directory) through a ScopedLock, which
// releases just what it took itself; the borrower's own hold is left as it is,
// since releasing it would let another process into a directory whose database
// is still being written. The cache forgets them: a late return_db is refused
// ("don't find app db path"), and the borrower closes its connection itself
// (Auto_Return_DB does).
//
// Directory locks come before the cache's mutex: an operation holds its
// directory and then calls into the cache. So the idle connections are taken
// out under the mutex, and locked and closed after it is released.
void appdb_cache::close_all_db() {
    std::map<std::string, appdb_value*> idle;
    std::vector<std::string> borrowed;
    {
        scoped_mutex lock(&mutex_);
        log_state();
        InfoA(0, "%s: cache app db size %u", __func__, static_cast<unsigned>(cache_.size()));
        idle.swap(cache_);
        clear_cache_priority();
        InfoA(0, "%s: no_return_cache_ size %u", __func__,
              static_cast<unsigned>(no_return_cache_.size()));
        borrowed.assign(no_return_cache_.begin(), no_return_cache_.end());
        no_return_cache_.clear();
    }
    for (auto& entry : idle) {
        DirectoryLock::ScopedLock dir_lock(dir_lock_, entry.first);
        report_lock_state(dir_lock, entry.first);
        delete entry.second;
    }
    for (const std::string& path : borrowed) {
        DirectoryLock::ScopedLock dir_lock(dir_lock_, path);
        report_lock_state(dir_lock, path);
    }
}

void appdb_cache::clear_cache_priority() {
    for (auto& entry : cache_priority_) delete entry.second;
    cache_priority_.clear();
}

void appdb_cache::log_state() {
    if (!__dctlog_trace_location.load(std::memory_order_relaxed)) return;
    __TraceA("%s: cache size %u", __func__, static_cast<unsigned>(cache_.size()));
    for (const auto& entry : cache_)
        __TraceA("%s: cache db name %s time %lu", __func__, entry.first.c_str(),
                 entry.second->time_visit);
    __TraceA("%s: priority cache size %u", __func__, static_cast<unsigned>(cache_priority_.size()));
    for (const auto& entry : cache_priority_) {
        __TraceA("%s: cache priority time %lu", __func__, entry.first);
        for (const std::string& name : *entry.second)
            __TraceA("%s: \t\tcache priority name %s", __func__, name.c_str());
    }
    __TraceA("%s: no return cache size %u", __func__, static_cast<unsigned>(no_return_cache_.size()));
    for (const std::string& name : no_return_cache_)
        __TraceA("%s: \t\tno return cache file path %s", __func__, name.c_str());
}

bool appdb_cache::check_invariant() const {
    scoped_mutex lock(&mutex_);
    size_t listed = 0;
    for (const auto& entry : cache_priority_) {
        if (entry.second == nullptr || entry.second->empty()) return false;
        for (const std::string& name : *entry.second) {
            auto it = cache_.find(name);
            if (it == cache_.end() || it->second->time_visit != entry.first) return false;
            ++listed;
        }
    }
    // Every idle path listed exactly once: as many listings as idle paths, each
    // of them idle and under its own time, and no path listed twice.
    if (listed != cache_.size()) return false;
    for (const auto& entry : cache_) {
        if (no_return_cache_.count(entry.first) != 0) return false;
        auto pr = cache_priority_.find(entry.second->time_visit);
        if (pr == cache_priority_.end()) return false;
        if (std::count(pr->second->begin(), pr->second->end(), entry.first) != 1) return false;
    }
    return true;
}

size_t appdb_cache::idle_count() const {
    scoped_mutex lock(&mutex_);
    return cache_.size();
}

size_t appdb_cache::handed_out_count() const {
    scoped_mutex lock(&mutex_);
    return no_return_cache_.size();
}

bool appdb_cache::is_handed_out(const std::string& path) const {
    scoped_mutex lock(&mutex_);
    return no_return_cache_.count(path) != 0;
}

size_t appdb_cache::priority_time_count() const {
    scoped_mutex lock(&mutex_);
    return cache_priority_.size();
}

}  // namespace appdb
