// Recoveries over the shadow tree, and removal of shadows.
#include <gtest/gtest.h>

#include <errno.h>
#include <string.h>

#include <atomic>
#include <map>

#include "backup_fixtures.h"
#include "dct/fault.h"

using dct::log_level;

namespace {

struct FaultHook {
    explicit FaultHook(dct::fault_hook hook) { dct::set_fault_hook(std::move(hook)); }
    ~FaultHook() { dct::set_fault_hook(nullptr); }
};

// A tree of 12 application databases, all backed up, each changed once since
// through the journal.
struct BackedUpTree {
    shadow_test::PoolLayout layout;
    std::unique_ptr<CatalogShadowContext> ctx = layout.context();
    std::vector<std::string> dirs = backup_test::app_tree(layout, true);

    BackedUpTree() {
        EXPECT_EQ(CR_STATUS_OK, ctx->backup_all(true));
        for (size_t i = 0; i < dirs.size(); ++i) {
            const std::string statement = backup_test::insert_row(1000 + static_cast<int>(i));
            backup_test::sql_exec(dirs[i] + "/app.db", statement);
            EXPECT_EQ(CR_STATUS_OK, ctx->write_journal(dirs[i], "appdb", statement));
        }
    }
};

size_t recovered_count(const kt::LogCapture& log) { return log.count_containing("Recover database "); }

TEST(RecoverAllTest, ExactlyTheMissingDatabasesAreRecovered) {
    BackedUpTree t;
    std::map<std::string, std::vector<std::string>> rows;
    std::map<std::string, std::string> bytes;
    for (const std::string& dir : t.dirs) {
        rows[dir] = backup_test::catalog_rows(dir + "/app.db");
        bytes[dir] = backup_test::read_bytes(dir + "/app.db");
    }
    const std::string lost1 = t.dirs[1];   // 1/c1/p2
    const std::string lost2 = t.dirs[10];  // 3/c2/p1
    ASSERT_EQ(0, unlink((lost1 + "/app.db").c_str()));
    ASSERT_EQ(0, unlink((lost2 + "/app.db").c_str()));

    kt::LogCapture log;
    ASSERT_EQ(CR_STATUS_OK, t.ctx->recover_all_missing(true)) << log.dump();
    EXPECT_TRUE(log.contains(log_level::info, 0, "Trying to find and recover the missing APP databases"));
    EXPECT_TRUE(log.contains(log_level::info, 0, "2 lost APP databases are recovered.")) << log.dump();
    EXPECT_EQ(2u, recovered_count(log)) << log.dump();
    EXPECT_TRUE(log.contains(log_level::info, 0, "recover_unlocked: Recover database " + lost1 + "/app.db succeeded."));
    EXPECT_TRUE(log.contains(log_level::info, 0, "recover_unlocked: Recover database " + lost2 + "/app.db succeeded."));
    for (const std::string& dir : t.dirs) {
        EXPECT_EQ(rows[dir], backup_test::catalog_rows(dir + "/app.db")) << dir;
        if (dir != lost1 && dir != lost2) {
            EXPECT_EQ(bytes[dir], backup_test::read_bytes(dir + "/app.db")) << dir;
        }
    }
}

TEST(RecoverAllTest, NothingMissingRecoversNothing) {
    BackedUpTree t;
    kt::LogCapture log;
    ASSERT_EQ(CR_STATUS_OK, t.ctx->recover_all_missing(true));
    EXPECT_TRUE(log.contains(log_level::info, 0, "0 lost APP databases are recovered.")) << log.dump();
    EXPECT_EQ(0u, recovered_count(log));
    ASSERT_EQ(CR_STATUS_OK, t.ctx->recover_all(true, 0));
    EXPECT_TRUE(log.contains(log_level::info, 0, "Start to recover all catalog APP databases..."));
    EXPECT_EQ(0u, recovered_count(log));
    EXPECT_EQ(0u, log.count_containing("Attention")) << log.dump();
}

// Set-aside material holds checksum files too; the walk never enters it.
TEST(RecoverAllTest, SetAsideCopiesAreNeverTakenForShadows) {
    BackedUpTree t;
    const std::string shadow_dir = t.ctx->pool->get(t.dirs[0])->get_shadow_dir();
    const std::string aside = shadow_dir + "/#corrupt_appdb_1";
    ASSERT_EQ(0, wa_createtree(aside, 0755));
    kt::write_file(aside + "/.chksum.appdb", kt::read_file(shadow_dir + "/.chksum.appdb"));
    kt::write_file(aside + "/appdb.1", kt::read_file(shadow_dir + "/appdb.1"));
    kt::TraceSwitch trace(true);
    kt::LogCapture log;
    ASSERT_EQ(CR_STATUS_OK, t.ctx->recover_all_missing(true)) << log.dump();
    EXPECT_TRUE(log.contains(log_level::info, 0, "0 lost APP databases are recovered.")) << log.dump();
    EXPECT_EQ(1u, log.count_message("Skip directory " + aside)) << log.dump();
    EXPECT_FALSE(kt::file_exists(t.dirs[0] + "/#corrupt_appdb_1"));
}

TEST(RecoverAllTest, FailuresAreReported) {
    BackedUpTree t;
    ASSERT_EQ(0, unlink((t.dirs[2] + "/app.db").c_str()));
    ASSERT_EQ(0, unlink((t.dirs[3] + "/app.db").c_str()));
    // The only version of dirs[3] is damaged.
    backup_test::overwrite(t.ctx->pool->get(t.dirs[3])->get_shadow_dir() + "/appdb.1", 40, "XYZ");

    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_FAILED, t.ctx->recover_all_missing(true));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_FAILED,
                             "recover_all_missing: failed to recover the missing APP databases."))
        << log.dump();
    EXPECT_EQ(0u, log.count_containing("lost APP databases are recovered.")) << log.dump();
    EXPECT_TRUE(kt::file_exists(t.dirs[2] + "/app.db"));
    EXPECT_FALSE(kt::file_exists(t.dirs[3] + "/app.db"));

    ASSERT_EQ(0, unlink((t.dirs[2] + "/app.db").c_str()));
    log.clear();
    EXPECT_EQ(CR_STATUS_FAILED, t.ctx->recover_all(true, 0));
    EXPECT_TRUE(log.contains(log_level::warning, CR_STATUS_FAILED,
                             "Attention: not all of the APP databases have been successfully recovered!"))
        << log.dump();
    EXPECT_TRUE(kt::file_exists(t.dirs[2] + "/app.db"));
}

// The PO/UL walk looks only at the level of the PO directories: the
// application shadows below hold empty PO checksum files of their own.
TEST(RecoverAllTest, PoAndUlDatabasesOfThePoTree) {
    BackedUpTree t;
    const std::string po1 = t.layout.po_dir("1");
    const std::string po2 = t.layout.po_dir("2");
    backup_test::sql_exec(po1 + "/po.db", "CREATE TABLE po (basename TEXT); INSERT INTO po VALUES ('x');");
    backup_test::sql_exec(po2 + "/ul.db", "CREATE TABLE ul (y TEXT); INSERT INTO ul VALUES ('y');");
    ASSERT_EQ(CR_STATUS_OK, t.ctx->backup_all(false));
    ASSERT_EQ(0, unlink((po1 + "/po.db").c_str()));
    ASSERT_EQ(0, unlink((po2 + "/ul.db").c_str()));

    std::unique_ptr<CatalogShadowContext> fresh = t.layout.context();
    kt::LogCapture log;
    ASSERT_EQ(CR_STATUS_OK, fresh->recover_all_missing(false)) << log.dump();
    EXPECT_TRUE(log.contains(log_level::info, 0, "Trying to find and recover the missing PO UL databases"));
    EXPECT_TRUE(log.contains(log_level::info, 0, "2 lost PO UL databases are recovered.")) << log.dump();
    EXPECT_EQ(std::vector<std::string>{"x"}, backup_test::sql_rows(po1 + "/po.db", "SELECT basename FROM po;"));
    EXPECT_EQ(std::vector<std::string>{"y"}, backup_test::sql_rows(po2 + "/ul.db", "SELECT y FROM ul;"));
    // Only the two PO directories' shadows were looked at.
    EXPECT_EQ(2u, fresh->pool->size());
    EXPECT_FALSE(kt::file_exists(t.layout.po_dir("1/c1")));
}

TEST(RecoverAllTest, DisabledFeatureAndLostIdentity) {
    shadow_test::PoolLayout layout;
    std::unique_ptr<CatalogShadowContext> ctx = layout.context(false);
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_FAILED, ctx->recover_all(true, 0));
    EXPECT_EQ(CR_STATUS_FAILED, ctx->recover_all_missing(false));
    EXPECT_EQ(2u, log.count_containing("since the catalog shadow feature has been disabled.")) << log.dump();

    BackedUpTree t;
    ASSERT_EQ(0, unlink((t.layout.shadow + "/.catalog_shadow_identity").c_str()));
    ASSERT_EQ(0, unlink((t.dirs[0] + "/app.db").c_str()));
    EXPECT_EQ(CR_STATUS_FAILED, t.ctx->recover_all_missing(true));
    EXPECT_FALSE(kt::file_exists(t.dirs[0] + "/app.db"));
}

TEST(RemoveShadowTest, ShadowDirectoryAndVersionsGo) {
    BackedUpTree t;
    const std::string dir = t.dirs[4];
    const std::string shadow_dir = t.ctx->pool->get(dir)->get_shadow_dir();
    ASSERT_TRUE(kt::file_exists(shadow_dir + "/appdb.1"));
    const size_t pooled = t.ctx->pool->size();
    ASSERT_EQ(CR_STATUS_OK, t.ctx->remove_shadow_unlocked(dir));
    EXPECT_FALSE(kt::file_exists(shadow_dir));
    EXPECT_EQ(pooled - 1, t.ctx->pool->size());
    EXPECT_FALSE(t.ctx->has_shadow_copy(dir, "appdb"));
    EXPECT_TRUE(kt::file_exists(dir + "/app.db"));
}

TEST(RemoveShadowTest, TreeThatCannotBeDeletedIsTriedTenTimes) {
    BackedUpTree t;
    const std::string dir = t.dirs[4];
    const std::string shadow_dir = t.ctx->pool->get(dir)->get_shadow_dir();
    std::atomic<int> tries{0};
    FaultHook hook([&](dct::fault_op op, const char* path) {
        if (op != dct::fault_op::deletetree || shadow_dir != path) return 0;
        ++tries;
        return EBUSY;
    });
    kt::SleepCounter sleeps;
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_BUSY, t.ctx->remove_shadow_unlocked(dir));
    EXPECT_EQ(10, tries.load());
    EXPECT_EQ(9u, log.count(log_level::warning, CR_STATUS_BUSY,
                            "Failed to delete tree " + shadow_dir + " (" + strerror(EBUSY) +
                                "), will retry after a while."))
        << log.dump();
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_BUSY,
                            "Failed to delete tree " + shadow_dir + " (" + strerror(EBUSY) + ")."))
        << log.dump();
    EXPECT_EQ(9, sleeps.calls());
    EXPECT_EQ(27u, sleeps.total_seconds());
    EXPECT_TRUE(kt::file_exists(shadow_dir + "/appdb.1"));
}

TEST(RemoveShadowTest, DeletionThatSucceedsOnTheThirdTry) {
    BackedUpTree t;
    const std::string dir = t.dirs[4];
    const std::string shadow_dir = t.ctx->pool->get(dir)->get_shadow_dir();
    std::atomic<int> tries{0};
    FaultHook hook([&](dct::fault_op op, const char* path) {
        if (op != dct::fault_op::deletetree || shadow_dir != path) return 0;
        return ++tries < 3 ? EACCES : 0;
    });
    kt::SleepCounter sleeps;
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_OK, t.ctx->remove_shadow_unlocked(dir));
    EXPECT_EQ(2u, log.count_containing("will retry after a while.")) << log.dump();
    EXPECT_EQ(0u, log.count_containing("Failed to delete tree " + shadow_dir + " (" + strerror(EACCES) + ").")) << log.dump();
    EXPECT_EQ(2, sleeps.calls());
    EXPECT_EQ(6u, sleeps.total_seconds());
    EXPECT_FALSE(kt::file_exists(shadow_dir));
}

}  // namespace
