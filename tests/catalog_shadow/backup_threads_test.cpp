// Backups, journal lines and recoveries from several threads at once, each
// thread on its own directory (one directory's changes and backups are kept
// apart by its directory lock), while another thread walks the shadow tree.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "backup_fixtures.h"

namespace {

TEST(BackupThreadsTest, DirectoriesBackedUpJournalledAndRecoveredInParallel) {
    shadow_test::PoolLayout layout;
    std::unique_ptr<CatalogShadowContext> ctx = layout.context();
    kt::LogCapture log;
    const int threads = 4;
    const int rounds = 4;
    std::vector<std::string> dirs;
    for (int t = 0; t < threads; ++t) {
        dirs.push_back(layout.app_dir(std::to_string(t + 1) + "/c/p"));
        backup_test::make_app_db(dirs.back() + "/app.db", 3);
    }

    std::atomic<bool> done{false};
    std::atomic<int> failures{0};
    std::thread walker([&] {
        while (!done.load()) {
            if (ctx->recover_all_missing(true) != CR_STATUS_OK) ++failures;
            ctx->has_shadow_copy(dirs[0], "appdb");
        }
    });
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            const std::string& dir = dirs[t];
            for (int r = 0; r < rounds; ++r) {
                if (ctx->backup(dir, "appdb") != CR_STATUS_OK) ++failures;
                for (int i = 0; i < 2; ++i) {
                    const std::string statement = backup_test::insert_row(100 + r * 10 + i);
                    backup_test::sql_exec(dir + "/app.db", statement);
                    if (ctx->write_journal(dir, "appdb", statement) != CR_STATUS_OK) ++failures;
                }
            }
            // Lose the database and get it back while the others go on.
            const std::vector<std::string> expected = backup_test::catalog_rows(dir + "/app.db");
            if (unlink((dir + "/app.db").c_str()) != 0) ++failures;
            if (ctx->recover(dir, "appdb", 0) != CR_STATUS_OK) ++failures;
            if (backup_test::catalog_rows(dir + "/app.db") != expected) ++failures;
        });
    }
    for (std::thread& w : workers) w.join();
    done = true;
    walker.join();
    EXPECT_EQ(0, failures.load()) << log.dump();
    for (const std::string& dir : dirs) {
        EXPECT_EQ(3u + 2u * rounds, backup_test::catalog_rows(dir + "/app.db").size()) << dir;
        EXPECT_EQ(static_cast<uint32_t>(rounds), ctx->pool->get(dir)->get_version_count("appdb")) << dir;
    }
}

}  // namespace
