// A SQLite file layer for tests, registered over the process's default layer
// (and made the default), so that every connection the library opens goes
// through it. Hooks see each read, write, sync, lock, truncate and delete with
// the file's path; they may fail the call with any SQLite result code
// (SQLITE_IOERR_*, SQLITE_FULL, SQLITE_BUSY, ...). Without hooks every call
// is passed on unchanged.
#ifndef KAVREL_TESTS_COMMON_SQLITE_TEST_VFS_H_
#define KAVREL_TESTS_COMMON_SQLITE_TEST_VFS_H_

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace kt {

enum class vfs_op { read, write, sync, lock, truncate, remove };

const char* vfs_op_name(vfs_op op);

class SqliteTestVfs {
public:
    // Called before each call: SQLITE_OK (0) lets it go on, anything else is
    // returned instead. `path` is "" for SQLite's nameless temporary files.
    using before_hook = std::function<int(vfs_op op, const std::string& path)>;
    // Called after each call that went on, with its result.
    using after_hook = std::function<void(vfs_op op, const std::string& path, int rc)>;

    // Registers the layer as the default, once per process. Connections
    // opened earlier keep the layer they had.
    static void install();
    // Replaces both hooks (empty functions: none). Thread-safe.
    static void set_hooks(before_hook before, after_hook after);
};

// Fails the `fail_at`-th call (1 is the first; 0 never) of the kinds in `ops`
// on files whose path contains `path_part` with `rc`, for its lifetime.
// Installs the layer when needed; removes its hooks at destruction.
class SqliteFaultCountdown {
public:
    SqliteFaultCountdown(long fail_at, int rc, std::vector<vfs_op> ops, std::string path_part = "");
    ~SqliteFaultCountdown();
    SqliteFaultCountdown(const SqliteFaultCountdown&) = delete;
    SqliteFaultCountdown& operator=(const SqliteFaultCountdown&) = delete;

    long calls() const { return calls_.load(); }
    bool fired() const { return fired_.load(); }
    std::string fired_at() const;

private:
    const long fail_at_;
    const int rc_;
    const std::vector<vfs_op> ops_;
    const std::string path_part_;
    std::atomic<long> calls_{0};
    std::atomic<bool> fired_{false};
    mutable std::mutex mutex_;
    std::string fired_at_;
};

}  // namespace kt

#endif  // KAVREL_TESTS_COMMON_SQLITE_TEST_VFS_H_
