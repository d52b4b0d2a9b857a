// The catalog store on its own, without a catalog application: opening and
// creating, each row operation, statements prepared once and kept, no lock
// left behind by a finished (or stopped) query, and a close that needs no
// retry.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdio.h>

#include <memory>
#include <string>
#include <vector>

#include "appdb/catalog_row_check.h"
#include "appdb/catalog_store.h"
#include "appdb/catalog_table.h"
#include "appdb/vector_item_sink.h"
#include "catalog_test_helpers.h"
#include "common/test_util.h"
#include "dct/log.h"

using appdb::app_catalog_item;
using appdb::app_query;
using appdb::catalog_store;
using appdb::removal_check;
using appdb::removal_key;
using dct::log_level;

namespace {

class CatalogStore : public ::testing::Test {
protected:
    void SetUp() override {
        file_ = dir_.file("app.db");
        ASSERT_EQ(0u, catalog_store::create(file_));
        ASSERT_EQ(0u, catalog_store::open(file_, &store_));
        ASSERT_NE(nullptr, store_);
    }

    void insert(const app_catalog_item& item) {
        std::string sql;
        ASSERT_EQ(0u, store_->insert(item, sql));
    }

    app_query query(uint32_t type, const std::string& key, bool wildcard = false) const {
        app_query q;
        q.type = type;
        q.client = "c";
        q.policy = "p";
        q.wildcard = wildcard;
        if (type == appdb::APP_QUERY_NAME) q.file_name = key;
        if (type == appdb::APP_QUERY_BACKUP_ID) q.backup_id = key;
        return q;
    }

    cr_status_t run(const app_query& q, std::vector<app_catalog_item>& out) {
        std::string sql;
        q.query_sql(sql);
        appdb::vector_item_sink sink(out);
        return store_->query(q, sql, sink);
    }

    // Statements alive on the store's connection.
    int statements() const {
        int n = 0;
        for (sqlite3_stmt* s = sqlite3_next_stmt(store_->connection(), nullptr); s != nullptr;
             s = sqlite3_next_stmt(store_->connection(), s)) {
            ++n;
        }
        return n;
    }

    // Whether another connection can take the write lock at once.
    bool others_can_write() const {
        sqlite3* other = catt::raw_open(file_);
        sqlite3_busy_timeout(other, 0);
        const bool ok = sqlite3_exec(other, "BEGIN EXCLUSIVE; COMMIT;", nullptr, nullptr,
                                     nullptr) == SQLITE_OK;
        sqlite3_close(other);
        return ok;
    }

    kt::TempDir dir_;
    kt::LogCapture log_;
    kt::SleepCounter sleeps_;
    std::string file_;
    std::unique_ptr<catalog_store> store_;
};

TEST(CatalogStoreOpen, AMissingFileIsNeitherOpenedNorCreated) {
    kt::TempDir dir;
    kt::LogCapture log;
    std::unique_ptr<catalog_store> store;
    EXPECT_EQ(21u, catalog_store::open(dir.file("app.db"), &store));
    EXPECT_EQ(nullptr, store);
    EXPECT_FALSE(kt::file_exists(dir.file("app.db")));
    EXPECT_TRUE(log.contains(log_level::error, 21,
                             "open_db: could not open db " + dir.file("app.db") +
                                 ",(14, unable to open database file)"))
        << log.dump();
}

TEST(CatalogStoreOpen, CreateFailsWhereNoFileCanBeMade) {
    kt::TempDir dir;
    kt::LogCapture log;
    const std::string file = dir.file("missing/app.db");
    EXPECT_EQ(21u, catalog_store::create(file));
    EXPECT_TRUE(log.contains(log_level::error, 21,
                             "create_db: could not open db " + file +
                                 ", (14, unable to open database file)"))
        << log.dump();
}

TEST_F(CatalogStore, RowsComeBackWithEveryFieldAndTheQuerysNames) {
    const app_catalog_item a = catt::make_item("x", "y", "f1", "B1", 100);
    insert(a);
    insert(catt::make_item("x", "y", "f2", "B1", 300));
    insert(catt::make_item("x", "y", "g1", "B2", 200));
    std::vector<app_catalog_item> out;
    ASSERT_EQ(0u, run(query(appdb::APP_QUERY_NAME, "f1"), out));
    ASSERT_EQ(1u, out.size());
    app_catalog_item expected = a;
    expected.client = "c";  // rows carry the names of the database they came from
    expected.policy = "p";
    EXPECT_EQ(expected.to_string(), out[0].to_string());

    out.clear();
    ASSERT_EQ(0u, run(query(appdb::APP_QUERY_BACKUP_ID, "B1"), out));
    EXPECT_EQ(2u, out.size());
    out.clear();
    ASSERT_EQ(0u, run(query(appdb::APP_QUERY_NAME, "*", true), out));
    ASSERT_EQ(3u, out.size());  // by start time
    EXPECT_EQ("f1", out[0].file_name);
    EXPECT_EQ("g1", out[1].file_name);
    EXPECT_EQ("f2", out[2].file_name);
    out.clear();
    app_query range = query(appdb::APP_QUERY_TIME_RANGE, "");
    range.start_time = 150;
    range.stop_time = 300;
    ASSERT_EQ(0u, run(range, out));
    ASSERT_EQ(2u, out.size());
    EXPECT_EQ("g1", out[0].file_name);
}

TEST_F(CatalogStore, TheInsertsLiteralReplaysTheSameRow) {
    app_catalog_item item = catt::make_item("c", "p", "it's", "B'1");
    item.description = "two\nlines";
    std::string sql;
    ASSERT_EQ(0u, store_->insert(item, sql));
    const std::string copy = dir_.file("copy.db");
    ASSERT_EQ(0u, catalog_store::create(copy));
    sqlite3* db = catt::raw_open(copy);
    catt::raw_exec(db, sql);
    sqlite3_close(db);
    EXPECT_EQ(catt::raw_dump(file_), catt::raw_dump(copy));
}

TEST_F(CatalogStore, EachStatementIsPreparedOnceAndKept) {
    insert(catt::make_item("c", "p", "f0", "B1"));
    std::vector<app_catalog_item> out;
    ASSERT_EQ(0u, run(query(appdb::APP_QUERY_NAME, "f0"), out));
    const int kept = statements();
    EXPECT_EQ(2, kept);  // the insert and the select by name
    for (int i = 1; i < 50; ++i) {
        insert(catt::make_item("c", "p", "f" + std::to_string(i), "B1"));
        out.clear();
        ASSERT_EQ(0u, run(query(appdb::APP_QUERY_NAME, "f" + std::to_string(i)), out));
        ASSERT_EQ(1u, out.size());
    }
    EXPECT_EQ(kept, statements());
    // Every kept statement is idle between uses.
    for (sqlite3_stmt* s = sqlite3_next_stmt(store_->connection(), nullptr); s != nullptr;
         s = sqlite3_next_stmt(store_->connection(), s)) {
        EXPECT_EQ(0, sqlite3_stmt_busy(s));
    }
}

TEST_F(CatalogStore, CallersOwnTextsBeyondTheBoundAreNotKept) {
    insert(catt::make_item("c", "p", "f", "B1"));
    const app_query q = query(appdb::APP_QUERY_NAME, "f");
    for (int i = 0; i < 40; ++i) {
        std::vector<app_catalog_item> out;
        appdb::vector_item_sink sink(out);
        const std::string sql = "SELECT * FROM catalog WHERE name = ? /* " + std::to_string(i) + " */";
        ASSERT_EQ(0u, store_->query(q, sql, sink));
        ASSERT_EQ(1u, out.size());
    }
    EXPECT_EQ(16, statements());
}

TEST_F(CatalogStore, AFinishedOrStoppedQueryLeavesNoLock) {
    for (int i = 0; i < 5; ++i) insert(catt::make_item("c", "p", "f" + std::to_string(i), "B1"));
    std::vector<app_catalog_item> out;
    ASSERT_EQ(0u, run(query(appdb::APP_QUERY_BACKUP_ID, "B1"), out));
    EXPECT_TRUE(others_can_write());

    // A sink that stops after the first record.
    struct first_only : appdb::catalog_item_sink {
        void restart() override {}
        cr_status_t take(app_catalog_item&) override { return CR_STATUS_EXISTS; }
    } stop;
    std::string sql;
    const app_query q = query(appdb::APP_QUERY_BACKUP_ID, "B1");
    q.query_sql(sql);
    EXPECT_EQ(CR_STATUS_EXISTS, store_->query(q, sql, stop));
    EXPECT_TRUE(others_can_write());
}

TEST_F(CatalogStore, ClosingWithKeptStatementsNeedsNoRetry) {
    insert(catt::make_item("c", "p", "f", "B1"));
    std::vector<app_catalog_item> out;
    ASSERT_EQ(0u, run(query(appdb::APP_QUERY_NAME, "f"), out));
    std::string sql;
    ASSERT_EQ(0u, store_->remove("test_remove", removal_key::file_name, "f", sql, nullptr));
    ASSERT_GT(statements(), 0);
    store_.reset();
    EXPECT_EQ(0, sleeps_.calls());
    EXPECT_EQ(0u, log_.count_containing("busy when close"));
    EXPECT_EQ(0, catt::open_fds_on(file_));
}

TEST_F(CatalogStore, ABusyDatabaseAnswers11AndTheStoreStaysUsable) {
    catt::busy_timeout_scope quick(1);
    ASSERT_EQ(0u, catalog_store::open(file_, &store_));  // takes the short timeout
    insert(catt::make_item("c", "p", "f", "B1"));
    {
        catt::exclusive_holder holder(file_);
        std::string sql;
        EXPECT_EQ(11u, store_->insert(catt::make_item("c", "p", "g", "B1"), sql));
        EXPECT_TRUE(log_.contains(log_level::warning, 11,
                                  "try_do_db_insert: " + file_ +
                                      " failed to step on (5, database is locked)."))
            << log_.dump();
        std::vector<app_catalog_item> out;
        EXPECT_EQ(11u, run(query(appdb::APP_QUERY_NAME, "f"), out));
    }
    std::string sql;
    EXPECT_EQ(0u, store_->insert(catt::make_item("c", "p", "g", "B1"), sql));
    EXPECT_EQ(2, catt::raw_count(file_));
}

TEST_F(CatalogStore, ADamagedRowEndsTheQueryWith67AfterTheRowsBeforeIt) {
    insert(catt::make_item("c", "p", "a", "B1", 100));
    insert(catt::make_item("c", "p", "b", "B1", 200));
    insert(catt::make_item("c", "p", "z", "B1", 300));
    catt::spoil_row_crc(file_, "b");
    std::vector<app_catalog_item> out;
    EXPECT_EQ(67u, run(query(appdb::APP_QUERY_NAME, "*", true), out));
    ASSERT_EQ(1u, out.size());
    EXPECT_EQ("a", out[0].file_name);
    EXPECT_EQ(1u, log_.count_containing("try_do_db_query: crc mismatch for app cat item 1|b|"));

    uint64_t rows = 0;
    std::vector<std::string> bad;
    ASSERT_EQ(0u, appdb::check_catalog_rows(store_->db(), file_, &rows, &bad));
    EXPECT_EQ(3u, rows);
    ASSERT_EQ(1u, bad.size());
    EXPECT_EQ(0u, bad[0].find("1|b|"));
    ASSERT_EQ(0u, appdb::count_catalog_rows(store_->db(), file_, &rows));
    EXPECT_EQ(3u, rows);
}

TEST_F(CatalogStore, ATablelessFileHasNoRowsAndTheFirstInsertCompletesIt) {
    const std::string bare = dir_.file("bare.db");
    fclose(fopen(bare.c_str(), "w"));
    std::unique_ptr<catalog_store> store;
    ASSERT_EQ(0u, catalog_store::open(bare, &store));
    EXPECT_TRUE(store->holds_no_table());
    std::vector<app_catalog_item> out;
    appdb::vector_item_sink sink(out);
    const app_query q = query(appdb::APP_QUERY_NAME, "f");
    std::string select;
    q.query_sql(select);
    EXPECT_EQ(0u, store->query(q, select, sink));
    EXPECT_TRUE(out.empty());
    std::string sql;
    EXPECT_EQ(0u, store->remove("test_remove", removal_key::backup_id, "B1", sql, nullptr));
    EXPECT_TRUE(store->holds_no_table());  // nothing written by a query or delete

    ASSERT_EQ(0u, store->insert(catt::make_item("c", "p", "f", "B1"), sql));
    EXPECT_FALSE(store->holds_no_table());
    EXPECT_TRUE(log_.contains(log_level::info, 0,
                              "complete_db: app db " + bare +
                                  " holds no table, creating its catalog table"));
    EXPECT_EQ(appdb::catalog_create_table_sql(),
              catt::raw_scalar(bare, "SELECT sql FROM sqlite_master WHERE name='catalog'"));
    ASSERT_EQ(0u, store->query(q, select, sink));
    EXPECT_EQ(1u, out.size());
}

TEST_F(CatalogStore, RemovalsHandBackTheirJournalText) {
    insert(catt::make_item("c", "p", "f1", "B1"));
    insert(catt::make_item("c", "p", "f2", "B'1"));
    insert(catt::make_item("c", "p", "f3", "B'1"));
    std::string sql;
    ASSERT_EQ(0u, store_->remove("test_remove", removal_key::file_name, "f1", sql, nullptr));
    EXPECT_EQ("DELETE FROM catalog WHERE name = ('f1')", sql);
    ASSERT_EQ(0u, store_->remove("test_remove", removal_key::backup_id, "B'1", sql, nullptr));
    EXPECT_EQ("DELETE FROM catalog WHERE backupid = ('B''1')", sql);
    EXPECT_EQ(0, catt::raw_count(file_));
    // No row matched: still a success, with its text.
    ASSERT_EQ(0u, store_->remove("test_remove", removal_key::file_name, "none", sql, nullptr));
    EXPECT_EQ("DELETE FROM catalog WHERE name = ('none')", sql);
}

TEST_F(CatalogStore, ACheckedRemovalTakesOnlyTheCallersRows) {
    insert(catt::make_item("c", "p", "f1", "B1", 100, "alice"));
    insert(catt::make_item("c", "p", "f2", "B1", 100, "bob"));
    insert(catt::make_item("c", "p", "f'3", "B1", 100, "alice"));
    removal_check check;
    check.user = "alice";
    check.role = appdb::APP_ROLE_APP;
    std::string sql;
    ASSERT_EQ(0u, store_->remove("test_remove", removal_key::backup_id, "B1", sql, &check));
    EXPECT_EQ(3u, check.matched);
    EXPECT_EQ(2u, check.removed);
    EXPECT_EQ("bob", check.kept_owner);
    EXPECT_EQ("DELETE FROM catalog WHERE name IN ('f1', 'f''3')", sql);
    EXPECT_EQ(1, catt::raw_count(file_));
    EXPECT_EQ(1, catt::raw_count(file_, "name = 'f2'"));
    EXPECT_TRUE(others_can_write());  // the transaction ended

    // Nobody's rows to remove: nothing goes, no text.
    removal_check carol;
    carol.user = "carol";
    carol.role = appdb::APP_ROLE_APP;
    ASSERT_EQ(0u, store_->remove("test_remove", removal_key::backup_id, "B1", sql, &carol));
    EXPECT_EQ(1u, carol.matched);
    EXPECT_EQ(0u, carol.removed);
    EXPECT_EQ("", sql);
    EXPECT_EQ(1, catt::raw_count(file_));
}

TEST_F(CatalogStore, PragmasReadSingleValues) {
    std::string result;
    EXPECT_TRUE(store_->run_pragma("PRAGMA integrity_check;", "ok", &result));
    EXPECT_EQ("ok", result);
    EXPECT_FALSE(store_->run_pragma("NOT SQL", "ok", nullptr));
}

TEST_F(CatalogStore, AReplacedFileIsNoticed) {
    EXPECT_FALSE(store_->has_moved());
    const std::string other = dir_.file("other.db");
    ASSERT_EQ(0u, catalog_store::create(other));
    ASSERT_EQ(0, rename(other.c_str(), file_.c_str()));
    EXPECT_TRUE(store_->has_moved());
}

}  // namespace
