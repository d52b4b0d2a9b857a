// Queries that hand their records to a catalog_item_sink one at a time: the
// order, the restarts before every attempt (busy retries, a recovered
// database read again), the access rule applied per record, a damaged row,
// and a sink that stops the query.
#include <sqlite3.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/catalog_application_base.h"
#include "appdb/catalog_item_sink.h"
#include "catalog_shadow_fixture.h"
#include "catalog_test_helpers.h"
#include "common/test_util.h"

namespace {

using appdb::app_catalog_item;
using catt::make_item;
using dct::log_level;

// Writes down every call: "restart" or "take NAME". `fail_at` makes the
// n-th take (1-based) return `failure`.
class recording_sink : public appdb::catalog_item_sink {
public:
    void restart() override { events.push_back("restart"); }
    cr_status_t take(app_catalog_item& item) override {
        events.push_back("take " + item.file_name);
        clients.push_back(item.client + "/" + item.policy);
        if (++takes == fail_at) return failure;
        return CR_STATUS_OK;
    }

    std::vector<std::string> events;
    std::vector<std::string> clients;
    int takes = 0;
    int fail_at = 0;
    cr_status_t failure = CR_STATUS_OK;
};

const char kAll[] = "backup_id|c,p,*";

class CatalogSink : public catt::catalog_fixture {
protected:
    // f0, f1, f2 of backup B1, listed in that order (start times ascending
    // although inserted in another order).
    void fill() {
        insert(make_item("c", "p", "f2", "B1", 300));
        insert(make_item("c", "p", "f0", "B1", 100));
        insert(make_item("c", "p", "f1", "B1", 200, "bob"));
        log.clear();
    }
};

TEST_F(CatalogSink, RecordsArriveInTheQuerysOrderAfterOneRestart) {
    fill();
    kt::TraceSwitch trace(true);
    recording_sink sink;
    ASSERT_EQ(0u, app->find_catalog("admin", 1, kAll, sink)) << log.dump();
    EXPECT_EQ((std::vector<std::string>{"restart", "take f0", "take f1", "take f2"}), sink.events);
    EXPECT_EQ((std::vector<std::string>{"c/p", "c/p", "c/p"}), sink.clients);
    EXPECT_TRUE(logged(log_level::info, 0, std::string("find_catalog: find app catalog ") + kAll));
    EXPECT_TRUE(traced("try_do_db_query: search done, find count 3"));
}

TEST_F(CatalogSink, TheSinkAndTheVectorFormGiveTheSameRecords) {
    fill();
    recording_sink sink;
    std::vector<app_catalog_item> items;
    ASSERT_EQ(0u, app->find_catalog("alice", 4, kAll, sink));
    ASSERT_EQ(0u, app->find_catalog("alice", 4, kAll, items));
    std::vector<std::string> from_vector{"restart"};
    for (const app_catalog_item& it : items) from_vector.push_back("take " + it.file_name);
    EXPECT_EQ(from_vector, sink.events);
}

TEST_F(CatalogSink, RecordsTheUserMayNotReadNeverReachTheSink) {
    fill();
    kt::TraceSwitch trace(true);
    recording_sink sink;
    ASSERT_EQ(0u, app->find_catalog("alice", 4, kAll, sink));
    EXPECT_EQ((std::vector<std::string>{"restart", "take f0", "take f2"}), sink.events);
    EXPECT_TRUE(traced("find_catalog: skip query result f1")) << log.dump();
}

TEST_F(CatalogSink, AMissingDatabaseGivesARestartAndNoRecord) {
    recording_sink sink;
    ASSERT_EQ(0u, app->find_catalog("admin", 1, kAll, sink));
    EXPECT_EQ((std::vector<std::string>{"restart"}), sink.events);
}

TEST_F(CatalogSink, ADamagedRowStopsTheQueryWith67AfterTheRowsBeforeIt) {
    fill();
    app.reset();
    catt::spoil_row_crc(db_file("c", "p"), "f1");
    SetUp();

    recording_sink sink;
    EXPECT_EQ(67u, app->find_catalog("admin", 1, kAll, sink));
    EXPECT_EQ((std::vector<std::string>{"restart", "take f0"}), sink.events);
    EXPECT_EQ(1u, log.count_containing("try_do_db_query: crc mismatch for app cat item ")) << log.dump();
    EXPECT_TRUE(logged(log_level::error, 67,
                       std::string("find_catalog: failed to query ") + kAll + " for " + app->to_db_full_path("c", "p")));
}

TEST_F(CatalogSink, ASinkFailureStopsTheQueryAndIsReturned) {
    fill();
    recording_sink sink;
    sink.fail_at = 2;
    sink.failure = CR_STATUS_NOMEM;
    EXPECT_EQ(22u, app->find_catalog("admin", 1, kAll, sink));
    EXPECT_EQ((std::vector<std::string>{"restart", "take f0", "take f1"}), sink.events);
    EXPECT_TRUE(logged(log_level::error, 22, "do_db_query: failed to query db " + db_file("c", "p"))) << log.dump();
    EXPECT_TRUE(logged(log_level::error, 22,
                       std::string("find_catalog: failed to query ") + kAll + " for " + app->to_db_full_path("c", "p")));
}

TEST_F(CatalogSink, ABusyStatusFromTheSinkIsReturnedWithoutARetry) {
    fill();
    recording_sink sink;
    sink.fail_at = 1;
    sink.failure = CR_STATUS_BUSY;
    EXPECT_EQ(11u, app->find_catalog("admin", 1, kAll, sink));
    EXPECT_EQ(0, sleeps.calls());
    EXPECT_EQ((std::vector<std::string>{"restart", "take f0"}), sink.events);
    EXPECT_EQ(0u, log.count_containing("busy when query")) << log.dump();
}

TEST_F(CatalogSink, EveryBusyRetryRestartsTheSink) {
    fill();
    catt::busy_timeout_scope fast_busy{2};
    app.reset();
    SetUp();  // connections with the short busy timeout
    {
        recording_sink warm;  // the schema is read before the lock is taken
        ASSERT_EQ(0u, app->find_catalog("admin", 1, kAll, warm));
    }
    catt::exclusive_holder holder(db_file("c", "p"));
    sleeps.on_sleep = [&holder](int call) {
        if (call == 3) holder.release();
    };
    recording_sink sink;
    ASSERT_EQ(0u, app->find_catalog("admin", 1, kAll, sink)) << log.dump();
    EXPECT_EQ(3, sleeps.calls());
    EXPECT_EQ((std::vector<std::string>{"restart", "restart", "restart", "restart", "take f0", "take f1", "take f2"}),
              sink.events);
}

class ShadowSink : public shadowt::shadow_fixture {};

TEST_F(ShadowSink, ARecoveredDatabaseIsReadAgainFromARestartedSink) {
    for (int i = 0; i < 3; ++i) insert(make_item("c", "p", "f" + std::to_string(i), "c_1", 100 + i));
    restart_app();
    catt::spoil_row_crc(db_file("c", "p"), "f1");
    log.clear();

    recording_sink sink;
    ASSERT_EQ(0u, app->find_catalog("admin", 1, appdb::to_query_by_backup_id("c", "p", "c_*"), sink))
        << log.dump();
    EXPECT_EQ((std::vector<std::string>{"restart", "take f0", "restart", "take f0", "take f1", "take f2"}),
              sink.events);
    EXPECT_EQ(1u, log.count_containing("corrupt, to do recover from shadow")) << log.dump();
}

TEST_F(ShadowSink, AStatusFromTheSinkNeverStartsARecovery) {
    for (int i = 0; i < 3; ++i) insert(make_item("c", "p", "f" + std::to_string(i), "c_1", 100 + i));
    restart_app();
    const std::string before = kt::read_file(db_file("c", "p"));
    log.clear();

    for (cr_status_t failure : {CR_STATUS_CORRUPT, CR_STATUS_IO}) {
        recording_sink sink;
        sink.fail_at = 2;
        sink.failure = failure;
        EXPECT_EQ(failure, app->find_catalog("admin", 1, appdb::to_query_by_backup_id("c", "p", "c_*"), sink));
        EXPECT_EQ((std::vector<std::string>{"restart", "take f0", "take f1"}), sink.events);
    }
    EXPECT_EQ(0u, log.count_containing("corrupt, to do recover from shadow")) << log.dump();
    EXPECT_EQ(0u, log.count_containing("need_recover_after_db_operation"));
    EXPECT_EQ(before, kt::read_file(db_file("c", "p")));
}

}  // namespace
