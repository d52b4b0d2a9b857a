// Directory locks: the catalog's lock and the scoped guard.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "catalog_shadow/DirectoryLock.h"

namespace {

// Records every call it gets, in order, and answers with preset statuses.
class RecordingLock : public DirectoryLock {
public:
    struct Call {
        std::string op;
        const DirectoryLock* self;
        std::string dir;
        unsigned int mode;
    };

    cr_status_t GetLockString(const std::string& dir, std::string* owner, unsigned int* mode) const override {
        calls.push_back(Call{"GetLockString", this, dir, 0});
        *owner = "recorder";
        *mode = lock_mode;
        return lock_string_status;
    }
    cr_status_t Lock(const std::string& dir, unsigned int mode) override {
        calls.push_back(Call{"Lock", this, dir, mode});
        return lock_status;
    }
    cr_status_t Unlock(const std::string& dir, unsigned int mode) override {
        calls.push_back(Call{"Unlock", this, dir, mode});
        return CR_STATUS_OK;
    }

    mutable std::vector<Call> calls;
    unsigned int lock_mode = 7;
    cr_status_t lock_string_status = CR_STATUS_OK;
    cr_status_t lock_status = CR_STATUS_OK;
};

}  // namespace

TEST(CatalogDirectoryLock, OwnerKavrelModeTwoForAnyDirectory) {
    CatalogDirectoryLock lock;
    for (const std::string dir : {"/srv/pool/db/databases/application/7/c1/p1", "", "relative", "/"}) {
        std::string owner = "untouched";
        unsigned int mode = 99;
        EXPECT_EQ(lock.GetLockString(dir, &owner, &mode), CR_STATUS_OK) << dir;
        EXPECT_EQ(owner, "kavrel") << dir;
        EXPECT_EQ(mode, 2u) << dir;
    }
}

TEST(CatalogDirectoryLock, LockAndUnlockSucceed) {
    CatalogDirectoryLock lock;
    EXPECT_EQ(lock.Lock("/x", 2), CR_STATUS_OK);
    EXPECT_EQ(lock.Lock("/x", 2), CR_STATUS_OK);  // taking it twice in one thread only counts up
    EXPECT_EQ(lock.Unlock("/x", 2), CR_STATUS_OK);
    EXPECT_EQ(lock.Unlock("/x", 2), CR_STATUS_OK);
    EXPECT_EQ(lock.Unlock("", 0), CR_STATUS_OK);
}

TEST(CatalogDirectoryLock, UsableThroughTheBase) {
    CatalogDirectoryLock concrete;
    DirectoryLock* lock = &concrete;
    std::string owner;
    unsigned int mode = 0;
    EXPECT_EQ(lock->GetLockString("/d", &owner, &mode), CR_STATUS_OK);
    EXPECT_EQ(owner, "kavrel");
    EXPECT_EQ(mode, 2u);
}

TEST(DirectoryLockBase, LeavesOutputsUntouched) {
    DirectoryLock lock;
    std::string owner = "before";
    unsigned int mode = 41;
    EXPECT_EQ(lock.GetLockString("/d", &owner, &mode), CR_STATUS_OK);
    EXPECT_EQ(owner, "before");
    EXPECT_EQ(mode, 41u);
    EXPECT_EQ(lock.Lock("/d", 41), CR_STATUS_OK);
    EXPECT_EQ(lock.Unlock("/d", 41), CR_STATUS_OK);
}

TEST(ScopedLock, TwoOnTheSameDirectoryInOneThreadDoNotDeadlock) {
    CatalogDirectoryLock lock;
    {
        DirectoryLock::ScopedLock first(&lock, "/srv/pool/db/databases/application/7/c1/p1");
        DirectoryLock::ScopedLock second(&lock, "/srv/pool/db/databases/application/7/c1/p1");
        EXPECT_EQ(first.GetStatus(), CR_STATUS_OK);
        EXPECT_EQ(second.GetStatus(), CR_STATUS_OK);
        EXPECT_EQ(first.GetLockStringStatus(), CR_STATUS_OK);
        EXPECT_EQ(second.GetLockStringStatus(), CR_STATUS_OK);
    }
    // And again afterwards.
    DirectoryLock::ScopedLock third(&lock, "/srv/pool/db/databases/application/7/c1/p1");
    EXPECT_EQ(third.GetStatus(), CR_STATUS_OK);
}

TEST(ScopedLock, AsksLockStringThenLocksAndUnlocksTheSameObject) {
    RecordingLock lock;
    {
        DirectoryLock::ScopedLock guard(&lock, "/a/dir");
        ASSERT_EQ(lock.calls.size(), 2u);
    }
    ASSERT_EQ(lock.calls.size(), 3u);
    EXPECT_EQ(lock.calls[0].op, "GetLockString");
    EXPECT_EQ(lock.calls[0].dir, "/a/dir");
    EXPECT_EQ(lock.calls[1].op, "Lock");
    EXPECT_EQ(lock.calls[1].dir, "/a/dir");
    EXPECT_EQ(lock.calls[1].mode, 7u);  // the mode GetLockString gave
    EXPECT_EQ(lock.calls[2].op, "Unlock");
    EXPECT_EQ(lock.calls[2].dir, "/a/dir");
    EXPECT_EQ(lock.calls[2].mode, 7u);
    for (const auto& c : lock.calls) EXPECT_EQ(c.self, &lock);
}

TEST(ScopedLock, KeepsTheStatusesOfLockStringAndLock) {
    RecordingLock lock;
    lock.lock_string_status = CR_STATUS_NOT_FOUND;
    lock.lock_status = CR_STATUS_BUSY;
    {
        DirectoryLock::ScopedLock guard(&lock, "/d");
        EXPECT_EQ(guard.GetLockStringStatus(), CR_STATUS_NOT_FOUND);
        EXPECT_EQ(guard.GetStatus(), CR_STATUS_BUSY);
    }
    // A lock that was not had is not released: the release could end an
    // outer holder's lock on the same directory.
    ASSERT_EQ(lock.calls.size(), 2u);
    EXPECT_EQ(lock.calls[1].op, "Lock");
}

TEST(ScopedLock, NestedGuardsReleaseInReverseOrder) {
    RecordingLock lock;
    {
        DirectoryLock::ScopedLock outer(&lock, "/outer");
        lock.lock_mode = 3;
        DirectoryLock::ScopedLock inner(&lock, "/inner");
    }
    ASSERT_EQ(lock.calls.size(), 6u);
    EXPECT_EQ(lock.calls[4].op, "Unlock");
    EXPECT_EQ(lock.calls[4].dir, "/inner");
    EXPECT_EQ(lock.calls[4].mode, 3u);
    EXPECT_EQ(lock.calls[5].op, "Unlock");
    EXPECT_EQ(lock.calls[5].dir, "/outer");
    EXPECT_EQ(lock.calls[5].mode, 7u);  // each guard keeps the mode it was given
}

TEST(ScopedLock, DirectoryCopiedAtConstruction) {
    RecordingLock lock;
    {
        std::string dir = "/first";
        DirectoryLock::ScopedLock guard(&lock, dir);
        dir = "/changed";
    }
    ASSERT_EQ(lock.calls.size(), 3u);
    EXPECT_EQ(lock.calls[2].dir, "/first");
}

TEST(ScopedLock, BaseLockGuardUsesModeZero) {
    // The base leaves the mode alone, so the guard's own initial mode 0 is used.
    struct BaseOnly : DirectoryLock {
        std::vector<unsigned int> modes;
        cr_status_t Lock(const std::string&, unsigned int mode) override {
            modes.push_back(mode);
            return CR_STATUS_OK;
        }
        cr_status_t Unlock(const std::string&, unsigned int mode) override {
            modes.push_back(mode);
            return CR_STATUS_OK;
        }
    } lock;
    { DirectoryLock::ScopedLock guard(&lock, "/d"); }
    EXPECT_EQ(lock.modes, (std::vector<unsigned int>{0u, 0u}));
}
