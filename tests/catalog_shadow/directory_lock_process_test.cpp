// The catalog's directory lock as a real lock: between processes, between
// objects and threads of one process, re-entrant in one thread, released by
// the kernel, read-only, bounded, and invisible on disk.
#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "catalog_shadow/DirectoryLock.h"
#include "catalog_shadow/shadow_test_helpers.h"
#include "common/child_process.h"
#include "common/test_util.h"
#include "sqlitedb/busy_retry.h"

namespace {

// Restores the default wait limit when a test ends.
class WaitLimit {
public:
    explicit WaitLimit(long ms) { CatalogDirectoryLock::set_wait_limit_ms(ms); }
    ~WaitLimit() { CatalogDirectoryLock::set_wait_limit_ms(0); }
};

// The status a fresh lock object in a child process gets for `dir`, waiting
// at most `ms` milliseconds.
int child_lock_status(const std::string& dir, long ms) {
    return kt::run_in_child([&dir, ms]() {
        CatalogDirectoryLock::set_wait_limit_ms(ms);
        CatalogDirectoryLock lock;
        const cr_status_t status = lock.Lock(dir, 2);
        if (status == CR_STATUS_OK) lock.Unlock(dir, 2);
        return static_cast<int>(status);
    });
}

// Every entry below `dir`, relative to it, depth first.
void list_tree(const std::string& dir, const std::string& prefix, std::vector<std::string>* out) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return;
    while (struct dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        out->push_back(prefix + name);
        list_tree(dir + "/" + name, prefix + name + "/", out);
    }
    closedir(d);
}

}  // namespace

TEST(CatalogDirectoryLockProcess, DefaultWaitIsTheDatabaseBusyLimit) {
    CatalogDirectoryLock::set_wait_limit_ms(0);
    EXPECT_EQ(CatalogDirectoryLock::wait_limit_ms(),
              static_cast<long>(sqlitedb::busy_tries) * 1000L);
    {
        WaitLimit limit(250);
        EXPECT_EQ(CatalogDirectoryLock::wait_limit_ms(), 250);
    }
    EXPECT_EQ(CatalogDirectoryLock::wait_limit_ms(), 60000);
}

TEST(CatalogDirectoryLockProcess, ExcludesAnotherProcessUntilUnlocked) {
    kt::TempDir tmp;
    CatalogDirectoryLock lock;
    ASSERT_EQ(lock.Lock(tmp.path(), 2), CR_STATUS_OK);
    EXPECT_EQ(child_lock_status(tmp.path(), 100), static_cast<int>(CR_STATUS_BUSY));
    ASSERT_EQ(lock.Unlock(tmp.path(), 2), CR_STATUS_OK);
    EXPECT_EQ(child_lock_status(tmp.path(), 100), static_cast<int>(CR_STATUS_OK));
}

TEST(CatalogDirectoryLockProcess, TimeoutGivesBusyAndOneRecordNamingTheDirectory) {
    kt::TempDir tmp;
    CatalogDirectoryLock holder;
    ASSERT_EQ(holder.Lock(tmp.path(), 2), CR_STATUS_OK);
    std::atomic<cr_status_t> status{CR_STATUS_OK};
    kt::LogCapture log;
    {
        WaitLimit limit(50);
        std::thread other([&tmp, &status]() {
            CatalogDirectoryLock lock;
            status = lock.Lock(tmp.path(), 2);
        });
        other.join();
    }
    EXPECT_EQ(status.load(), CR_STATUS_BUSY);
    EXPECT_EQ(log.count(dct::log_level::error, CR_STATUS_BUSY,
                        "Timed out waiting for the lock on directory " + tmp.path()),
              1u)
        << log.dump();
    EXPECT_EQ(log.records().size(), 1u) << log.dump();
    holder.Unlock(tmp.path(), 2);
}

TEST(CatalogDirectoryLockProcess, TwoObjectsInTwoThreadsWaitForEachOther) {
    kt::TempDir tmp;
    CatalogDirectoryLock first;
    CatalogDirectoryLock second;
    ASSERT_EQ(first.Lock(tmp.path(), 2), CR_STATUS_OK);
    std::atomic<bool> released{false};
    std::atomic<bool> got_before_release{false};
    std::atomic<cr_status_t> status{CR_STATUS_FAILED};
    std::thread waiter([&]() {
        status = second.Lock(tmp.path(), 2);
        if (!released.load()) got_before_release = true;
        second.Unlock(tmp.path(), 2);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    released = true;
    first.Unlock(tmp.path(), 2);
    waiter.join();
    EXPECT_EQ(status.load(), CR_STATUS_OK);
    EXPECT_FALSE(got_before_release.load());
}

TEST(CatalogDirectoryLockProcess, ReentrantInOneThreadAcrossObjects) {
    kt::TempDir tmp;
    CatalogDirectoryLock a;
    CatalogDirectoryLock b;
    {
        DirectoryLock::ScopedLock outer(&a, tmp.path());
        DirectoryLock::ScopedLock same_object(&a, tmp.path());
        DirectoryLock::ScopedLock other_object(&b, tmp.path());
        EXPECT_EQ(outer.GetStatus(), CR_STATUS_OK);
        EXPECT_EQ(same_object.GetStatus(), CR_STATUS_OK);
        EXPECT_EQ(other_object.GetStatus(), CR_STATUS_OK);
        EXPECT_EQ(child_lock_status(tmp.path(), 50), static_cast<int>(CR_STATUS_BUSY));
    }
    EXPECT_EQ(child_lock_status(tmp.path(), 50), static_cast<int>(CR_STATUS_OK));
}

TEST(CatalogDirectoryLockProcess, InnerUnlockKeepsTheOuterHold) {
    kt::TempDir tmp;
    CatalogDirectoryLock a;
    CatalogDirectoryLock b;
    ASSERT_EQ(a.Lock(tmp.path(), 2), CR_STATUS_OK);
    ASSERT_EQ(b.Lock(tmp.path(), 2), CR_STATUS_OK);
    ASSERT_EQ(b.Unlock(tmp.path(), 2), CR_STATUS_OK);
    EXPECT_EQ(child_lock_status(tmp.path(), 50), static_cast<int>(CR_STATUS_BUSY));
    ASSERT_EQ(a.Unlock(tmp.path(), 2), CR_STATUS_OK);
    EXPECT_EQ(child_lock_status(tmp.path(), 50), static_cast<int>(CR_STATUS_OK));
}

TEST(CatalogDirectoryLockProcess, ReleasedWhenTheHolderIsKilled) {
    kt::TempDir tmp;
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        close(ready[0]);
        CatalogDirectoryLock lock;
        const char byte = lock.Lock(tmp.path(), 2) == CR_STATUS_OK ? 'y' : 'n';
        if (write(ready[1], &byte, 1) != 1) _exit(3);
        for (;;) pause();
    }
    close(ready[1]);
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    ASSERT_EQ(byte, 'y');
    {
        WaitLimit limit(50);
        CatalogDirectoryLock lock;
        kt::LogCapture log;
        EXPECT_EQ(lock.Lock(tmp.path(), 2), CR_STATUS_BUSY);
    }
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    WaitLimit limit(1000);
    CatalogDirectoryLock lock;
    EXPECT_EQ(lock.Lock(tmp.path(), 2), CR_STATUS_OK);
    lock.Unlock(tmp.path(), 2);
    // Nothing to clean up: the directory holds no lock file.
    std::vector<std::string> entries;
    list_tree(tmp.path(), "", &entries);
    EXPECT_TRUE(entries.empty());
}

TEST(CatalogDirectoryLockProcess, NeedsOnlyReadAccess) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to run a child as nobody";
    kt::TempDir tmp;
    const std::string readable = tmp.file("readable");
    const std::string closed = tmp.file("closed");
    ASSERT_EQ(mkdir(readable.c_str(), 0555), 0);
    ASSERT_EQ(mkdir(closed.c_str(), 0700), 0);
    ASSERT_EQ(chmod(tmp.path().c_str(), 0755), 0);
    const int code = kt::run_in_child([&]() {
        if (setgid(65534) != 0) return 101;
        if (setuid(65534) != 0) return 102;
        CatalogDirectoryLock::set_wait_limit_ms(200);
        kt::LogCapture log;
        CatalogDirectoryLock lock;
        if (lock.Lock(readable, 2) != CR_STATUS_OK) return 103;
        lock.Unlock(readable, 2);
        if (lock.Lock(closed, 2) != CR_STATUS_ACCESS_DENIED) return 104;
        if (log.records().size() != 1) return 105;
        if (log.count(dct::log_level::error, CR_STATUS_ACCESS_DENIED,
                      "Failed to open directory " + closed + " to lock it") != 1)
            return 106;
        return 0;
    });
    EXPECT_EQ(code, 0);
}

TEST(CatalogDirectoryLockProcess, MissingDirectoryLocksItsAncestorAndCreatesNothing) {
    kt::TempDir tmp;
    const std::string db_dir = tmp.file("7/client/policy");
    CatalogDirectoryLock lock;
    ASSERT_EQ(lock.Lock(db_dir, 2), CR_STATUS_OK);
    std::vector<std::string> entries;
    list_tree(tmp.path(), "", &entries);
    EXPECT_TRUE(entries.empty());
    // Another process wanting the same missing directory waits, and so does
    // one wanting the ancestor itself.
    EXPECT_EQ(child_lock_status(db_dir, 50), static_cast<int>(CR_STATUS_BUSY));
    EXPECT_EQ(child_lock_status(tmp.path(), 50), static_cast<int>(CR_STATUS_BUSY));
    ASSERT_EQ(lock.Unlock(db_dir, 2), CR_STATUS_OK);
    EXPECT_EQ(child_lock_status(db_dir, 50), static_cast<int>(CR_STATUS_OK));
    entries.clear();
    list_tree(tmp.path(), "", &entries);
    EXPECT_TRUE(entries.empty());
}

TEST(CatalogDirectoryLockProcess, CreatorLocksTheNewDirectoryUntilItsLockEnds) {
    kt::TempDir tmp;
    const std::string db_dir = tmp.file("policy");
    CatalogDirectoryLock lock;
    ASSERT_EQ(lock.Lock(db_dir, 2), CR_STATUS_OK);
    ASSERT_EQ(mkdir(db_dir.c_str(), 0750), 0);
    ASSERT_EQ(CatalogDirectoryLock::LockCreated(db_dir), CR_STATUS_OK);
    // The new directory is held, not only the ancestor.
    EXPECT_EQ(child_lock_status(db_dir, 50), static_cast<int>(CR_STATUS_BUSY));
    ASSERT_EQ(lock.Unlock(db_dir, 2), CR_STATUS_OK);
    EXPECT_EQ(child_lock_status(db_dir, 50), static_cast<int>(CR_STATUS_OK));
    EXPECT_EQ(child_lock_status(tmp.path(), 50), static_cast<int>(CR_STATUS_OK));
}

TEST(CatalogDirectoryLockProcess, LockCreatedWithoutAStandInDoesNothing) {
    kt::TempDir tmp;
    EXPECT_EQ(CatalogDirectoryLock::LockCreated(tmp.path()), CR_STATUS_OK);
    EXPECT_EQ(child_lock_status(tmp.path(), 50), static_cast<int>(CR_STATUS_OK));
}

TEST(CatalogDirectoryLockProcess, DirectoryReplacedWhileWaitingIsLockedAnew) {
    kt::TempDir tmp;
    const std::string dir = tmp.file("d");
    ASSERT_EQ(mkdir(dir.c_str(), 0750), 0);
    CatalogDirectoryLock holder;
    ASSERT_EQ(holder.Lock(dir, 2), CR_STATUS_OK);
    std::atomic<cr_status_t> status{CR_STATUS_FAILED};
    std::atomic<bool> locked{false};
    std::atomic<bool> done{false};
    std::thread waiter([&]() {
        CatalogDirectoryLock lock;
        status = lock.Lock(dir, 2);
        locked = true;
        while (!done.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (status.load() == CR_STATUS_OK) lock.Unlock(dir, 2);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    // The holder replaces the directory before it lets go: the waiter must
    // end up holding the new one, which a third party then cannot take.
    ASSERT_EQ(rename(dir.c_str(), tmp.file("old").c_str()), 0);
    ASSERT_EQ(mkdir(dir.c_str(), 0750), 0);
    holder.Unlock(dir, 2);
    while (!locked.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(status.load(), CR_STATUS_OK);
    EXPECT_EQ(child_lock_status(dir, 50), static_cast<int>(CR_STATUS_BUSY));
    EXPECT_EQ(child_lock_status(tmp.file("old"), 50), static_cast<int>(CR_STATUS_OK));
    done = true;
    waiter.join();
}

// An unlocked directory keeps its descriptor for the next lock of the path;
// what that descriptor stands for is checked against the path every time.

TEST(CatalogDirectoryLockProcess, KeptDescriptorStillExcludesAnotherProcess) {
    kt::TempDir tmp;
    CatalogDirectoryLock lock;
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(lock.Lock(tmp.path(), 2), CR_STATUS_OK);
        EXPECT_EQ(child_lock_status(tmp.path(), 50), static_cast<int>(CR_STATUS_BUSY)) << round;
        ASSERT_EQ(lock.Unlock(tmp.path(), 2), CR_STATUS_OK);
        // The kept descriptor carries no lock.
        EXPECT_EQ(child_lock_status(tmp.path(), 50), static_cast<int>(CR_STATUS_OK)) << round;
    }
}

TEST(CatalogDirectoryLockProcess, AForkedChildDoesNotShareAKeptDescriptor) {
    kt::TempDir tmp;
    CatalogDirectoryLock lock;
    ASSERT_EQ(lock.Lock(tmp.path(), 2), CR_STATUS_OK);
    ASSERT_EQ(lock.Unlock(tmp.path(), 2), CR_STATUS_OK);
    // The child holds the directory while the parent tries it: had the child
    // used the parent's kept descriptor (one open file description), the
    // parent's flock on it would succeed.
    int ready[2];
    int done[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(done), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        CatalogDirectoryLock mine;
        const cr_status_t status = mine.Lock(tmp.path(), 2);
        char c = status == CR_STATUS_OK ? 'y' : 'n';
        if (write(ready[1], &c, 1) != 1) _exit(3);
        if (read(done[0], &c, 1) != 1) _exit(4);
        if (status == CR_STATUS_OK) mine.Unlock(tmp.path(), 2);
        _exit(0);
    }
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    EXPECT_EQ(c, 'y');
    {
        WaitLimit limit(50);
        CatalogDirectoryLock parent;
        const cr_status_t status = parent.Lock(tmp.path(), 2);
        EXPECT_EQ(status, CR_STATUS_BUSY);
        if (status == CR_STATUS_OK) parent.Unlock(tmp.path(), 2);
    }
    ASSERT_EQ(write(done[1], "x", 1), 1);
    int wstatus = 0;
    waitpid(pid, &wstatus, 0);
    EXPECT_TRUE(WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 0);
    for (int fd : {ready[0], ready[1], done[0], done[1]}) close(fd);
    EXPECT_EQ(lock.Lock(tmp.path(), 2), CR_STATUS_OK);
    EXPECT_EQ(lock.Unlock(tmp.path(), 2), CR_STATUS_OK);
}

TEST(CatalogDirectoryLockProcess, DirectoryReplacedWhileItsDescriptorWasKeptIsLockedAnew) {
    kt::TempDir tmp;
    const std::string dir = tmp.file("d");
    ASSERT_EQ(mkdir(dir.c_str(), 0750), 0);
    CatalogDirectoryLock lock;
    ASSERT_EQ(lock.Lock(dir, 2), CR_STATUS_OK);
    ASSERT_EQ(lock.Unlock(dir, 2), CR_STATUS_OK);
    ASSERT_EQ(rename(dir.c_str(), tmp.file("old").c_str()), 0);
    ASSERT_EQ(mkdir(dir.c_str(), 0750), 0);
    ASSERT_EQ(lock.Lock(dir, 2), CR_STATUS_OK);
    EXPECT_EQ(child_lock_status(dir, 50), static_cast<int>(CR_STATUS_BUSY));
    EXPECT_EQ(child_lock_status(tmp.file("old"), 50), static_cast<int>(CR_STATUS_OK));
    ASSERT_EQ(lock.Unlock(dir, 2), CR_STATUS_OK);
    EXPECT_EQ(child_lock_status(dir, 50), static_cast<int>(CR_STATUS_OK));
}

TEST(CatalogDirectoryLockProcess, DirectoryRemovedWhileItsDescriptorWasKeptLocksItsAncestor) {
    kt::TempDir tmp;
    const std::string dir = tmp.file("d");
    ASSERT_EQ(mkdir(dir.c_str(), 0750), 0);
    CatalogDirectoryLock lock;
    ASSERT_EQ(lock.Lock(dir, 2), CR_STATUS_OK);
    ASSERT_EQ(lock.Unlock(dir, 2), CR_STATUS_OK);
    ASSERT_EQ(rmdir(dir.c_str()), 0);
    ASSERT_EQ(lock.Lock(dir, 2), CR_STATUS_OK);
    EXPECT_EQ(child_lock_status(tmp.path(), 50), static_cast<int>(CR_STATUS_BUSY));
    ASSERT_EQ(lock.Unlock(dir, 2), CR_STATUS_OK);
    EXPECT_EQ(child_lock_status(tmp.path(), 50), static_cast<int>(CR_STATUS_OK));
}

TEST(CatalogDirectoryLockProcess, NestedLockOfAHeldPathIsCountedUntilTheOutermostEnds) {
    kt::TempDir tmp;
    CatalogDirectoryLock a;
    CatalogDirectoryLock b;
    ASSERT_EQ(a.Lock(tmp.path(), 2), CR_STATUS_OK);
    const int fd = CatalogDirectoryLock::held_descriptor(tmp.path());
    for (int depth = 0; depth < 3; ++depth) ASSERT_EQ(b.Lock(tmp.path(), 2), CR_STATUS_OK);
    // One descriptor, one flock: the nested locks take nothing more.
    EXPECT_EQ(CatalogDirectoryLock::held_descriptor(tmp.path()), fd);
    for (int depth = 0; depth < 3; ++depth) {
        ASSERT_EQ(b.Unlock(tmp.path(), 2), CR_STATUS_OK);
        EXPECT_EQ(child_lock_status(tmp.path(), 50), static_cast<int>(CR_STATUS_BUSY)) << depth;
    }
    ASSERT_EQ(a.Unlock(tmp.path(), 2), CR_STATUS_OK);
    EXPECT_EQ(child_lock_status(tmp.path(), 50), static_cast<int>(CR_STATUS_OK));
}

TEST(CatalogDirectoryLockProcess, HeldDescriptorIsTheLockedDirectoryOfThisThreadOnly) {
    kt::TempDir tmp;
    const std::string dir = tmp.file("d");
    ASSERT_EQ(mkdir(dir.c_str(), 0750), 0);
    EXPECT_EQ(CatalogDirectoryLock::held_descriptor(dir), -1);
    CatalogDirectoryLock lock;
    ASSERT_EQ(lock.Lock(dir, 2), CR_STATUS_OK);
    const int fd = CatalogDirectoryLock::held_descriptor(dir);
    ASSERT_GE(fd, 0);
    struct stat by_fd;
    struct stat by_path;
    ASSERT_EQ(fstat(fd, &by_fd), 0);
    ASSERT_EQ(stat(dir.c_str(), &by_path), 0);
    EXPECT_EQ(by_fd.st_dev, by_path.st_dev);
    EXPECT_EQ(by_fd.st_ino, by_path.st_ino);
    int other_thread = 0;
    std::thread([&]() { other_thread = CatalogDirectoryLock::held_descriptor(dir); }).join();
    EXPECT_EQ(other_thread, -1);
    ASSERT_EQ(lock.Unlock(dir, 2), CR_STATUS_OK);
    EXPECT_EQ(CatalogDirectoryLock::held_descriptor(dir), -1);
    // A missing directory is held through its ancestor: no descriptor of its own.
    const std::string missing = tmp.file("m/n");
    ASSERT_EQ(lock.Lock(missing, 2), CR_STATUS_OK);
    EXPECT_EQ(CatalogDirectoryLock::held_descriptor(missing), -1);
    ASSERT_EQ(lock.Unlock(missing, 2), CR_STATUS_OK);
}

// An object's own limit (a service's environment) bounds its wait, whatever the
// process-wide limit says: the holder keeps the directory up to five seconds,
// well inside the process-wide 60 s, so a lock that ignored its own 50 ms
// would get the directory instead of 11.
TEST(CatalogDirectoryLockProcess, AnObjectsOwnWaitLimitBoundsItsWait) {
    kt::TempDir tmp;
    CatalogDirectoryLock::set_wait_limit_ms(0);
    CatalogDirectoryLock waiter;
    EXPECT_EQ(waiter.object_wait_limit_ms(), CatalogDirectoryLock::wait_limit_ms());
    waiter.set_object_wait_limit_ms(50);
    EXPECT_EQ(waiter.object_wait_limit_ms(), 50);
    EXPECT_EQ(CatalogDirectoryLock::wait_limit_ms(), 60000);

    shadow_test::held_directory holder(tmp.path());
    ASSERT_TRUE(holder.held());
    kt::LogCapture log;
    const cr_status_t status = waiter.Lock(tmp.path(), 2);
    holder.release();
    EXPECT_EQ(status, CR_STATUS_BUSY);
    EXPECT_EQ(log.count(dct::log_level::error, CR_STATUS_BUSY,
                        "Timed out waiting for the lock on directory " + tmp.path()),
              1u)
        << log.dump();

    // Back to the process-wide limit.
    waiter.set_object_wait_limit_ms(0);
    EXPECT_EQ(waiter.object_wait_limit_ms(), 60000);
}
