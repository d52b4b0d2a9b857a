// Whatever journal mode another SQLite client leaves a catalog in, no row the
// shadow-protected catalog acknowledged is lost. A second, real connection
// (the SQLite library here, the sqlite3 shell in one case) switches the file
// to write-ahead logging while the service keeps it open and inserts; then a
// backup is taken, the database is lost or damaged and recovered, and every
// acknowledged row is compared, row by row. Also: the catalog store switches
// a file found in write-ahead-log mode back to rollback-journal mode once,
// with one warning, and reads a file it may not switch as it is.
#include <sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "appdb/catalog_store.h"
#include "appdb/catalog_table.h"
#include "catalog_shadow_fixture.h"
#include "dct/fs.h"

namespace {

using catt::make_item;
using dct::log_level;

// A second client of the database: its own connection, as an administrator's
// tool would have.
class other_client {
public:
    explicit other_client(const std::string& file) {
        EXPECT_EQ(SQLITE_OK, sqlite3_open_v2(file.c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr)) << file;
        sqlite3_busy_timeout(db_, 10000);
    }
    ~other_client() { close(); }
    other_client(const other_client&) = delete;
    other_client& operator=(const other_client&) = delete;

    // The value of a single-value statement.
    std::string scalar(const std::string& sql) {
        sqlite3_stmt* stmt = nullptr;
        std::string value = "(error)";
        if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK &&
            sqlite3_step(stmt) == SQLITE_ROW) {
            const unsigned char* text = sqlite3_column_text(stmt, 0);
            value = text != nullptr ? reinterpret_cast<const char*>(text) : "";
        }
        sqlite3_finalize(stmt);
        return value;
    }
    void close() {
        if (db_ != nullptr) {
            EXPECT_EQ(SQLITE_OK, sqlite3_close(db_));
        }
        db_ = nullptr;
    }

private:
    sqlite3* db_ = nullptr;
};

// The journal mode a fresh connection finds the file in.
std::string journal_mode(const std::string& file) { return catt::raw_scalar(file, "PRAGMA journal_mode"); }

class CatalogJournalMode : public shadowt::shadow_fixture {
protected:
    // Rows f<from>..f<to-1> of backup c_1 in database c/p.
    void fill(int from, int to) {
        for (int i = from; i < to; ++i) insert(make_item("c", "p", "f" + std::to_string(i), "c_1", 100 + i));
    }

    // The rows through the catalog: recovers the database when it must.
    void expect_every_row_back() {
        EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "c", "p"))) << log.dump();
        EXPECT_EQ("ok", shadowt::integrity(db_file("c", "p")));
    }

    std::string switched_line(const std::string& file) const {
        return "open_db: app db " + file + " was in journal mode wal, switched back to delete";
    }

    // The run: 15 rows, the switch to write-ahead logging by another
    // client while the service keeps the catalog open, 195 more rows, then a
    // backup, then 5 more rows into the new version's journal.
    void switch_while_inserting(bool keep_client_open) {
        fill(0, 15);
        {
            other_client admin(db_file("c", "p"));
            EXPECT_EQ("wal", admin.scalar("PRAGMA journal_mode=WAL;"));
            if (keep_client_open) {
                client_.reset(new other_client(db_file("c", "p")));
                // A read opens the log, which the connection then keeps.
                EXPECT_EQ("15", client_->scalar("SELECT count(*) FROM catalog;"));
            }
        }
        fill(15, 210);
        // The commits since the switch wait in the log, not in the main file.
        ASSERT_GT(shadowt::file_size(db_file("c", "p") + "-wal"), 0);
        ASSERT_EQ(0u, ctx->backup(db_dir("c", "p"), "appdb")) << log.dump();
        fill(210, 215);
        ASSERT_EQ(215u, model.size());
    }

    std::unique_ptr<other_client> client_;
};

TEST_F(CatalogJournalMode, ABackupAfterASwitchToWalHoldsEveryRowAndALostDatabaseComesBackWhole) {
    switch_while_inserting(false);
    // The newest version alone holds the 210 rows acknowledged before the
    // backup, and it is a rollback-journal database like every version.
    const std::string version = shadow_dir("c", "p") + "/appdb.2";
    EXPECT_EQ("210", catt::raw_scalar(version, "SELECT count(*) FROM catalog"));
    EXPECT_EQ("delete", journal_mode(version));
    EXPECT_EQ(5u, shadowt::journal_lines(shadow_dir("c", "p")) - 210u);

    // Lost: the file and everything SQLite kept beside it.
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) unlink((db_file("c", "p") + suffix).c_str());
    log.clear();
    expect_every_row_back();
    EXPECT_EQ(1u, log.count_containing("corrupt, to do recover from shadow")) << log.dump();
    EXPECT_EQ("delete", journal_mode(db_file("c", "p")));
}

TEST_F(CatalogJournalMode, ADamagedDatabaseComesBackWholeAndItsStaleLogIsSetAsideNotApplied) {
    // The administrator's connection stays open: the log outlives the
    // service's connection, as after a crash.
    switch_while_inserting(true);
    restart_app();
    const std::string file = db_file("c", "p");
    ASSERT_EQ(0, access((file + "-wal").c_str(), F_OK));
    std::mt19937 rng(30);
    shadowt::damage_header(file, rng);
    log.clear();

    expect_every_row_back();
    EXPECT_EQ(1u, log.count_containing("corrupt, to do recover from shadow")) << log.dump();
    // Neither the log nor its index stays beside the rebuilt file: both are
    // in one "#corrupt_" directory with the old database they belong to.
    EXPECT_NE(0, access((file + "-wal").c_str(), F_OK));
    EXPECT_NE(0, access((file + "-shm").c_str(), F_OK));
    std::string aside;
    for (const std::string& name : kt::list_dir(shadow_dir("c", "p"))) {
        if (name.compare(0, 15, "#corrupt_appdb_") == 0) aside = shadow_dir("c", "p") + "/" + name;
    }
    ASSERT_FALSE(aside.empty()) << log.dump();
    EXPECT_EQ(0, access((aside + "/app.db-wal").c_str(), F_OK));
    EXPECT_EQ(0, access((aside + "/app.db-shm").c_str(), F_OK));
    EXPECT_EQ(0, access((aside + "/app.db").c_str(), F_OK));
    for (const char* suffix : {"-wal", "-shm"}) {
        EXPECT_TRUE(log.contains(log_level::warning, 0,
                                 "recover_unlocked: " + file + suffix + " of the replaced database set aside in " +
                                     aside + ", not applied to the rebuilt one"))
            << log.dump();
    }
    EXPECT_EQ("delete", journal_mode(file));
    client_.reset();
}

TEST_F(CatalogJournalMode, TheSqliteShellSwitchesTheModeAndBackupAndRecoveryKeepEveryRow) {
    fill(0, 15);
    const std::string file = db_file("c", "p");
    const std::string command = "sqlite3 '" + file + "' 'PRAGMA journal_mode=WAL;' > /dev/null";
    ASSERT_EQ(0, system(command.c_str()));
    fill(15, 210);
    ASSERT_GT(shadowt::file_size(file + "-wal"), 0);
    ASSERT_EQ(0u, ctx->backup(db_dir("c", "p"), "appdb")) << log.dump();
    restart_app();
    for (const char* suffix : {"", "-wal", "-shm"}) unlink((file + suffix).c_str());
    ASSERT_EQ(0u, ctx->recover(db_dir("c", "p"), "appdb", 0)) << log.dump();
    expect_every_row_back();
}

TEST_F(CatalogJournalMode, ADatabaseCreatedInWalByAnotherClientIsSwitchedBackOnceAndKeepsEveryRow) {
    const std::string file = db_file("c", "p");
    ASSERT_EQ(0, CreateTreeA(db_dir("c", "p"), 0750));
    {
        sqlite3* db = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_open(file.c_str(), &db));
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, "PRAGMA journal_mode=WAL;", nullptr, nullptr, nullptr));
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, appdb::catalog_create_table_sql(), nullptr, nullptr, nullptr));
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, appdb::catalog_create_index_sql, nullptr, nullptr, nullptr));
        sqlite3_close(db);
    }
    ASSERT_EQ("wal", journal_mode(file));

    fill(0, 20);
    EXPECT_EQ(1u, log.count_containing("was in journal mode")) << log.dump();
    EXPECT_TRUE(log.contains(log_level::warning, 0, switched_line(file))) << log.dump();
    EXPECT_EQ("delete", journal_mode(file));
    restart_app();
    fill(20, 40);
    // Once: the file stays in the mode it was switched back to.
    EXPECT_EQ(1u, log.count_containing("was in journal mode")) << log.dump();
    ASSERT_EQ(0u, ctx->backup(db_dir("c", "p"), "appdb")) << log.dump();
    fill(40, 45);

    restart_app();
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) unlink((file + suffix).c_str());
    expect_every_row_back();
}

TEST_F(CatalogJournalMode, AFileAnotherConnectionHoldsInWalIsReadAsItIsAndSwitchedOnTheNextOpen) {
    fill(0, 3);
    restart_app();
    const std::string file = db_file("c", "p");
    std::unique_ptr<other_client> admin(new other_client(file));
    EXPECT_EQ("wal", admin->scalar("PRAGMA journal_mode=WAL;"));
    EXPECT_EQ("3", admin->scalar("SELECT count(*) FROM catalog;"));
    log.clear();

    fill(3, 6);
    // Leaving the mode needs the only connection to the file.
    EXPECT_TRUE(log.contains(log_level::warning, 11,
                             "open_db: app db " + file +
                                 " is in journal mode wal and could not be switched back to delete (5, database is "
                                 "locked), read as it is"))
        << log.dump();
    EXPECT_EQ("wal", admin->scalar("PRAGMA journal_mode;"));
    EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "c", "p")));

    admin.reset();
    restart_app();
    log.clear();
    fill(6, 7);
    EXPECT_TRUE(log.contains(log_level::warning, 0, switched_line(file))) << log.dump();
    EXPECT_EQ("delete", journal_mode(file));
    expect_every_row_back();
}

TEST_F(CatalogJournalMode, WithTheSwitchTurnedOffAFileInWalIsReadAsItIs) {
    fill(0, 4);
    restart_app();
    const std::string file = db_file("c", "p");
    EXPECT_EQ("wal", catt::raw_scalar(file, "PRAGMA journal_mode=WAL"));
    appdb::catalog_store::set_journal_mode_switch(false);
    log.clear();
    const auto rows = shadowt::read_back(*app, "c", "p");
    appdb::catalog_store::set_journal_mode_switch(true);
    EXPECT_TRUE(shadowt::same_rows(model.rows(), rows));
    EXPECT_TRUE(log.contains(log_level::warning, 0, "open_db: app db " + file + " is in journal mode wal, read as it is"))
        << log.dump();
    EXPECT_EQ("wal", journal_mode(file));
}

}  // namespace
