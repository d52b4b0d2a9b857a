// Damaged database files: corruption travels as db_exception out of exec and as
// status 67 out of the transaction calls.
#include <stdio.h>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "common/test_util.h"
#include "dct/log.h"
#include "sqlite_fixtures.h"
#include "sqlitedb/sqlite_wrapper.h"

using dct::log_level;
using sqlitedb::db_exception;
using sqlitedb::sqlite3_wrapper;

namespace {

TEST(WrapperCorrupt, DamagedHeaderThrowsFromExec) {
    kt::TempDir dir;
    kt::LogCapture log;
    const std::string p = dir.file("header.db");
    sqlt::make_db(p, 20);
    sqlt::overwrite(p, 0, 'Z', 16);  // the magic string
    sqlite3_wrapper w(p);
    ASSERT_EQ(0u, w.open_db());  // opening reads nothing yet
    try {
        w.exec("SELECT count(*) FROM t;");
        FAIL() << "no exception";
    } catch (const db_exception& e) {
        EXPECT_EQ(SQLITE_NOTADB, e.errcode());
        EXPECT_EQ(67u, e.cr_status());
        EXPECT_STREQ("file is not a database", e.what());
    }
    EXPECT_TRUE(log.contains(log_level::error, 67,
                             p + ": failed to execute [[[\"SELECT count(*) FROM t;\"]]] (26:file is not a database)"))
        << log.dump();
    EXPECT_TRUE(log.contains(log_level::info, CR_STATUS_NONE, "[DBERR 0000001A]: file is not a database"));
}

TEST(WrapperCorrupt, DamagedTablePageThrowsFromExec) {
    kt::TempDir dir;
    const std::string p = dir.file("page.db");
    sqlt::make_db(p, 200);
    const int pg = sqlt::find_page(p, 0x0d);
    ASSERT_GT(pg, 0);
    // The b-tree page header: an unknown page type is caught before any cell is read.
    sqlt::overwrite(p, static_cast<long>(pg - 1) * sqlt::kPageSize, 0xFF, 8);
    sqlite3_wrapper w(p);
    ASSERT_EQ(0u, w.open_db());
    try {
        w.exec("SELECT * FROM t;");
        FAIL() << "no exception";
    } catch (const db_exception& e) {
        EXPECT_EQ(SQLITE_CORRUPT, e.errcode() & 0xFF);
        EXPECT_EQ(67u, e.cr_status());
    }
}

TEST(WrapperCorrupt, DatabaseMovedWhileOpenThrowsFromExec) {
    kt::TempDir dir;
    const std::string p = dir.file("moved.db");
    sqlt::make_db(p, 2);
    sqlite3_wrapper w(p);
    ASSERT_EQ(0u, w.open_db());
    ASSERT_EQ(0, rename(p.c_str(), dir.file("elsewhere.db").c_str()));
    try {
        w.exec("INSERT INTO t VALUES('late');");
        FAIL() << "no exception";
    } catch (const db_exception& e) {
        EXPECT_EQ(1032, e.errcode());
        EXPECT_EQ(67u, e.cr_status());
    }
}

TEST(WrapperCorrupt, BeginOnDamagedHeaderReturnsCorrupt) {
    kt::TempDir dir;
    kt::LogCapture log;
    kt::SleepCounter sleeps;
    const std::string p = dir.file("header.db");
    sqlt::make_db(p, 20);
    sqlt::overwrite(p, 0, 'Z', 16);
    sqlite3_wrapper w(p);
    ASSERT_EQ(0u, w.open_db());
    EXPECT_EQ(67u, w.begin_transaction());
    EXPECT_EQ(0, sleeps.calls());
    EXPECT_TRUE(log.contains(log_level::error, 67,
                             "begin_transaction: Catch sqlite database runtime exception [26]: file is not a database"))
        << log.dump();
}

// With auto-vacuum, a commit that freed pages moves the file's last pages
// down, reading their pointer-map entries; damaged entries make it fail.
TEST(WrapperCorrupt, CommitOnDamagedPointerMapReturnsCorrupt) {
    kt::TempDir dir;
    kt::LogCapture log;
    const std::string p = dir.file("ptrmap.db");
    sqlt::make_db(p, 300, /*auto_vacuum=*/true);
    sqlt::overwrite(p, sqlt::kPageSize, 0xEE, sqlt::kPageSize);  // page 2: the pointer map
    sqlite3_wrapper w(p);
    ASSERT_EQ(0u, w.open_db());
    ASSERT_EQ(0u, w.begin_transaction());
    ASSERT_EQ(0u, w.exec("DELETE FROM t WHERE rowid <= 100;"));
    EXPECT_EQ(67u, w.commit_transaction());
    EXPECT_EQ(1u, log.count_containing("commit_transaction: Catch sqlite database runtime exception ["))
        << log.dump();
    EXPECT_EQ(1u, log.count(log_level::error, 67,
                            "commit_transaction: Catch sqlite database runtime exception [11]: database disk image is malformed"))
        << log.dump();
}

TEST(WrapperCorrupt, DamagedDatabaseFailsTheIntegrityCheck) {
    kt::TempDir dir;
    const std::string p = dir.file("page.db");
    sqlt::make_db(p, 200);
    const int pg = sqlt::find_page(p, 0x0d);
    ASSERT_GT(pg, 0);
    sqlt::overwrite(p, static_cast<long>(pg - 1) * sqlt::kPageSize, 0xFF, 8);
    sqlite3_wrapper w(p);
    ASSERT_EQ(0u, w.open_db());
    std::string result;
    EXPECT_FALSE(w.run_integrity_check(result));
    EXPECT_NE(std::string::npos, result.find("*** in database main ***")) << result;
}

}  // namespace
