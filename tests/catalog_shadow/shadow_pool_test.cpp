// The pool of per-directory shadows: creation, loading, eviction, case folding
// and use from many threads.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "common/test_util.h"
#include "dct/fs.h"
#include "shadow_test_helpers.h"

using dct::log_level;
using shadow_test::PoolLayout;

namespace {

std::string pool_size_config(int size) { return "CatalogShadowPoolSize = " + std::to_string(size) + "\n"; }

}  // namespace

TEST(ShadowPool, NewShadowStartsEmptyHistoriesAndWritesNothing) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    kt::TraceSwitch trace(true);
    kt::LogCapture log;
    const std::string dir = l.po_dir("1");
    boost::shared_ptr<PODBShadow> shadow = ctx->pool->get(dir);
    ASSERT_TRUE(shadow);
    EXPECT_EQ(dir, shadow->get_dir());
    EXPECT_EQ(l.shadow + "/1", shadow->get_shadow_dir());
    for (const char* type : {"podb", "uldb", "appdb"}) {
        EXPECT_FALSE(shadow->exist(type)) << type;
        EXPECT_EQ(0u, shadow->get_version_count(type));
        EXPECT_FALSE(ctx->has_shadow_copy(dir, type));
    }
    // A lookup is a read: the shadow directory is made by the first backup.
    EXPECT_FALSE(kt::file_exists(shadow->get_shadow_dir()));
    EXPECT_EQ(1u, log.count_message("New PODB shadow for " + dir)) << log.dump();
    EXPECT_EQ(0u, log.count_containing("Initliaze shadow for")) << log.dump();
    // The same directory gives the same shadow.
    EXPECT_EQ(shadow.get(), ctx->pool->get(dir).get());
    EXPECT_EQ(1u, ctx->pool->size());
}

TEST(ShadowPool, UlDirectoryIsTracedAsUl) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    const std::string dir = l.po_dir("2");
    ASSERT_EQ(0, wa_createtree(dir, 0755));
    kt::write_file(dir + "/ul.db", "");
    kt::TraceSwitch trace(true);
    kt::LogCapture log;
    ctx->pool->get(dir);
    EXPECT_EQ(1u, log.count_message("New ULDB shadow for " + dir)) << log.dump();
}

TEST(ShadowPool, ExistingHistoryIsLoaded) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    const std::string dir = l.app_dir("1/c/p");
    {
        boost::shared_ptr<PODBShadow> shadow = ctx->pool->get(dir);
        shadow_test::add_version(*shadow, "appdb", "database bytes");
        ASSERT_EQ(0u, shadow->persist_chksum("appdb"));
    }
    ctx->pool->erase(dir);
    EXPECT_EQ(0u, ctx->pool->size());
    kt::LogCapture log;
    boost::shared_ptr<PODBShadow> again = ctx->pool->get(dir);
    EXPECT_EQ(1u, again->get_version_count("appdb"));
    EXPECT_EQ(1u, again->get_db_current_ver_("appdb"));
    EXPECT_TRUE(ctx->has_shadow_copy(dir, "appdb"));
    EXPECT_FALSE(ctx->has_shadow_copy(dir, "podb"));
    EXPECT_FALSE(ctx->has_shadow_copy(dir));
    EXPECT_EQ(1u, log.count(log_level::info, 0, "Load chksum file " + l.shadow + "/1/c/p/.chksum.appdb")) << log.dump();
}

TEST(ShadowPool, HasShadowCopyWithoutTypeAsksForThePoDatabase) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    const std::string dir = l.po_dir("4");
    boost::shared_ptr<PODBShadow> shadow = ctx->pool->get(dir);
    EXPECT_FALSE(ctx->has_shadow_copy(dir));
    shadow_test::add_version(*shadow, "podb", "po");
    // has_shadow_copy answers from the disk, as another process would see it.
    ASSERT_EQ(0u, shadow->persist_chksum("podb"));
    EXPECT_TRUE(ctx->has_shadow_copy(dir));
    EXPECT_TRUE(ctx->has_shadow_copy(dir, "podb"));
    EXPECT_FALSE(ctx->has_shadow_copy(dir, "uldb"));
}

TEST(ShadowPool, UnknownTypeIsABadParameter) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    kt::LogCapture log;
    EXPECT_FALSE(ctx->has_shadow_copy(l.po_dir("1"), "xdb"));
    EXPECT_EQ(1u, log.count_message("has_shadow_copy: Got exception: [bad parameter]")) << log.dump();
}

TEST(ShadowPool, EvictsOnlyShadowsNobodyHolds) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context(true, pool_size_config(2));
    ASSERT_EQ(2, ctx->shadow_pool_size);
    boost::shared_ptr<PODBShadow> held = ctx->pool->get(l.po_dir("a"));
    ctx->pool->get(l.po_dir("b"));
    EXPECT_EQ(2u, ctx->pool->size());
    ctx->pool->get(l.po_dir("c"));  // at the limit: "b" goes, "a" is held
    EXPECT_EQ(2u, ctx->pool->size());
    EXPECT_EQ(held.get(), ctx->pool->get(l.po_dir("a")).get());
}

TEST(ShadowPool, PoolAtItsLimitWithEveryShadowInUseGrowsByOne) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context(true, pool_size_config(3));
    std::vector<boost::shared_ptr<PODBShadow>> held;
    for (const char* d : {"a", "b", "c"}) held.push_back(ctx->pool->get(l.po_dir(d)));
    EXPECT_EQ(3u, ctx->pool->size());
    boost::shared_ptr<PODBShadow> fourth = ctx->pool->get(l.po_dir("d"));
    EXPECT_EQ(4u, ctx->pool->size());
    for (size_t i = 0; i < held.size(); ++i) EXPECT_EQ(held[i].get(), ctx->pool->get(held[i]->get_dir()).get());
    // Let go of everything: the next new directory clears the unused ones.
    held.clear();
    fourth.reset();
    ctx->pool->get(l.po_dir("e"));
    EXPECT_EQ(1u, ctx->pool->size());
}

TEST(ShadowPool, CaseFoldingWhenTheFileSystemIgnoresCase) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    dct::set_case_sensitive_override(0);
    boost::shared_ptr<PODBShadow> lower = ctx->pool->get(l.po_dir("host"));
    boost::shared_ptr<PODBShadow> upper = ctx->pool->get(l.po_dir("HOST"));
    dct::set_case_sensitive_override(-1);
    EXPECT_EQ(lower.get(), upper.get());
    EXPECT_EQ(1u, ctx->pool->size());
}

TEST(ShadowPool, CaseMattersWhenTheFileSystemIsCaseSensitive) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    dct::set_case_sensitive_override(1);
    boost::shared_ptr<PODBShadow> lower = ctx->pool->get(l.po_dir("host"));
    boost::shared_ptr<PODBShadow> upper = ctx->pool->get(l.po_dir("HOST"));
    dct::set_case_sensitive_override(-1);
    EXPECT_NE(lower.get(), upper.get());
    EXPECT_EQ(2u, ctx->pool->size());
}

TEST(ShadowPool, ReloadRereadsTheChecksumFiles) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    const std::string dir = l.app_dir("1/c/p");
    boost::shared_ptr<PODBShadow> shadow = ctx->pool->get(dir);
    shadow_test::add_version(*shadow, "appdb", "x");  // in memory only
    EXPECT_EQ(1u, shadow->get_version_count("appdb"));
    kt::TraceSwitch trace(true);
    kt::LogCapture log;
    EXPECT_EQ(0u, ctx->reload_podb(dir));
    EXPECT_EQ(0u, shadow->get_version_count("appdb"));
    EXPECT_EQ(1u, log.count_message("reload_podb " + dir)) << log.dump();
}

// Eight threads take and drop shadows of 50 directories through a pool of 4.
// A shadow may leave the pool only when nobody holds it: two live shadows of
// one directory would mean two journal streams on one file.
TEST(ShadowPool, ManyThreadsNeverSeeTwoShadowsOfOneDirectory) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context(true, pool_size_config(4));
    std::vector<std::string> dirs;
    for (int i = 0; i < 50; ++i) dirs.push_back(l.app_dir("1/c/p" + std::to_string(i)));

    std::mutex mutex;
    std::map<std::string, std::pair<PODBShadow*, int>> holders;  // dir -> (shadow, holders)
    std::atomic<int> violations{0};
    std::atomic<int> wrong_dir{0};
    std::atomic<size_t> max_size{0};

    auto worker = [&](unsigned seed) {
        std::mt19937 rng(seed);
        for (int round = 0; round < 150; ++round) {
            const std::string& dir = dirs[rng() % dirs.size()];
            boost::shared_ptr<PODBShadow> shadow = ctx->pool->get(dir);
            if (shadow->get_dir() != dir) ++wrong_dir;
            size_t now = ctx->pool->size();
            size_t seen = max_size.load();
            while (now > seen && !max_size.compare_exchange_weak(seen, now)) {
            }
            {
                std::lock_guard<std::mutex> guard(mutex);
                auto& entry = holders[dir];
                if (entry.second > 0 && entry.first != shadow.get()) ++violations;
                entry.first = shadow.get();
                ++entry.second;
            }
            if (rng() % 4 == 0) std::this_thread::yield();
            (void)shadow->get_version_count("appdb");
            {
                std::lock_guard<std::mutex> guard(mutex);
                --holders[dir].second;
            }
            shadow.reset();
        }
    };
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 8; ++t) threads.emplace_back(worker, 1000 + t);
    for (std::thread& t : threads) t.join();

    EXPECT_EQ(0, violations.load());
    EXPECT_EQ(0, wrong_dir.load());
    // Past its size the pool only keeps shadows in use: each thread holds at
    // most one, plus the one being added.
    EXPECT_LE(max_size.load(), 9u);
    // Nobody holds anything now: once the pool reaches its size again, the next
    // new directory brings it back down to that one shadow.
    bool shrunk = false;
    for (int i = 0; i < 5 && !shrunk; ++i) {
        ctx->pool->get(l.app_dir("1/c/last" + std::to_string(i)));
        shrunk = ctx->pool->size() == 1;
    }
    EXPECT_TRUE(shrunk);
    EXPECT_LE(ctx->pool->size(), 4u);
}

TEST(ShadowPool, ShadowsTakeTheConfiguredVersionCount) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context(true, "CatalogBackupVersionCount = 3\n");
    EXPECT_EQ(3u, ctx->pool->get(l.po_dir("1"))->get_max_version_count());
}
