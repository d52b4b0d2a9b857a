// The filter statement of a search: its text for every condition alone and
// combined, its bound values, what it selects from real databases (checked
// against the same WHERE clause written by hand and run by plain SQLite),
// and the path through a catalog application (lock, checksum, access rule).
#include "appdb/catalog_filter.h"

#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/catalog_item_sink.h"
#include "appdb/vector_item_sink.h"
#include "catalog_test_helpers.h"

namespace {

using appdb::catalog_filter;
using appdb::catalog_filter_statement;
using appdb::make_filter_statement;

const char kOrder[] = " ORDER BY backup_start_time ASC";

TEST(CatalogFilter, NoConditionSelectsEveryRowInStartOrder) {
    const catalog_filter_statement s = make_filter_statement(catalog_filter());
    EXPECT_EQ(std::string("SELECT * FROM catalog") + kOrder, s.sql);
    EXPECT_TRUE(s.values.empty());
}

TEST(CatalogFilter, EachConditionAloneHasItsTextAndValue) {
    catalog_filter f;
    f.by_backup_id = true;
    f.backup_id = "B*";
    catalog_filter_statement s = make_filter_statement(f);
    EXPECT_EQ(std::string("SELECT * FROM catalog WHERE backupid GLOB ?") + kOrder, s.sql);
    ASSERT_EQ(1u, s.values.size());
    EXPECT_TRUE(s.values[0].is_text);
    EXPECT_EQ("B*", s.values[0].text);

    f = catalog_filter();
    f.by_file_name = true;
    f.file_name = "x?[ab]";
    s = make_filter_statement(f);
    EXPECT_EQ(std::string("SELECT * FROM catalog WHERE name GLOB ?") + kOrder, s.sql);
    EXPECT_EQ("x?[ab]", s.values.at(0).text);

    f = catalog_filter();
    f.by_owner = true;
    f.owner = "o'neil";
    s = make_filter_statement(f);
    EXPECT_EQ(std::string("SELECT * FROM catalog WHERE owner = ?") + kOrder, s.sql);
    EXPECT_EQ("o'neil", s.values.at(0).text);

    f = catalog_filter();
    f.by_since = true;
    f.since = 5000000000LL;  // beyond 32 bits: bound whole
    s = make_filter_statement(f);
    EXPECT_EQ(std::string("SELECT * FROM catalog WHERE backup_start_time >= ?") + kOrder, s.sql);
    EXPECT_FALSE(s.values.at(0).is_text);
    EXPECT_EQ(5000000000LL, s.values.at(0).number);

    f = catalog_filter();
    f.by_until = true;
    f.until = -3;
    s = make_filter_statement(f);
    EXPECT_EQ(std::string("SELECT * FROM catalog WHERE backup_start_time <= ?") + kOrder, s.sql);
    EXPECT_EQ(-3, s.values.at(0).number);

    f = catalog_filter();
    f.by_expires_before = true;
    f.expires_before = 77;
    s = make_filter_statement(f);
    EXPECT_EQ(std::string("SELECT * FROM catalog WHERE ((backup_app_expire_time > 0 AND "
                          "backup_app_expire_time < ?) OR (backup_orvo_expire_time > 0 AND "
                          "backup_orvo_expire_time < ?))") +
                  kOrder,
              s.sql);
    ASSERT_EQ(2u, s.values.size());
    EXPECT_EQ(77, s.values[0].number);
    EXPECT_EQ(77, s.values[1].number);
}

TEST(CatalogFilter, ConditionsCombineWithAndInAFixedOrderAndValuesFollowThem) {
    catalog_filter f;
    f.by_expires_before = true;
    f.expires_before = 9;
    f.by_owner = true;
    f.owner = "alice";
    f.by_until = true;
    f.until = 8;
    f.by_backup_id = true;
    f.backup_id = "b";
    f.by_since = true;
    f.since = 7;
    f.by_file_name = true;
    f.file_name = "f";
    const catalog_filter_statement s = make_filter_statement(f);
    EXPECT_EQ(std::string("SELECT * FROM catalog WHERE backupid GLOB ? AND name GLOB ? AND owner = ? "
                          "AND backup_start_time >= ? AND backup_start_time <= ? AND "
                          "((backup_app_expire_time > 0 AND backup_app_expire_time < ?) OR "
                          "(backup_orvo_expire_time > 0 AND backup_orvo_expire_time < ?))") +
                  kOrder,
              s.sql);
    ASSERT_EQ(7u, s.values.size());
    EXPECT_EQ("b", s.values[0].text);
    EXPECT_EQ("f", s.values[1].text);
    EXPECT_EQ("alice", s.values[2].text);
    EXPECT_EQ(7, s.values[3].number);
    EXPECT_EQ(8, s.values[4].number);
    EXPECT_EQ(9, s.values[5].number);
    EXPECT_EQ(9, s.values[6].number);
}

TEST(CatalogFilter, ValuesNeverEnterTheStatementText) {
    catalog_filter f;
    f.by_owner = true;
    f.owner = "x' OR 1=1 --";
    f.by_backup_id = true;
    f.backup_id = "\"; DROP TABLE catalog; --";
    const catalog_filter_statement s = make_filter_statement(f);
    EXPECT_EQ(std::string::npos, s.sql.find("OR 1=1"));
    EXPECT_EQ(std::string::npos, s.sql.find("DROP"));
}

TEST(CatalogFilter, GlobMatchIsSqlitesGlob) {
    EXPECT_TRUE(appdb::catalog_glob_match("client*", "clientA"));
    EXPECT_FALSE(appdb::catalog_glob_match("client*", "ClientA"));  // case-sensitive
    EXPECT_TRUE(appdb::catalog_glob_match("c?ient", "client"));
    EXPECT_FALSE(appdb::catalog_glob_match("c?ient", "cient"));
    EXPECT_TRUE(appdb::catalog_glob_match("[ab]x", "bx"));
    EXPECT_FALSE(appdb::catalog_glob_match("[ab]x", "cx"));
    EXPECT_TRUE(appdb::catalog_glob_match("[^ab]x", "cx"));
    EXPECT_TRUE(appdb::catalog_glob_match("[[]x", "[x"));  // a literal "["
    EXPECT_FALSE(appdb::catalog_glob_match("[x", "[x"));   // an unclosed set matches nothing
    EXPECT_TRUE(appdb::catalog_glob_match("exact", "exact"));
    EXPECT_FALSE(appdb::catalog_glob_match("exact", "exactly"));
}

TEST(CatalogFilter, BarIsRefusedAsAValue) {
    EXPECT_EQ(nullptr, appdb::catalog_filter_value_refusal("client*"));
    EXPECT_EQ(nullptr, appdb::catalog_filter_value_refusal(""));
    const char* why = appdb::catalog_filter_value_refusal("a|b");
    ASSERT_NE(nullptr, why);
    EXPECT_STREQ("holds \"|\", which no client, policy, backup id, file name or owner can hold", why);
}

// ---- through the catalog application ----

class CatalogFilterQuery : public catt::catalog_fixture {
protected:
    void SetUp() override {
        catalog_fixture::SetUp();
        // Start times 100..900; owners alternate; expiries differ per row.
        for (int i = 1; i <= 9; ++i) {
            appdb::app_catalog_item item = catt::make_item(
                "c1", "p1", "F" + std::to_string(i), i <= 4 ? "B1" : "B2", i * 100,
                i % 2 == 0 ? "alice" : "bob");
            item.app_expire_time = i == 3 ? 0 : 5000 + i;
            item.orvo_expire_time = i == 5 ? 1500 : 0;
            insert(item);
        }
        log.clear();
    }

    // The file names `f` selects through the library, in order.
    std::vector<std::string> found(const catalog_filter& f, cr_status_t expect = 0) {
        std::vector<appdb::app_catalog_item> items;
        appdb::vector_item_sink sink(items);
        EXPECT_EQ(expect, app->find_catalog_filtered("", 1, "c1", "p1", make_filter_statement(f), sink))
            << log.dump();
        std::vector<std::string> names;
        for (const auto& item : items) {
            EXPECT_EQ("c1", item.client);
            EXPECT_EQ("p1", item.policy);
            names.push_back(item.file_name);
        }
        return names;
    }

    // The same selection by hand, run by plain SQLite on the file.
    std::vector<std::string> reference(const std::string& where) {
        std::vector<std::string> names;
        sqlite3* db = catt::raw_open(db_file("c1", "p1"));
        sqlite3_stmt* s = nullptr;
        const std::string sql = "SELECT name FROM catalog WHERE " + where + " ORDER BY backup_start_time";
        EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr)) << sql;
        while (sqlite3_step(s) == SQLITE_ROW) names.push_back(catt::col_text(s, 0));
        sqlite3_finalize(s);
        sqlite3_close(db);
        return names;
    }
};

TEST_F(CatalogFilterQuery, EachConditionSelectsWhatSqliteSelects) {
    catalog_filter f;
    f.by_backup_id = true;
    f.backup_id = "B[2]";
    EXPECT_EQ(reference("backupid = 'B2'"), found(f));

    f = catalog_filter();
    f.by_file_name = true;
    f.file_name = "F?";
    EXPECT_EQ(reference("1"), found(f));

    f = catalog_filter();
    f.by_owner = true;
    f.owner = "alice";
    EXPECT_EQ(reference("owner = 'alice'"), found(f));

    f = catalog_filter();
    f.by_since = true;
    f.since = 300;
    f.by_until = true;
    f.until = 600;
    EXPECT_EQ(reference("backup_start_time BETWEEN 300 AND 600"), found(f));
    EXPECT_EQ(4u, found(f).size());

    f = catalog_filter();
    f.by_expires_before = true;
    f.expires_before = 5005;
    // Row 3 has no application expiry (0) and no orvo expiry: never selected.
    EXPECT_EQ(reference("(backup_app_expire_time > 0 AND backup_app_expire_time < 5005) OR "
                        "(backup_orvo_expire_time > 0 AND backup_orvo_expire_time < 5005)"),
              found(f));
    EXPECT_EQ((std::vector<std::string>{"F1", "F2", "F4", "F5"}), found(f));
}

TEST_F(CatalogFilterQuery, CombinedConditionsSelectTheirIntersection) {
    catalog_filter f;
    f.by_backup_id = true;
    f.backup_id = "B*";
    f.by_owner = true;
    f.owner = "bob";
    f.by_since = true;
    f.since = 200;
    EXPECT_EQ((std::vector<std::string>{"F3", "F5", "F7", "F9"}), found(f));
    f.by_expires_before = true;
    f.expires_before = 5008;
    EXPECT_EQ((std::vector<std::string>{"F5", "F7"}), found(f));
}

TEST_F(CatalogFilterQuery, ABadRowChecksumFailsTheDatabaseAsCorrupt) {
    catt::spoil_row_crc(db_file("c1", "p1"), "F5");
    catalog_filter f;
    found(f, CR_STATUS_CORRUPT);
    EXPECT_NE(std::string::npos, log.dump().find("try_do_db_query: crc mismatch for app cat item 1|F5|"))
        << log.dump();
    EXPECT_TRUE(logged(dct::log_level::error, CR_STATUS_CORRUPT,
                       "find_catalog: failed to query " + make_filter_statement(f).sql + " for " +
                           root + "/application/2/c1/p1"))
        << log.dump();
}

TEST_F(CatalogFilterQuery, AMissingDatabaseHasNoItems) {
    std::vector<appdb::app_catalog_item> items;
    appdb::vector_item_sink sink(items);
    EXPECT_EQ(0u, app->find_catalog_filtered("", 1, "c9", "p9", make_filter_statement(catalog_filter()), sink));
    EXPECT_TRUE(items.empty());
}

TEST_F(CatalogFilterQuery, AnOrdinaryUserSeesOnlyTheRecordsTheAccessRuleGrants) {
    std::vector<appdb::app_catalog_item> items;
    appdb::vector_item_sink sink(items);
    EXPECT_EQ(0u, app->find_catalog_filtered("alice", 4, "c1", "p1", make_filter_statement(catalog_filter()),
                                             sink));
    std::set<std::string> owners;
    for (const auto& item : items) owners.insert(item.owner);
    EXPECT_EQ(std::set<std::string>{"alice"}, owners);
    EXPECT_EQ(4u, items.size());
}

TEST_F(CatalogFilterQuery, BadClientNamesAreRefused) {
    std::vector<appdb::app_catalog_item> items;
    appdb::vector_item_sink sink(items);
    EXPECT_EQ(4u, app->find_catalog_filtered("", 1, "..", "p1", make_filter_statement(catalog_filter()), sink));
}

}  // namespace
