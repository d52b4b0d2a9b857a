// Directory locks: the hook through which every component that works on one
// database directory serialises that work. The base DirectoryLock takes no lock;
// CatalogDirectoryLock takes a real one (see below). A DirectoryLock handed to
// CatalogShadowContext is owned by it; the catalog applications that the
// factory builds each own theirs.
#ifndef CATALOG_SHADOW_DIRECTORYLOCK_H_
#define CATALOG_SHADOW_DIRECTORYLOCK_H_

#include <sys/types.h>

#include <string>
#include <utility>

#include "dct/status.h"

class DirectoryLock {
public:
    virtual ~DirectoryLock();

    // Fills in who takes the lock on `dir` and in which mode. The base leaves
    // both untouched and returns 0.
    virtual cr_status_t GetLockString(const std::string& dir, std::string* owner,
                                      unsigned int* mode) const;
    // Take / release the lock on `dir`. The base does nothing and returns 0.
    virtual cr_status_t Lock(const std::string& dir, unsigned int mode);
    virtual cr_status_t Unlock(const std::string& dir, unsigned int mode);

    // Holds the lock on one directory for one scope: GetLockString then Lock at
    // construction, Unlock at destruction (on the same lock object) when the
    // Lock call returned 0.
    class ScopedLock {
    public:
        ScopedLock(DirectoryLock* lock, const std::string& dir);
        ~ScopedLock();
        ScopedLock(const ScopedLock&) = delete;
        ScopedLock& operator=(const ScopedLock&) = delete;

        // Status of the lock call (0 when the lock was taken).
        cr_status_t GetStatus() const { return status_; }
        // Status of GetLockString (0 when the lock state was learned).
        cr_status_t GetLockStringStatus() const { return lock_string_status_; }

    private:
        DirectoryLock* lock_;
        std::string dir_;
        std::string owner_;
        unsigned int mode_ = 0;
        cr_status_t lock_string_status_ = CR_STATUS_OK;
        cr_status_t status_ = CR_STATUS_OK;
    };
};

// The lock of the catalog: owner "kavrel", mode 2. Lock(dir) takes an
// exclusive flock on a descriptor of `dir` opened read-only, so it needs only
// read access, creates no file and is released by the kernel when the process
// dies. Each acquisition has its own open file description: two lock objects,
// two threads or two processes exclude each other alike. After an unlock the
// descriptor is kept open (a few per process, the oldest closed first), so
// that locking the same path again costs a flock and a stat of the path (which
// notices a directory removed or replaced meanwhile) instead of opening it;
// a nested Lock of a path the thread holds costs no system call at all.
//
// - Re-entrant per thread: a thread that already holds a directory (through any
//   CatalogDirectoryLock object) only counts up; each Unlock releases what the
//   matching Lock of the same object and thread acquired.
// - A missing `dir` (a writer is about to create it) locks its nearest existing
//   ancestor instead. Whoever creates `dir` under that lock calls
//   LockCreated(dir) on the same thread right after creating it, and then
//   re-checks whether the database exists (another process may have made it
//   in the gap).
// - Waiting polls with a short growing real-time sleep, bounded by the busy
//   limit of the database layer (sqlitedb::busy_tries seconds) or by
//   set_wait_limit_ms. Timeout: 11 and one error record naming the directory;
//   a directory that cannot be opened: its mapped status (106, 2, ...) and one
//   record.
// - Lock order: a directory lock is taken before any mutex of the open-database
//   cache, never while holding one.
// - Unlock is called by the thread that locked. A forked child holds none of
//   its parent's locks (it closes the inherited descriptors without unlocking).
// Thread-safe; objects may be shared between threads.
class CatalogDirectoryLock : public DirectoryLock {
public:
    CatalogDirectoryLock() = default;
    // Releases whatever this object still holds.
    ~CatalogDirectoryLock() override;
    CatalogDirectoryLock(const CatalogDirectoryLock&) = delete;
    CatalogDirectoryLock& operator=(const CatalogDirectoryLock&) = delete;

    cr_status_t GetLockString(const std::string& dir, std::string* owner,
                              unsigned int* mode) const override;
    cr_status_t Lock(const std::string& dir, unsigned int mode) override;
    cr_status_t Unlock(const std::string& dir, unsigned int mode) override;

    // Longest wait for one lock, in milliseconds, process-wide; a value <= 0
    // restores the default (the database layer's busy limit). Lowering it
    // lets tests provoke the timeout quickly.
    static void set_wait_limit_ms(long ms);
    static long wait_limit_ms();
    // This object's own limit (a service's environment); a value <= 0 goes
    // back to the process-wide one above. Set it before the object is shared.
    void set_object_wait_limit_ms(long ms) { object_wait_limit_ms_ = ms > 0 ? ms : 0; }
    long object_wait_limit_ms() const {
        return object_wait_limit_ms_ > 0 ? object_wait_limit_ms_ : wait_limit_ms();
    }

    // Called by whoever has just created `dir` while this thread held a lock
    // that stood in for it (its nearest existing ancestor, because `dir` was
    // missing): also locks `dir`, for as long as each such lock is held, so
    // that nobody enters the new directory before its creator is done. Does
    // nothing (0) when this thread holds no such lock. Statuses as Lock.
    static cr_status_t LockCreated(const std::string& dir);

    // The descriptor of `dir` that the calling thread holds locked (taken by
    // this very path, not through an ancestor), or -1. It stays the lock's:
    // valid until the thread's last lock of `dir` ends; never to be closed or
    // unlocked by the caller. Lets whoever works in the directory look at its
    // entries without resolving the whole path again (fstatat).
    static int held_descriptor(const std::string& dir);

    // (st_dev, st_ino) of a locked directory.
    using dir_key = std::pair<dev_t, ino_t>;

private:
    long object_wait_limit_ms_ = 0;  // 0: the process-wide limit
};

#endif  // CATALOG_SHADOW_DIRECTORYLOCK_H_
