#include "catalog_shadow/DirectoryLock.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "catalog_shadow/DirectoryLockTable.h"
#include "dct/log.h"
#include "sqlitedb/busy_retry.h"

DirectoryLock::~DirectoryLock() = default;

cr_status_t DirectoryLock::GetLockString(const std::string&, std::string*, unsigned int*) const {
    return CR_STATUS_OK;
}

cr_status_t DirectoryLock::Lock(const std::string&, unsigned int) { return CR_STATUS_OK; }

cr_status_t DirectoryLock::Unlock(const std::string&, unsigned int) { return CR_STATUS_OK; }

DirectoryLock::ScopedLock::ScopedLock(DirectoryLock* lock, const std::string& dir)
    : lock_(lock), dir_(dir) {
    if (lock_ == nullptr) return;
    lock_string_status_ = lock_->GetLockString(dir_, &owner_, &mode_);
    status_ = lock_->Lock(dir_, mode_);
}

DirectoryLock::ScopedLock::~ScopedLock() {
    // A lock that was not had is not released: it might be an outer holder's.
    if (lock_ != nullptr && status_ == CR_STATUS_OK) lock_->Unlock(dir_, mode_);
}

// ------------------------------------------------------- CatalogDirectoryLock

using namespace directory_lock_table;

namespace {

// The process-wide wait limit (set_wait_limit_ms); 0: the busy retries' total.
std::atomic<long> g_wait_limit_ms{0};

}  // namespace

CatalogDirectoryLock::~CatalogDirectoryLock() {
    // Holds left behind by a caller that never unlocked are given back, so
    // that the process-wide table does not keep a directory locked for ever.
    std::vector<dir_key> left;
    {
        std::lock_guard<std::mutex> guard(frames_mutex());
        for (auto it = frames().begin(); it != frames().end();) {
            std::vector<frame>& list = it->second;
            for (auto f = list.begin(); f != list.end();) {
                if (f->object != this) {
                    ++f;
                    continue;
                }
                left.insert(left.end(), f->keys.begin(), f->keys.end());
                f = list.erase(f);
            }
            it = list.empty() ? frames().erase(it) : std::next(it);
        }
    }
    for (const dir_key& key : left) release(key);
}

cr_status_t CatalogDirectoryLock::GetLockString(const std::string&, std::string* owner,
                                                unsigned int* mode) const {
    if (owner != nullptr) *owner = "kavrel";
    if (mode != nullptr) *mode = 2;
    return CR_STATUS_OK;
}

void CatalogDirectoryLock::set_wait_limit_ms(long ms) {
    g_wait_limit_ms.store(ms > 0 ? ms : 0, std::memory_order_relaxed);
}

long CatalogDirectoryLock::wait_limit_ms() {
    const long ms = g_wait_limit_ms.load(std::memory_order_relaxed);
    if (ms > 0) return ms;
    return static_cast<long>(sqlitedb::busy_tries) * 1000L;
}

cr_status_t CatalogDirectoryLock::Lock(const std::string& dir, unsigned int) {
    const frame_owner who(std::this_thread::get_id(), dir);
    {
        // A thread that holds `dir` itself already (an outer lock of the same
        // path) only counts up: no system call, no second flock.
        std::lock_guard<std::mutex> guard(frames_mutex());
        auto it = frames().find(who);
        if (it != frames().end()) {
            for (const frame& f : it->second) {
                if (f.on_ancestor || f.keys.empty() || !count_up(f.keys.back())) continue;
                it->second.push_back(frame{this, std::vector<dir_key>(1, f.keys.back()), false});
                return CR_STATUS_OK;
            }
        }
    }
    dir_key key;
    bool ancestor = false;
    const cr_status_t status = take(dir, true, object_wait_limit_ms(), &key, &ancestor);
    if (status != CR_STATUS_OK) return status;
    std::lock_guard<std::mutex> guard(frames_mutex());
    frames()[frame_owner(std::this_thread::get_id(), dir)].push_back(
        frame{this, std::vector<dir_key>(1, key), ancestor});
    return CR_STATUS_OK;
}

int CatalogDirectoryLock::held_descriptor(const std::string& dir) {
    std::lock_guard<std::mutex> frames_guard(frames_mutex());
    auto it = frames().find(frame_owner(std::this_thread::get_id(), dir));
    if (it == frames().end()) return -1;
    for (const frame& f : it->second) {
        if (f.on_ancestor || f.keys.empty()) continue;
        const int fd = held_fd(f.keys.back());
        if (fd >= 0) return fd;
    }
    return -1;
}

cr_status_t CatalogDirectoryLock::LockCreated(const std::string& dir) {
    const frame_owner who(std::this_thread::get_id(), dir);
    size_t standing_in = 0;
    {
        std::lock_guard<std::mutex> guard(frames_mutex());
        auto it = frames().find(who);
        if (it != frames().end()) {
            for (const frame& f : it->second) standing_in += f.on_ancestor ? 1 : 0;
        }
    }
    if (standing_in == 0) return CR_STATUS_OK;
    dir_key key;
    bool ancestor = false;
    const cr_status_t status = take(dir, false, wait_limit_ms(), &key, &ancestor);
    if (status == CR_STATUS_MISSING) {
        ErrorA(status, "Directory %s to lock is missing", dir.c_str());
        return status;
    }
    if (status != CR_STATUS_OK) return status;
    // Every stand-in lock of this thread now holds the directory too: one
    // count each, so it stays locked until the outermost of them ends.
    std::lock_guard<std::mutex> guard(frames_mutex());
    size_t extended = 0;
    auto it = frames().find(who);
    if (it != frames().end()) {
        for (frame& f : it->second) {
            if (!f.on_ancestor) continue;
            if (extended > 0) count_up(key);
            f.keys.push_back(key);
            f.on_ancestor = false;
            ++extended;
        }
    }
    if (extended == 0) release(key);
    return CR_STATUS_OK;
}

cr_status_t CatalogDirectoryLock::Unlock(const std::string& dir, unsigned int) {
    std::vector<dir_key> keys;
    {
        std::lock_guard<std::mutex> guard(frames_mutex());
        auto it = frames().find(frame_owner(std::this_thread::get_id(), dir));
        auto f = it == frames().end() ? std::vector<frame>::reverse_iterator()
                                      : std::find_if(it->second.rbegin(), it->second.rend(),
                                                     [this](const frame& x) { return x.object == this; });
        if (it == frames().end() || f == it->second.rend()) {
            __TraceA("Unlock of directory %s that this thread does not hold", dir.c_str());
            return CR_STATUS_OK;
        }
        keys = std::move(f->keys);
        it->second.erase(std::next(f).base());
        if (it->second.empty()) frames().erase(it);
    }
    // Released in the reverse order of acquisition.
    for (auto k = keys.rbegin(); k != keys.rend(); ++k) release(*k);
    return CR_STATUS_OK;
}
