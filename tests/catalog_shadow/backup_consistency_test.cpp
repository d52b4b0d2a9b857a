// Consistent copies: backups taken while another process writes, a hot journal
// left by a writer that died, the locks of other connections of the process,
// and the copy and integrity check on their own.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "backup_fixtures.h"

using backup_test::AppPool;
using dct::log_level;

namespace {

// Exit status of child `pid`, or -1 when it did not exit normally.
int wait_exit(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

long file_size(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

TEST(BackupConsistencyTest, BackupsWhileAnotherProcessInsertsAsFastAsItCan) {
    AppPool p;
    p.create(1);
    backup_test::backups_while_writing(p, 50, false);
}

TEST(BackupConsistencyTest, HotJournalOfAKilledWriterIsPlayedBackBeforeTheCopy) {
    AppPool p;
    p.create(50);
    const std::vector<std::string> committed = backup_test::catalog_rows(p.db);
    const long committed_size = file_size(p.db);

    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // A small cache makes SQLite write the transaction's pages into the
        // database file before the commit; then the process dies.
        sqlite3* db = nullptr;
        if (sqlite3_open(p.db.c_str(), &db) != SQLITE_OK) _exit(2);
        std::string sql = "PRAGMA cache_size=5; BEGIN;";
        for (int id = 51; id <= 3000; ++id) sql += backup_test::insert_row(id, 200) + ";";
        if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) _exit(3);
        kill(getpid(), SIGKILL);
        _exit(4);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFSIGNALED(status));
    ASSERT_GT(file_size(p.db + "-journal"), 0) << "no hot journal was left";
    ASSERT_GT(file_size(p.db), committed_size) << "the transaction did not reach the database file";

    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    const std::string version = p.shadow()->get_db_versions_("appdb")->front().db_path;
    EXPECT_TRUE(backup_test::integrity_ok(version));
    EXPECT_EQ(committed, backup_test::catalog_rows(version));
    EXPECT_EQ(committed, backup_test::catalog_rows(p.db));
}

// Whether another process holds a write lock on SQLite's reserved-lock byte
// of `db`, as the kernel sees it. (A forked child must not use SQLite itself:
// it inherits this process's record of its own locks and answers from that.)
bool reserved_lock_held(const std::string& db) {
    pid_t pid = fork();
    if (pid < 0) return false;
    if (pid == 0) {
        int fd = open(db.c_str(), O_RDONLY);
        if (fd < 0) _exit(2);
        struct flock probe = {};
        probe.l_type = F_WRLCK;
        probe.l_whence = SEEK_SET;
        probe.l_start = 0x40000001;  // the reserved byte, just after the pending byte at 1 GiB
        probe.l_len = 1;
        if (fcntl(fd, F_GETLK, &probe) != 0) _exit(3);
        _exit(probe.l_type == F_WRLCK ? 0 : 1);
    }
    return wait_exit(pid) == 0;
}

// The copy must not open and close a second descriptor of the source: that
// would drop the record locks of every connection of the process to it.
TEST(BackupConsistencyTest, CopyKeepsTheLocksOfOtherConnectionsOfTheProcess) {
    AppPool p;
    p.create(10);
    const std::string copy = p.layout.tmp.file("copy.db");
    boost::shared_ptr<PODBShadow> shadow = p.shadow();
    sqlite3* holder = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(p.db.c_str(), &holder));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(holder, "BEGIN IMMEDIATE;", nullptr, nullptr, nullptr));
    ASSERT_TRUE(reserved_lock_held(p.db));

    uint32_t crc = 0;
    ASSERT_EQ(CR_STATUS_OK, shadow->duplicate(p.db, copy, &crc));
    EXPECT_TRUE(reserved_lock_held(p.db)) << "the copy dropped this process's write lock";
    sqlite3_exec(holder, "ROLLBACK;", nullptr, nullptr, nullptr);
    sqlite3_close(holder);
    // (Reading the file here, before the probe, would itself drop the lock.)
    EXPECT_EQ(backup_test::file_crc(p.db), crc);
}

// A copy under a read lock waits for a writer's commit and never sees half of it.
TEST(BackupConsistencyTest, CopyWaitsForAnExclusiveLockHeldByAnotherProcess) {
    AppPool p;
    p.create(10);
    int ready[2];
    int go[2];
    ASSERT_EQ(0, pipe(ready));
    ASSERT_EQ(0, pipe(go));
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        sqlite3* db = nullptr;
        if (sqlite3_open(p.db.c_str(), &db) != SQLITE_OK) _exit(2);
        if (sqlite3_exec(db, ("BEGIN EXCLUSIVE;" + backup_test::insert_row(11)).c_str(), nullptr, nullptr,
                         nullptr) != SQLITE_OK) {
            _exit(3);
        }
        char c = 'r';
        if (write(ready[1], &c, 1) != 1) _exit(4);
        if (read(go[0], &c, 1) != 1) _exit(5);
        usleep(200 * 1000);  // the parent is in the copy's busy wait by now
        _exit(sqlite3_exec(db, "COMMIT;", nullptr, nullptr, nullptr) == SQLITE_OK ? 0 : 6);
    }
    char c;
    ASSERT_EQ(1, read(ready[0], &c, 1));
    ASSERT_EQ(1, write(go[1], "g", 1));
    uint32_t crc = 0;
    const std::string copy = p.layout.tmp.file("copy.db");
    EXPECT_EQ(CR_STATUS_OK, p.shadow()->duplicate(p.db, copy, &crc));
    EXPECT_EQ(0, wait_exit(pid));
    EXPECT_TRUE(backup_test::integrity_ok(copy));
    EXPECT_EQ(backup_test::catalog_rows(p.db), backup_test::catalog_rows(copy));
    EXPECT_EQ(11u, backup_test::catalog_rows(copy).size());
}

TEST(DuplicateTest, CopiesAnyFileWithItsChecksum) {
    kt::TempDir tmp;
    PODBShadow shadow(nullptr, tmp.file("real"), tmp.file("shadow"));
    // Not databases: copied as they stand (0 bytes, exactly one block, one
    // block and a byte, several blocks).
    for (size_t size : {size_t(0), size_t(32768), size_t(32769), size_t(100000)}) {
        std::string content(size, '\0');
        for (size_t i = 0; i < size; ++i) content[i] = static_cast<char>((i * 131 + size) % 251);
        const std::string src = tmp.file("src-" + std::to_string(size));
        const std::string dst = tmp.file("dst-" + std::to_string(size));
        kt::write_file(src, content);
        uint32_t crc = 0;
        ASSERT_EQ(CR_STATUS_OK, shadow.duplicate(src, dst, &crc)) << size;
        EXPECT_EQ(content, kt::read_file(dst)) << size;
        EXPECT_EQ(shadow_test::adler(content), crc) << size;
    }
    EXPECT_EQ(shadow_test::adler(""), 1u);

    kt::TraceSwitch trace(true);
    kt::LogCapture log;
    const std::string src = tmp.file("src-32768");
    uint32_t crc = 0;
    ASSERT_EQ(CR_STATUS_OK, shadow.duplicate(src, tmp.file("traced"), &crc));
    EXPECT_EQ(1u, log.count_message("Duplicate file from " + src + " to " + tmp.file("traced") + "."));
    EXPECT_EQ(1u, log.count_message("Checksum for " + tmp.file("traced") + " is: " + std::to_string(crc) + "."))
        << log.dump();
}

TEST(DuplicateTest, FailuresToOpenEitherSide) {
    kt::TempDir tmp;
    PODBShadow shadow(nullptr, tmp.file("real"), tmp.file("shadow"));
    kt::LogCapture log;
    uint32_t crc = 0;
    const std::string missing = tmp.file("missing.db");
    EXPECT_EQ(CR_STATUS_MISSING, shadow.duplicate(missing, tmp.file("dst"), &crc));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_MISSING, "failed to open file " + missing + " for reading."))
        << log.dump();
    EXPECT_FALSE(kt::file_exists(missing));

    const std::string src = tmp.file("src.db");
    backup_test::make_app_db(src, 3);
    const std::string dst = tmp.file("no/such/dir/dst");
    EXPECT_EQ(CR_STATUS_MISSING, shadow.duplicate(src, dst, &crc));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_MISSING, "failed to open file " + dst + " for writing."))
        << log.dump();
}

TEST(IntegrityCheckTest, SoundDamagedAndMissingDatabases) {
    kt::TempDir tmp;
    kt::LogCapture log;
    const std::string good = tmp.file("good.db");
    backup_test::make_app_db(good, 100);
    EXPECT_TRUE(PODBShadow::sqlite_integrity_check(good));
    EXPECT_TRUE(log.contains(log_level::info, 0, "Run integrity check on " + good + " successfully.")) << log.dump();

    const std::string bad = tmp.file("bad.db");
    backup_test::make_app_db(bad, 200);
    backup_test::damage_index(bad);
    EXPECT_FALSE(PODBShadow::sqlite_integrity_check(bad));
    EXPECT_EQ(1u, log.count_containing("Run integrity check on " + bad + " failed: ")) << log.dump();

    const std::string missing = tmp.file("missing.db");
    EXPECT_FALSE(PODBShadow::sqlite_integrity_check(missing));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_MISSING, "Can't open database " + missing)) << log.dump();
    EXPECT_FALSE(kt::file_exists(missing));

    kt::TraceSwitch trace(true);
    log.clear();
    PODBShadow::sqlite_integrity_check(good);
    EXPECT_EQ(1u, log.count_message("Run integrity check on SQLite database " + good));
}

}  // namespace
