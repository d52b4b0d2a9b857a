// The shadow-protected catalog built without a shadow context: it works as
// the plain catalog, its backup and journal steps do nothing, it says on
// every look for a shadow that there is none, and a corrupt database still
// leads to one recovery attempt, which fails with 4.
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "catalog_shadow_fixture.h"

namespace {

using appdb::app_catalog_item;
using catt::make_item;
using dct::log_level;

class ShadowNoContext : public ::testing::Test {
protected:
    ShadowNoContext() : pool(tmp.path()) {}
    void SetUp() override {
        app.reset(shadowt::make_shadow_app(pool, nullptr).release());
        ASSERT_NE(nullptr, app);
        shadow = dynamic_cast<appdb::catalog_application_impl_shadow*>(app.get());
        ASSERT_NE(nullptr, shadow);
        log.clear();
    }

    void insert(const app_catalog_item& item) {
        ASSERT_EQ(0u, app->update_catalog("admin", 1, item.to_string())) << log.dump();
        model.insert(item);
    }
    std::string db_dir() const { return pool.db_dir(2, "c", "p"); }
    std::string db_file() const { return pool.db_file(2, "c", "p"); }

    kt::TempDir tmp;
    kt::LogCapture log;
    kt::SleepCounter sleeps;
    shadowt::pool_layout pool;
    std::unique_ptr<appdb::catalog_application> app;
    appdb::catalog_application_impl_shadow* shadow = nullptr;
    shadowt::row_model model;
};

TEST_F(ShadowNoContext, TheFactoryBuildsItWithANullContext) {
    EXPECT_EQ(nullptr, shadow->shadow_ctx);
    EXPECT_NE(nullptr, shadow->dir_lock);
}

TEST_F(ShadowNoContext, ShadowCopyExistSaysThereIsNoShadow) {
    EXPECT_FALSE(shadow->shadow_copy_exist("c", "p"));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_NONE, "shadow_copy_exist: app db shadow doesn't exsit"));
}

TEST_F(ShadowNoContext, BackupAndJournalAreNoOpSuccessesAndRecoveryFailsWithFour) {
    log.clear();
    EXPECT_EQ(0u, shadow->backup_shadow(db_dir()));
    EXPECT_EQ(0u, shadow->write_journal(db_dir(), "DELETE FROM catalog WHERE name = ('x')"));
    EXPECT_EQ(4u, shadow->recover_from_journal("c", "p"));
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(ShadowNoContext, OperationsWorkAsThePlainCatalogAndWriteNoShadow) {
    for (int i = 0; i < 5; ++i) insert(make_item("c", "p", "f" + std::to_string(i), "c_" + std::to_string(i % 2)));
    EXPECT_EQ(0u, log.count_containing("create shadow file"));
    EXPECT_GE(log.count(log_level::error, CR_STATUS_NONE, "shadow_copy_exist: app db shadow doesn't exsit"), 5u);
    ASSERT_EQ(0u, app->expire_catalog("admin", 1, "c", "p", "c_0_C1_HDR", true));
    ASSERT_EQ(0u, app->del_catalog("admin", 1, "name|c,p,f1"));
    model.erase("f0");
    model.erase("f2");
    model.erase("f4");
    model.erase("f1");
    EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "c", "p")));
    // Nothing of the shadow tree exists.
    EXPECT_FALSE(kt::file_exists(pool.storage));
}

TEST_F(ShadowNoContext, ACorruptDatabaseLeadsToOneRecoveryAttemptThatFailsWithFour) {
    insert(make_item("c", "p", "f", "c_1"));
    app->close_db(db_dir(), 0, true);
    std::mt19937 rng(1);
    shadowt::damage_header(db_file(), rng);
    log.clear();
    std::vector<app_catalog_item> items;
    EXPECT_EQ(4u, app->find_catalog("admin", 1, "backup_id|c,p,*", items));
    EXPECT_EQ(1u, log.count(log_level::error, 67, "find_catalog: db " + db_dir() + " corrupt, to do recover from shadow"))
        << log.dump();
    EXPECT_EQ(1u, log.count(log_level::error, 4, "find_catalog: fail to recover app db from c p"));
    EXPECT_EQ(1u, log.count_containing("corrupt, to do recover from shadow"));

    // The same through an insert and a delete.
    log.clear();
    EXPECT_EQ(4u, app->update_catalog("admin", 1, make_item("c", "p", "g", "c_1").to_string()));
    EXPECT_EQ(1u, log.count(log_level::error, 4, "update_catalog: fail to recover app db from c p")) << log.dump();
    log.clear();
    EXPECT_EQ(4u, shadow->shadow_protected_expire_catalog("c", "p", "c_1_C1_HDR"));
    EXPECT_EQ(1u, log.count(log_level::error, 4, "shadow_protected_expire_catalog: fail to recover app db from c p"))
        << log.dump();
}

TEST_F(ShadowNoContext, AnIoErrorWithoutShadowIsNotRecovered) {
    insert(make_item("c", "p", "f", "c_1"));
    log.clear();
    EXPECT_FALSE(shadow->need_recover_after_db_operation(21, "c", "p"));
    EXPECT_TRUE(log.contains(log_level::error, 21, "need_recover_after_db_operation: no app db shadow for c p"));
    EXPECT_TRUE(shadow->need_recover_after_db_operation(67, "c", "p"));
}

TEST_F(ShadowNoContext, ADeletedDatabaseIsCreatedAgainEmpty) {
    insert(make_item("c", "p", "f", "c_1"));
    app->close_db(db_dir(), 0, true);
    shadowt::delete_database(db_file());
    log.clear();
    // Without a shadow nothing can bring the rows back; the database starts
    // again, as in the plain catalog.
    insert(make_item("c", "p", "g", "c_1"));
    EXPECT_TRUE(log.contains(log_level::info, 0, "need_create_db: app db " + db_file() + " doesn't exist, going to create it"));
    EXPECT_EQ(1, catt::raw_count(db_file()));
    EXPECT_EQ(0u, log.count_containing("corrupt, to do recover"));
}

}  // namespace
