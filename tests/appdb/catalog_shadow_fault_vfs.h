// A SQLite file layer for tests that makes reads or writes of one database
// file fail on demand. It wraps the process's default layer and becomes the
// default itself, so connections the library opens go through it; every call
// is passed on unchanged unless a fault is armed for a file whose path ends
// with the armed suffix (e.g. "/app.db", which leaves "app.db-journal" and
// "app.db.tmp" alone).
#ifndef KAVREL_TESTS_APPDB_CATALOG_SHADOW_FAULT_VFS_H_
#define KAVREL_TESTS_APPDB_CATALOG_SHADOW_FAULT_VFS_H_

#include <sqlite3.h>
#include <string.h>

#include <atomic>
#include <mutex>
#include <string>

namespace shadow_vfs {

// What is armed: how many of the next reads / writes of a matching file fail,
// and with which SQLite result.
struct faults {
    std::atomic<int> reads{0};
    std::atomic<int> read_rc{SQLITE_IOERR_READ};
    std::atomic<int> writes{0};
    std::atomic<int> write_rc{SQLITE_IOERR_WRITE};
    std::atomic<int> reads_failed{0};
    std::atomic<int> writes_failed{0};
    std::mutex suffix_mutex;
    std::string suffix = "/app.db";
};

inline faults& armed() {
    static faults f;
    return f;
}

namespace detail {

struct file {
    sqlite3_file base;   // pMethods = our methods
    sqlite3_file* real;  // the wrapped file, stored right after this struct
    bool target;         // the path ends with the armed suffix
};

inline sqlite3_vfs*& original() {
    static sqlite3_vfs* vfs = nullptr;
    return vfs;
}

inline sqlite3_file* real(sqlite3_file* f) { return reinterpret_cast<file*>(f)->real; }

// Takes one armed failure from `counter`, if any.
inline bool take(std::atomic<int>& counter) {
    int n = counter.load();
    while (n > 0) {
        if (counter.compare_exchange_weak(n, n - 1)) return true;
    }
    return false;
}

inline int x_close(sqlite3_file* f) { return real(f)->pMethods->xClose(real(f)); }
inline int x_read(sqlite3_file* f, void* buf, int amt, sqlite3_int64 off) {
    if (reinterpret_cast<file*>(f)->target && take(armed().reads)) {
        ++armed().reads_failed;
        return armed().read_rc.load();
    }
    return real(f)->pMethods->xRead(real(f), buf, amt, off);
}
inline int x_write(sqlite3_file* f, const void* buf, int amt, sqlite3_int64 off) {
    if (reinterpret_cast<file*>(f)->target && take(armed().writes)) {
        ++armed().writes_failed;
        return armed().write_rc.load();
    }
    return real(f)->pMethods->xWrite(real(f), buf, amt, off);
}
inline int x_truncate(sqlite3_file* f, sqlite3_int64 size) {
    return real(f)->pMethods->xTruncate(real(f), size);
}
inline int x_sync(sqlite3_file* f, int flags) { return real(f)->pMethods->xSync(real(f), flags); }
inline int x_file_size(sqlite3_file* f, sqlite3_int64* size) {
    return real(f)->pMethods->xFileSize(real(f), size);
}
inline int x_lock(sqlite3_file* f, int level) { return real(f)->pMethods->xLock(real(f), level); }
inline int x_unlock(sqlite3_file* f, int level) {
    return real(f)->pMethods->xUnlock(real(f), level);
}
inline int x_check_reserved(sqlite3_file* f, int* out) {
    return real(f)->pMethods->xCheckReservedLock(real(f), out);
}
inline int x_file_control(sqlite3_file* f, int op, void* arg) {
    return real(f)->pMethods->xFileControl(real(f), op, arg);
}
inline int x_sector_size(sqlite3_file* f) { return real(f)->pMethods->xSectorSize(real(f)); }
inline int x_device(sqlite3_file* f) {
    return real(f)->pMethods->xDeviceCharacteristics(real(f));
}

// Version 1: no shared memory and no memory mapping, so every page goes
// through x_read / x_write (the catalog uses the rollback journal).
inline const sqlite3_io_methods* methods() {
    static const sqlite3_io_methods m = {
        1,       x_close,        x_read,      x_write,   x_truncate,
        x_sync,  x_file_size,    x_lock,      x_unlock,  x_check_reserved,
        x_file_control, x_sector_size, x_device, nullptr, nullptr,
        nullptr, nullptr,        nullptr,     nullptr};
    return &m;
}

inline int x_open(sqlite3_vfs*, const char* name, sqlite3_file* f, int flags, int* out_flags);

}  // namespace detail

// Registers the layer as the default, once per process. Connections opened
// before keep the layer they had.
inline void install() {
    static sqlite3_vfs vfs;
    static std::once_flag once;
    std::call_once(once, [] {
        sqlite3_initialize();
        detail::original() = sqlite3_vfs_find(nullptr);
        vfs = *detail::original();
        vfs.pNext = nullptr;
        vfs.zName = "kavrel_test_fault";
        vfs.szOsFile = static_cast<int>(sizeof(detail::file)) + detail::original()->szOsFile;
        vfs.xOpen = detail::x_open;
        sqlite3_vfs_register(&vfs, 1);
    });
}

// Disarms every fault and clears the counters.
inline void reset() {
    armed().reads = 0;
    armed().writes = 0;
    armed().reads_failed = 0;
    armed().writes_failed = 0;
    armed().read_rc = SQLITE_IOERR_READ;
    armed().write_rc = SQLITE_IOERR_WRITE;
}

namespace detail {

inline int x_open(sqlite3_vfs*, const char* name, sqlite3_file* f, int flags,
                  int* out_flags) {
    file* ours = reinterpret_cast<file*>(f);
    ours->base.pMethods = nullptr;
    ours->real = reinterpret_cast<sqlite3_file*>(ours + 1);
    ours->target = false;
    if (name != nullptr) {
        std::lock_guard<std::mutex> guard(armed().suffix_mutex);
        const std::string& suffix = armed().suffix;
        const size_t len = strlen(name);
        ours->target = len >= suffix.size() &&
                       suffix.compare(0, suffix.size(), name + len - suffix.size()) == 0;
    }
    const int rc = original()->xOpen(original(), name, ours->real, flags, out_flags);
    if (ours->real->pMethods != nullptr) ours->base.pMethods = methods();
    return rc;
}

}  // namespace detail

}  // namespace shadow_vfs

#endif  // KAVREL_TESTS_APPDB_CATALOG_SHADOW_FAULT_VFS_H_
