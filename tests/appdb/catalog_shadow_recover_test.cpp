// When the shadow-protected catalog recovers a database and when it does not:
// a deleted, a damaged and a tampered database are rebuilt and the operation
// done once more; busy and healthy-but-failing databases are left alone; a
// failed recovery is reported with its own status; and one operation never
// recovers twice.
#include <sqlite3.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "catalog_shadow/PODBShadowPool.h"
#include "catalog_shadow_fault_vfs.h"
#include "catalog_shadow_fixture.h"

namespace {

using appdb::app_catalog_item;
using catt::make_item;
using dct::log_level;
using shadowt::journal_lines;

class ShadowRecover : public shadowt::shadow_fixture {
protected:
    void SetUp() override {
        shadow_vfs::install();
        shadow_vfs::reset();
        shadowt::shadow_fixture::SetUp();
    }
    void TearDown() override {
        shadow_vfs::reset();
        shadowt::shadow_fixture::TearDown();
    }

    // Rows f0..f(n-1) of backup c_1 in database c/p.
    void fill(int n) {
        for (int i = 0; i < n; ++i) insert(make_item("c", "p", "f" + std::to_string(i), "c_1", 100 + i));
    }

    std::string recover_line(const char* fn) const {
        return std::string(fn) + ": db " + db_dir("c", "p") + " corrupt, to do recover from shadow";
    }
    size_t recoveries() const { return log.count_containing("corrupt, to do recover from shadow"); }
};

TEST_F(ShadowRecover, AnInsertIntoADeletedDatabaseRecoversItAndInsertsOnceMore) {
    fill(3);
    restart_app();  // no connection to the old file survives
    shadowt::delete_database(db_file("c", "p"));
    log.clear();

    insert(make_item("c", "p", "f3", "c_1"));
    // Not recreated empty: the insert failed to open it (21), found it
    // missing and recovered it.
    EXPECT_EQ(0u, log.count_containing("going to create it")) << log.dump();
    EXPECT_TRUE(log.contains(log_level::error, 21,
                             "need_recover_after_db_operation: Can't find app database c c p p, need recover."))
        << log.dump();
    EXPECT_TRUE(log.contains(log_level::error, 21, recover_line("update_catalog")));
    EXPECT_EQ(1u, recoveries());
    EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "c", "p")));
    EXPECT_EQ("ok", shadowt::integrity(db_file("c", "p")));
    // The retried insert was journaled like any other.
    EXPECT_EQ(4u, journal_lines(shadow_dir("c", "p")));
}

TEST_F(ShadowRecover, ADatabaseDeletedUnderAnOpenConnectionIsRecoveredOnTheNextChange) {
    fill(3);
    ASSERT_EQ(1, catt::open_fds_on(db_file("c", "p")));
    shadowt::delete_database(db_file("c", "p"));
    log.clear();

    // The cached connection is found to lead to a file that lost its name:
    // it is closed, the reopening finds the database missing (21) and the
    // change recovers it.
    insert(make_item("c", "p", "f3", "c_1"));
    EXPECT_TRUE(log.contains(log_level::info, 0,
                             "open_db_with_cached: app db " + db_dir("c", "p") + " was replaced, reopen it"))
        << log.dump();
    EXPECT_TRUE(log.contains(log_level::error, 21, recover_line("update_catalog"))) << log.dump();
    EXPECT_EQ(1u, recoveries());
    EXPECT_EQ(1, catt::open_fds_on(db_file("c", "p")));
    restart_app();
    EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "c", "p")));
}

TEST_F(ShadowRecover, AnInsertBusyForSixtyTriesReturnsBusyWithoutRecovery) {
    fill(1);
    catt::busy_timeout_scope fast(1);
    restart_app();  // its connections take the short busy timeout
    catt::exclusive_holder holder(db_file("c", "p"));
    log.clear();

    const app_catalog_item item = make_item("c", "p", "late", "c_1");
    EXPECT_EQ(11u, app->update_catalog("admin", 1, item.to_string()));
    EXPECT_EQ(60, sleeps.calls());
    EXPECT_EQ(60u, sleeps.total_seconds());
    EXPECT_TRUE(log.contains(log_level::warning, 11, "do_db_insert: 0 busy when inserting late"));
    EXPECT_TRUE(log.contains(log_level::warning, 11, "do_db_insert: 59 busy when inserting late"));
    EXPECT_FALSE(log.contains(log_level::warning, 11, "do_db_insert: 60 busy when inserting late"));
    EXPECT_TRUE(log.contains(log_level::error, 11,
                             "shadow_protected_db_insert: failed to insert late to db " + db_dir("c", "p")));
    EXPECT_EQ(0u, recoveries()) << log.dump();
    EXPECT_EQ(0u, log.count_containing("Recover database"));
    holder.release();
    EXPECT_EQ(1u, journal_lines(shadow_dir("c", "p")));
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p")));
}

TEST_F(ShadowRecover, AQueryFailingWithAnIoErrorOnASoundDatabaseIsNotRecovered) {
    fill(3);
    // One read of the database file fails; the integrity check after it reads
    // a sound file.
    shadow_vfs::armed().reads = 1;
    log.clear();
    std::vector<app_catalog_item> items;
    EXPECT_EQ(21u, app->find_catalog("admin", 1, "backup_id|c,p,*", items));
    EXPECT_EQ(1, shadow_vfs::armed().reads_failed.load());
    EXPECT_EQ(0u, recoveries()) << log.dump();
    EXPECT_EQ(0u, log.count_containing("Recover database"));
    EXPECT_TRUE(log.contains(log_level::error, 21,
                             "find_catalog: failed to query backup_id|c,p,* for " + db_dir("c", "p")));
    {
        kt::TraceSwitch trace(true);
        shadow_vfs::armed().reads = 1;
        app_catalog_item one;
        EXPECT_EQ(21u, app->find_by_file_name("c", "p", "f1", one, true));
        EXPECT_TRUE(log.contains(log_level::trace, CR_STATUS_NONE, "need_recover_after_db_operation: need recover 0"));
    }
    EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "c", "p")));
}

TEST_F(ShadowRecover, ACorruptDatabaseWhoseRecoveryFailsReturnsTheRecoverysStatus) {
    fill(3);
    restart_app();
    std::mt19937 rng(7);
    const std::string file = db_file("c", "p");
    shadowt::damage_header(file, rng);
    // Every shadow copy is damaged too: nothing to rebuild from.
    for (const std::string& v : shadowt::shadow_versions(shadow_dir("c", "p"))) {
        shadowt::scribble(shadow_dir("c", "p") + "/" + v, 0, 100, rng);
    }
    const std::string damaged = kt::read_file(file);
    log.clear();

    std::vector<app_catalog_item> items;
    const cr_status_t status = app->find_catalog("admin", 1, "backup_id|c,p,*", items);
    EXPECT_NE(0u, status);
    EXPECT_TRUE(log.contains(log_level::error, 67, recover_line("find_catalog"))) << log.dump();
    EXPECT_EQ(1u, recoveries());
    EXPECT_TRUE(log.contains(log_level::error, status, "recover_from_journal: recover failed for " + db_dir("c", "p")));
    EXPECT_TRUE(log.contains(log_level::error, status, "find_catalog: fail to recover app db from c p"));
    // Nothing was retried and the database was left as it was.
    EXPECT_EQ(damaged, kt::read_file(file));
}

TEST_F(ShadowRecover, ADamagedHeaderIsRecoveredByTheNextFind) {
    fill(20);
    restart_app();
    std::mt19937 rng(11);
    shadowt::damage_header(db_file("c", "p"), rng);
    log.clear();
    EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "c", "p"))) << log.dump();
    EXPECT_TRUE(log.contains(log_level::error, 67, recover_line("find_catalog")));
    EXPECT_EQ(1u, recoveries());
    EXPECT_EQ("ok", shadowt::integrity(db_file("c", "p")));
}

TEST_F(ShadowRecover, ATamperedRowIsReportedCorruptAndTheRowRestored) {
    fill(5);
    sqlite3* db = catt::raw_open(db_file("c", "p"));
    ASSERT_NE(nullptr, db);
    catt::raw_exec(db, "UPDATE catalog SET description = 'changed' WHERE name = 'f2'");
    sqlite3_close(db);
    log.clear();
    app_catalog_item row;
    ASSERT_EQ(0u, app->find_by_file_name("c", "p", "f2", row, true)) << log.dump();
    EXPECT_EQ("desc f2", row.description);
    EXPECT_TRUE(log.contains(log_level::error, 67, recover_line("find_by_file_name")));
    EXPECT_EQ(1u, recoveries());
    EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "c", "p")));
}

TEST_F(ShadowRecover, FindWithoutTheLockRecoversAsWell) {
    fill(4);
    restart_app();
    shadowt::delete_database(db_file("c", "p"));
    log.clear();
    app_catalog_item row;
    ASSERT_EQ(0u, app->find_by_image_name("c", "p", "c_1_C1_HDR", row, false)) << log.dump();
    EXPECT_EQ("c_1", row.backup_id);
    EXPECT_TRUE(log.contains(log_level::error, 21, recover_line("find_by_image_name")));
    EXPECT_EQ(1u, recoveries());
    EXPECT_EQ(4, catt::raw_count(db_file("c", "p")));
}

TEST_F(ShadowRecover, ADeleteThatMeetsADamagedIndexRecoversAndDeletesOnceMore) {
    fill(6);
    // The lookup by name does not read the backup id index; the delete must
    // update it.
    const int root = std::stoi(catt::raw_scalar(
        db_file("c", "p"), "SELECT rootpage FROM sqlite_master WHERE name = 'catalog_backupid'"));
    restart_app();
    std::mt19937 rng(5);
    shadowt::scribble(db_file("c", "p"), static_cast<off_t>(root - 1) * 4096, 4096, rng);
    log.clear();

    ASSERT_EQ(0u, app->del_catalog("admin", 1, "name|c,p,f4")) << log.dump();
    model.erase("f4");
    EXPECT_TRUE(log.contains(log_level::error, 67, recover_line("del_catalog")));
    EXPECT_EQ(1u, recoveries());
    EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "c", "p")));
    EXPECT_EQ("ok", shadowt::integrity(db_file("c", "p")));
    EXPECT_EQ(7u, journal_lines(shadow_dir("c", "p")));
}

TEST_F(ShadowRecover, ExpiringFromADeletedDatabaseRecoversItFirst) {
    fill(4);
    insert(make_item("c", "p", "keep", "c_2"));
    restart_app();
    shadowt::delete_database(db_file("c", "p"));
    log.clear();
    ASSERT_EQ(0u, app->expire_catalog("admin", 1, "c", "p", "c_1_C7_HDR", true)) << log.dump();
    EXPECT_EQ(1u, recoveries());
    EXPECT_TRUE(log.contains(log_level::error, 21, recover_line("find_by_image_name")));
    std::map<std::string, std::string> expected;
    expected["keep"] = model.rows().at("keep");
    EXPECT_TRUE(shadowt::same_rows(expected, shadowt::read_back(*app, "c", "p")));
    EXPECT_EQ(6u, journal_lines(shadow_dir("c", "p")));
}

TEST_F(ShadowRecover, TheProtectedExpireRecoversAMissingDatabaseAndJournalsTheDelete) {
    fill(3);
    restart_app();
    shadowt::delete_database(db_file("c", "p"));
    log.clear();
    ASSERT_EQ(0u, shadow_app()->shadow_protected_expire_catalog("c", "p", "c_1_C1_HDR")) << log.dump();
    EXPECT_TRUE(log.contains(log_level::error, 21, recover_line("shadow_protected_expire_catalog")));
    EXPECT_EQ(0, catt::raw_count(db_file("c", "p")));
    EXPECT_EQ(4u, journal_lines(shadow_dir("c", "p")));
}

TEST_F(ShadowRecover, AFailureWithoutAShadowIsNotRecovered) {
    // A database made by a plain catalog, then damaged before any protected
    // operation could copy it.
    std::unique_ptr<appdb::catalog_application> plain(appdb::catalog_application_factory::create_catalog(
        2, pool.database_root(), appdb::APP_D_CATALOG, nullptr, 5));
    ASSERT_EQ(0u, plain->update_catalog("admin", 1, make_item("c", "p", "f", "c_1").to_string()));
    plain.reset();
    std::mt19937 rng(3);
    shadowt::damage_header(db_file("c", "p"), rng);
    log.clear();
    EXPECT_FALSE(shadow_app()->need_recover_after_db_operation(21, "c", "p"));
    EXPECT_TRUE(log.contains(log_level::error, 21, "need_recover_after_db_operation: no app db shadow for c p"));
    EXPECT_FALSE(shadow_app()->need_recover_after_db_operation(11, "c", "p"));
    EXPECT_FALSE(shadow_app()->need_recover_after_db_operation(0, "c", "p"));
    EXPECT_FALSE(shadow_app()->need_recover_after_db_operation(4, "c", "p"));
    EXPECT_TRUE(shadow_app()->need_recover_after_db_operation(67, "c", "p"));
}

TEST_F(ShadowRecover, OneOperationNeverRecoversTwice) {
    fill(3);
    restart_app();
    shadowt::delete_database(db_file("c", "p"));
    // The delete of del_catalog recovers the missing database; its second
    // try then fails to write the database as if it were corrupt. That second
    // failure is reported, not recovered.
    shadow_vfs::armed().write_rc = SQLITE_CORRUPT;
    shadow_vfs::armed().writes = 1000;
    log.clear();
    kt::TraceSwitch trace(true);
    const cr_status_t status = app->del_catalog("admin", 1, "name|c,p,f1");
    shadow_vfs::reset();
    EXPECT_EQ(67u, status) << log.dump();
    EXPECT_GT(log.count_containing("Recover database"), 0u);
    EXPECT_EQ(1u, recoveries()) << log.dump();
    EXPECT_TRUE(log.contains(log_level::error, 21, recover_line("del_catalog")));
    EXPECT_TRUE(log.contains(log_level::error, 67, "del_catalog: failed to del app catalog f1 after shadow recovery"));

    // The next operation may recover again; the row was not deleted.
    restart_app();
    EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "c", "p"))) << log.dump();
}

}  // namespace

namespace {

// The same pool with "CatalogAutoRecovery = false".
class ShadowNoAutoRecovery : public shadowt::shadow_fixture {
protected:
    void SetUp() override {
        pool.prepare("CatalogAutoRecovery = false\n");
        ctx = pool.context();
        ASSERT_TRUE(ctx->enabled.load()) << log.dump();
        ASSERT_FALSE(ctx->auto_recovery.load());
        app = make_shadow_app(pool, ctx.get());
        ASSERT_NE(nullptr, app);
        log.clear();
    }
};

TEST_F(ShadowNoAutoRecovery, ADamagedDatabaseKeepsItsStatusUntilRecoveredExplicitly) {
    for (int i = 0; i < 3; ++i) insert(make_item("c", "p", "f" + std::to_string(i), "c_1", 100 + i));
    restart_app();
    catt::spoil_row_crc(db_file("c", "p"), "f1");
    log.clear();

    std::vector<app_catalog_item> found;
    EXPECT_EQ(67u, app->find_catalog("admin", 1, appdb::to_query_by_backup_id("c", "p", "c_*"), found));
    EXPECT_EQ(0u, log.count_containing("corrupt, to do recover from shadow")) << log.dump();
    EXPECT_EQ(1u, log.count(log_level::warning, 67,
                            "may_recover: catalog auto recovery is disabled, app db c c p p is not recovered"))
        << log.dump();
    // An insert is refused the same way and the database is left as it was.
    EXPECT_EQ(0u, log.count_containing("Recover database"));

    // The explicit call still recovers.
    restart_app();
    ASSERT_EQ(0u, ctx->recover(db_dir("c", "p"), PODBShadow::_appdb_type_, 0)) << log.dump();
    restart_app();
    ASSERT_EQ(0u, app->find_catalog("admin", 1, appdb::to_query_by_backup_id("c", "p", "c_*"), found));
    EXPECT_EQ(3u, found.size());
}

TEST_F(ShadowNoAutoRecovery, AMissingDatabaseIsNotRecreatedNorRecovered) {
    insert(make_item("c", "p", "f0", "c_1", 100));
    restart_app();
    shadowt::delete_database(db_file("c", "p"));
    log.clear();
    EXPECT_EQ(21u, app->update_catalog("admin", 1, make_item("c", "p", "f1", "c_1").to_string()));
    EXPECT_EQ(0u, log.count_containing("corrupt, to do recover from shadow")) << log.dump();
    EXPECT_FALSE(kt::file_exists(db_file("c", "p")));
}

}  // namespace
