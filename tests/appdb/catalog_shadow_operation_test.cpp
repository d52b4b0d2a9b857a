// The operation context of the shadow-protected catalog: a public operation
// called from inside another one on the same thread belongs to the outer
// operation and shares its single recovery; an operation of another thread on
// the same catalog application has its own, and neither ends the other.
#include <sqlite3.h>

#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "catalog_shadow_fault_vfs.h"
#include "catalog_shadow_fixture.h"

namespace {

using appdb::app_catalog_item;
using catt::make_item;
using dct::log_level;

// The shadow kind with a look into its query step: `after_query` runs on the
// calling thread right after each query step, inside the operation.
class probe_app : public appdb::catalog_application_impl_shadow {
public:
    using catalog_application_impl_shadow::catalog_application_impl_shadow;

    std::function<void(cr_status_t)> after_query;

protected:
    cr_status_t query_step(const char* fn, const appdb::app_query& query, appdb::catalog_item_sink& sink,
                           const std::string& sql) override {
        const cr_status_t status = catalog_application_impl_shadow::query_step(fn, query, sink, sql);
        if (after_query) after_query(status);
        return status;
    }
};

class ShadowOperation : public shadowt::shadow_fixture {
protected:
    void SetUp() override {
        shadow_vfs::install();
        shadow_vfs::reset();
        shadowt::shadow_fixture::SetUp();
        for (int i = 0; i < 3; ++i) insert(make_item("c", "p", "f" + std::to_string(i), "c_1", 100 + i));
        for (int i = 0; i < 2; ++i) insert(make_item("c", "q", "g" + std::to_string(i), "c_2", 200 + i));
        use_probe();
    }
    void TearDown() override {
        shadow_vfs::reset();
        shadowt::shadow_fixture::TearDown();
    }

    // A new probe application on the same context: no connection survives.
    void use_probe() {
        app.reset();
        probe = new probe_app(2, pool.database_root(), 5, ctx.get());
        probe->dir_lock.reset(new CatalogDirectoryLock);
        app.reset(probe);
    }

    size_t recoveries() const { return log.count_containing("corrupt, to do recover from shadow"); }

    probe_app* probe = nullptr;
};

TEST_F(ShadowOperation, NoOperationOutsideAPublicCall) {
    EXPECT_FALSE(probe->in_operation());
    EXPECT_FALSE(probe->operation_recovered());
    std::vector<bool> inside;
    probe->after_query = [&](cr_status_t) { inside.push_back(probe->in_operation()); };
    std::vector<app_catalog_item> found;
    ASSERT_EQ(0u, app->find_catalog("admin", 1, "backup_id|c,p,c_1", found)) << log.dump();
    EXPECT_EQ(3u, found.size());
    EXPECT_EQ((std::vector<bool>{true}), inside);
    EXPECT_FALSE(probe->in_operation());
}

// The outer find recovers the deleted database; a find it makes from inside
// then meets a database that reads as corrupt: that one is reported (67), not
// recovered a second time. The outer operation is still running, recovered,
// after the inner one ended. The next operation may recover again.
TEST_F(ShadowOperation, AnOperationCalledFromInsideSharesTheOuterRecovery) {
    shadowt::delete_database(db_file("c", "p"));
    log.clear();
    int depth = 0;
    std::vector<std::string> seen;
    cr_status_t inner_status = CR_STATUS_OK;
    probe->after_query = [&](cr_status_t status) {
        seen.push_back(std::to_string(status) + (probe->operation_recovered() ? " recovered" : " not recovered"));
        if (depth++ > 0) return;
        shadow_vfs::armed().read_rc = SQLITE_CORRUPT;
        shadow_vfs::armed().reads = 1000;
        app_catalog_item item;
        inner_status = app->find_by_file_name("c", "p", "f1", item, false);
        shadow_vfs::reset();
        seen.push_back(std::string("after inner: ") + (probe->in_operation() ? "in operation" : "outside") +
                       (probe->operation_recovered() ? ", recovered" : ", not recovered"));
    };
    std::vector<app_catalog_item> found;
    EXPECT_EQ(0u, app->find_catalog("admin", 1, "backup_id|c,p,c_1", found)) << log.dump();
    EXPECT_EQ(3u, found.size());
    EXPECT_EQ(67u, inner_status) << log.dump();
    EXPECT_EQ((std::vector<std::string>{"0 recovered", "67 recovered", "after inner: in operation, recovered"}), seen);
    EXPECT_EQ(1u, recoveries()) << log.dump();
    EXPECT_TRUE(log.contains(log_level::error, 21,
                             "find_catalog: db " + db_dir("c", "p") + " corrupt, to do recover from shadow"))
        << log.dump();
    EXPECT_FALSE(probe->in_operation());

    // A new operation owns a new recovery.
    probe->after_query = nullptr;
    use_probe();
    shadowt::delete_database(db_file("c", "p"));
    log.clear();
    found.clear();
    EXPECT_EQ(0u, app->find_catalog("admin", 1, "backup_id|c,p,c_1", found)) << log.dump();
    EXPECT_EQ(3u, found.size());
    EXPECT_EQ(1u, recoveries()) << log.dump();
}

// Thread A stops inside its operation, after its recovery, while thread B runs
// a whole operation on the same application that recovers another database:
// B starts unrecovered, recovers once itself, and its end does not end A's
// operation.
TEST_F(ShadowOperation, TwoThreadsOnOneApplicationHaveTheirOwnOperations) {
    use_probe();
    shadowt::delete_database(db_file("c", "p"));
    shadowt::delete_database(db_file("c", "q"));
    log.clear();

    const std::thread::id a_id = std::this_thread::get_id();
    std::promise<void> b_done;
    std::shared_future<void> b_finished = b_done.get_future().share();
    std::vector<std::string> a_seen;
    std::vector<std::string> b_seen;
    cr_status_t b_status = CR_STATUS_FAILED;
    size_t b_rows = 0;
    auto state = [this] {
        return std::string(probe->in_operation() ? "in operation" : "outside") +
               (probe->operation_recovered() ? ", recovered" : ", not recovered");
    };
    probe->after_query = [&](cr_status_t) {
        if (std::this_thread::get_id() != a_id) {
            b_seen.push_back("B step: " + state());
            return;
        }
        a_seen.push_back("A step: " + state());
        std::thread b([&] {
            b_seen.push_back("B before: " + state());
            std::vector<app_catalog_item> found;
            b_status = app->find_catalog("admin", 1, "backup_id|c,q,c_2", found);
            b_rows = found.size();
            b_seen.push_back("B after: " + state());
            b_done.set_value();
        });
        b_finished.wait();
        b.join();
        a_seen.push_back("A after B: " + state());
    };
    std::vector<app_catalog_item> found;
    EXPECT_EQ(0u, app->find_catalog("admin", 1, "backup_id|c,p,c_1", found)) << log.dump();
    EXPECT_EQ(3u, found.size());
    EXPECT_EQ(0u, b_status) << log.dump();
    EXPECT_EQ(2u, b_rows);
    EXPECT_EQ((std::vector<std::string>{"A step: in operation, recovered", "A after B: in operation, recovered"}),
              a_seen);
    EXPECT_EQ((std::vector<std::string>{"B before: outside, not recovered", "B step: in operation, recovered",
                                        "B after: outside, not recovered"}),
              b_seen);
    EXPECT_EQ(2u, recoveries()) << log.dump();
    EXPECT_TRUE(log.contains(log_level::error, 21,
                             "find_catalog: db " + db_dir("c", "p") + " corrupt, to do recover from shadow"));
    EXPECT_TRUE(log.contains(log_level::error, 21,
                             "find_catalog: db " + db_dir("c", "q") + " corrupt, to do recover from shadow"));
    EXPECT_FALSE(probe->in_operation());
}

}  // namespace
