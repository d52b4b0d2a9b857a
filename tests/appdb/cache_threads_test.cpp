// Many threads borrowing and returning connections of a small cache at once.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "appdb/appdb_cache.h"
#include "cache_fixtures.h"
#include "common/test_util.h"

using appdb::appdb_cache;
using appdb::appdb_value;

namespace {

const int kThreads = 8;
const int kPaths = 20;
const int kIterations = 250;
const unsigned kCapacity = 5;

TEST(CacheThreads, HammeringKeepsTheInvariantAndLeaksNothing) {
    kt::TempDir dir;
    kt::LogCapture log;
    cachet::connection_counter conns;
    std::vector<std::string> paths;
    for (int i = 0; i < kPaths; ++i) paths.push_back(dir.file("db" + std::to_string(i) + ".db"));

    std::atomic<int> invariant_failures{0};
    std::atomic<int> refused_returns{0};
    std::atomic<int> hits{0};
    std::atomic<int> registrations{0};
    std::atomic<int> query_failures{0};
    // Two borrowers holding the same path at once would break the cache's promise.
    std::vector<std::atomic<int>> holders(kPaths);
    std::atomic<int> double_holds{0};
    {
        appdb_cache cache(kCapacity);
        auto check = [&] {
            if (!cache.check_invariant()) ++invariant_failures;
        };
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                std::mt19937 rng(1234 + t);
                std::uniform_int_distribution<int> pick(0, kPaths - 1);
                for (int i = 0; i < kIterations; ++i) {
                    const int n = pick(rng);
                    const std::string& path = paths[n];
                    appdb_value* v = cache.get_db(path);
                    check();
                    if (v != nullptr) {
                        ++hits;
                    } else {
                        sqlite3* conn = conns.open(path);
                        if (conn == nullptr) continue;
                        v = cache.create_db(path, appdb::catalog_store::adopt(conn, path));
                        check();
                        if (v == nullptr) continue;  // someone else holds it; the cache closed ours
                        ++registrations;
                    }
                    if (++holders[n] != 1) ++double_holds;
                    if (sqlite3_exec(v->store->connection(), "SELECT 1;", nullptr, nullptr, nullptr) != SQLITE_OK)
                        ++query_failures;
                    --holders[n];
                    if (!cache.return_db(path, v)) {
                        ++refused_returns;
                        delete v;
                    }
                    check();
                }
            });
        }
        for (auto& th : threads) th.join();

        EXPECT_EQ(0, invariant_failures.load());
        EXPECT_EQ(0, refused_returns.load());
        EXPECT_EQ(0, double_holds.load());
        EXPECT_EQ(0, query_failures.load());
        EXPECT_GT(hits.load(), 0);
        EXPECT_GT(registrations.load(), 0);
        EXPECT_EQ(0u, cache.handed_out_count());
        EXPECT_LE(cache.idle_count(), kCapacity);
        // Every connection still open is an idle one in the cache.
        EXPECT_EQ(static_cast<int>(cache.idle_count()), conns.live());
    }
    EXPECT_EQ(conns.opened(), conns.closed());
    EXPECT_EQ(0u, log.count_containing("fatal"));
    EXPECT_EQ(0u, log.count_containing("don't find"));
    EXPECT_EQ(0u, log.count_containing("failed to close"));
    EXPECT_EQ(0u, log.count_containing("busy when close"));
}

}  // namespace
