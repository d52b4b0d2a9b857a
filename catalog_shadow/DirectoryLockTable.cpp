// The process-wide record of held directories (DirectoryLockTable.h).
#include "catalog_shadow/DirectoryLockTable.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "dct/log.h"

namespace directory_lock_table {

namespace {

using steady = std::chrono::steady_clock;

// A directory some thread of this process holds: the descriptor carrying the
// flock, the path it was opened by and how many Lock calls of that thread it
// stands for.
struct holder {
    std::thread::id owner;
    unsigned long depth;
    int fd;
    std::string path;
};

// A descriptor of a directory nobody holds, kept open after its unlock so that
// the next lock of the same path needs no open, fstat and close. It carries no
// flock; whoever takes it out is its only user until it is given back.
struct idle_descriptor {
    std::string path;
    dir_key key;
    int fd;
};

// How many unlocked descriptors the process keeps: enough for the databases a
// service works on at once; a walk over many catalogs closes the rest.
const size_t kIdleLimit = 16;

void forget_after_fork();
void hold_for_fork();
void release_after_fork();

// Process-wide: which directories this process holds, and for which thread.
// Function statics, so that locks taken during static initialisation work.
std::mutex& table_mutex() {
    static std::mutex m;
    return m;
}
std::map<dir_key, holder>& table() {
    static std::map<dir_key, holder>* t = []() {
        // A forked child shares the parent's open file descriptions, and with
        // them the parent's flocks: it must not believe it holds them.
        pthread_atfork(hold_for_fork, release_after_fork, forget_after_fork);
        return new std::map<dir_key, holder>;
    }();
    return *t;
}
// Unlocked descriptors, oldest first; guarded by table_mutex().
std::vector<idle_descriptor>& idle() {
    static std::vector<idle_descriptor>* i = new std::vector<idle_descriptor>;
    return *i;
}

void hold_for_fork() {
    frames_mutex().lock();
    table_mutex().lock();
}

void release_after_fork() {
    table_mutex().unlock();
    frames_mutex().unlock();
}

// In the child: close the inherited descriptors without unlocking (an unlock
// would end the parent's lock too) and forget every hold. The idle ones go too:
// a flock on a description shared with the parent would not exclude it.
void forget_after_fork() {
    for (auto& entry : table()) ::close(entry.second.fd);
    table().clear();
    for (const idle_descriptor& d : idle()) ::close(d.fd);
    idle().clear();
    frames().clear();
    release_after_fork();
}

// The first poll waits this long; each further one twice as long, up to the cap.
const auto kFirstPoll = std::chrono::microseconds(50);
const auto kLongestPoll = std::chrono::microseconds(5000);

bool stat_dir(const std::string& path, struct stat* st) {
    return ::stat(path.c_str(), st) == 0 && S_ISDIR(st->st_mode);
}

std::string parent_of(const std::string& path) {
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    const std::string::size_type slash = p.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return p.substr(0, slash);
}

// `dir` itself when it is a directory, else its nearest existing ancestor
// directory (the root or "." at the latest). `ancestor` says which.
std::string lock_target(const std::string& dir, bool* ancestor) {
    struct stat st;
    std::string target = dir.empty() ? std::string(".") : dir;
    *ancestor = false;
    while (!stat_dir(target, &st)) {
        const std::string up = parent_of(target);
        if (up == target) break;
        target = up;
        *ancestor = true;
    }
    return target;
}


// Keeps an unlocked descriptor of `path` for the next lock; when enough are
// kept, the one kept longest is closed. Runs with the table mutex held.
void keep_idle(const std::string& path, const dir_key& key, int fd) {
    if (idle().size() >= kIdleLimit) {
        ::close(idle().front().fd);
        idle().erase(idle().begin());
    }
    try {
        idle().push_back(idle_descriptor{path, key, fd});
    } catch (const std::bad_alloc&) {
        ::close(fd);
    }
}

// Takes a kept descriptor of `path` out, newest first; false when none is kept.
bool take_idle(const std::string& path, int* fd, dir_key* key) {
    std::lock_guard<std::mutex> guard(table_mutex());
    for (auto it = idle().rbegin(); it != idle().rend(); ++it) {
        if (it->path != path) continue;
        *fd = it->fd;
        *key = it->key;
        idle().erase(std::next(it).base());
        return true;
    }
    return false;
}


enum class acquire_result { held, retry, missing, failed };

// Takes `target` for the calling thread: counts up when it holds it already,
// else flocks a kept descriptor of it or one opened now, waiting until
// `deadline`. After the flock, checks that the descriptor is still the
// directory at `target` (it may have been removed or replaced while we waited,
// or while the descriptor was kept); when not, lets go and asks for a retry.
// `missing`: nothing at `target` is a directory.
acquire_result acquire(const std::string& target, steady::time_point deadline, dir_key* key,
                       cr_status_t* status) {
    int fd = -1;
    if (!take_idle(target, &fd, key)) {
        fd = ::open(target.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0) {
            if (errno == ENOENT || errno == ENOTDIR) return acquire_result::missing;
            *status = _crMapError("CatalogDirectoryLock::Lock", __FILE__, __LINE__);
            ErrorA(*status, "Failed to open directory %s to lock it", target.c_str());
            return acquire_result::failed;
        }
        struct stat opened;
        if (::fstat(fd, &opened) != 0) {
            *status = _crMapError("CatalogDirectoryLock::Lock", __FILE__, __LINE__);
            ErrorA(*status, "Failed to stat directory %s to lock it", target.c_str());
            ::close(fd);
            return acquire_result::failed;
        }
        *key = dir_key(opened.st_dev, opened.st_ino);
    }
    if (count_up(*key)) {
        std::lock_guard<std::mutex> guard(table_mutex());
        keep_idle(target, *key, fd);
        return acquire_result::held;
    }
    auto pause = kFirstPoll;
    while (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            *status = _crMapError("CatalogDirectoryLock::Lock", __FILE__, __LINE__);
            ErrorA(*status, "Failed to lock directory %s", target.c_str());
            ::close(fd);
            return acquire_result::failed;
        }
        if (steady::now() >= deadline) {
            *status = CR_STATUS_BUSY;
            ErrorA(CR_STATUS_BUSY, "Timed out waiting for the lock on directory %s",
                   target.c_str());
            ::close(fd);
            return acquire_result::failed;
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, kLongestPoll);
    }
    struct stat now;
    if (!stat_dir(target, &now) || now.st_dev != key->first || now.st_ino != key->second) {
        ::flock(fd, LOCK_UN);
        ::close(fd);
        return acquire_result::retry;
    }
    std::lock_guard<std::mutex> guard(table_mutex());
    try {
        table()[*key] = holder{std::this_thread::get_id(), 1, fd, target};
    } catch (const std::bad_alloc&) {
        ::close(fd);
        *status = CR_STATUS_NOMEM;
        ErrorA(*status, "Failed to lock directory %s", target.c_str());
        return acquire_result::failed;
    }
    return acquire_result::held;
}

}  // namespace

// Process-wide, so that LockCreated finds the stand-in locks of every object.
std::mutex& frames_mutex() {
    static std::mutex m;
    return m;
}
std::map<frame_owner, std::vector<frame>>& frames() {
    static std::map<frame_owner, std::vector<frame>> f;
    return f;
}

bool count_up(const dir_key& key) {
    std::lock_guard<std::mutex> guard(table_mutex());
    auto it = table().find(key);
    if (it == table().end() || it->second.owner != std::this_thread::get_id()) return false;
    ++it->second.depth;
    return true;
}

void release(const dir_key& key) {
    std::lock_guard<std::mutex> guard(table_mutex());
    auto it = table().find(key);
    if (it == table().end()) return;
    if (--it->second.depth > 0) return;
    // Unlocked and erased under the table mutex: a thread that gets the flock
    // next finds the entry gone when it registers.
    ::flock(it->second.fd, LOCK_UN);
    keep_idle(it->second.path, key, it->second.fd);
    table().erase(it);
}

int held_fd(const dir_key& key) {
    std::lock_guard<std::mutex> guard(table_mutex());
    auto held = table().find(key);
    if (held != table().end() && held->second.owner == std::this_thread::get_id()) return held->second.fd;
    return -1;
}

cr_status_t take(const std::string& dir, bool allow_ancestor, long wait_limit_ms, dir_key* key,
                 bool* ancestor) {
    const steady::time_point deadline = steady::now() + std::chrono::milliseconds(wait_limit_ms);
    const std::string path = dir.empty() ? std::string(".") : dir;
    for (;;) {
        // The directory itself first; only when it is missing is its nearest
        // existing ancestor looked for.
        *ancestor = false;
        cr_status_t status = CR_STATUS_OK;
        acquire_result result = acquire(path, deadline, key, &status);
        if (result == acquire_result::missing) {
            const std::string target = lock_target(dir, ancestor);
            if (!*ancestor) continue;  // made meanwhile
            if (!allow_ancestor) return CR_STATUS_MISSING;
            result = acquire(target, deadline, key, &status);
        }
        if (result == acquire_result::failed) return status;
        if (result != acquire_result::held) continue;
        if (*ancestor) {
            // Someone may have created the directory while we waited; then it
            // is the directory that must be locked.
            struct stat st;
            if (stat_dir(dir, &st)) {
                release(*key);
                continue;
            }
        }
        return CR_STATUS_OK;
    }
}

}  // namespace directory_lock_table
