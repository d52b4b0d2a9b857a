// Copies of a database that another SQLite client switched to write-ahead
// logging: the copy holds every commit, also those still in the "-wal" file,
// is written in rollback-journal mode with the checksum of its bytes on disk,
// and stays consistent while another process keeps committing into the log.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "backup_fixtures.h"

using backup_test::AppPool;

namespace {

long file_size(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

// A connection of another client that switches the file to write-ahead
// logging and stays open, so that its log survives.
class wal_client {
public:
    explicit wal_client(const std::string& path) {
        EXPECT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &db_));
        sqlite3_busy_timeout(db_, 10000);
        exec("PRAGMA journal_mode=WAL;");
    }
    ~wal_client() { sqlite3_close(db_); }
    wal_client(const wal_client&) = delete;
    wal_client& operator=(const wal_client&) = delete;
    void exec(const std::string& sql) { EXPECT_EQ(SQLITE_OK, sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr)) << sql; }

private:
    sqlite3* db_ = nullptr;
};

class JournalModeCopy : public ::testing::Test {
protected:
    void TearDown() override { umask(old_umask_); }
    mode_t old_umask_ = umask(0);
};

TEST_F(JournalModeCopy, TheCopyHoldsTheCommitsStillInTheLogInRollbackJournalMode) {
    AppPool p;
    p.create(10);
    wal_client other(p.db);
    for (int id = 11; id <= 200; ++id) other.exec(backup_test::insert_row(id));
    ASSERT_GT(file_size(p.db + "-wal"), 0);
    // The main file alone still holds the first ten rows only.
    const std::string main_alone = p.layout.tmp.file("main-alone.db");
    kt::write_file(main_alone, backup_test::read_bytes(p.db));
    ASSERT_EQ((std::vector<std::string>{"10|1|10"}), backup_test::row_span(main_alone));

    const std::string copy = p.layout.tmp.file("copy.db");
    uint32_t crc = 0;
    ASSERT_EQ(CR_STATUS_OK, p.shadow()->duplicate(p.db, copy, &crc));
    EXPECT_EQ((std::vector<std::string>{"200|1|200"}), backup_test::row_span(copy));
    EXPECT_EQ(backup_test::catalog_rows(p.db), backup_test::catalog_rows(copy));
    EXPECT_TRUE(backup_test::integrity_ok(copy));
    // Rollback-journal mode: both file-format bytes are 1.
    const std::string bytes = backup_test::read_bytes(copy);
    ASSERT_GT(bytes.size(), 100u);
    EXPECT_EQ(1, bytes[18]);
    EXPECT_EQ(1, bytes[19]);
    EXPECT_EQ((std::vector<std::string>{"delete"}), backup_test::sql_rows(copy, "PRAGMA journal_mode;"));
    // The checksum is the one of the bytes on disk, and the mode exact.
    EXPECT_EQ(backup_test::file_crc(copy), crc);
    struct stat st;
    ASSERT_EQ(0, stat(copy.c_str(), &st));
    EXPECT_EQ(0640u, st.st_mode & 0777);
    // The log was emptied into the source, which stays in its mode.
    EXPECT_EQ(0, file_size(p.db + "-wal"));
    EXPECT_EQ((std::vector<std::string>{"wal"}), backup_test::sql_rows(p.db, "PRAGMA journal_mode;"));
}

TEST_F(JournalModeCopy, ABackupOfAWalDatabaseKeepsEveryRowAndIsNotChangedTwice) {
    AppPool p;
    p.create(5);
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    const uint64_t first = p.shadow()->get_db_current_ver_("appdb");
    wal_client other(p.db);
    for (int id = 6; id <= 40; ++id) p.apply(backup_test::insert_row(id));
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    boost::shared_ptr<PODBShadow> shadow = p.shadow();
    ASSERT_EQ(first + 1, shadow->get_db_current_ver_("appdb"));
    const std::string version = shadow->get_db_versions_("appdb")->front().db_path;
    EXPECT_EQ(backup_test::catalog_rows(p.reference), backup_test::catalog_rows(version));
    // Nothing changed since: the second copy is the same bytes, no version.
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    EXPECT_EQ(first + 1, p.shadow()->get_db_current_ver_("appdb"));
}

TEST_F(JournalModeCopy, BackupsWhileAnotherProcessCommitsIntoTheLogHoldPrefixesWithNoneMissing) {
    AppPool p;
    p.create(1);
    backup_test::backups_while_writing(p, 30, true);
}

}  // namespace
