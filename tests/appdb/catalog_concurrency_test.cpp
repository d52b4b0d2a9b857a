// Several threads sharing one catalog application. On separate clients and
// policies every operation succeeds and no row is lost or doubled; on the
// same client and policy at once, an operation either succeeds or is refused
// by the cache (status 4) because the connection is already lent out, and
// rows are never doubled. Meant to run clean under ThreadSanitizer too.
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/catalog_application_base.h"
#include "catalog_test_helpers.h"
#include "common/test_util.h"

namespace {

using appdb::app_catalog_item;
using appdb::catalog_application;
using catt::make_item;

class CatalogConcurrency : public ::testing::Test {
protected:
    void SetUp() override {
        db_root = tmp.path() + "/databases";
        // A cache smaller than the number of threads: connections are
        // evicted and reopened while others are in use.
        app.reset(appdb::catalog_application_factory::create_catalog(1, db_root, appdb::APP_D_CATALOG,
                                                                     nullptr, 2));
        ASSERT_NE(nullptr, app);
    }
    std::string file(const std::string& client, const std::string& policy) const {
        return db_root + "/application/1/" + client + "/" + policy + "/app.db";
    }

    kt::TempDir tmp;
    kt::LogCapture log;
    kt::SleepCounter sleeps;
    std::string db_root;
    std::unique_ptr<catalog_application> app;
};

TEST_F(CatalogConcurrency, ThreadsOnTheirOwnDatabasesLoseAndDoubleNothing) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 60;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t, &failures] {
            const std::string client = "client" + std::to_string(t);
            const std::string policy = "policy" + std::to_string(t % 2);
            for (int i = 0; i < kPerThread; ++i) {
                const app_catalog_item item =
                    make_item(client, policy, "f" + std::to_string(i), "B" + std::to_string(i % 3), 100 + i);
                if (app->update_catalog("u", 4, item.to_string()) != 0) ++failures;
                if (i % 10 == 9) {
                    std::vector<app_catalog_item> got;
                    if (app->find_catalog("u", 1, appdb::to_query_by_backup_id(client, policy, "B*"), got) != 0 ||
                        got.size() != static_cast<size_t>(i + 1)) {
                        ++failures;
                    }
                }
            }
            // Remove one backup and one more record.
            if (app->expire_catalog("u", 1, client, policy, "B0_C1_HDR", true) != 0) ++failures;
            if (app->del_catalog("u", 1, appdb::to_query_by_file_name(client, policy, "f1")) != 0) ++failures;
            app_catalog_item rec;
            if (app->find_by_file_name(client, policy, "f2", rec, true) != 0 || rec.client != client) ++failures;
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(0, failures.load()) << log.dump();
    EXPECT_EQ(0, sleeps.calls());
    for (int t = 0; t < kThreads; ++t) {
        const std::string client = "client" + std::to_string(t);
        const std::string policy = "policy" + std::to_string(t % 2);
        const auto rows = catt::raw_rows(file(client, policy));
        std::set<std::string> names;
        for (const auto& r : rows) names.insert(r.name);
        EXPECT_EQ(rows.size(), names.size());  // nothing doubled
        std::set<std::string> want;
        for (int i = 0; i < kPerThread; ++i)
            if (i % 3 != 0 && i != 1) want.insert("f" + std::to_string(i));
        EXPECT_EQ(want, names) << client;
        for (const auto& r : rows) EXPECT_EQ(catt::independent_crc(r), static_cast<uint32_t>(r.crc));
    }
}

TEST_F(CatalogConcurrency, TwoThreadsOnOneDatabaseSucceedOrAreRefusedWithFour) {
    ASSERT_EQ(0u, app->update_catalog("u", 4, make_item("c", "p", "seed", "S").to_string()));
    constexpr int kPerThread = 150;
    std::mutex mutex;
    std::set<std::string> inserted = {"seed"};
    std::map<cr_status_t, int> statuses;
    std::atomic<bool> go{false};
    auto worker = [&](const std::string& prefix) {
        while (!go.load()) std::this_thread::yield();
        for (int i = 0; i < kPerThread; ++i) {
            const std::string name = prefix + std::to_string(i);
            const cr_status_t ins = app->update_catalog("u", 4, make_item("c", "p", name, "B").to_string());
            std::vector<app_catalog_item> got;
            const cr_status_t find = app->find_catalog("u", 1, "backup_id|c,p,B", got);
            std::string text;
            const cr_status_t find_text = app->find_catalog("u", 1, "name|c,p," + name, text);
            std::lock_guard<std::mutex> guard(mutex);
            ++statuses[ins];
            ++statuses[find];
            ++statuses[find_text];
            if (ins == 0) inserted.insert(name);
            if (find == 0) {
                std::set<std::string> seen;
                for (const auto& g : got) EXPECT_TRUE(seen.insert(g.file_name).second) << g.file_name;
            }
        }
    };
    std::thread a(worker, "a");
    std::thread b(worker, "b");
    go = true;
    a.join();
    b.join();
    for (const auto& kv : statuses) {
        EXPECT_TRUE(kv.first == 0 || kv.first == 4) << "status " << kv.first << " x" << kv.second;
    }
    EXPECT_GT(statuses[0], 0);
    // Exactly the successful inserts are in the table, each once.
    const auto rows = catt::raw_rows(file("c", "p"));
    std::set<std::string> names;
    for (const auto& r : rows) names.insert(r.name);
    EXPECT_EQ(rows.size(), names.size());
    EXPECT_EQ(inserted, names);
    // A refusal is the cache's: the connection was lent to the other thread.
    if (statuses[4] > 0) {
        EXPECT_GT(log.count_containing("open_db_with_cached: failed to create_db to cache for "), 0u);
    }
    EXPECT_EQ(0, sleeps.calls());
    // Afterwards the database is usable as ever.
    std::vector<app_catalog_item> all;
    ASSERT_EQ(0u, app->find_catalog("u", 1, "backup_id|c,p,*", all));
    EXPECT_EQ(rows.size(), all.size());
}

}  // namespace
