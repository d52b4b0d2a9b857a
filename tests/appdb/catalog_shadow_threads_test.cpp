// Four threads share one shadow-protected catalog, each on its own database:
// they insert, query and expire at the same time, through one shadow context.
// Then every database is deleted and recovered: no row is lost and no
// recovery fails.
#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "catalog_shadow_fixture.h"

namespace {

using appdb::app_catalog_item;

constexpr int kThreads = 4;
constexpr int kItemsPerThread = 150;

class ShadowThreads : public shadowt::shadow_fixture {};

TEST_F(ShadowThreads, FourThreadsOnTheirOwnDatabasesLoseNothingThroughRecovery) {
    std::vector<shadowt::row_model> models(kThreads);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t, &models, &failures] {
            const std::string client = "client" + std::to_string(t);
            const std::string policy = "policy" + std::to_string(t % 2);
            std::map<std::string, std::string> backup_of;
            for (int i = 0; i < kItemsPerThread; ++i) {
                const std::string bid = client + "_" + std::to_string(1700000000 + i / 10);
                const app_catalog_item item =
                    catt::make_item(client, policy, "f" + std::to_string(i), bid, 1700000000 + i);
                if (app->update_catalog("admin", 1, item.to_string()) != 0) {
                    ++failures;
                    continue;
                }
                models[t].insert(item);
                backup_of[item.file_name] = bid;
                if (i % 10 == 9) {
                    std::vector<app_catalog_item> found;
                    if (app->find_catalog("admin", 1, "backup_id|" + client + "," + policy + "," + bid, found) != 0 ||
                        found.size() != 10) {
                        ++failures;
                    }
                }
                if (i % 30 == 29) {
                    // Expire the backup before the one just completed.
                    const std::string old = client + "_" + std::to_string(1700000000 + i / 10 - 1);
                    if (app->expire_catalog("admin", 1, client, policy, old + "_C1_HDR", true) != 0) ++failures;
                    models[t].erase_backup(backup_of, old);
                }
            }
        });
    }
    for (std::thread& th : threads) th.join();
    ASSERT_EQ(0, failures.load()) << log.dump();

    restart_app();
    for (int t = 0; t < kThreads; ++t) {
        shadowt::delete_database(db_file("client" + std::to_string(t), "policy" + std::to_string(t % 2)));
    }
    log.clear();

    // The recoveries run on the four threads at once as well.
    threads.clear();
    std::vector<std::map<std::string, std::string>> recovered(kThreads);
    std::vector<cr_status_t> statuses(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t, &recovered, &statuses] {
            recovered[t] = shadowt::read_back(*app, "client" + std::to_string(t), "policy" + std::to_string(t % 2),
                                              &statuses[t]);
        });
    }
    for (std::thread& th : threads) th.join();
    for (int t = 0; t < kThreads; ++t) {
        ASSERT_EQ(0u, statuses[t]) << log.dump();
        EXPECT_TRUE(shadowt::same_rows(models[t].rows(), recovered[t])) << "thread " << t;
    }
    EXPECT_EQ(static_cast<size_t>(kThreads), log.count_containing("corrupt, to do recover from shadow"));
    EXPECT_EQ(0u, log.count_containing("fail to recover"));
}

}  // namespace
