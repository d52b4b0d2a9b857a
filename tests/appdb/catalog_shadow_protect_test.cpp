// The shadow-protected catalog in normal operation: the factory's type 2, the
// first shadow copy of a new database, one journal line per change and none
// for a read, the messages that differ from the plain catalog, and a database
// made without protection that gets its first copy on its next insert.
#include <map>
#include <random>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "catalog_shadow_fixture.h"

namespace {

using appdb::app_catalog_item;
using catt::make_item;
using dct::log_level;
using shadowt::journal_lines;
using shadowt::shadow_versions;

class ShadowProtect : public shadowt::shadow_fixture {};

std::vector<std::string> journal_text_lines(const std::string& shadow_dir) {
    std::vector<std::string> out;
    for (const std::string& name : kt::list_dir(shadow_dir)) {
        if (name.size() < 8 || name.compare(name.size() - 8, 8, ".journal") != 0) continue;
        std::string text = kt::read_file(shadow_dir + "/" + name);
        size_t start = 0;
        for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1) {
            out.push_back(text.substr(start, nl - start));
        }
    }
    return out;
}

TEST_F(ShadowProtect, FactoryTypeTwoBuildsTheShadowApplicationAroundTheCallersContext) {
    appdb::catalog_application_impl_shadow* shadow = shadow_app();
    ASSERT_NE(nullptr, shadow);
    EXPECT_EQ(ctx.get(), shadow->shadow_ctx);
    ASSERT_NE(nullptr, shadow->dir_lock);
    EXPECT_EQ("appdb", shadow->db_type);
    EXPECT_EQ(pool.database_root() + "/application/2", shadow->app_root);

    insert(make_item("c", "p", "f1", "c_1"));
    // Destroying the application leaves the context working.
    app.reset();
    EXPECT_TRUE(ctx->has_shadow_copy(db_dir("c", "p"), "appdb"));
}

TEST_F(ShadowProtect, ANewDatabaseGetsAShadowCopyOfItsEmptySchemaBeforeTheFirstRow) {
    EXPECT_FALSE(shadow_app()->shadow_copy_exist("c", "p"));
    insert(make_item("c", "p", "f1", "c_1"));

    const std::string dir = db_dir("c", "p");
    EXPECT_TRUE(log.contains(log_level::info, 0, "shadow_protected_db_insert: new created db " + dir));
    EXPECT_TRUE(log.contains(log_level::info, 0, "backup_shadow: create shadow file for db " + dir));
    const std::vector<std::string> versions = shadow_versions(shadow_dir("c", "p"));
    ASSERT_EQ(1u, versions.size()) << log.dump();
    // The copy holds the schema and no row: the row reached the shadow
    // through the journal.
    const std::string copy = shadow_dir("c", "p") + "/" + versions[0];
    EXPECT_EQ(0, catt::raw_count(copy));
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p")));
    EXPECT_EQ(1u, journal_lines(shadow_dir("c", "p")));
    EXPECT_TRUE(shadow_app()->shadow_copy_exist("c", "p"));

    // Further inserts neither create nor copy again.
    log.clear();
    insert(make_item("c", "p", "f2", "c_1"));
    EXPECT_EQ(0u, log.count_containing("new created db"));
    EXPECT_EQ(0u, log.count_containing("create shadow file"));
    EXPECT_EQ(1u, shadow_versions(shadow_dir("c", "p")).size());
}

TEST_F(ShadowProtect, EveryInsertIsJournaledAsItsInsertStatementInOrder) {
    for (int i = 0; i < 5; ++i) insert(make_item("c", "p", "f" + std::to_string(i), "c_1"));
    const std::vector<std::string> lines = journal_text_lines(shadow_dir("c", "p"));
    ASSERT_EQ(5u, lines.size());
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(0u, lines[i].find("INSERT INTO catalog VALUES (")) << lines[i];
        EXPECT_NE(std::string::npos, lines[i].find("'f" + std::to_string(i) + "'")) << lines[i];
        EXPECT_EQ(';', lines[i].back());
    }
}

TEST_F(ShadowProtect, TheJournalReplayedOntoTheCopyGivesTheDatabase) {
    for (int i = 0; i < 30; ++i) {
        insert(make_item("c", "p", "f" + std::to_string(i), "c_" + std::to_string(i / 10)));
    }
    ASSERT_EQ(0u, app->expire_catalog("admin", 1, "c", "p", "c_1_C1_HDR", true));
    ASSERT_EQ(0u, app->del_catalog("admin", 1, "name|c,p,f25"));

    const std::string copy = shadow_dir("c", "p") + "/" + shadow_versions(shadow_dir("c", "p"))[0];
    sqlite3* db = catt::raw_open(copy);
    ASSERT_NE(nullptr, db);
    for (const std::string& line : journal_text_lines(shadow_dir("c", "p"))) catt::raw_exec(db, line);
    sqlite3_close(db);

    const std::vector<catt::raw_row> replayed = catt::raw_rows(copy);
    const std::vector<catt::raw_row> live = catt::raw_rows(db_file("c", "p"));
    ASSERT_EQ(19u, live.size());
    ASSERT_EQ(live.size(), replayed.size());
    for (size_t i = 0; i < live.size(); ++i) {
        EXPECT_EQ(live[i].name, replayed[i].name);
        // Bound as a signed 32-bit value, written as unsigned in the journal:
        // both read back as the same 32 bits.
        EXPECT_EQ(static_cast<uint32_t>(live[i].crc), static_cast<uint32_t>(replayed[i].crc));
        EXPECT_EQ(live[i].description, replayed[i].description);
    }
}

TEST_F(ShadowProtect, ExpiringWritesExactlyOneJournalEntryAndAFindWritesNone) {
    for (int i = 0; i < 4; ++i) insert(make_item("c", "p", "f" + std::to_string(i), "c_7"));
    insert(make_item("c", "p", "g", "c_8"));
    const std::string sdir = shadow_dir("c", "p");
    ASSERT_EQ(5u, journal_lines(sdir));

    std::vector<app_catalog_item> items;
    ASSERT_EQ(0u, app->find_catalog("admin", 1, "backup_id|c,p,c_7", items));
    ASSERT_EQ(4u, items.size());
    std::string text;
    ASSERT_EQ(0u, app->find_catalog("admin", 1, "name|c,p,g", text));
    app_catalog_item one;
    ASSERT_EQ(0u, app->find_by_image_name("c", "p", "c_7_C1_HDR", one, true));
    ASSERT_EQ(0u, app->find_by_file_name("c", "p", "g", one, false));
    EXPECT_EQ(5u, journal_lines(sdir));

    ASSERT_EQ(0u, app->expire_catalog("admin", 1, "c", "p", "c_7_C1_HDR", true));
    EXPECT_EQ(6u, journal_lines(sdir));
    const std::vector<std::string> lines = journal_text_lines(sdir);
    EXPECT_EQ("DELETE FROM catalog WHERE backupid = ('c_7');", lines.back());
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p")));
}

TEST_F(ShadowProtect, ExpiringWithoutEffectWritesNoJournalEntry) {
    insert(make_item("c", "p", "f", "c_7"));
    const std::string sdir = shadow_dir("c", "p");
    // Not a header image, a backup without records, and an unparsable name.
    EXPECT_EQ(0u, app->expire_catalog("admin", 1, "c", "p", "c_7_C1_F1", true));
    EXPECT_EQ(0u, app->expire_catalog("admin", 1, "c", "p", "c_9_C1_HDR", true));
    EXPECT_EQ(0u, app->expire_catalog("admin", 1, "c", "p", "c_9_HDR", true));
    EXPECT_EQ(1u, journal_lines(sdir));
}

TEST_F(ShadowProtect, DeletingByNameJournalsTheDelete) {
    insert(make_item("c", "p", "it's", "c_1"));
    insert(make_item("c", "p", "other", "c_1"));
    ASSERT_EQ(0u, app->del_catalog("admin", 1, "name|c,p,it's"));
    const std::vector<std::string> lines = journal_text_lines(shadow_dir("c", "p"));
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ("DELETE FROM catalog WHERE name = ('it''s');", lines.back());
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p")));

    // A refused or failing delete journals nothing.
    EXPECT_EQ(72u, app->del_catalog("admin", 1, "name|c,p,missing"));
    EXPECT_EQ(4u, app->del_catalog("admin", 1, "backup_id|c,p,c_1"));
    EXPECT_TRUE(log.contains(log_level::error, 4, "del_catalog: unsupported query type 3 from backup_id|c,p,c_1"));
    EXPECT_EQ(3u, journal_lines(shadow_dir("c", "p")));
}

TEST_F(ShadowProtect, ExpireDenialHasNoBlankBeforeTheCommaAndDeleteDenialKeepsIt) {
    insert(make_item("c", "p", "f", "c_1", 100, "alice", 4));
    EXPECT_EQ(106u, app->expire_catalog("bob", 4, "c", "p", "c_1_C1_HDR", true));
    EXPECT_TRUE(log.contains(log_level::error, 106, "expire_catalog: authenticate failed for user bob, app owner alice"))
        << log.dump();
    EXPECT_EQ(106u, app->del_catalog("bob", 4, "name|c,p,f"));
    EXPECT_TRUE(log.contains(log_level::error, 106, "del_catalog: authenticate failed for user bob , app owner alice"))
        << log.dump();
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p")));
    EXPECT_EQ(1u, journal_lines(shadow_dir("c", "p")));
}

TEST_F(ShadowProtect, ShadowCopyExistTracesWhatItFinds) {
    insert(make_item("c", "p", "f", "c_1"));
    kt::TraceSwitch trace(true);
    log.clear();
    EXPECT_TRUE(shadow_app()->shadow_copy_exist("c", "p"));
    EXPECT_FALSE(shadow_app()->shadow_copy_exist("c", "q"));
    EXPECT_TRUE(log.contains(log_level::trace, CR_STATUS_NONE, "shadow_copy_exist: app db shadow found for c c p p"));
    EXPECT_TRUE(log.contains(log_level::trace, CR_STATUS_NONE, "shadow_copy_exist: no app db shadow copy for c c p q"));
}

TEST_F(ShadowProtect, InsertTracesAndJournalTraceNameThePathAndStatement) {
    kt::TraceSwitch trace(true);
    insert(make_item("c", "p", "f", "c_1"));
    EXPECT_TRUE(log.contains(log_level::trace, CR_STATUS_NONE, "do_db_insert: insert db success for f"));
    EXPECT_EQ(1u, log.count_containing("write_journal: write app db journal " + db_dir("c", "p") +
                                       " INSERT INTO catalog VALUES ("));
    // A successful insert asks nothing about recovery.
    EXPECT_EQ(0u, log.count_containing("need recover"));
}

TEST_F(ShadowProtect, TextFindIsThePlainOne) {
    std::string text = "stale";
    ASSERT_EQ(0u, app->find_catalog("admin", 1, "name|c,p,none", text));
    EXPECT_EQ("", text);
    const app_catalog_item a = make_item("c", "p", "a", "c_1", 100);
    const app_catalog_item b = make_item("c", "p", "b", "c_1", 200);
    insert(a);
    insert(b);
    ASSERT_EQ(0u, app->find_catalog("admin", 1, "backup_id|c,p,c_1", text));
    app_catalog_item a2 = a, b2 = b;
    EXPECT_EQ(appdb::catalog_application_base::to_string({a2, b2}), text);
    // A role-4 reader sees its own records only.
    const app_catalog_item mine = make_item("c", "p", "m", "c_2", 100, "carol", 4);
    insert(mine);
    std::vector<app_catalog_item> items;
    ASSERT_EQ(0u, app->find_catalog("carol", 4, "name|c,p,*", items));
    ASSERT_EQ(1u, items.size());
    EXPECT_EQ("m", items[0].file_name);
}

TEST_F(ShadowProtect, UnparsableItemCreatesNothing) {
    EXPECT_EQ(4u, app->update_catalog("admin", 1, "not an item"));
    EXPECT_FALSE(kt::file_exists(db_dir("c", "p")));
    EXPECT_EQ(0u, log.count_containing("create shadow file"));
}

TEST_F(ShadowProtect, CloseDbClosesTheCachedConnection) {
    insert(make_item("c", "p", "f", "c_1"));
    EXPECT_EQ(1, catt::open_fds_on(db_file("c", "p")));
    EXPECT_EQ(0u, app->close_db(db_dir("c", "p"), 0, true));
    EXPECT_EQ(0, catt::open_fds_on(db_file("c", "p")));
    EXPECT_EQ(4u, app->close_db("nodirs", 0, false));
}

TEST_F(ShadowProtect, ADatabaseMadeWithoutProtectionGetsItsFirstCopyOnItsNextInsert) {
    // A plain catalog made the database and two rows.
    std::unique_ptr<appdb::catalog_application> plain(appdb::catalog_application_factory::create_catalog(
        2, pool.database_root(), appdb::APP_D_CATALOG, nullptr, 5));
    ASSERT_NE(nullptr, plain);
    for (const char* name : {"old1", "old2"}) {
        const app_catalog_item item = make_item("c", "p", name, "c_1");
        ASSERT_EQ(0u, plain->update_catalog("admin", 1, item.to_string()));
        model.insert(item);
    }
    plain.reset();
    log.clear();

    insert(make_item("c", "p", "new", "c_2"));
    const std::string file = db_file("c", "p");
    EXPECT_TRUE(log.contains(log_level::warning, 0, "need_create_db: app db " + file + " no shadow but db exist"));
    EXPECT_TRUE(log.contains(log_level::info, 0,
                             "shadow_protected_db_insert: app db " + db_dir("c", "p") + " has no shadow copy, take one"));
    ASSERT_EQ(1u, shadow_versions(shadow_dir("c", "p")).size());
    EXPECT_EQ(1u, journal_lines(shadow_dir("c", "p")));

    // From now on it is protected like any other.
    restart_app();
    shadowt::delete_database(file);
    EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "c", "p"))) << log.dump();
}

TEST_F(ShadowProtect, ADamagedDatabaseWithoutAShadowIsCopiedOnlyOnce) {
    std::unique_ptr<appdb::catalog_application> plain(appdb::catalog_application_factory::create_catalog(
        2, pool.database_root(), appdb::APP_D_CATALOG, nullptr, 5));
    ASSERT_EQ(0u, plain->update_catalog("admin", 1, make_item("c", "p", "old", "c_1").to_string()));
    plain.reset();
    std::mt19937 rng(4);
    shadowt::damage_header(db_file("c", "p"), rng);
    log.clear();
    for (int i = 0; i < 3; ++i) {
        EXPECT_NE(0u, app->update_catalog("admin", 1, make_item("c", "p", "f" + std::to_string(i), "c_1").to_string()));
    }
    EXPECT_EQ(1u, log.count_containing("has no shadow copy, take one")) << log.dump();
    EXPECT_EQ(1u, log.count_containing("backup_shadow: create shadow file for db"));
    EXPECT_EQ(1u, log.count_containing("backup_shadow: failed to backup app shadow file for " + db_dir("c", "p")));
    EXPECT_TRUE(shadow_versions(shadow_dir("c", "p")).empty());
}

}  // namespace
