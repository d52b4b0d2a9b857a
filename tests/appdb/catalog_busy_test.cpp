// Busy retries of the row operations, provoked by a second connection that
// holds an exclusive lock. The busy timeout of the catalog's connections is
// lowered to a few milliseconds and the one-second sleeps are counted, so the
// 60 tries run at once.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/catalog_application_base.h"
#include "catalog_test_helpers.h"
#include "common/test_util.h"

namespace {

using appdb::app_catalog_item;
using appdb::app_query;
using catt::make_item;
using dct::log_level;

class CatalogBusy : public catt::catalog_fixture {
protected:
    void SetUp() override {
        catt::catalog_fixture::SetUp();
        // A warm connection: the schema is read before the lock is taken, so
        // busy results come from the steps.
        insert(make_item("c", "p", "first", "B0", 50));
        log.clear();
    }
    std::string name() const { return db_file("c", "p"); }

    catt::busy_timeout_scope fast_busy{2};
};

TEST_F(CatalogBusy, InsertGivesUpAfter60TriesWith11) {
    catt::exclusive_holder holder(name());
    std::string sql;
    EXPECT_EQ(11u, app->do_db_insert(make_item("c", "p", "second", "B1"), sql));
    EXPECT_EQ(60, sleeps.calls());
    EXPECT_EQ(60u, sleeps.total_seconds());
    for (unsigned i = 0; i < 60; ++i) {
        EXPECT_EQ(1u, log.count(log_level::warning, 11,
                                "do_db_insert: " + std::to_string(i) + " busy when inserting second"))
            << i;
    }
    EXPECT_EQ(0u, log.count_containing("60 busy when inserting"));
    EXPECT_EQ(60u, log.count(log_level::warning, 11,
                             "try_do_db_insert: " + name() + " failed to step on (5, database is locked)."));
    // No further message after the last try, and nothing logged as a failure.
    EXPECT_EQ(0u, log.count_containing("failed to insert"));
    holder.release();
    EXPECT_EQ(0, catt::raw_count(name(), "name = 'second'"));
}

TEST_F(CatalogBusy, UpdateCatalogReturnsTheBusyStatus) {
    catt::exclusive_holder holder(name());
    EXPECT_EQ(11u, app->update_catalog("u", 4, make_item("c", "p", "second", "B1").to_string()));
    EXPECT_EQ(60, sleeps.calls());
}

TEST_F(CatalogBusy, InsertSucceedsOnceTheLockIsReleasedAfterThreeRetries) {
    catt::exclusive_holder holder(name());
    sleeps.on_sleep = [&holder](int call) {
        if (call == 3) holder.release();
    };
    std::string sql;
    EXPECT_EQ(0u, app->do_db_insert(make_item("c", "p", "second", "B1"), sql));
    EXPECT_EQ(3, sleeps.calls());
    EXPECT_EQ(3u, log.count_containing("busy when inserting second")) << log.dump();
    EXPECT_TRUE(logged(log_level::warning, 11, "do_db_insert: 2 busy when inserting second"));
    EXPECT_EQ(1, catt::raw_count(name(), "name = 'second'"));
    EXPECT_EQ(2, catt::raw_count(name()));
    EXPECT_EQ(0u, sql.find("INSERT INTO catalog VALUES (1, 'second', 'second', "));
}

TEST_F(CatalogBusy, BusyQueryRetried59TimesReturnsOnlyTheLastAttemptsRows) {
    insert(make_item("c", "p", "second", "B0", 60));
    catt::exclusive_holder holder(name());
    sleeps.on_sleep = [&holder](int call) {
        if (call == 59) holder.release();
    };
    std::string sql;
    app_query q;
    ASSERT_EQ(0u, app->parse_query("backup_id|c,p,B*", q, sql));
    // Whatever the vector held before is not part of the answer.
    std::vector<app_catalog_item> out(3, make_item("x", "y", "stale", "B0"));
    log.clear();
    EXPECT_EQ(0u, app->do_db_query(q, out, sql));
    EXPECT_EQ(59, sleeps.calls());
    EXPECT_TRUE(logged(log_level::warning, 11, "do_db_query: 58 busy when query " + name())) << log.dump();
    EXPECT_EQ(0u, log.count_containing("59 busy when query"));
    ASSERT_EQ(2u, out.size());
    EXPECT_EQ("first", out[0].file_name);
    EXPECT_EQ("second", out[1].file_name);
    EXPECT_EQ("c", out[0].client);
}

TEST_F(CatalogBusy, QueryGivesUpAfter60Tries) {
    catt::exclusive_holder holder(name());
    std::vector<app_catalog_item> out;
    EXPECT_EQ(11u, app->find_catalog("admin", 1, "backup_id|c,p,B0", out));
    EXPECT_EQ(60, sleeps.calls());
    EXPECT_TRUE(logged(log_level::warning, 11, "do_db_query: 59 busy when query " + name()));
    EXPECT_TRUE(logged(log_level::error, 11,
                       "find_catalog: failed to query backup_id|c,p,B0 for " + app->to_db_full_path("c", "p")))
        << log.dump();
}

TEST_F(CatalogBusy, DeleteByBackupIdRetriesAndGivesUp) {
    catt::exclusive_holder holder(name());
    std::string sql;
    EXPECT_EQ(11u, app->do_db_delete_by_backup_id("c", "p", "B0", sql));
    EXPECT_EQ(60, sleeps.calls());
    EXPECT_TRUE(logged(log_level::warning, 11, "do_db_delete_by_backup_id: 0 busy when deleting bid B0"));
    EXPECT_TRUE(logged(log_level::warning, 11, "do_db_delete_by_backup_id: 59 busy when deleting bid B0"));
    EXPECT_EQ(60u, log.count(log_level::warning, 11,
                             "try_do_db_delete_by_backup_id: DB[" + name() +
                                 "] failed to step DELETE FROM catalog WHERE backupid = ('B0') (5, "
                                 "database is locked)."))
        << log.dump();
    holder.release();
    EXPECT_EQ(1, catt::raw_count(name()));
}

TEST_F(CatalogBusy, DeleteByFileNameSucceedsAfterTheLockGoes) {
    catt::exclusive_holder holder(name());
    sleeps.on_sleep = [&holder](int call) {
        if (call == 2) holder.release();
    };
    std::string sql;
    EXPECT_EQ(0u, app->do_db_delete_by_file_name("c", "p", "first", sql));
    EXPECT_EQ(2, sleeps.calls());
    EXPECT_TRUE(logged(log_level::warning, 11, "do_db_delete_by_file_name: 1 busy when deleting first"));
    EXPECT_EQ(0, catt::raw_count(name()));
}

TEST_F(CatalogBusy, ColdConnectionIsRetriedAsWell) {
    // A connection that has not read the schema yet is busy already when it
    // prepares; that is retried the same way.
    ASSERT_EQ(0u, app->close_db(app->to_db_full_path("c", "p"), 0, true));
    catt::exclusive_holder holder(name());
    sleeps.on_sleep = [&holder](int call) {
        if (call == 1) holder.release();
    };
    std::string sql;
    EXPECT_EQ(0u, app->do_db_insert(make_item("c", "p", "second", "B1"), sql));
    EXPECT_EQ(1, sleeps.calls());
    EXPECT_EQ(1, catt::raw_count(name(), "name = 'second'"));
}

}  // namespace
