// Forming a group of changes on purpose: the callers get in line for one
// database while another thread holds its directory, and the directory is
// let go once all of them wait, so that the first in line commits them all
// as one group.
#ifndef KAVREL_TESTS_APPDB_CATALOG_GROUP_HELPERS_H_
#define KAVREL_TESTS_APPDB_CATALOG_GROUP_HELPERS_H_

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/catalog_application_base.h"
#include "catalog_shadow/shadow_test_helpers.h"

namespace groupt {

// Runs each of `calls` (changes to the database in directory `dir` through
// `app`) on a thread of its own, in one group; returns their statuses.
inline std::vector<cr_status_t> one_group(appdb::catalog_application_base& app, const std::string& dir,
                                          const std::vector<std::function<cr_status_t()>>& calls) {
    std::vector<cr_status_t> statuses(calls.size(), CR_STATUS_NONE);
    shadow_test::held_directory holder(dir);
    EXPECT_TRUE(holder.held());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < calls.size(); ++i) {
        threads.emplace_back([&statuses, &calls, i] { statuses[i] = calls[i](); });
    }
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(4);
    while (app.waiting_changes(dir) < calls.size() && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(calls.size(), app.waiting_changes(dir)) << "not all in line";
    holder.release();
    for (std::thread& t : threads) t.join();
    return statuses;
}

}  // namespace groupt

#endif  // KAVREL_TESTS_APPDB_CATALOG_GROUP_HELPERS_H_
