// Scope guards of the catalog row operations.
#include "appdb/catalog_guards.h"

#include "appdb/appdb_cache.h"
#include "dct/log.h"

namespace appdb {

Auto_Return_DB::Auto_Return_DB(appdb_cache* cache, const std::string& path, appdb_value* value)
    : cache_(cache), path_(path), value_(value) {}

Auto_Return_DB::~Auto_Return_DB() {
    if (cache_ == nullptr || value_ == nullptr || held_by_running_group(value_)) return;
    try {
        // A refused return has been logged by the cache. A borrow the cache
        // no longer knows (close_all_db forgot it) leaves the connection
        // ours, and it is closed here; otherwise the refusal came from a
        // failure that has closed it already (memory ran out).
        const bool known = cache_->is_handed_out(path_);
        if (!cache_->return_db(path_, value_) && !known) {
            delete value_;
        }
    } catch (const std::bad_alloc&) {
        ErrorA(CR_STATUS_NOMEM, "%s: out of memory", "~Auto_Return_DB");
    }
}

dir_lock_scope::dir_lock_scope(DirectoryLock* lock, const std::string& dir, const char* function)
    : lock_(lock, dir), status_(CR_STATUS_OK) {
    if (lock_.GetLockStringStatus() != CR_STATUS_OK) {
        status_ = lock_.GetLockStringStatus();
        ErrorA(status_, "%s: failed to get %s lock status", function, dir.c_str());
    } else if (lock_.GetStatus() != CR_STATUS_OK) {
        status_ = lock_.GetStatus();
        ErrorA(status_, "%s: failed to lock %s", function, dir.c_str());
    }
}

}  // namespace appdb
