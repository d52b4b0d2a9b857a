// Mapping between real catalog directories and shadow directories.
#include <gtest/gtest.h>

#include "common/test_util.h"
#include "shadow_test_helpers.h"

using dct::log_level;
using shadow_test::PoolLayout;

TEST(ShadowPath, PoDirectoryMapsBelowTheShadowRoot) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    kt::TraceSwitch trace(true);
    kt::LogCapture log;
    EXPECT_EQ(l.shadow + "/7", ctx->real_to_shadow_path(l.po_dir("7")));
    EXPECT_TRUE(log.contains(log_level::trace, CR_STATUS_NONE,
                             "Real2Shadow: " + l.po_dir("7") + "  ==>  " + l.shadow + "/7") ||
                log.count_message("Real2Shadow: " + l.po_dir("7") + "  ==>  " + l.shadow + "/7") == 1)
        << log.dump();
}

TEST(ShadowPath, ApplicationDirectoryMapsBelowTheShadowRoot) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    EXPECT_EQ(l.shadow + "/3/client/policy", ctx->real_to_shadow_path(l.app_dir("3/client/policy")));
    // The root itself maps to the shadow root.
    EXPECT_EQ(l.shadow, ctx->real_to_shadow_path(l.dbroot + "/databases/application"));
}

TEST(ShadowPath, PathOutsideBothRootsGivesEmptyAndOneRecord) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    kt::LogCapture log;
    const std::string outside = l.tmp.file("elsewhere/1");
    std::string mapped = "unset";
    EXPECT_NO_THROW(mapped = ctx->real_to_shadow_path(outside));
    EXPECT_EQ("", mapped);
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE,
                            "real_to_shadow_path: " + outside + " is an invalid podb directory path."))
        << log.dump();
    EXPECT_EQ(1u, log.records().size()) << log.dump();
    // Nor for paths that are no directory at all.
    EXPECT_NO_THROW(mapped = ctx->real_to_shadow_path(""));
    EXPECT_EQ("", mapped);
    EXPECT_NO_THROW(mapped = ctx->real_to_shadow_path("relative/1"));
    EXPECT_EQ("", mapped);
}

TEST(ShadowPath, PrefixTestIsCaseSensitiveBytes) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    std::string upper = l.dbroot + "/DATABASES/po/1";
    EXPECT_EQ("", ctx->real_to_shadow_path(upper));
}

TEST(ShadowPath, ShadowToRealByType) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    kt::TraceSwitch trace(true);
    kt::LogCapture log;
    EXPECT_EQ(l.app_dir("3/c/p"), ctx->shadow_to_real_path(l.shadow + "/3/c/p", "appdb"));
    EXPECT_EQ(l.po_dir("3"), ctx->shadow_to_real_path(l.shadow + "/3", "podb"));
    EXPECT_EQ(l.po_dir("3"), ctx->shadow_to_real_path(l.shadow + "/3", "uldb"));
    EXPECT_EQ(1u, log.count_message("Shadow2Real: " + l.shadow + "/3/c/p  ==>  " + l.app_dir("3/c/p"))) << log.dump();
}

TEST(ShadowPath, ShadowPathOutsideTheShadowRootGivesEmptyAndOneRecord) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    kt::LogCapture log;
    const std::string outside = l.tmp.file("other/3");
    std::string mapped = "unset";
    EXPECT_NO_THROW(mapped = ctx->shadow_to_real_path(outside, "appdb"));
    EXPECT_EQ("", mapped);
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE,
                            "shadow_to_real_path: " + outside + " is an invalid shadow directory path."))
        << log.dump();
    EXPECT_EQ(1u, log.records().size()) << log.dump();
    EXPECT_NO_THROW(mapped = ctx->shadow_to_real_path("", "podb"));
    EXPECT_EQ("", mapped);
}

TEST(ShadowPath, RoundTrip) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    const std::string app = l.app_dir("9/host/daily");
    EXPECT_EQ(app, ctx->shadow_to_real_path(ctx->real_to_shadow_path(app), "appdb"));
    const std::string po = l.po_dir("9");
    EXPECT_EQ(po, ctx->shadow_to_real_path(ctx->real_to_shadow_path(po), "podb"));
}

TEST(ShadowPath, InvalidPathIsCaughtByPublicOperations) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    kt::LogCapture log;
    const std::string outside = l.tmp.file("elsewhere");
    EXPECT_FALSE(ctx->has_shadow_copy(outside, "appdb"));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_FAILED, "has_shadow_copy: Got exception: [invalid PODB path]"))
        << log.dump();
    EXPECT_EQ(CR_STATUS_FAILED, ctx->write_journal(outside, "appdb", "DELETE FROM catalog"));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_FAILED, "write_journal: Got exception: [invalid PODB path]"));
    EXPECT_EQ(CR_STATUS_FAILED, ctx->reload_podb(outside));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_FAILED, "reload_podb: Got exception: [invalid PODB path]"));
}
