// A database file that holds no table at all (what a creation that failed
// half-way leaves: the file made, the table not) holds no rows. The next
// insert completes it with the table and index and goes on; queries and
// removals read it as empty without writing; a file holding anything else
// is left alone and reported as before. The backup never takes a table-less
// file as a version.
#include <sys/stat.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/catalog_application_base.h"
#include "appdb/catalog_table.h"
#include "catalog_shadow_fixture.h"
#include "catalog_test_helpers.h"
#include "common/test_util.h"
#include "dct/fs.h"

namespace {

using appdb::app_catalog_item;
using catt::make_item;
using dct::log_level;

std::string schema(const std::string& file) {
    return catt::raw_scalar(file, "SELECT group_concat(name, ',') FROM "
                                  "(SELECT name FROM sqlite_master ORDER BY name)");
}

off_t file_size(const std::string& file) {
    struct stat st;
    return stat(file.c_str(), &st) == 0 ? st.st_size : -1;
}

// The two table-less files a failed creation leaves: an empty file, and a
// database with a header but no schema object.
void make_empty_file(const std::string& file) { kt::write_file(file, ""); }
void make_schemaless_db(const std::string& file) {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(file.c_str(), &db));
    catt::raw_exec(db, "PRAGMA user_version = 7");
    sqlite3_close(db);
    ASSERT_GT(file_size(file), 0);
}

class Tableless : public catt::catalog_fixture {
protected:
    std::string dir() const { return root + "/application/2/c/p"; }
    std::string file() const { return db_file("c", "p"); }
    void SetUp() override {
        catt::catalog_fixture::SetUp();
        ASSERT_EQ(0, CreateTreeA(dir(), 0750));
    }
};

TEST_F(Tableless, EmptyFileIsCompletedByTheNextInsert) {
    make_empty_file(file());
    EXPECT_EQ(0u, app->update_catalog("alice", 4, make_item("c", "p", "f", "B1").to_string())) << log.dump();
    EXPECT_EQ("catalog,catalog_backupid,sqlite_autoindex_catalog_1", schema(file()));
    EXPECT_EQ(1u, log.count(log_level::info, 0,
                            "complete_db: app db " + file() + " holds no table, creating its catalog table"))
        << log.dump();
    std::vector<app_catalog_item> found;
    ASSERT_EQ(0u, app->find_catalog("alice", 4, "backup_id|c,p,B1", found));
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(make_item("c", "p", "f", "B1").to_string(), found[0].to_string());
}

TEST_F(Tableless, DatabaseWithoutSchemaIsCompletedByTheNextInsert) {
    make_schemaless_db(file());
    EXPECT_EQ(0u, app->update_catalog("alice", 4, make_item("c", "p", "f", "B1").to_string())) << log.dump();
    EXPECT_EQ("catalog,catalog_backupid,sqlite_autoindex_catalog_1", schema(file()));
    EXPECT_EQ(1, catt::raw_count(file()));
}

// A connection already open on the file (cached before the file lost its
// table) completes it too, at the insert's prepare.
TEST_F(Tableless, CachedConnectionCompletesTheFileAtTheInsert) {
    make_empty_file(file());
    std::vector<app_catalog_item> found;
    ASSERT_EQ(0u, app->find_catalog("alice", 4, "backup_id|c,p,*", found));  // opens and caches
    std::string sql;
    EXPECT_EQ(0u, app->do_db_insert(make_item("c", "p", "f", "B1"), sql)) << log.dump();
    EXPECT_EQ(1, catt::raw_count(file()));
}

// Queries and removals do not write: the file reads as holding no rows.
TEST_F(Tableless, QueriesAndRemovalsReadItAsEmptyAndLeaveItAsItIs) {
    make_empty_file(file());
    std::vector<app_catalog_item> found;
    EXPECT_EQ(0u, app->find_catalog("alice", 4, "backup_id|c,p,*", found)) << log.dump();
    EXPECT_TRUE(found.empty());
    EXPECT_EQ(72u, app->del_catalog("alice", 4, "name|c,p,f"));
    EXPECT_EQ(0u, app->expire_catalog("alice", 4, "c", "p", "B_C1_HDR", true));
    std::string sql;
    EXPECT_EQ(0u, app->do_db_delete_by_backup_id("c", "p", "B", sql)) << log.dump();
    EXPECT_EQ(0, file_size(file()));
    EXPECT_EQ(0u, log.count_containing("failed to prepare")) << log.dump();
}

// A file with some other table is not this catalog's to repair: the insert
// fails as before, and the file keeps exactly what it had.
TEST_F(Tableless, FileWithAnotherTableIsLeftAloneAndReported) {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(file().c_str(), &db));
    catt::raw_exec(db, "CREATE TABLE other (x INTEGER)");
    sqlite3_close(db);
    EXPECT_EQ(4u, app->update_catalog("alice", 4, make_item("c", "p", "f", "B1").to_string()));
    EXPECT_TRUE(log.contains(log_level::error, 4,
                             "try_do_db_insert: DB[" + file() + "] failed to prepare [" + std::string(appdb::catalog_insert_sql()) +
                                 "] (1, SQL logic error)."))
        << log.dump();
    EXPECT_EQ("other", schema(file()));
    EXPECT_EQ(0u, log.count_containing("holds no table"));
    std::vector<app_catalog_item> found;
    EXPECT_EQ(4u, app->find_catalog("alice", 4, "backup_id|c,p,*", found));
}

// ---- the protected catalog and the backup ----

class ShadowTableless : public shadowt::shadow_fixture {};

// A table-less file without a shadow: the insert completes it and takes its
// first copy as of a new database, so a later loss is recovered with the
// table and the row.
TEST_F(ShadowTableless, CompletedFileIsCopiedAndRecoveredWithItsTable) {
    ASSERT_EQ(0, CreateTreeA(db_dir("c", "p"), 0750));
    make_empty_file(db_file("c", "p"));
    insert(make_item("c", "p", "f", "B1"));
    EXPECT_TRUE(log.contains(log_level::info, 0, "shadow_protected_db_insert: new created db " + db_dir("c", "p")))
        << log.dump();
    ASSERT_EQ(1u, shadowt::shadow_versions(shadow_dir("c", "p")).size());
    restart_app();
    shadowt::delete_database(db_file("c", "p"));
    ASSERT_EQ(0u, ctx->recover(db_dir("c", "p"), "appdb", 0)) << log.dump();
    EXPECT_EQ("catalog,catalog_backupid,sqlite_autoindex_catalog_1", schema(db_file("c", "p")));
    EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "c", "p")));
}

TEST_F(ShadowTableless, BackupNeverTakesATablelessFileAsAVersion) {
    for (auto make : {make_empty_file, make_schemaless_db}) {
        const std::string client = make == make_empty_file ? "e" : "s";
        ASSERT_EQ(0, CreateTreeA(db_dir(client, "p"), 0750));
        make(db_file(client, "p"));
        log.clear();
        EXPECT_EQ(4u, ctx->backup(db_dir(client, "p"), "appdb"));
        EXPECT_EQ(1u, log.count(log_level::error, 4,
                                "backup_unlocked: " + db_file(client, "p") +
                                    " holds no table; it is not taken as a shadow version."))
            << log.dump();
        EXPECT_TRUE(shadowt::shadow_versions(shadow_dir(client, "p")).empty());
        // No copy is left behind in the shadow directory.
        for (const std::string& name : kt::list_dir(shadow_dir(client, "p"))) {
            EXPECT_EQ(std::string::npos, name.find(".tmp")) << name;
        }
    }
}

}  // namespace
