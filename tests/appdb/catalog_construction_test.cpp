// Catalog application construction, the factory, the status table and the
// process-wide access rule.
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/catalog_application_impl.h"
#include "catalog_test_helpers.h"
#include "common/test_util.h"

namespace {

using appdb::catalog_application;
using appdb::catalog_application_base;
using appdb::catalog_application_factory;
using appdb::catalog_application_impl;
using dct::log_level;

TEST(CatalogFactory, PlainTypeBuildsImplWithItsOwnLockAndCache) {
    kt::LogCapture log;
    std::unique_ptr<catalog_application> app(catalog_application_factory::create_catalog(
        7, "/st/databases", appdb::APP_D_CATALOG, nullptr, 5));
    ASSERT_NE(nullptr, app);
    auto* impl = dynamic_cast<catalog_application_impl*>(app.get());
    ASSERT_NE(nullptr, impl);
    EXPECT_NE(nullptr, impl->dir_lock.get());
    ASSERT_NE(nullptr, impl->cache.get());
    EXPECT_EQ(5u, impl->cache->capacity());
    EXPECT_EQ(7u, impl->dsid);
    EXPECT_EQ("/st/databases/application/7", impl->app_root);
    EXPECT_EQ("app.db", impl->db_name);
    EXPECT_EQ("appdb", impl->db_type);
    EXPECT_EQ("/st/databases", impl->database_root);
    EXPECT_EQ(1u, log.count(log_level::info, 0, "appdb_cache: app db use cache size 5"));
}

TEST(CatalogFactory, ShadowContextIsIgnoredByThePlainType) {
    kt::LogCapture log;
    std::unique_ptr<catalog_application> app(catalog_application_factory::create_catalog(
        1, "/r", appdb::APP_D_CATALOG, reinterpret_cast<CatalogShadowContext*>(0x1), 2));
    ASSERT_NE(nullptr, dynamic_cast<catalog_application_impl*>(app.get()));
}

TEST(CatalogFactory, UnsupportedTypesReturnNullAndSayWhich) {
    for (int type : {0, 3}) {
        kt::LogCapture log;
        catalog_application* app = catalog_application_factory::create_catalog(
            1, "/r", static_cast<appdb::application_d_t>(type), nullptr, 5);
        EXPECT_EQ(nullptr, app);
        EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE,
                                "create_catalog: unsupported application type " +
                                    std::to_string(type)))
            << log.dump();
        // Nothing else was built: no cache announced itself.
        EXPECT_EQ(0u, log.count_containing("app db use cache size"));
    }
}

TEST(CatalogFactory, TypeValuesAreFixed) {
    EXPECT_EQ(1, static_cast<int>(appdb::APP_D_CATALOG));
    EXPECT_EQ(2, static_cast<int>(appdb::APP_D_CATALOG_SHADOW));
}

TEST(CatalogConstruction, CacheSizeBelowTwoBecomesTwo) {
    for (unsigned int size : {0u, 1u}) {
        kt::LogCapture log;
        catalog_application_impl app(2, "/r", size);
        ASSERT_NE(nullptr, app.cache.get());
        EXPECT_EQ(2u, app.cache->capacity());
        // Announced once, with the raised size.
        EXPECT_EQ(1u, log.count(log_level::info, 0, "appdb_cache: app db use cache size 2"))
            << log.dump();
        EXPECT_EQ(1u, log.count_containing("app db use cache size"));
    }
}

TEST(CatalogConstruction, AppRootIsRootApplicationAndDecimalDsid) {
    kt::LogCapture log;
    EXPECT_EQ("/st/databases/application/2", catalog_application_impl(2, "/st/databases", 5).app_root);
    catalog_application_impl zero(0, "/st/databases", 5);
    EXPECT_EQ("/st/databases/application/0", zero.app_root);
    EXPECT_EQ("/r/application/4294967295", catalog_application_impl(4294967295u, "/r", 5).app_root);
    EXPECT_EQ("/r/application/10", catalog_application_impl(10, "/r", 5).app_root);
    EXPECT_EQ("application", catalog_application::catalog_root_name_);
    EXPECT_STREQ("app.db", appdb::app_db_filename);
}

TEST(CatalogConstruction, DirectlyBuiltImplHasNoLockUntilGivenOne) {
    kt::LogCapture log;
    catalog_application_impl app(1, "/r", 5);
    EXPECT_EQ(nullptr, app.dir_lock.get());
}

TEST(CatalogConstruction, PlainImplHasNoShadowCopies) {
    kt::LogCapture log;
    kt::TempDir tmp;
    catalog_application_impl app(1, tmp.path(), 5);
    EXPECT_FALSE(app.shadow_copy_exist("c", "p"));
    EXPECT_FALSE(app.shadow_copy_exist("", ""));
    // Also not for a database that exists.
    ASSERT_EQ(0u, app.create_db("c", "p"));
    EXPECT_FALSE(app.shadow_copy_exist("c", "p"));
}

TEST(CatalogConstruction, DestructionClosesCachedConnections) {
    kt::LogCapture log;
    kt::TempDir tmp;
    const std::string file = tmp.path() + "/application/3/c/p/app.db";
    {
        std::unique_ptr<catalog_application> app(catalog_application_factory::create_catalog(
            3, tmp.path(), appdb::APP_D_CATALOG, nullptr, 5));
        ASSERT_NE(nullptr, app);
        ASSERT_EQ(0u, app->update_catalog("u", 1, catt::make_item("c", "p", "f", "b").to_string()));
        EXPECT_EQ(1, catt::open_fds_on(file));
    }
    EXPECT_EQ(0, catt::open_fds_on(file));
}

TEST(CatalogStatus, CantOpenIsAnIoErrorAtTheCatalogLayer) {
    EXPECT_EQ(21u, catalog_application_base::dberr_to_crstatus(14));
    EXPECT_EQ(21u, catalog_application_base::dberr_to_crstatus(SQLITE_CANTOPEN_ISDIR));
    EXPECT_EQ(0u, catalog_application_base::dberr_to_crstatus(0));
    EXPECT_EQ(0u, catalog_application_base::dberr_to_crstatus(100));
    EXPECT_EQ(0u, catalog_application_base::dberr_to_crstatus(101));
    EXPECT_EQ(11u, catalog_application_base::dberr_to_crstatus(5));
    EXPECT_EQ(11u, catalog_application_base::dberr_to_crstatus(261));
    EXPECT_EQ(21u, catalog_application_base::dberr_to_crstatus(10));
    EXPECT_EQ(21u, catalog_application_base::dberr_to_crstatus(SQLITE_IOERR_READ));
    EXPECT_EQ(67u, catalog_application_base::dberr_to_crstatus(11));
    EXPECT_EQ(67u, catalog_application_base::dberr_to_crstatus(26));
    EXPECT_EQ(67u, catalog_application_base::dberr_to_crstatus(1032));
    EXPECT_EQ(4u, catalog_application_base::dberr_to_crstatus(8));
    EXPECT_EQ(4u, catalog_application_base::dberr_to_crstatus(1));
    EXPECT_EQ(4u, catalog_application_base::dberr_to_crstatus(1555));
    EXPECT_EQ(4u, catalog_application_base::dberr_to_crstatus(19));
}

TEST(CatalogBusyTimeout, DefaultIsTenSecondsAndSettable) {
    EXPECT_EQ(10000, catalog_application_base::busy_timeout_ms());
    {
        catt::busy_timeout_scope scope(3);
        EXPECT_EQ(3, catalog_application_base::busy_timeout_ms());
    }
    EXPECT_EQ(10000, catalog_application_base::busy_timeout_ms());
}

TEST(AuthFactory, GetInstanceReturnsOneObject) {
    appdb::authentication_application& a = appdb::auth_app_factory::get_instance();
    appdb::authentication_application& b = appdb::auth_app_factory::get_instance();
    EXPECT_EQ(&a, &b);
    EXPECT_NE(nullptr, dynamic_cast<appdb::authentication_application_keshdb_impl*>(&a));
}

TEST(AuthFactory, GetInstanceIsOneObjectAcrossThreads) {
    std::vector<appdb::authentication_application*> seen(8, nullptr);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&seen, i] { seen[i] = &appdb::auth_app_factory::get_instance(); });
    }
    for (auto& t : threads) t.join();
    std::set<appdb::authentication_application*> distinct(seen.begin(), seen.end());
    EXPECT_EQ(1u, distinct.size());
}

TEST(AuthEscape, EscapesForDisplayAndCutsAt1023Characters) {
    appdb::authentication_application_keshdb_impl rule;
    std::string out = "old";
    rule.escape("a\"b\\c\nd", out);
    EXPECT_EQ("a\\\"b\\\\c\\nd", out);
    rule.escape("", out);
    EXPECT_EQ("", out);
    rule.escape(std::string(2000, 'x'), out);
    EXPECT_EQ(std::string(1023, 'x'), out);
}

}  // namespace
