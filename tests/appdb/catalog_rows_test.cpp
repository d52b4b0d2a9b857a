// Row operations on the `catalog` table: binding and decoding, literal SQL
// texts, checksum verification, deletes, pragmas.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/catalog_application_base.h"
#include "appdb/catalog_table.h"
#include "catalog_test_helpers.h"
#include "common/test_util.h"
#include "dct/fs.h"

namespace {

using appdb::app_catalog_item;
using appdb::app_query;
using catt::make_item;
using dct::log_level;

// Runs a literal statement in a new database `file` holding the catalog
// table, as a replay does.
void replay_in_fresh_db(const std::string& sql, const std::string& file) {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(file.c_str(), &db));
    catt::raw_exec(db, appdb::catalog_create_table_sql());
    catt::raw_exec(db, sql);
    sqlite3_close(db);
}

class CatalogRows : public catt::catalog_fixture {
protected:
    app_query query(const std::string& text, std::string& sql) {
        app_query q;
        EXPECT_EQ(0u, app->parse_query(text, q, sql));
        return q;
    }
    // Runs a query text through do_db_query.
    cr_status_t run(const std::string& text, std::vector<app_catalog_item>& out) {
        std::string sql;
        app_query q = query(text, sql);
        return app->do_db_query(q, out, sql);
    }
    std::vector<std::string> names(const std::vector<app_catalog_item>& items) {
        std::vector<std::string> out;
        for (const auto& i : items) out.push_back(i.file_name);
        return out;
    }
};

TEST_F(CatalogRows, InsertStoresEveryColumnAndTheChecksum) {
    ASSERT_EQ(0u, app->create_db("c", "p"));
    app_catalog_item item = make_item("c", "p", "file one", "B1", 1700000000);
    item.reserver5 = "five";
    item.owner_role = 1;
    std::string sql;
    ASSERT_EQ(0u, app->do_db_insert(item, sql));
    const auto rows = catt::raw_rows(db_file("c", "p"));
    ASSERT_EQ(1u, rows.size());
    const catt::raw_row& r = rows[0];
    EXPECT_EQ(1u, r.version);
    EXPECT_EQ("file one", r.name);
    EXPECT_EQ("file one", r.file_name);
    EXPECT_EQ(static_cast<int64_t>(item.file_len), r.file_len);
    EXPECT_EQ("B1", r.backup_id);
    EXPECT_EQ(7u, r.policy_type);
    EXPECT_EQ(2u, r.schedule_type);
    EXPECT_EQ(3u, r.frag_nums);
    EXPECT_EQ(item.app_id, r.app_id);
    EXPECT_EQ("obj", r.data_object);
    EXPECT_EQ(item.app_expire_time, r.times[0]);
    EXPECT_EQ(item.orvo_expire_time, r.times[1]);
    EXPECT_EQ(item.backup_start_time, r.times[2]);
    EXPECT_EQ(item.backup_stop_time, r.times[3]);
    EXPECT_EQ("alice", r.owner);
    EXPECT_EQ(1u, r.owner_role);
    EXPECT_EQ(item.description, r.description);
    EXPECT_EQ("r0", r.reserver[0]);
    EXPECT_EQ("five", r.reserver[5]);
    EXPECT_EQ("r9", r.reserver[9]);
    // The crc column holds the checksum as a 32-bit integer.
    EXPECT_EQ(static_cast<int32_t>(catt::independent_crc(r)), r.crc);
    EXPECT_EQ(catt::independent_crc(r), appdb::catalog_application_base::crc_value(item));
}

TEST_F(CatalogRows, LiteralInsertTextDoublesSingleQuotes) {
    ASSERT_EQ(0u, app->create_db("c", "p"));
    app_catalog_item item;
    item.client = "c";
    item.policy = "p";
    item.file_name = "it's";
    item.file_len = 10;
    item.backup_id = "B'1";
    item.frag_nums = 2;
    item.app_id = "a";
    item.app_expire_time = 1;
    item.orvo_expire_time = 2;
    item.backup_start_time = 3;
    item.backup_stop_time = 4;
    item.owner = "o'w";
    item.reserver3 = "r3";
    std::string sql;
    ASSERT_EQ(0u, app->do_db_insert(item, sql));
    const uint32_t crc = appdb::catalog_application_base::crc_value(item);
    EXPECT_EQ("INSERT INTO catalog VALUES (1, 'it''s', 'it''s', 10, 'B''1', 4, 0, 2, 'a', '', 1, 2, 3, "
              "4, 'o''w', 4, '', '', '', '', 'r3', '', '', '', '', '', '', " +
                  std::to_string(static_cast<int32_t>(crc)) + ")",
              sql);
    // The literal text is itself a valid statement producing the same row.
    kt::TempDir other;
    replay_in_fresh_db(sql, other.file("copy.db"));
    const auto a = catt::raw_rows(db_file("c", "p"));
    const auto b = catt::raw_rows(other.file("copy.db"));
    ASSERT_EQ(1u, b.size());
    EXPECT_EQ(a[0].owner, b[0].owner);
    EXPECT_EQ(catt::independent_crc(a[0]), catt::independent_crc(b[0]));
    EXPECT_EQ(static_cast<uint32_t>(a[0].crc), static_cast<uint32_t>(b[0].crc));
}

// The literal texts are formatted whole at any length: the statement
// replayed in a fresh database stores the very row the bound insert stored.
TEST_F(CatalogRows, LiteralInsertTextIsWholeAtAnyLength) {
    ASSERT_EQ(0u, app->create_db("c", "p"));
    int n = 0;
    for (size_t size : {size_t(4) << 10, size_t(64) << 10, size_t(1) << 20}) {
        app_catalog_item item = make_item("c", "p", "long" + std::to_string(n++), "B1");
        item.description = std::string(size, 'd') + "it's\nlast";
        item.reserver0 = std::string(size, '\'');
        item.data_object = "line\n" + std::string(size, 'o');
        std::string sql;
        ASSERT_EQ(0u, app->do_db_insert(item, sql));
        EXPECT_GT(sql.size(), 3 * size);
        EXPECT_EQ(")", sql.substr(sql.size() - 1));
        kt::TempDir other;
        replay_in_fresh_db(sql, other.file("copy.db"));
        const auto copy = catt::raw_dump(other.file("copy.db"));
        ASSERT_EQ(1u, copy.size());
        bool found = false;
        for (const std::string& row : catt::raw_dump(db_file("c", "p"))) found = found || row == copy[0];
        EXPECT_TRUE(found) << size;
    }
}

// Every number is written as the value the statement binds: 32-bit fields
// as signed int, the size and the times as signed 64-bit.
TEST_F(CatalogRows, LiteralInsertTextWritesNumbersAsBound) {
    ASSERT_EQ(0u, app->create_db("c", "p"));
    app_catalog_item item = make_item("c", "p", "n", "B");
    item.version = 0xFFFFFFFFu;
    item.file_len = UINT64_MAX;
    item.policy_type = 0x80000000u;
    item.schedule_type = 0;
    item.frag_nums = 7;
    item.app_expire_time = -1;
    item.orvo_expire_time = INT64_MIN;
    item.backup_start_time = INT64_MAX;
    item.backup_stop_time = 0;
    item.owner_role = 4;
    std::string sql;
    ASSERT_EQ(0u, app->do_db_insert(item, sql));
    const int32_t crc = static_cast<int32_t>(appdb::catalog_application_base::crc_value(item));
    EXPECT_EQ(0u, sql.find("INSERT INTO catalog VALUES (-1, 'n', 'n', -1, 'B', -2147483648, 0, 7, ")) << sql;
    EXPECT_NE(std::string::npos,
              sql.find(", -1, -9223372036854775808, 9223372036854775807, 0, 'alice', 4, "))
        << sql;
    EXPECT_EQ(", " + std::to_string(crc) + ")", sql.substr(sql.rfind(", ")));
}

TEST_F(CatalogRows, LiteralDeleteTexts) {
    ASSERT_EQ(0u, app->create_db("c", "p"));
    std::string sql;
    ASSERT_EQ(0u, app->do_db_insert(make_item("c", "p", "it's", "B'1"), sql));
    ASSERT_EQ(0u, app->do_db_delete_by_file_name("c", "p", "it's", sql));
    EXPECT_EQ("DELETE FROM catalog WHERE name = ('it''s')", sql);
    ASSERT_EQ(0u, app->do_db_delete_by_backup_id("c", "p", "B'1", sql));
    EXPECT_EQ("DELETE FROM catalog WHERE backupid = ('B''1')", sql);
}

TEST_F(CatalogRows, DuplicateFileNameFailsAtTheStepWithoutRetry) {
    ASSERT_EQ(0u, app->create_db("c", "p"));
    std::string sql;
    ASSERT_EQ(0u, app->do_db_insert(make_item("c", "p", "f", "B1"), sql));
    log.clear();
    sql = "unchanged?";
    EXPECT_EQ(4u, app->do_db_insert(make_item("c", "p", "f", "B2"), sql));
    EXPECT_EQ(0, sleeps.calls());
    const std::string name = db_file("c", "p");
    EXPECT_TRUE(logged(log_level::error, 4,
                       "try_do_db_insert: " + name +
                           " failed to step on (1555, UNIQUE constraint failed: catalog.name)."))
        << log.dump();
    EXPECT_TRUE(logged(log_level::error, 4, "do_db_insert: failed to insert f to db " + name));
    EXPECT_EQ(0u, log.count_containing("busy"));
    EXPECT_EQ(1, catt::raw_count(name));
    EXPECT_EQ("B1", catt::raw_scalar(name, "SELECT backupid FROM catalog"));
}

TEST_F(CatalogRows, InsertIntoMissingDatabaseReportsTheOpenFailure) {
    std::string sql;
    EXPECT_EQ(21u, app->do_db_insert(make_item("c", "p", "f", "B1"), sql));
    EXPECT_TRUE(logged(log_level::error, 21, "try_do_db_insert: failed to open db with cached, c c, p p"))
        << log.dump();
    EXPECT_TRUE(logged(log_level::error, 21, "do_db_insert: failed to insert f to db " + db_file("c", "p")));
    EXPECT_FALSE(kt::file_exists(db_file("c", "p")));
}

TEST_F(CatalogRows, QueryDecodesRowsAndSetsClientAndPolicy) {
    for (int i = 3; i >= 1; --i) {
        insert(make_item("c", "p", "f" + std::to_string(i), i == 2 ? "B2" : "B1", 100 * i));
    }
    std::vector<app_catalog_item> out;
    ASSERT_EQ(0u, run("backup_id|c,p,B*", out));
    ASSERT_EQ(3u, out.size());
    // The GLOB form is ordered by start time.
    EXPECT_EQ((std::vector<std::string>{"f1", "f2", "f3"}), names(out));
    for (int i = 0; i < 3; ++i) {
        app_catalog_item want = make_item("c", "p", "f" + std::to_string(i + 1),
                                          i == 1 ? "B2" : "B1", 100 * (i + 1));
        EXPECT_EQ(want.to_string(), out[i].to_string());
    }
    ASSERT_EQ(0u, run("backup_id|c,p,B1", out));
    EXPECT_EQ(2u, out.size());
    ASSERT_EQ(0u, run("name|c,p,f2", out));
    EXPECT_EQ((std::vector<std::string>{"f2"}), names(out));
    ASSERT_EQ(0u, run("name|c,p,f*", out));
    EXPECT_EQ((std::vector<std::string>{"f1", "f2", "f3"}), names(out));
    ASSERT_EQ(0u, run("name|c,p,g*", out));
    EXPECT_TRUE(out.empty());
}

TEST_F(CatalogRows, QueryOfAMissingDatabaseIsEmptySuccessAndOpensNothing) {
    std::vector<app_catalog_item> out(2);
    ASSERT_EQ(0u, run("backup_id|c,p,B1", out));
    EXPECT_TRUE(out.empty());
    EXPECT_TRUE(logged(log_level::info, 0, "try_do_db_query: no app.db shadow for c p")) << log.dump();
    EXPECT_TRUE(logged(log_level::info, 0, "try_do_db_query: no app db for c p"));
    EXPECT_EQ(0u, log.count_containing("found no cache"));
    EXPECT_FALSE(kt::file_exists(root));
}

TEST_F(CatalogRows, CrcMismatchFailsTheQueryFromTheFirstBadRow) {
    for (int i = 1; i <= 3; ++i) insert(make_item("c", "p", "f" + std::to_string(i), "B1", 100 * i));
    catt::spoil_row_crc(db_file("c", "p"), "f2");
    log.clear();
    kt::TraceSwitch trace(true);
    std::vector<app_catalog_item> out;
    EXPECT_EQ(67u, run("backup_id|c,p,B*", out));
    app_catalog_item bad = make_item("", "", "f2", "B1", 200);
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE,
                            "try_do_db_query: crc mismatch for app cat item " + bad.to_string()))
        << log.dump();
    EXPECT_TRUE(logged(log_level::error, 67, "do_db_query: failed to query db " + db_file("c", "p")));
    // Rows 0 and 1 were read; the third was not.
    EXPECT_TRUE(traced("try_do_db_query: query item number 1"));
    EXPECT_FALSE(traced("try_do_db_query: query item number 2"));
    EXPECT_EQ(0, sleeps.calls());
    // A query that does not reach the bad row is fine.
    EXPECT_EQ(0u, run("name|c,p,f3", out));
    EXPECT_EQ(1u, out.size());
}

TEST_F(CatalogRows, TimeRangeIsBoundAs32BitIntegers) {
    const int64_t high = 4294967296LL + 150;  // low 32 bits: 150
    insert(make_item("c", "p", "low", "B1", 150));
    insert(make_item("c", "p", "high", "B2", high));
    std::vector<app_catalog_item> out;
    ASSERT_EQ(0u, run("time_range|c,p,100,200", out));
    EXPECT_EQ((std::vector<std::string>{"low"}), names(out));
    // Bounds above 2^32 lose their high bits: 4294967396..4294967496 becomes
    // 100..200, which finds the low item and not the high one inside the
    // real range.
    kt::TraceSwitch trace(true);
    std::string sql;
    app_query q = query("time_range|c,p,4294967396,4294967496", sql);
    ASSERT_EQ(0u, app->do_db_query(q, out, sql));
    EXPECT_EQ((std::vector<std::string>{"low"}), names(out));
    EXPECT_TRUE(traced("try_do_db_query: query by time start 4294967396 stop 4294967496, sql " + sql))
        << log.dump();
    // A stop of 3000000000 turns negative as a 32-bit value: nothing matches.
    ASSERT_EQ(0u, run("time_range|c,p,0,3000000000", out));
    EXPECT_TRUE(out.empty());
    // The stored value itself is the full 64-bit time.
    EXPECT_EQ(std::to_string(high),
              catt::raw_scalar(db_file("c", "p"), "SELECT backup_start_time FROM catalog WHERE name='high'"));
}

TEST_F(CatalogRows, WrongColumnCountIsRefused) {
    ASSERT_EQ(0, wa_createtree(app->to_db_full_path("c", "p"), 0700));
    sqlite3* raw = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(db_file("c", "p").c_str(), &raw));
    std::string ddl = appdb::catalog_create_table_sql();
    ddl.insert(ddl.size() - 1, ",     extra TEXT");
    catt::raw_exec(raw, ddl);
    catt::raw_exec(raw, "INSERT INTO catalog(name, backupid) VALUES('f', 'B1')");
    sqlite3_close(raw);
    std::vector<app_catalog_item> out;
    EXPECT_EQ(4u, run("backup_id|c,p,B1", out));
    EXPECT_TRUE(logged(log_level::error, 4,
                       "try_do_db_query: DB[" + db_file("c", "p") + "] return wrong row counts 29."))
        << log.dump();
}

TEST_F(CatalogRows, UnsupportedQueryTypeIsRefused) {
    insert(make_item("c", "p", "f", "B1"));
    app_query q;
    q.client = "c";
    q.policy = "p";
    q.type = 0;
    std::vector<app_catalog_item> out;
    EXPECT_EQ(4u, app->try_do_db_query(q, out, ""));
    EXPECT_EQ(4u, app->try_do_db_query(q, out, "SELECT * FROM catalog"));
    EXPECT_EQ(2u, log.count(log_level::error, 4, "try_do_db_query: unsupported app query type 0"))
        << log.dump();
}

TEST_F(CatalogRows, UnsupportedQueryTypeIsRefusedAfterTheDatabaseIsOpened) {
    app_query q;
    q.client = "c";
    q.policy = "p";
    q.type = 0;
    std::vector<app_catalog_item> out;
    // No database: nothing to refuse, no rows.
    EXPECT_EQ(0u, app->try_do_db_query(q, out, ""));
    EXPECT_EQ(0u, log.count_containing("unsupported app query type")) << log.dump();
    insert(make_item("c", "p", "f", "B1"));
    app->cache->close_all_db();
    log.clear();
    EXPECT_EQ(4u, app->try_do_db_query(q, out, ""));
    EXPECT_EQ(1u, log.count(log_level::error, 4, "try_do_db_query: unsupported app query type 0"))
        << log.dump();
    // The database was opened (and given back) before the type was refused.
    EXPECT_EQ(1u, app->cache->idle_count());
}

TEST_F(CatalogRows, OneQueryAttemptAppendsToTheCallersRows) {
    insert(make_item("c", "p", "f1", "B1", 100));
    insert(make_item("c", "p", "f2", "B1", 200));
    std::string sql;
    app_query q = query("backup_id|c,p,B1", sql);
    std::vector<app_catalog_item> out(1);
    out[0].file_name = "kept";
    ASSERT_EQ(0u, app->try_do_db_query(q, out, sql));
    EXPECT_EQ((std::vector<std::string>{"kept", "f1", "f2"}), names(out));
    // The retrying form starts each attempt from an empty result.
    ASSERT_EQ(0u, app->do_db_query(q, out, sql));
    EXPECT_EQ((std::vector<std::string>{"f1", "f2"}), names(out));
}

TEST_F(CatalogRows, NullTextColumnReadsAsEmpty) {
    app_catalog_item item = make_item("c", "p", "f", "B1");
    item.description.clear();
    insert(item);
    sqlite3* raw = catt::raw_open(db_file("c", "p"));
    catt::raw_exec(raw, "UPDATE catalog SET description = NULL");
    sqlite3_close(raw);
    std::vector<app_catalog_item> out;
    ASSERT_EQ(0u, run("name|c,p,f", out));
    ASSERT_EQ(1u, out.size());
    EXPECT_EQ("", out[0].description);
}

TEST_F(CatalogRows, DeleteByBackupIdOfAMissingDatabaseIsSuccessWithoutOpening) {
    std::string sql = "untouched";
    EXPECT_EQ(0u, app->do_db_delete_by_backup_id("c", "p", "B1", sql));
    EXPECT_EQ("untouched", sql);
    EXPECT_TRUE(logged(log_level::info, 0, "try_do_db_delete_by_backup_id: no app db shadow for c p"))
        << log.dump();
    EXPECT_TRUE(logged(log_level::info, 0, "try_do_db_delete_by_backup_id: no app db for c p"));
    EXPECT_EQ(0u, log.count_containing("found no cache"));
    EXPECT_EQ(0u, log.count_containing("could not open"));
    EXPECT_FALSE(kt::file_exists(root));
}

TEST_F(CatalogRows, DeleteByFileNameOfAMissingDatabaseReportsTheOpenFailure) {
    std::string sql;
    EXPECT_EQ(21u, app->do_db_delete_by_file_name("c", "p", "f", sql));
    const std::string name = db_file("c", "p");
    EXPECT_TRUE(logged(log_level::error, 21, "open_db: could not open db " + name +
                                                 ",(14, unable to open database file)"))
        << log.dump();
    EXPECT_TRUE(logged(log_level::error, 21,
                       "try_do_db_delete_by_file_name: failed to open db with cached, c c, p p"));
    EXPECT_TRUE(logged(log_level::error, 21,
                       "do_db_delete_by_file_name: failed to delete file name f to db " + name));
    EXPECT_FALSE(kt::file_exists(name));
}

TEST_F(CatalogRows, DeletesRemoveExactlyTheirRows) {
    insert(make_item("c", "p", "a1", "A"));
    insert(make_item("c", "p", "a2", "A"));
    insert(make_item("c", "p", "b1", "B"));
    std::string sql;
    ASSERT_EQ(0u, app->do_db_delete_by_backup_id("c", "p", "A", sql));
    EXPECT_TRUE(logged(log_level::info, 0, "try_do_db_delete_by_backup_id: expire app catalog c p A"))
        << log.dump();
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p")));
    // No row matched: still success.
    ASSERT_EQ(0u, app->do_db_delete_by_backup_id("c", "p", "A", sql));
    ASSERT_EQ(0u, app->do_db_delete_by_file_name("c", "p", "zz", sql));
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p")));
    ASSERT_EQ(0u, app->do_db_delete_by_file_name("c", "p", "b1", sql));
    EXPECT_EQ(0, catt::raw_count(db_file("c", "p")));
}

TEST_F(CatalogRows, SuccessTraces) {
    ASSERT_EQ(0u, app->create_db("c", "p"));
    kt::TraceSwitch trace(true);
    std::string sql;
    ASSERT_EQ(0u, app->do_db_insert(make_item("c", "p", "f", "B1"), sql));
    EXPECT_TRUE(traced("try_do_db_insert: insert finish for backupid B1")) << log.dump();
    EXPECT_TRUE(traced("do_db_insert: insert db success for f"));
    ASSERT_EQ(0u, app->do_db_delete_by_file_name("c", "p", "f", sql));
    EXPECT_TRUE(traced("do_db_delete_by_file_name: del by file name db success for f"));
    ASSERT_EQ(0u, app->do_db_delete_by_backup_id("c", "p", "B1", sql));
    EXPECT_TRUE(traced("do_db_delete_by_backup_id: del db success for B1"));
    std::vector<app_catalog_item> out;
    ASSERT_EQ(0u, run("backup_id|c,p,B1", out));
    EXPECT_TRUE(traced("try_do_db_query: query by backupid B1, sql SELECT * FROM catalog WHERE backupid = ?"));
    EXPECT_TRUE(traced("try_do_db_query: search done, find count 0"));
}

TEST_F(CatalogRows, PragmaNeedsAnIdleCachedConnection) {
    std::string result;
    EXPECT_FALSE(app->run_pragma("c", "p", "PRAGMA integrity_check;", "ok", &result));
    EXPECT_TRUE(logged(log_level::error, CR_STATUS_NONE, "run_pragma cached db is not opened c c p p."))
        << log.dump();
    EXPECT_FALSE(app->db_intergartion_check("c", "p"));
    EXPECT_FALSE(kt::file_exists(root));  // nothing opened or created

    insert(make_item("c", "p", "f1", "B1"));
    insert(make_item("c", "p", "f2", "B1"));
    EXPECT_TRUE(app->db_intergartion_check("c", "p"));
    result.clear();
    EXPECT_TRUE(app->run_pragma("c", "p", "PRAGMA integrity_check;", "ok", &result));
    EXPECT_EQ("ok", result);
    // Values are appended up to the match; without one, all of them.
    result.clear();
    EXPECT_TRUE(app->run_pragma("c", "p", "SELECT name FROM catalog ORDER BY name", "f1", &result));
    EXPECT_EQ("f1", result);
    result.clear();
    EXPECT_FALSE(app->run_pragma("c", "p", "SELECT name FROM catalog ORDER BY name", "zz", &result));
    EXPECT_EQ("f1f2", result);
    EXPECT_FALSE(app->run_pragma("c", "p", "NOT SQL", "ok", nullptr));
    // Each call gave the connection back.
    EXPECT_EQ(1u, app->cache->idle_count());
    EXPECT_EQ(0u, app->cache->handed_out_count());
}

TEST_F(CatalogRows, DamagedDatabaseFailsQueryAndIntegrityCheck) {
    for (int i = 0; i < 200; ++i) insert(make_item("c", "p", "f" + std::to_string(i), "B1"));
    const std::string file = db_file("c", "p");
    // Drop the cached connection (and its page cache), then overwrite every
    // page but the first with garbage.
    ASSERT_EQ(0u, app->close_db(app->to_db_full_path("c", "p"), 0, true));
    std::string bytes = kt::read_file(file);
    ASSERT_GT(bytes.size(), 8192u);
    for (size_t i = 4096; i < bytes.size(); ++i) bytes[i] = '\x5a';
    kt::write_file(file, bytes);
    std::vector<app_catalog_item> out;
    EXPECT_EQ(67u, run("backup_id|c,p,B1", out));
    std::string result;
    EXPECT_FALSE(app->run_pragma("c", "p", "PRAGMA integrity_check;", "ok", &result));
    EXPECT_NE("", result);
    EXPECT_EQ(std::string::npos, result.find("ok"));
    EXPECT_FALSE(app->db_intergartion_check("c", "p"));
}

}  // namespace
