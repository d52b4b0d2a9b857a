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

// count(*), min(id), max(id) of the catalog table.
std::vector<std::string> row_span(const std::string& path) {
    return backup_test::sql_rows(path, "SELECT count(*), ifnull(min(id), 0), ifnull(max(id), 0) FROM catalog;");
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
    ASSERT_EQ((std::vector<std::string>{"10|1|10"}), row_span(main_alone));

    const std::string copy = p.layout.tmp.file("copy.db");
    uint32_t crc = 0;
    ASSERT_EQ(CR_STATUS_OK, p.shadow()->duplicate(p.db, copy, &crc));
    EXPECT_EQ((std::vector<std::string>{"200|1|200"}), row_span(copy));
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

// Inserts rows 2, 3, ... into a database in write-ahead-log mode, one commit
// each, until a byte arrives on `stop`; sends the last id on `result`.
void wal_writer(const std::string& db_path, int stop, int result) {
    fcntl(stop, F_SETFL, O_NONBLOCK);
    sqlite3* db = nullptr;
    if (sqlite3_open(db_path.c_str(), &db) != SQLITE_OK) _exit(2);
    sqlite3_busy_timeout(db, 60000);
    if (sqlite3_exec(db, "PRAGMA journal_mode=WAL;", nullptr, nullptr, nullptr) != SQLITE_OK) _exit(5);
    long last = 1;
    for (;;) {
        char c;
        if (read(stop, &c, 1) >= 0) break;
        if (sqlite3_exec(db, backup_test::insert_row(static_cast<int>(last + 1), 200).c_str(), nullptr, nullptr,
                         nullptr) != SQLITE_OK) {
            _exit(3);
        }
        ++last;
    }
    sqlite3_close(db);
    if (write(result, &last, sizeof(last)) != static_cast<ssize_t>(sizeof(last))) _exit(4);
    _exit(0);
}

TEST_F(JournalModeCopy, BackupsWhileAnotherProcessCommitsIntoTheLogHoldPrefixesWithNoneMissing) {
    AppPool p;
    p.create(1);
    int stop[2];
    int result[2];
    ASSERT_EQ(0, pipe(stop));
    ASSERT_EQ(0, pipe(result));
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(stop[1]);
        close(result[0]);
        wal_writer(p.db, stop[0], result[1]);
    }
    close(stop[0]);
    close(result[1]);

    long previous = 0;
    int versions_added = 0;
    for (int i = 0; i < 30; ++i) {
        const uint64_t before = p.shadow()->get_db_current_ver_("appdb");
        ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb")) << "backup " << i;
        boost::shared_ptr<PODBShadow> shadow = p.shadow();
        if (shadow->get_db_current_ver_("appdb") == before) continue;
        ++versions_added;
        const std::string version = shadow->get_db_versions_("appdb")->front().db_path;
        ASSERT_TRUE(backup_test::integrity_ok(version)) << version;
        std::vector<std::string> span = row_span(version);
        ASSERT_EQ(1u, span.size());
        const long count = std::stol(span[0].substr(0, span[0].find('|')));
        EXPECT_EQ(std::to_string(count) + "|1|" + std::to_string(count), span[0]);
        EXPECT_GE(count, previous);
        previous = count;
    }
    ASSERT_EQ(1, write(stop[1], "x", 1));
    close(stop[1]);
    long last = 0;
    ASSERT_EQ(static_cast<ssize_t>(sizeof(last)), read(result[0], &last, sizeof(last)));
    close(result[0]);
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the writer saw a failed insert";

    EXPECT_GT(versions_added, 1);
    EXPECT_GE(last, previous);
    EXPECT_GT(previous, 1) << "no version held a row committed into the log";
}

}  // namespace
