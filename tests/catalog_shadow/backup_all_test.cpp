// Backups of whole catalog trees and the data-store filter of the walks.
#include <gtest/gtest.h>

#include "backup_fixtures.h"
#include "catalog_shadow/CatalogShadowOps.h"

using dct::log_level;

namespace {

TEST(BackupAllTest, EveryApplicationDatabaseOfTheTreeGetsAVersion) {
    shadow_test::PoolLayout layout;
    std::unique_ptr<CatalogShadowContext> ctx = layout.context();
    const std::vector<std::string> dirs = backup_test::app_tree(layout, true);
    kt::LogCapture log;
    ASSERT_EQ(CR_STATUS_OK, ctx->backup_all(true)) << log.dump();
    EXPECT_TRUE(log.contains(log_level::info, 0, "backup_all: Start to backup all catalog APP databases..."));
    for (const std::string& dir : dirs) {
        ASSERT_TRUE(ctx->has_shadow_copy(dir, "appdb")) << dir;
        boost::shared_ptr<PODBShadow> shadow = ctx->pool->get(dir);
        EXPECT_EQ(backup_test::read_bytes(dir + "/app.db"),
                  backup_test::read_bytes(shadow->get_db_versions_("appdb")->front().db_path));
    }
    EXPECT_EQ(0u, log.count_containing("Attention")) << log.dump();
    // Nothing changed: a second walk adds nothing.
    log.clear();
    ASSERT_EQ(CR_STATUS_OK, ctx->backup_all(true));
    EXPECT_EQ(dirs.size(), log.count_containing("has no change since last backup, skip it."));
}

TEST(BackupAllTest, PoAndUlDatabasesOfThePoTree) {
    shadow_test::PoolLayout layout;
    std::unique_ptr<CatalogShadowContext> ctx = layout.context();
    backup_test::sql_exec(layout.po_dir("1") + "/po.db", "CREATE TABLE po (basename TEXT);");
    backup_test::sql_exec(layout.po_dir("1") + "/ul.db", "CREATE TABLE ul (x TEXT);");
    backup_test::sql_exec(layout.po_dir("2") + "/po.db", "CREATE TABLE po (basename TEXT);");
    // An application database in the PO tree is none of the walk's business.
    backup_test::make_app_db(layout.po_dir("2") + "/app.db", 1);
    kt::LogCapture log;
    ASSERT_EQ(CR_STATUS_OK, ctx->backup_all(false)) << log.dump();
    EXPECT_TRUE(log.contains(log_level::info, 0, "backup_all: Start to backup all catalog PO UL databases..."));
    EXPECT_TRUE(ctx->has_shadow_copy(layout.po_dir("1"), "podb"));
    EXPECT_TRUE(ctx->has_shadow_copy(layout.po_dir("1"), "uldb"));
    EXPECT_TRUE(ctx->has_shadow_copy(layout.po_dir("2"), "podb"));
    EXPECT_FALSE(ctx->has_shadow_copy(layout.po_dir("2"), "uldb"));
    EXPECT_FALSE(ctx->has_shadow_copy(layout.po_dir("2"), "appdb"));
    EXPECT_EQ(3u, log.count_containing("Add shadow version 1 for ")) << log.dump();
}

TEST(BackupAllTest, FilterSkipsWhatHoldsNoCatalog) {
    shadow_test::PoolLayout layout;
    std::unique_ptr<CatalogShadowContext> ctx = layout.context();
    const std::string good = layout.app_dir("5/c/p");
    backup_test::make_app_db(good + "/app.db", 2);
    const std::string not_dsid = layout.app_dir("archive/c/p");
    backup_test::make_app_db(not_dsid + "/app.db", 2);
    const std::string too_deep = layout.app_dir("5/c/p/deeper");
    backup_test::make_app_db(too_deep + "/app.db", 2);
    const std::string set_aside = layout.app_dir("5/c/#corrupt_appdb_1");
    backup_test::make_app_db(set_aside + "/app.db", 2);

    kt::TraceSwitch trace(true);
    kt::LogCapture log;
    ASSERT_EQ(CR_STATUS_OK, ctx->backup_all(true)) << log.dump();
    EXPECT_EQ(1u, log.count_containing("Add shadow version 1 for ")) << log.dump();
    EXPECT_TRUE(ctx->has_shadow_copy(good, "appdb"));
    for (const std::string& skipped : {layout.app_dir("archive"), too_deep, set_aside}) {
        EXPECT_EQ(1u, log.count_message("Skip directory " + skipped)) << skipped << "\n" << log.dump();
    }
    EXPECT_FALSE(kt::file_exists(layout.shadow + "/archive"));
    EXPECT_FALSE(kt::file_exists(layout.shadow + "/5/c/p/deeper"));
    EXPECT_FALSE(kt::file_exists(layout.shadow + "/5/c/#corrupt_appdb_1"));
}

TEST(BackupAllTest, FailedDatabaseIsReportedAndTheOthersAreBackedUp) {
    shadow_test::PoolLayout layout;
    std::unique_ptr<CatalogShadowContext> ctx = layout.context();
    const std::vector<std::string> dirs = backup_test::app_tree(layout, true);
    backup_test::damage_index(dirs[5] + "/app.db");

    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_FAILED, ctx->backup_all(true));
    EXPECT_TRUE(log.contains(log_level::warning, CR_STATUS_FAILED,
                             "Attention: not all of the APP databases have been successfully backed up!"))
        << log.dump();
    for (size_t i = 0; i < dirs.size(); ++i) EXPECT_EQ(i != 5, ctx->has_shadow_copy(dirs[i], "appdb")) << dirs[i];
}

TEST(BackupAllTest, MissingTreeHoldsNothingToBackUp) {
    shadow_test::PoolLayout layout;
    std::unique_ptr<CatalogShadowContext> ctx = layout.context();
    EXPECT_EQ(CR_STATUS_OK, ctx->backup_all(true));
    EXPECT_EQ(CR_STATUS_OK, ctx->backup_all(false));
}

TEST(BackupAllTest, LostIdentityStopsTheWalk) {
    shadow_test::PoolLayout layout;
    std::unique_ptr<CatalogShadowContext> ctx = layout.context();
    const std::vector<std::string> dirs = backup_test::app_tree(layout, true);
    ASSERT_EQ(0, unlink((layout.shadow + "/.catalog_shadow_identity").c_str()));
    EXPECT_EQ(CR_STATUS_FAILED, ctx->backup_all(true));
    EXPECT_FALSE(kt::file_exists(layout.shadow + "/1"));
}

TEST(OpCatalogBaseTest, FileNamesCompareWithoutLetterCase) {
    EXPECT_TRUE(OpCatalogBase::is_same_file("app.db", "app.db"));
    EXPECT_TRUE(OpCatalogBase::is_same_file("APP.DB", "app.db"));
    EXPECT_TRUE(OpCatalogBase::is_same_file(".Chksum.AppDB", ".chksum.appdb"));
    EXPECT_FALSE(OpCatalogBase::is_same_file("app.db2", "app.db"));
    EXPECT_FALSE(OpCatalogBase::is_same_file("app.d", "app.db"));
    EXPECT_FALSE(OpCatalogBase::is_same_file("", "app.db"));
}

TEST(OpFilterDSIDTest, DirectoriesEntered) {
    struct NoOp {
        int operator()(const DirItem&) { return 0; }
    } op;
    OpFilterDSID<NoOp> app(true, op);
    OpFilterDSID<NoOp> po(false, op);
    auto dir = [](const std::string& name, int depth) {
        DirItem item;
        item.name = name;
        item.depth = depth;
        item.is_dir = true;
        return item;
    };
    EXPECT_TRUE(app.enter(dir("12", 1)));
    EXPECT_FALSE(app.enter(dir("12a", 1)));
    EXPECT_FALSE(app.enter(dir("", 1)));
    EXPECT_TRUE(app.enter(dir("client", 2)));
    EXPECT_TRUE(app.enter(dir("policy", 3)));
    EXPECT_FALSE(app.enter(dir("deeper", 4)));
    EXPECT_FALSE(app.enter(dir("#corrupt_appdb_17", 3)));
    EXPECT_TRUE(po.enter(dir("12", 1)));
    EXPECT_TRUE(po.enter(dir("pool", 1)));
    EXPECT_FALSE(po.enter(dir("#corrupt_podb_17", 1)));
    EXPECT_FALSE(po.enter(dir("client", 2)));
    // Files of the walk's own levels are handed on, directories never.
    int seen = 0;
    auto counting = [&seen](const DirItem&) { return ++seen, 0; };
    OpFilterDSID<decltype(counting)> filter(true, counting);
    OpFilterDSID<decltype(counting)> po_filter(false, counting);
    DirItem file;
    file.name = ".chksum.appdb";
    for (int depth = 1; depth <= 5; ++depth) {
        file.depth = depth;
        EXPECT_EQ(depth == 4, filter.offer(file)) << depth;
        EXPECT_EQ(depth <= 2, po_filter.offer(file)) << depth;
    }
    file.depth = 4;
    EXPECT_EQ(0, filter(file));
    file.depth = 2;
    EXPECT_EQ(1, filter(file));
    EXPECT_EQ(1, filter(dir("deeper", 4)));
    EXPECT_EQ(0, filter(dir("3", 1)));
    EXPECT_EQ(1, seen);
}

}  // namespace
