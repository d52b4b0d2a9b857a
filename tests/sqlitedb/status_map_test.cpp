// The SQLite result code table and db_exception.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstring>

#include "sqlitedb/sqlite_status.h"
#include "sqlitedb/sqlite_wrapper.h"

using sqlitedb::db_exception;
using sqlitedb::sqlite_to_crstatus;

namespace {

// Expected status of each primary code 0..28 at the wrapper (CANTOPEN -> 4).
cr_status_t expected_primary(int p) {
    switch (p) {
        case 0: return 0;    // OK
        case 5: return 11;   // BUSY
        case 10: return 21;  // IOERR
        case 11: return 67;  // CORRUPT
        case 26: return 67;  // NOTADB
        default: return 4;
    }
}

TEST(StatusMap, EveryPrimaryCode) {
    for (int p = 0; p <= 28; ++p) {
        SCOPED_TRACE(p);
        EXPECT_EQ(expected_primary(p), db_exception::dberr_to_crstatus(p));
        EXPECT_EQ(expected_primary(p), sqlite_to_crstatus(p, false));
        const cr_status_t catalog = p == SQLITE_CANTOPEN ? 21u : expected_primary(p);
        EXPECT_EQ(catalog, sqlite_to_crstatus(p, true));
    }
}

TEST(StatusMap, RowAndDoneAreSuccess) {
    EXPECT_EQ(0u, db_exception::dberr_to_crstatus(SQLITE_ROW));
    EXPECT_EQ(0u, db_exception::dberr_to_crstatus(SQLITE_DONE));
}

TEST(StatusMap, ExtendedCodesFollowTheirPrimary) {
    EXPECT_EQ(11u, db_exception::dberr_to_crstatus(261));   // BUSY_RECOVERY
    EXPECT_EQ(11u, db_exception::dberr_to_crstatus(SQLITE_BUSY_SNAPSHOT));
    EXPECT_EQ(21u, db_exception::dberr_to_crstatus(266));   // IOERR_READ
    EXPECT_EQ(21u, db_exception::dberr_to_crstatus(SQLITE_IOERR_FSYNC));
    EXPECT_EQ(67u, db_exception::dberr_to_crstatus(11));    // CORRUPT
    EXPECT_EQ(67u, db_exception::dberr_to_crstatus(SQLITE_CORRUPT_INDEX));
    EXPECT_EQ(67u, db_exception::dberr_to_crstatus(26));    // NOTADB
    EXPECT_EQ(4u, db_exception::dberr_to_crstatus(SQLITE_CONSTRAINT_UNIQUE));
}

TEST(StatusMap, OnlyTheMovedDatabaseOfReadonlyIsCorrupt) {
    EXPECT_EQ(67u, db_exception::dberr_to_crstatus(1032));  // READONLY_DBMOVED
    EXPECT_EQ(4u, db_exception::dberr_to_crstatus(8));      // READONLY
    EXPECT_EQ(4u, db_exception::dberr_to_crstatus(SQLITE_READONLY_RECOVERY));
    EXPECT_EQ(4u, db_exception::dberr_to_crstatus(SQLITE_READONLY_ROLLBACK));
}

TEST(StatusMap, CantOpenIsFailureHereAndIoAtTheCatalogLayer) {
    EXPECT_EQ(4u, db_exception::dberr_to_crstatus(14));
    EXPECT_EQ(4u, sqlite_to_crstatus(14, false));
    EXPECT_EQ(21u, sqlite_to_crstatus(14, true));
    EXPECT_EQ(21u, sqlite_to_crstatus(SQLITE_CANTOPEN_ISDIR, true));
    EXPECT_EQ(4u, db_exception::dberr_to_crstatus(SQLITE_CANTOPEN_ISDIR));
    // The catalog rule changes nothing else.
    EXPECT_EQ(67u, sqlite_to_crstatus(1032, true));
    EXPECT_EQ(4u, sqlite_to_crstatus(8, true));
    EXPECT_EQ(11u, sqlite_to_crstatus(261, true));
}

TEST(DbException, CodeOnlyTakesSqliteTextAndMappedStatus) {
    db_exception e(SQLITE_CORRUPT);
    EXPECT_EQ(SQLITE_CORRUPT, e.errcode());
    EXPECT_STREQ(sqlite3_errstr(SQLITE_CORRUPT), e.what());
    EXPECT_STREQ("database disk image is malformed", e.what());
    EXPECT_EQ(67u, e.cr_status());
}

TEST(DbException, CodeAndMessageKeepTheMessage) {
    db_exception e(SQLITE_BUSY, "held by another writer");
    EXPECT_EQ(SQLITE_BUSY, e.errcode());
    EXPECT_STREQ("held by another writer", e.what());
    EXPECT_EQ(11u, e.cr_status());
}

TEST(DbException, CodeAndStatusKeepTheStatus) {
    db_exception e(SQLITE_IOERR_READ, static_cast<cr_status_t>(72));
    EXPECT_EQ(SQLITE_IOERR_READ, e.errcode());
    EXPECT_STREQ(sqlite3_errstr(SQLITE_IOERR_READ), e.what());
    EXPECT_EQ(72u, e.cr_status());
}

TEST(DbException, WhatIsVirtual) {
    struct derived : db_exception {
        derived() : db_exception(SQLITE_CORRUPT) {}
        const char* what() const override { return "derived"; }
    };
    derived d;
    const db_exception& base = d;
    EXPECT_STREQ("derived", base.what());
}

}  // namespace
