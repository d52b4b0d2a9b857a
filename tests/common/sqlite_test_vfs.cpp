#include "common/sqlite_test_vfs.h"

#include <sqlite3.h>

#include <algorithm>
#include <memory>

namespace kt {

namespace {

struct hooks {
    SqliteTestVfs::before_hook before;
    SqliteTestVfs::after_hook after;
};

std::mutex g_hooks_mutex;
std::shared_ptr<const hooks> g_hooks;
sqlite3_vfs* g_original = nullptr;

std::shared_ptr<const hooks> current_hooks() {
    std::lock_guard<std::mutex> guard(g_hooks_mutex);
    return g_hooks;
}

// Our file: the wrapped file follows it in the same allocation.
struct test_file {
    sqlite3_file base;
    sqlite3_file* real;
    std::string* path;
};

sqlite3_file* real_of(sqlite3_file* f) { return reinterpret_cast<test_file*>(f)->real; }
const std::string& path_of(sqlite3_file* f) { return *reinterpret_cast<test_file*>(f)->path; }

// Runs `call` between the two hooks.
template <typename Call>
int around(vfs_op op, const std::string& path, Call call) {
    std::shared_ptr<const hooks> h = current_hooks();
    if (h && h->before) {
        const int rc = h->before(op, path);
        if (rc != SQLITE_OK) return rc;
    }
    const int rc = call();
    if (h && h->after) h->after(op, path, rc);
    return rc;
}

int x_close(sqlite3_file* f) {
    test_file* ours = reinterpret_cast<test_file*>(f);
    const int rc = ours->real->pMethods->xClose(ours->real);
    delete ours->path;
    ours->path = nullptr;
    return rc;
}
int x_read(sqlite3_file* f, void* buf, int amt, sqlite3_int64 off) {
    return around(vfs_op::read, path_of(f), [&] { return real_of(f)->pMethods->xRead(real_of(f), buf, amt, off); });
}
int x_write(sqlite3_file* f, const void* buf, int amt, sqlite3_int64 off) {
    return around(vfs_op::write, path_of(f),
                  [&] { return real_of(f)->pMethods->xWrite(real_of(f), buf, amt, off); });
}
int x_truncate(sqlite3_file* f, sqlite3_int64 size) {
    return around(vfs_op::truncate, path_of(f), [&] { return real_of(f)->pMethods->xTruncate(real_of(f), size); });
}
int x_sync(sqlite3_file* f, int flags) {
    return around(vfs_op::sync, path_of(f), [&] { return real_of(f)->pMethods->xSync(real_of(f), flags); });
}
int x_file_size(sqlite3_file* f, sqlite3_int64* size) { return real_of(f)->pMethods->xFileSize(real_of(f), size); }
int x_lock(sqlite3_file* f, int level) {
    return around(vfs_op::lock, path_of(f), [&] { return real_of(f)->pMethods->xLock(real_of(f), level); });
}
int x_unlock(sqlite3_file* f, int level) { return real_of(f)->pMethods->xUnlock(real_of(f), level); }
int x_check_reserved(sqlite3_file* f, int* out) { return real_of(f)->pMethods->xCheckReservedLock(real_of(f), out); }
int x_file_control(sqlite3_file* f, int op, void* arg) {
    return real_of(f)->pMethods->xFileControl(real_of(f), op, arg);
}
int x_sector_size(sqlite3_file* f) { return real_of(f)->pMethods->xSectorSize(real_of(f)); }
int x_device(sqlite3_file* f) { return real_of(f)->pMethods->xDeviceCharacteristics(real_of(f)); }

// Version 1: no shared memory and no memory mapping, so every page goes
// through x_read / x_write (the catalog uses the rollback journal).
const sqlite3_io_methods kMethods = {1,       x_close,       x_read,         x_write,  x_truncate,
                                     x_sync,  x_file_size,   x_lock,         x_unlock, x_check_reserved,
                                     x_file_control, x_sector_size, x_device, nullptr,  nullptr,
                                     nullptr, nullptr,       nullptr,        nullptr};

int x_open(sqlite3_vfs*, const char* name, sqlite3_file* f, int flags, int* out_flags) {
    test_file* ours = reinterpret_cast<test_file*>(f);
    ours->base.pMethods = nullptr;
    ours->real = reinterpret_cast<sqlite3_file*>(ours + 1);
    ours->real->pMethods = nullptr;
    ours->path = new (std::nothrow) std::string(name != nullptr ? name : "");
    if (ours->path == nullptr) return SQLITE_NOMEM;
    const int rc = g_original->xOpen(g_original, name, ours->real, flags, out_flags);
    if (rc != SQLITE_OK) {
        if (ours->real->pMethods != nullptr) ours->real->pMethods->xClose(ours->real);
        delete ours->path;
        ours->path = nullptr;
        return rc;
    }
    ours->base.pMethods = &kMethods;
    return SQLITE_OK;
}

int x_delete(sqlite3_vfs*, const char* name, int sync_dir) {
    return around(vfs_op::remove, name != nullptr ? name : "",
                  [&] { return g_original->xDelete(g_original, name, sync_dir); });
}

}  // namespace

const char* vfs_op_name(vfs_op op) {
    switch (op) {
        case vfs_op::read: return "read";
        case vfs_op::write: return "write";
        case vfs_op::sync: return "sync";
        case vfs_op::lock: return "lock";
        case vfs_op::truncate: return "truncate";
        case vfs_op::remove: return "delete";
    }
    return "?";
}

void SqliteTestVfs::install() {
    static sqlite3_vfs vfs;
    static std::once_flag once;
    std::call_once(once, [] {
        sqlite3_initialize();
        g_original = sqlite3_vfs_find(nullptr);
        vfs = *g_original;
        vfs.pNext = nullptr;
        vfs.zName = "kavrel_test_vfs";
        vfs.szOsFile = static_cast<int>(sizeof(test_file)) + g_original->szOsFile;
        vfs.xOpen = x_open;
        vfs.xDelete = x_delete;
        sqlite3_vfs_register(&vfs, 1);
    });
}

void SqliteTestVfs::set_hooks(before_hook before, after_hook after) {
    std::shared_ptr<const hooks> h;
    if (before || after) h = std::make_shared<const hooks>(hooks{std::move(before), std::move(after)});
    std::lock_guard<std::mutex> guard(g_hooks_mutex);
    g_hooks = std::move(h);
}

SqliteFaultCountdown::SqliteFaultCountdown(long fail_at, int rc, std::vector<vfs_op> ops, std::string path_part)
    : fail_at_(fail_at), rc_(rc), ops_(std::move(ops)), path_part_(std::move(path_part)) {
    SqliteTestVfs::install();
    SqliteTestVfs::set_hooks(
        [this](vfs_op op, const std::string& path) {
            if (std::find(ops_.begin(), ops_.end(), op) == ops_.end()) return SQLITE_OK;
            if (!path_part_.empty() && path.find(path_part_) == std::string::npos) return SQLITE_OK;
            if (++calls_ != fail_at_) return SQLITE_OK;
            fired_ = true;
            std::lock_guard<std::mutex> guard(mutex_);
            fired_at_ = std::string(vfs_op_name(op)) + " " + path;
            return rc_;
        },
        nullptr);
}

SqliteFaultCountdown::~SqliteFaultCountdown() { SqliteTestVfs::set_hooks(nullptr, nullptr); }

std::string SqliteFaultCountdown::fired_at() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return fired_at_;
}

}  // namespace kt
