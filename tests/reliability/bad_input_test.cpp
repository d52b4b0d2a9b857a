// Hostile input to the catalog library: item texts, field contents, query
// strings, client and policy names, damaged database and checksum files, and
// a very large tree. Each case ends in a clear status and log line, or in the
// exact row being stored and recovered; none may crash or hang.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "reliability_fixture.h"

namespace {

using appdb::app_catalog_item;

class BadItemTest : public shadowt::shadow_fixture {
protected:
    // Inserts through the protected catalog, loses the database file, and
    // recovers it; returns the recovery's status.
    cr_status_t store_lose_recover(const app_catalog_item& item, cr_status_t* insert_status) {
        *insert_status = app->update_catalog("alice", 4, item.to_string());
        restart_app();
        const std::string dir = pool.db_dir(2, item.client, item.policy);
        shadowt::delete_database(dir + "/app.db");
        return ctx->recover(dir, "appdb", 0);
    }
    std::map<std::string, std::string> rows(const std::string& client, cr_status_t* status) {
        return shadowt::read_back(*app, client, "pol", status);
    }
};

TEST_F(BadItemTest, EmptyItemTextIsRefused) {
    EXPECT_EQ(CR_STATUS_FAILED, app->update_catalog("alice", 4, ""));
    EXPECT_TRUE(log.contains(dct::log_level::error, CR_STATUS_FAILED,
                             "update_catalog: failed to generate app catalog item from string "));
}

TEST_F(BadItemTest, ItemTextWithTooFewFieldsIsRefused) {
    EXPECT_EQ(CR_STATUS_FAILED, app->update_catalog("alice", 4, "1|f|4096|bid|pol"));
    EXPECT_EQ(1u, log.count_containing("failed to generate app catalog item from string 1|f|4096|bid|pol"));
}

// A bar inside a field cannot travel in the line form: it ends the field,
// and every later field moves one place.
TEST_F(BadItemTest, BarInsideFieldShiftsTheFieldsAfterIt) {
    app_catalog_item item = catt::make_item("cli", "pol", "f|x", "bid");
    std::istringstream in(item.to_string());
    app_catalog_item read;
    ASSERT_TRUE(appdb::from_string(in, read));
    EXPECT_EQ("f", read.file_name);
    EXPECT_EQ(0u, read.file_len);  // "x" read as a number
}

// The plain catalog binds values, so any length is stored and read whole.
TEST_F(BadItemTest, MegabyteFieldIsStoredAndReadWholeByThePlainCatalog) {
    appdb::catalog_application_impl plain(3, pool.database_root(), 5);
    app_catalog_item item = catt::make_item("cli", "pol", "big", "bid");
    item.description = std::string(1 << 20, 'd');
    ASSERT_EQ(0u, plain.update_catalog("alice", 4, item.to_string()));
    std::vector<app_catalog_item> found;
    ASSERT_EQ(0u, plain.find_catalog("", 1, "backup_id|cli,pol,bid", found));
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(item.to_string(), found[0].to_string());
}

// The journal keeps each change as a literal statement formatted into a
// 3,072-byte buffer; a longer statement is cut. The insert itself is
// acknowledged, but the cut line cannot be replayed, so the database can
// no longer be rebuilt from its shadow.
TEST_F(BadItemTest, ItemWhoseStatementExceedsTheJournalBufferCannotBeRecovered) {
    app_catalog_item item = catt::make_item("cli", "pol", "long", "bid");
    item.description = std::string(5000, 'x');
    cr_status_t inserted = 1;
    EXPECT_EQ(CR_STATUS_FAILED, store_lose_recover(item, &inserted));
    EXPECT_EQ(0u, inserted);
    EXPECT_EQ(1u, log.count_containing("Failed to apply journal file"));
}

// An empty field and the largest item that still fits the journal line go
// through loss and recovery unchanged.
TEST_F(BadItemTest, EmptyFieldsAndLongestJournalledItemAreRecoveredExactly) {
    app_catalog_item item = catt::make_item("cli", "pol", "edge", "bid");
    item.description = std::string(2500, 'y');
    item.app_id.clear();
    item.data_object.clear();
    item.owner.clear();
    item.owner_role = 4;
    cr_status_t inserted = 1;
    ASSERT_EQ(0u, store_lose_recover(item, &inserted)) << log.dump();
    EXPECT_EQ(0u, inserted);
    cr_status_t status = 1;
    const auto found = rows("cli", &status);
    ASSERT_EQ(0u, status);
    ASSERT_EQ(1u, found.count("edge"));
    EXPECT_EQ(item.to_string(), found.at("edge"));
}

// Quotes, GLOB and LIKE metacharacters, a statement separator and a comment
// in every text field: the journal quotes them, so replay rebuilds the exact
// row; an exact query for such a backup id finds exactly it.
TEST_F(BadItemTest, QuotesAndPatternCharactersInEveryFieldSurviveRecovery) {
    const std::string nasty = "a'b\"c*d?e[f]g%h_i;--j\\k";
    app_catalog_item item = catt::make_item("cli", "pol", "name" + nasty, "bid" + nasty);
    for (std::string* f : {&item.app_id, &item.data_object, &item.owner, &item.description, &item.reserver0,
                           &item.reserver1, &item.reserver2, &item.reserver3, &item.reserver4, &item.reserver5,
                           &item.reserver6, &item.reserver7, &item.reserver8, &item.reserver9}) {
        *f = nasty;
    }
    item.owner = "alice";  // the reader's own item
    ASSERT_EQ(0u, app->update_catalog("alice", 4, catt::make_item("cli", "pol", "plain", "bidz").to_string()));
    cr_status_t inserted = 1;
    ASSERT_EQ(0u, store_lose_recover(item, &inserted)) << log.dump();
    ASSERT_EQ(0u, inserted);
    std::vector<app_catalog_item> found;
    ASSERT_EQ(0u, app->find_catalog("alice", 4, "backup_id|cli,pol,bid" + nasty, found)) << log.dump();
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(item.to_string(), found[0].to_string());
    // Pattern characters in a wildcard query are SQLite's GLOB: "[" opens a set.
    found.clear();
    EXPECT_EQ(0u, app->find_catalog("alice", 4, "backup_id|cli,pol,bida'b\"c[*]*", found));
    EXPECT_EQ(1u, found.size());
}

// Bytes that are not UTF-8 and a line break inside a field are stored as
// given and replayed exactly (the journal replays whole files, so a line
// break inside a quoted value does not split the statement).
TEST_F(BadItemTest, InvalidUtf8AndLineBreakInFieldsSurviveRecovery) {
    app_catalog_item item = catt::make_item("cli", "pol", "bytes\xff\xfe", "bid");
    item.description = "first line\nsecond \xc3\x28 line\r\n";
    cr_status_t inserted = 1;
    ASSERT_EQ(0u, store_lose_recover(item, &inserted)) << log.dump();
    ASSERT_EQ(0u, inserted);
    cr_status_t status = 1;
    const auto found = rows("cli", &status);
    ASSERT_EQ(0u, status);
    ASSERT_EQ(1u, found.count(item.file_name));
    EXPECT_EQ(item.to_string(), found.at(item.file_name));
}

// A NUL byte inside a field: the insert is acknowledged, but the row read
// back no longer matches its checksum, so every later query of that
// database reports corruption (67), and the automatic recovery, which
// replays a journal line whose text ends at the NUL, cannot repair it.
TEST_F(BadItemTest, NulByteInFieldLeavesTheDatabaseReadingAsCorrupt) {
    app_catalog_item item = catt::make_item("cli", "pol", "nul", "bid");
    item.description = std::string("be\0fore", 7);
    ASSERT_EQ(0u, app->update_catalog("alice", 4, item.to_string()));
    std::vector<app_catalog_item> found;
    EXPECT_EQ(CR_STATUS_CORRUPT, app->find_catalog("alice", 4, "backup_id|cli,pol,*", found)) << log.dump();
    EXPECT_TRUE(found.empty());
    EXPECT_EQ(1u, log.count_containing("find_catalog: db " + pool.db_dir(2, "cli", "pol") +
                                       " corrupt, to do recover from shadow"));
}

TEST_F(BadItemTest, QueryStringsWithMissingPartsAreRefused) {
    ASSERT_EQ(0u, app->update_catalog("alice", 4, catt::make_item("cli", "pol", "f", "bid").to_string()));
    for (const std::string& q : {std::string(""), std::string("backup_id|"), std::string("backup_id|cli"),
                                 std::string("backup_id|cli,pol"), std::string("name|cli;pol;f"),
                                 std::string("time_range|cli,pol,1"), std::string("nosuch|cli,pol,bid"),
                                 std::string("backup_id cli,pol,bid")}) {
        std::vector<app_catalog_item> found;
        log.clear();
        EXPECT_EQ(CR_STATUS_FAILED, app->find_catalog("alice", 4, q, found)) << q;
        EXPECT_TRUE(found.empty()) << q;
        EXPECT_EQ(1u, log.count_containing("find_catalog: failed to parse " + q)) << q << "\n" << log.dump();
    }
}

// Client and policy names become directory names below the data store.
TEST_F(BadItemTest, ClientWithSlashMakesADeeperDirectoryThatTheListingSkips) {
    ASSERT_EQ(0u, app->update_catalog("alice", 4, catt::make_item("a/b", "pol", "f", "bid").to_string()))
        << log.dump();
    EXPECT_TRUE(kt::file_exists(pool.database_root() + "/application/2/a/b/pol/app.db"));
    std::vector<app_catalog_item> found;
    EXPECT_EQ(0u, app->find_catalog("alice", 4, "backup_id|a/b,pol,bid", found));
    EXPECT_EQ(1u, found.size());
    // The listing takes DSID/a/b for client "a" and policy "b" (no database
    // there, nothing listed) and DSID/a/b/pol as one level too deep: the row
    // is not listed.
    const std::string out = relt::list_pool(pool.dbroot, tmp.file("out.txt"));
    EXPECT_EQ("[" + pool.database_root() + "/application/2/a/b]\ntotal app catalog 0\n\n", out);
}

// Names are not checked: ".." climbs out of the data store, so client and
// policy ".." put the database straight into DBROOT/databases.
TEST_F(BadItemTest, DotDotClientAndPolicyClimbOutOfTheApplicationTree) {
    ASSERT_EQ(0u, app->update_catalog("alice", 4, catt::make_item("..", "..", "f", "bid").to_string()));
    EXPECT_TRUE(kt::file_exists(pool.database_root() + "/app.db"));
    EXPECT_FALSE(kt::file_exists(pool.database_root() + "/application/2/app.db"));
    std::vector<app_catalog_item> found;
    EXPECT_EQ(0u, app->find_catalog("alice", 4, "backup_id|..,..,bid", found));
    EXPECT_EQ(1u, found.size());
}

// A name longer than the file system allows cannot be created: the insert
// fails with 4 and a query finds nothing; other databases are not disturbed.
TEST_F(BadItemTest, ClientOf4000CharactersIsRefusedByTheFileSystem) {
    const std::string client(4000, 'c');
    EXPECT_EQ(CR_STATUS_FAILED,
              app->update_catalog("alice", 4, catt::make_item(client, "pol", "f", "bid").to_string()));
    EXPECT_EQ(1u, log.count_containing("create_db: can't create folder: ")) << log.dump();
    std::vector<app_catalog_item> found;
    app->find_catalog("alice", 4, "backup_id|" + client + ",pol,bid", found);
    EXPECT_TRUE(found.empty());
    EXPECT_EQ(0u, app->update_catalog("alice", 4, catt::make_item("cli", "pol", "f", "bid").to_string()));
}

}  // namespace
