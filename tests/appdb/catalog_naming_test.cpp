// Database naming, creation, opening and the image-name rules of
// catalog_application_base.
#include <sys/stat.h>

#include <atomic>
#include <string>

#include <gtest/gtest.h>

#include "appdb/catalog_application_impl.h"
#include "appdb/catalog_table.h"
#include "catalog_test_helpers.h"
#include "common/test_util.h"
#include "dct/fault.h"
#include "dct/fs.h"

namespace {

using appdb::app_catalog_item;
using dct::log_level;

class CatalogNaming : public catt::catalog_fixture {};

// Counts (and optionally fails) directory creations through the fault seam.
class createtree_probe {
public:
    explicit createtree_probe(int fail_with = 0) {
        dct::set_fault_hook([this, fail_with](dct::fault_op op, const char*) {
            if (op != dct::fault_op::createtree) return 0;
            ++calls;
            return fail_with;
        });
    }
    ~createtree_probe() { dct::set_fault_hook(nullptr); }
    std::atomic<int> calls{0};
};

// A catalog that claims a shadow copy for every database.
class shadowed_catalog : public appdb::catalog_application_impl {
public:
    using catalog_application_impl::catalog_application_impl;
    bool shadow_copy_exist(const std::string&, const std::string&) override { return true; }
};

TEST_F(CatalogNaming, PathsAreRootClientPolicyAndAppDb) {
    EXPECT_EQ(root + "/application/2/c1/p1", app->to_db_full_path("c1", "p1"));
    EXPECT_EQ(root + "/application/2/c1/p1/app.db", app->to_db_full_name("c1", "p1"));
    // Used exactly as given: no folding, no escaping.
    EXPECT_EQ(root + "/application/2/A B/../x", app->to_db_full_path("A B", "../x"));
    EXPECT_EQ("Some Name", app->to_primary_name("Some Name"));
}

TEST_F(CatalogNaming, HeaderImageGivesItsBackupId) {
    std::string bid;
    EXPECT_TRUE(app->is_HDR_image("clientA_1700000000_C1_HDR", bid));
    EXPECT_EQ("clientA_1700000000", bid);
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(CatalogNaming, NonHeaderImageIsNoErrorAndLeavesBackupIdAlone) {
    kt::TraceSwitch trace(true);
    std::string bid = "untouched";
    EXPECT_FALSE(app->is_HDR_image("clientA_1700000000_C1_F1", bid));
    EXPECT_EQ("untouched", bid);
    const auto records = log.records();
    ASSERT_EQ(1u, records.size()) << log.dump();
    EXPECT_EQ(log_level::trace, records[0].level);
    EXPECT_EQ("is_HDR_image: not HDR image clientA_1700000000_C1_F1", records[0].message);
}

TEST_F(CatalogNaming, ImageWithoutCopyMarkerIsAnError) {
    std::string bid;
    EXPECT_FALSE(app->is_HDR_image("clientA_1700000000_HDR", bid));
    EXPECT_TRUE(logged(log_level::error, CR_STATUS_NONE,
                       "is_HDR_image: wrong image name clientA_1700000000_HDR format"))
        << log.dump();
}

TEST_F(CatalogNaming, LastCopyMarkerCounts) {
    std::string bid;
    EXPECT_TRUE(app->is_HDR_image("a_Cb_C1_HDR", bid));
    EXPECT_EQ("a_Cb", bid);
    // "_HDR" before the last "_C" does not count.
    EXPECT_FALSE(app->is_HDR_image("a_HDR_C1_F1", bid));
}

TEST_F(CatalogNaming, BackupIdOfANormalObjectNameIsBeforeTheLastCopyMarker) {
    std::string bid;
    EXPECT_TRUE(app->from_po_name_to_bid("cl", "p", "cl_1700000000_C1_F3", bid));
    EXPECT_EQ("cl_1700000000", bid);
    EXPECT_TRUE(app->from_po_name_to_bid("cl", "p", "x_Cy_C2_HDR", bid));
    EXPECT_EQ("x_Cy", bid);
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(CatalogNaming, BackupIdOfAnEventNameIsClientAndTimePart) {
    kt::TraceSwitch trace(true);
    std::string bid;
    EXPECT_TRUE(app->from_po_name_to_bid("cl", "p", "EVENT_x_1700000000_y", bid));
    EXPECT_EQ("cl_1700000000", bid);
    EXPECT_TRUE(traced("from_po_name_to_bid: not normal image name EVENT_x_1700000000_y format"))
        << log.dump();
    // No second underscore after the time part: the rest of the name.
    EXPECT_TRUE(app->from_po_name_to_bid("cl", "p", "EVENT_x_1700000000", bid));
    EXPECT_EQ("cl_1700000000", bid);
    // "EVENT_" need not start the name.
    EXPECT_TRUE(app->from_po_name_to_bid("cl", "p", "preEVENT_a_b_c", bid));
    EXPECT_EQ("cl_b", bid);
}

TEST_F(CatalogNaming, UnknownObjectNameIsAnError) {
    std::string bid = "keep";
    EXPECT_FALSE(app->from_po_name_to_bid("cl", "p", "plainname", bid));
    EXPECT_FALSE(app->from_po_name_to_bid("cl", "p", "EVENT_nounderscore", bid));
    EXPECT_EQ("keep", bid);
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE,
                            "from_po_name_to_bid: unknown po name plainname"));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE,
                            "from_po_name_to_bid: unknown po name EVENT_nounderscore"));
}

TEST_F(CatalogNaming, DbExistedTracesNameAndAbsence) {
    kt::TraceSwitch trace(true);
    const std::string name = db_file("c", "p");
    EXPECT_FALSE(app->db_existed("c", "p"));
    EXPECT_TRUE(traced("db_existed: app db name " + name));
    EXPECT_TRUE(traced("db_existed: no " + name));
    ASSERT_EQ(0u, app->create_db("c", "p"));
    log.clear();
    EXPECT_TRUE(app->db_existed("c", "p"));
    EXPECT_EQ(0u, log.count_containing("db_existed: no "));
}

TEST_F(CatalogNaming, CreateDbMakesDirectoryTableAndIndex) {
    createtree_probe probe;
    ASSERT_EQ(0u, app->create_db("c1", "p1"));
    EXPECT_EQ(1, probe.calls.load());
    struct stat st;
    ASSERT_EQ(0, stat(app->to_db_full_path("c1", "p1").c_str(), &st));
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(0750u, st.st_mode & 0777);
    const std::string file = db_file("c1", "p1");
    EXPECT_EQ(appdb::catalog_create_table_sql(),
              catt::raw_scalar(file, "SELECT sql FROM sqlite_master WHERE type='table' AND name='catalog'"));
    EXPECT_EQ("CREATE INDEX catalog_backupid ON catalog(backupid)",
              catt::raw_scalar(file, "SELECT sql FROM sqlite_master WHERE type='index' AND "
                                     "name='catalog_backupid'"));
    EXPECT_EQ("0", catt::raw_scalar(file, "SELECT count(*) FROM catalog"));
    // 28 columns, crc last.
    EXPECT_EQ("28", catt::raw_scalar(file, "SELECT count(*) FROM pragma_table_info('catalog')"));
    EXPECT_EQ("crc", catt::raw_scalar(file, "SELECT name FROM pragma_table_info('catalog') WHERE cid=27"));
    EXPECT_EQ("name", catt::raw_scalar(file, "SELECT name FROM pragma_table_info('catalog') WHERE pk=1"));
    EXPECT_EQ(0, catt::open_fds_on(file));  // closed again
}

TEST_F(CatalogNaming, CreateTableTextKeepsItsRunsOfFiveBlanks) {
    const std::string text = appdb::catalog_create_table_sql();
    EXPECT_EQ(0u, text.find("CREATE TABLE catalog (version INTEGER,     name TEXT PRIMARY KEY,     "));
    EXPECT_NE(std::string::npos, text.find(",     reserver9 TEXT,     crc INTEGER)"));
    size_t runs = 0;
    for (size_t pos = 0; (pos = text.find(",     ", pos)) != std::string::npos; ++pos) ++runs;
    EXPECT_EQ(27u, runs);
}

TEST_F(CatalogNaming, CreateDbInAnExistingDirectoryMakesNoDirectory) {
    ASSERT_EQ(0, wa_createtree(app->to_db_full_path("c", "p"), 0700));
    createtree_probe probe;
    ASSERT_EQ(0u, app->create_db("c", "p"));
    EXPECT_EQ(0, probe.calls.load());
    EXPECT_TRUE(kt::file_exists(db_file("c", "p")));
}

TEST_F(CatalogNaming, CreateDbReportsAFolderThatCannotBeMade) {
    createtree_probe probe(EACCES);
    EXPECT_EQ(4u, app->create_db("c", "p"));
    EXPECT_TRUE(logged(log_level::error, 4,
                       "create_db: can't create folder: " + app->to_db_full_path("c", "p")))
        << log.dump();
    EXPECT_FALSE(kt::file_exists(app->to_db_full_path("c", "p")));
}

TEST_F(CatalogNaming, CreateDbThatCannotOpenReportsTheMappedCode) {
    // A directory where the file should be: SQLite cannot open it.
    ASSERT_EQ(0, wa_createtree(db_file("c", "p"), 0700));
    const cr_status_t st = app->create_db("c", "p");
    EXPECT_EQ(21u, st);
    EXPECT_EQ(1u, log.count_containing("create_db: could not open db " + db_file("c", "p") + ", ("))
        << log.dump();
}

TEST_F(CatalogNaming, CreateDbOnAForeignFileLeavesItAndSkipsTheIndex) {
    ASSERT_EQ(0, wa_createtree(app->to_db_full_path("c", "p"), 0700));
    const std::string garbage(4096, 'g');
    kt::write_file(db_file("c", "p"), garbage);
    EXPECT_EQ(67u, app->create_db("c", "p"));
    EXPECT_TRUE(logged(log_level::error, 67,
                       "create_db: " + db_file("c", "p") + ": failed to execute \"" +
                           appdb::catalog_create_table_sql() + "\", (26, file is not a database)"))
        << log.dump();
    EXPECT_EQ(0u, log.count_containing("CREATE INDEX"));
    EXPECT_EQ(garbage, kt::read_file(db_file("c", "p")));  // neither deleted nor repaired
    EXPECT_EQ(0, catt::open_fds_on(db_file("c", "p")));
}

TEST_F(CatalogNaming, CreateDbOverAnExistingTableFails) {
    ASSERT_EQ(0u, app->create_db("c", "p"));
    EXPECT_EQ(4u, app->create_db("c", "p"));
    EXPECT_TRUE(logged(log_level::error, 4,
                       "create_db: " + db_file("c", "p") + ": failed to execute \"" +
                           appdb::catalog_create_table_sql() + "\", (1, table catalog already exists)"))
        << log.dump();
}

TEST_F(CatalogNaming, NeedCreateDbCreatesAMissingDatabase) {
    const app_catalog_item item = catt::make_item("c", "p", "f", "b");
    bool created = false;
    ASSERT_EQ(0u, app->need_create_db(item, created));
    EXPECT_TRUE(created);
    const std::string name = db_file("c", "p");
    EXPECT_TRUE(kt::file_exists(name));
    const auto records = log.records();
    ASSERT_EQ(2u, records.size()) << log.dump();
    EXPECT_EQ("need_create_db: app db " + name + " shadow doesn't exist", records[0].message);
    EXPECT_EQ(log_level::info, records[0].level);
    EXPECT_EQ("need_create_db: app db " + name + " doesn't exist, going to create it",
              records[1].message);
    EXPECT_EQ(log_level::info, records[1].level);

    log.clear();
    created = true;
    ASSERT_EQ(0u, app->need_create_db(item, created));
    EXPECT_FALSE(created);
    EXPECT_TRUE(logged(log_level::warning, 0, "need_create_db: app db " + name + " no shadow but db exist"))
        << log.dump();
}

TEST_F(CatalogNaming, NeedCreateDbReportsACreateFailure) {
    createtree_probe probe(EACCES);
    bool created = true;
    EXPECT_EQ(4u, app->need_create_db(catt::make_item("c", "p", "f", "b"), created));
    EXPECT_FALSE(created);
    EXPECT_TRUE(logged(log_level::error, 4, "need_create_db: failed to create db file 4")) << log.dump();
}

TEST_F(CatalogNaming, NeedCreateDbNeverCreatesWhenAShadowExists) {
    shadowed_catalog shadowed(2, root, 5);
    log.clear();
    bool created = true;
    ASSERT_EQ(0u, shadowed.need_create_db(catt::make_item("c", "p", "f", "b"), created));
    EXPECT_FALSE(created);
    EXPECT_FALSE(kt::file_exists(db_file("c", "p")));
    EXPECT_FALSE(kt::file_exists(root));
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(CatalogNaming, OpenDbNeverCreatesAFile) {
    std::unique_ptr<appdb::catalog_store> db = appdb::catalog_store::adopt(nullptr, "");
    EXPECT_EQ(21u, app->open_db("c", "p", &db));
    EXPECT_EQ(nullptr, db);
    EXPECT_FALSE(kt::file_exists(db_file("c", "p")));
    EXPECT_TRUE(logged(log_level::error, 21,
                       "open_db: could not open db " + db_file("c", "p") +
                           ",(14, unable to open database file)"))
        << log.dump();
    // Also not when the directory exists.
    ASSERT_EQ(0, wa_createtree(app->to_db_full_path("c", "p"), 0700));
    EXPECT_EQ(21u, app->open_db("c", "p", &db));
    EXPECT_FALSE(kt::file_exists(db_file("c", "p")));
}

TEST_F(CatalogNaming, OpenDbOpensAnExistingDatabaseWithExtendedCodes) {
    ASSERT_EQ(0u, app->create_db("c", "p"));
    std::unique_ptr<appdb::catalog_store> store;
    ASSERT_EQ(0u, app->open_db("c", "p", &store));
    ASSERT_NE(nullptr, store);
    EXPECT_EQ(db_file("c", "p"), store->file());
    sqlite3* db = store->connection();
    // Extended codes are on: a primary-key violation reports 1555, not 19.
    const std::string ins = "INSERT INTO catalog(name) VALUES('x')";
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, ins.c_str(), nullptr, nullptr, nullptr));
    EXPECT_EQ(SQLITE_CONSTRAINT_PRIMARYKEY, sqlite3_exec(db, ins.c_str(), nullptr, nullptr, nullptr));
}

TEST_F(CatalogNaming, OpenWithCacheOpensOnceAndThenBorrows) {
    ASSERT_EQ(0u, app->create_db("c", "p"));
    const std::string key = app->to_db_full_path("c", "p");
    log.clear();
    appdb::appdb_value* v = nullptr;
    ASSERT_EQ(0u, app->open_db_with_cached("c", "p", &v));
    ASSERT_NE(nullptr, v);
    EXPECT_EQ(1u, log.count(log_level::info, 0, "open_db_with_cached: found no cache for " + key));
    appdb::catalog_store* first = v->store.get();
    ASSERT_TRUE(app->cache->return_db(key, v));
    log.clear();
    ASSERT_EQ(0u, app->open_db_with_cached("c", "p", &v));
    EXPECT_EQ(first, v->store.get());
    EXPECT_EQ(0u, log.count_containing("found no cache"));
    EXPECT_EQ(1, catt::open_fds_on(db_file("c", "p")));

    // While borrowed, a second borrow is refused (the cache keeps one borrower).
    appdb::appdb_value* second = nullptr;
    EXPECT_EQ(4u, app->open_db_with_cached("c", "p", &second));
    EXPECT_EQ(nullptr, second);
    EXPECT_TRUE(logged(log_level::error, 4,
                       "open_db_with_cached: failed to create_db to cache for " + key))
        << log.dump();
    EXPECT_EQ(1, catt::open_fds_on(db_file("c", "p")));  // the refused one was closed
    ASSERT_TRUE(app->cache->return_db(key, v));
}

TEST_F(CatalogNaming, OpenWithCacheReportsAMissingDatabase) {
    appdb::appdb_value* v = nullptr;
    EXPECT_EQ(21u, app->open_db_with_cached("c", "p", &v));
    EXPECT_EQ(nullptr, v);
    EXPECT_TRUE(logged(log_level::error, 21,
                       "open_db_with_cached: failed to open db path " + app->to_db_full_path("c", "p")))
        << log.dump();
}

TEST_F(CatalogNaming, ParseQueryEntryPoint) {
    appdb::app_query q;
    std::string sql;
    EXPECT_EQ(0u, app->parse_query("backup_id|c,p,b*", q, sql));
    EXPECT_EQ("SELECT * FROM catalog WHERE backupid GLOB ? ORDER BY backup_start_time ASC", sql);
    EXPECT_EQ(4u, app->parse_query("bogus|c,p,b", q, sql));
    EXPECT_TRUE(logged(log_level::error, 4, "parse_query: failed parse query str bogus|c,p,b"));
}

}  // namespace
