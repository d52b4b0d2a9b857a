// Backups and recoveries called directly on a context take the directory lock
// of their database and do not start when it is not had.
#include <atomic>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "backup_fixtures.h"
#include "catalog_shadow/DirectoryLock.h"

namespace {

using backup_test::AppPool;
using dct::log_level;

// Holds the lock of `dir` on a thread of its own until destroyed.
class HeldElsewhere {
public:
    explicit HeldElsewhere(const std::string& dir) : thread_([this, dir]() {
        CatalogDirectoryLock lock;
        status_ = lock.Lock(dir, 2);
        held_ = true;
        while (!done_.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (status_.load() == CR_STATUS_OK) lock.Unlock(dir, 2);
    }) {
        while (!held_.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ~HeldElsewhere() {
        done_ = true;
        thread_.join();
    }
    cr_status_t status() const { return status_.load(); }

private:
    std::atomic<bool> held_{false};
    std::atomic<bool> done_{false};
    std::atomic<cr_status_t> status_{CR_STATUS_FAILED};
    std::thread thread_;
};

struct ShortWait {
    ShortWait() { CatalogDirectoryLock::set_wait_limit_ms(50); }
    ~ShortWait() { CatalogDirectoryLock::set_wait_limit_ms(0); }
};

}  // namespace

TEST(BackupLock, BackupDoesNotStartWithoutTheLock) {
    AppPool p;
    p.create(3);
    ShortWait wait;
    {
        HeldElsewhere holder(p.dir);
        ASSERT_EQ(CR_STATUS_OK, holder.status());
        kt::LogCapture log;
        EXPECT_EQ(CR_STATUS_BUSY, p.ctx->backup(p.dir, "appdb"));
        EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_BUSY,
                                "Timed out waiting for the lock on directory " + p.dir))
            << log.dump();
        EXPECT_EQ(0u, log.count_containing("Backup appdb database")) << log.dump();
        EXPECT_FALSE(kt::file_exists(p.shadow_dir()));
    }
    // Once the holder is gone the same call works.
    EXPECT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    EXPECT_EQ(1u, p.shadow()->get_version_count("appdb"));
}

TEST(BackupLock, BackupAllCountsADatabaseWhoseLockWasNotHadAsFailed) {
    AppPool p;
    p.create(3);
    ShortWait wait;
    HeldElsewhere holder(p.dir);
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_FAILED, p.ctx->backup_all(true));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_BUSY,
                            "Timed out waiting for the lock on directory " + p.dir))
        << log.dump();
    EXPECT_EQ(0u, p.shadow()->get_version_count("appdb"));
}

TEST(BackupLock, RecoveryDoesNotStartWithoutTheLock) {
    AppPool p;
    p.create(3);
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    ASSERT_EQ(0, unlink(p.db.c_str()));
    ShortWait wait;
    {
        HeldElsewhere holder(p.dir);
        kt::LogCapture log;
        EXPECT_EQ(CR_STATUS_BUSY, p.ctx->recover(p.dir, "appdb", 0));
        EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_BUSY,
                                "Timed out waiting for the lock on directory " + p.dir))
            << log.dump();
        EXPECT_FALSE(kt::file_exists(p.db));
    }
    EXPECT_EQ(CR_STATUS_OK, p.ctx->recover(p.dir, "appdb", 0));
    EXPECT_TRUE(kt::file_exists(p.db));
}

TEST(BackupLock, RecoveryMakesAMissingDirectoryAndReleasesEveryLock) {
    AppPool p;
    p.create(3);
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    ASSERT_EQ(0, wa_deletetree(p.dir));
    // The directory is made by the recovery, under the lock of its parent,
    // and then locked itself; both are released when the recovery ends.
    EXPECT_EQ(CR_STATUS_OK, p.ctx->recover(p.dir, "appdb", 0));
    EXPECT_TRUE(kt::file_exists(p.db));
    ShortWait wait;
    HeldElsewhere after(p.dir);
    EXPECT_EQ(CR_STATUS_OK, after.status());
}
