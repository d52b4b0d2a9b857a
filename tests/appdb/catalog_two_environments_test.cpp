// Two services in one process, each a shadow context and a shadow-protected
// catalog built on its own dct::environment, running at the same time on two
// threads: each one's clock times its cache, each one's sleep paces its busy
// retries, each one's fault seam decides its file calls, and each one's log
// sink receives its records. Nothing reaches the process-wide seams, and
// nothing of one service reaches the other's.
#include <errno.h>
#include <sqlite3.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/catalog_application_base.h"
#include "catalog_shadow_fixture.h"
#include "common/test_util.h"
#include "dct/environment.h"
#include "dct/fault.h"
#include "dct/log.h"

namespace {

using catt::make_item;

// What one service's environment saw. Its functions may run on any thread.
struct seen {
    std::mutex mutex;
    std::vector<std::string> records;      // "LEVEL [status] message"
    std::vector<std::string> fault_paths;  // every path its fault seam was asked about
    std::atomic<int> sleeps{0};

    void record(dct::log_level level, cr_status_t status, const std::string& message) {
        std::lock_guard<std::mutex> guard(mutex);
        records.push_back(std::string(dct::log_level_name(level)) + " [" + std::to_string(status) + "] " +
                          message);
    }
    size_t count_containing(const std::string& fragment) {
        std::lock_guard<std::mutex> guard(mutex);
        size_t n = 0;
        for (const std::string& r : records) n += r.find(fragment) != std::string::npos ? 1 : 0;
        return n;
    }
    std::string dump() {
        std::lock_guard<std::mutex> guard(mutex);
        std::string out;
        for (const std::string& r : records) out += r + "\n";
        return out;
    }
};

// One service: its pool, its environment, its context and its catalog.
struct service {
    explicit service(unsigned long clock_ms) : pool(dir.path()) {
        pool.prepare();
        env.clock = [clock_ms] { return clock_ms; };
        env.sleep = [this](unsigned) { ++what.sleeps; };
        env.log = [this](dct::log_level level, cr_status_t status, const std::string& message) {
            what.record(level, status, message);
        };
        // One millisecond per busy statement: the retries, not SQLite's
        // timeout, are what the test counts.
        env.busy_timeout_ms = 1;
        env.fault = [this](dct::fault_op op, const char* path) {
            std::lock_guard<std::mutex> guard(what.mutex);
            what.fault_paths.push_back(path);
            return op == dct::fault_op::createtree && std::string(path).find("/refused") != std::string::npos &&
                           refuse_directories
                       ? EACCES
                       : 0;
        };
        ctx.reset(new CatalogShadowContext(new ConfigFileShadowProxy(pool.config, pool.dbroot),
                                           new CatalogDirectoryLock, env));
        EXPECT_EQ(0u, ctx->init());
        app.reset(appdb::catalog_application_factory::create_catalog(2, pool.database_root(),
                                                                     appdb::APP_D_CATALOG_SHADOW, ctx.get(), 5,
                                                                     env));
    }
    ~service() {
        app.reset();
        ctx.reset();
    }

    // Inserts a row; then, with the database held by a second connection,
    // tries another (busy through every retry); then inserts a row of a
    // client whose database directory the fault seam may refuse.
    void run() {
        first = app->update_catalog("admin", 1, make_item("c", "p", "f0", "c_1").to_string());
        sqlite3* holder = nullptr;
        held = sqlite3_open(pool.db_file(2, "c", "p").c_str(), &holder) == SQLITE_OK &&
               sqlite3_exec(holder, "BEGIN IMMEDIATE;", nullptr, nullptr, nullptr) == SQLITE_OK;
        busy = app->update_catalog("admin", 1, make_item("c", "p", "f1", "c_1").to_string());
        sqlite3_exec(holder, "ROLLBACK;", nullptr, nullptr, nullptr);
        sqlite3_close(holder);
        refused = app->update_catalog("admin", 1, make_item("refused", "p", "f2", "c_2").to_string());
    }

    kt::TempDir dir;
    shadowt::pool_layout pool;
    seen what;
    bool refuse_directories = false;
    dct::environment env;
    std::unique_ptr<CatalogShadowContext> ctx;
    std::unique_ptr<appdb::catalog_application> app;
    cr_status_t first = 99, busy = 99, refused = 99;
    bool held = false;
};

// Whether every path in `paths` lies below `root` (calls on a descriptor
// name no path).
bool all_below(const std::vector<std::string>& paths, const std::string& root) {
    for (const std::string& p : paths) {
        if (!p.empty() && p.compare(0, root.size(), root) != 0) return false;
    }
    return true;
}

TEST(TwoEnvironments, EachServiceObeysItsOwnOnItsOwnThread) {
    // The process-wide seams: none of them may be asked.
    kt::LogCapture process_log;
    kt::SleepCounter process_sleeps;
    std::atomic<int> process_faults{0};
    dct::set_fault_hook([&process_faults](dct::fault_op, const char*) {
        ++process_faults;
        return 0;
    });
    kt::TraceSwitch trace(true);

    service a(111000000UL);
    service b(222000000UL);
    ASSERT_NE(nullptr, a.app);
    ASSERT_NE(nullptr, b.app);
    a.refuse_directories = true;
    a.what.records.clear();
    b.what.records.clear();
    // Only what the services do from here on counts (preparing the pools
    // used the process-wide seams, as a test's own set-up does).
    process_faults = 0;
    process_log.clear();

    std::thread ta([&a] { a.run(); });
    std::thread tb([&b] { b.run(); });
    ta.join();
    tb.join();
    dct::set_fault_hook(nullptr);

    // Both inserted their first row and met a busy database through every retry.
    EXPECT_EQ(0u, a.first) << a.what.dump();
    EXPECT_EQ(0u, b.first) << b.what.dump();
    ASSERT_TRUE(a.held);
    ASSERT_TRUE(b.held);
    EXPECT_EQ(CR_STATUS_BUSY, a.busy);
    EXPECT_EQ(CR_STATUS_BUSY, b.busy);

    // Sleep: each service's retries slept through its own sleep only.
    EXPECT_GE(a.what.sleeps.load(), 59);
    EXPECT_GE(b.what.sleeps.load(), 59);
    EXPECT_EQ(0, process_sleeps.calls());

    // Fault seam: only A's refuses the new database directory.
    EXPECT_NE(0u, a.refused);
    EXPECT_EQ(0u, b.refused) << b.what.dump();
    EXPECT_FALSE(kt::file_exists(a.pool.db_file(2, "refused", "p")));
    EXPECT_TRUE(kt::file_exists(b.pool.db_file(2, "refused", "p")));
    EXPECT_EQ(0, process_faults.load());
    {
        std::lock_guard<std::mutex> guard(a.what.mutex);
        EXPECT_FALSE(a.what.fault_paths.empty());
        EXPECT_TRUE(all_below(a.what.fault_paths, a.dir.path()));
    }
    {
        std::lock_guard<std::mutex> guard(b.what.mutex);
        EXPECT_FALSE(b.what.fault_paths.empty());
        EXPECT_TRUE(all_below(b.what.fault_paths, b.dir.path()));
    }

    // Clock: each cache timed its visits by its own clock.
    EXPECT_GT(a.what.count_containing("time_visit_ 111000000"), 0u) << a.what.dump();
    EXPECT_EQ(0u, a.what.count_containing("time_visit_ 222000000"));
    EXPECT_GT(b.what.count_containing("time_visit_ 222000000"), 0u) << b.what.dump();
    EXPECT_EQ(0u, b.what.count_containing("time_visit_ 111000000"));

    // Sinks: each service's records went to its own sink, none to the
    // process's or the other's.
    EXPECT_GT(a.what.count_containing(a.dir.path()), 0u);
    EXPECT_GT(b.what.count_containing(b.dir.path()), 0u);
    EXPECT_EQ(0u, a.what.count_containing(b.dir.path()));
    EXPECT_EQ(0u, b.what.count_containing(a.dir.path()));
    EXPECT_EQ(0u, process_log.count_containing(a.dir.path())) << process_log.dump();
    EXPECT_EQ(0u, process_log.count_containing(b.dir.path())) << process_log.dump();
}

TEST(TwoEnvironments, ScopesNestAndRestoreTheThreadsEnvironment) {
    dct::environment outer;
    outer.clock = [] { return 1UL; };
    dct::environment inner;
    inner.clock = [] { return 2UL; };
    EXPECT_EQ(&dct::default_environment(), &dct::current_environment());
    {
        dct::environment_scope first(outer);
        EXPECT_EQ(1UL, dct::current_environment().now_ms());
        {
            dct::environment_scope second(inner);
            EXPECT_EQ(2UL, dct::current_environment().now_ms());
            // Another thread keeps its own (the default).
            const dct::environment* other = nullptr;
            std::thread([&other] { other = &dct::current_environment(); }).join();
            EXPECT_EQ(&dct::default_environment(), other);
        }
        EXPECT_EQ(1UL, dct::current_environment().now_ms());
    }
    EXPECT_EQ(&dct::default_environment(), &dct::current_environment());
}

TEST(TwoEnvironments, AnEnvironmentsSinkTakesTheRecordsOfItsThreadOnly) {
    kt::LogCapture process_log;
    std::vector<std::string> mine;
    dct::environment env;
    env.log = [&mine](dct::log_level, cr_status_t status, const std::string& message) {
        mine.push_back(std::to_string(status) + " " + message);
    };
    {
        dct::environment_scope scope(env);
        ErrorA(21, "%s: %d", "inside", 7);
        std::thread([] { ErrorA(4, "other thread"); }).join();
    }
    ErrorA(4, "after");
    EXPECT_EQ((std::vector<std::string>{"21 inside: 7"}), mine);
    EXPECT_TRUE(process_log.contains(dct::log_level::error, 4, "other thread"));
    EXPECT_TRUE(process_log.contains(dct::log_level::error, 4, "after"));
    EXPECT_EQ(0u, process_log.count_containing("inside"));
}

}  // namespace
