// Directory locks: the hook through which every component that works on one
// database directory serialises that work. In this system Lock and Unlock take no
// lock at all; every caller still goes through them so that a real lock can be
// placed behind the same calls.
//
// What this means for an embedding service: two operations on one database at
// the same moment are kept apart by the open-database cache (which refuses the
// second with 4) and two processes by SQLite's own file locking, not by this
// lock. A DirectoryLock handed to CatalogShadowContext is owned by it; the
// catalog applications that the factory builds each own theirs.
#ifndef CATALOG_SHADOW_DIRECTORYLOCK_H_
#define CATALOG_SHADOW_DIRECTORYLOCK_H_

#include <string>

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
    // construction, Unlock at destruction (on the same lock object).
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

// The lock of the catalog: owner "kavrel", mode 2; Lock and Unlock do nothing.
class CatalogDirectoryLock : public DirectoryLock {
public:
    cr_status_t GetLockString(const std::string& dir, std::string* owner,
                              unsigned int* mode) const override;
    cr_status_t Lock(const std::string& dir, unsigned int mode) override;
    cr_status_t Unlock(const std::string& dir, unsigned int mode) override;
};

#endif  // CATALOG_SHADOW_DIRECTORYLOCK_H_
