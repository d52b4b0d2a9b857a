// Backups of one database: new versions, unchanged databases, pruning, copies
// that fail the integrity check, and failures on the way.
#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <utility>

#include "backup_fixtures.h"
#include "dct/fault.h"

using backup_test::AppPool;
using dct::log_level;

namespace {

// Removes the fault hook at scope end.
struct FaultHook {
    explicit FaultHook(dct::fault_hook hook) { dct::set_fault_hook(std::move(hook)); }
    ~FaultHook() { dct::set_fault_hook(nullptr); }
};

std::vector<uint64_t> version_numbers(PODBShadow& shadow, const std::string& type) {
    std::lock_guard<std::recursive_mutex> guard(shadow.mutex());
    std::vector<uint64_t> out;
    for (const ShadowVersion& v : *shadow.get_db_versions_(type)) out.push_back(v.version);
    return out;
}

TEST(BackupTest, FirstBackupMakesVersionOne) {
    AppPool p;
    p.create(20);
    kt::LogCapture log;
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb")) << log.dump();

    boost::shared_ptr<PODBShadow> shadow = p.shadow();
    ASSERT_EQ(std::vector<uint64_t>{1}, version_numbers(*shadow, "appdb"));
    const ShadowVersion& v = shadow->get_db_versions_("appdb")->front();
    EXPECT_EQ(backup_test::read_bytes(p.db), backup_test::read_bytes(v.db_path));
    EXPECT_EQ(backup_test::file_crc(p.db), v.db_crc);
    EXPECT_EQ(shadow_test::chksum_text({"format=1", "current=1", "count=1",
                                        "appdb.1=" + std::to_string(v.db_crc), "appdb.1.journal=1",
                                        "appdb.1.journal.len=0"}),
              kt::read_file(p.shadow_file(".chksum.appdb")));
    EXPECT_FALSE(kt::file_exists(p.shadow_file("appdb.tmp")));
    EXPECT_TRUE(log.contains(log_level::info, 0, "Backup appdb database in " + p.dir)) << log.dump();
    EXPECT_TRUE(log.contains(log_level::info, 0, "Add shadow version 1 for " + p.dir)) << log.dump();
    EXPECT_TRUE(p.ctx->has_shadow_copy(p.dir, "appdb"));
}

TEST(BackupTest, SecondBackupWithoutChangeIsSkipped) {
    AppPool p;
    p.create(5);
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    const std::string chksum = kt::read_file(p.shadow_file(".chksum.appdb"));
    kt::LogCapture log;
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    EXPECT_TRUE(log.contains(log_level::info, 0, p.db + " has no change since last backup, skip it.")) << log.dump();
    EXPECT_EQ(std::vector<uint64_t>{1}, version_numbers(*p.shadow(), "appdb"));
    EXPECT_EQ(chksum, kt::read_file(p.shadow_file(".chksum.appdb")));
    EXPECT_FALSE(kt::file_exists(p.shadow_file("appdb.tmp")));
    EXPECT_FALSE(kt::file_exists(p.shadow_file("appdb.2")));
}

TEST(BackupTest, ChangedDatabaseAddsVersionAndStartsANewJournal) {
    AppPool p;
    p.create(5);
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    p.apply(backup_test::insert_row(6));
    EXPECT_EQ(backup_test::insert_row(6) + ";\n", kt::read_file(p.shadow_file("appdb.1.journal")));

    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    EXPECT_EQ((std::vector<uint64_t>{2, 1}), version_numbers(*p.shadow(), "appdb"));
    EXPECT_FALSE(kt::file_exists(p.shadow_file("appdb.2.journal")));

    p.apply(backup_test::insert_row(7));
    EXPECT_EQ(backup_test::insert_row(7) + ";\n", kt::read_file(p.shadow_file("appdb.2.journal")));
    EXPECT_EQ(backup_test::insert_row(6) + ";\n", kt::read_file(p.shadow_file("appdb.1.journal")));
}

TEST(BackupTest, VersionCountOfOneReplacesTheOnlyVersion) {
    AppPool p("CatalogBackupVersionCount = 1\n");
    p.create(5);
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    for (int round = 2; round <= 3; ++round) {
        p.apply(backup_test::insert_row(10 + round));
        const std::string old_db = p.shadow_file("appdb." + std::to_string(round - 1));
        const std::string old_journal = old_db + ".journal";
        ASSERT_TRUE(kt::file_exists(old_journal));
        kt::LogCapture log;
        ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb")) << log.dump();
        EXPECT_EQ(std::vector<uint64_t>{static_cast<uint64_t>(round)}, version_numbers(*p.shadow(), "appdb"));
        EXPECT_FALSE(kt::file_exists(old_db));
        EXPECT_FALSE(kt::file_exists(old_journal));
        EXPECT_TRUE(log.contains(log_level::info, 0, "Remove shadow db file " + old_db)) << log.dump();
        EXPECT_TRUE(log.contains(log_level::info, 0, "Remove shadow journal file " + old_journal)) << log.dump();
        EXPECT_EQ(backup_test::read_bytes(p.db),
                  backup_test::read_bytes(p.shadow_file("appdb." + std::to_string(round))));
    }
    std::vector<std::string> names = shadow_test::entries_with_prefix(p.shadow_dir(), "appdb.");
    EXPECT_EQ(std::vector<std::string>{"appdb.3"}, names);
}

TEST(BackupTest, OldestVersionsArePrunedBeyondTheVersionCount) {
    AppPool p;  // 5 versions kept
    p.create(3);
    for (int i = 0; i < 7; ++i) {
        if (i > 0) p.apply(backup_test::insert_row(100 + i));
        ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    }
    EXPECT_EQ((std::vector<uint64_t>{7, 6, 5, 4, 3}), version_numbers(*p.shadow(), "appdb"));
    for (const char* gone : {"appdb.1", "appdb.1.journal", "appdb.2", "appdb.2.journal"}) {
        EXPECT_FALSE(kt::file_exists(p.shadow_file(gone))) << gone;
    }
    for (int n = 3; n <= 7; ++n) EXPECT_TRUE(kt::file_exists(p.shadow_file("appdb." + std::to_string(n))));
    // A reload reads the same history back.
    std::unique_ptr<CatalogShadowContext> again = p.layout.context();
    EXPECT_EQ((std::vector<uint64_t>{7, 6, 5, 4, 3}), version_numbers(*again->pool->get(p.dir), "appdb"));
}

TEST(BackupTest, CopyThatFailsTheIntegrityCheckIsSetAside) {
    AppPool p;
    p.create(200);
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    const std::string chksum = kt::read_file(p.shadow_file(".chksum.appdb"));
    backup_test::damage_index(p.db);
    const std::string damaged = backup_test::read_bytes(p.db);

    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_CORRUPT, p.ctx->backup(p.dir, "appdb"));
    const std::string tmp = p.shadow_file("appdb.tmp");
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_CORRUPT,
                             "backup_unlocked: Failed to run integrity check on " + tmp + ". Backup failed for " +
                                 p.db + "."))
        << log.dump();
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_CORRUPT,
                             "backup_unlocked: Integrity check on " + p.db +
                                 " failed. Please contact support to take corrective actions."))
        << log.dump();

    std::vector<std::string> dirs = backup_test::corrupt_dirs(p.shadow_dir());
    ASSERT_EQ(1u, dirs.size());
    EXPECT_EQ(0u, dirs[0].find("#corrupt_appdb_"));
    const std::string set_aside = p.shadow_dir() + "/" + dirs[0] + "/appdb.tmp";
    EXPECT_EQ(damaged, backup_test::read_bytes(set_aside));
    EXPECT_TRUE(log.contains(log_level::info, 0, "Move file " + tmp + " to " + p.shadow_dir() + "/" + dirs[0]))
        << log.dump();

    EXPECT_EQ(std::vector<uint64_t>{1}, version_numbers(*p.shadow(), "appdb"));
    EXPECT_EQ(chksum, kt::read_file(p.shadow_file(".chksum.appdb")));
    EXPECT_FALSE(kt::file_exists(tmp));
    EXPECT_FALSE(kt::file_exists(p.shadow_file("appdb.2")));
}

TEST(BackupTest, MissingDatabaseFails) {
    AppPool p;
    wa_createtree(p.dir, 0755);
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_MISSING, p.ctx->backup(p.dir, "appdb"));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_MISSING, "backup_unlocked: " + p.db + " doesn't exist!"))
        << log.dump();
    EXPECT_EQ(0u, p.shadow()->get_version_count("appdb"));
}

TEST(BackupTest, DisabledFeatureBacksUpNothing) {
    shadow_test::PoolLayout layout;
    std::unique_ptr<CatalogShadowContext> ctx = layout.context(false);  // no identity file
    ASSERT_FALSE(ctx->enabled);
    const std::string dir = layout.app_dir("1/c/p");
    backup_test::make_app_db(dir + "/app.db", 3);
    EXPECT_EQ(CR_STATUS_OK, ctx->backup(dir, "appdb"));
    EXPECT_EQ(CR_STATUS_OK, ctx->backup_unlocked(dir, "appdb", 0));
    EXPECT_EQ(CR_STATUS_OK, ctx->backup_all(true));
    EXPECT_FALSE(kt::file_exists(layout.shadow + "/1/c/p"));
}

TEST(BackupTest, PathOutsideBothRootsAndBadTypeAreCaught) {
    AppPool p;
    p.create(1);
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_FAILED, p.ctx->backup(p.layout.tmp.file("elsewhere"), "appdb"));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_FAILED, "backup_unlocked: Got exception [invalid PODB path]"))
        << log.dump();
    EXPECT_EQ(CR_STATUS_FAILED, p.ctx->backup(p.dir, "xdb"));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_FAILED, "backup_unlocked: Got exception [bad parameter]"))
        << log.dump();
}

TEST(BackupTest, PoDatabaseThroughTheOneArgumentForm) {
    AppPool p;
    const std::string dir = p.layout.po_dir("7");
    backup_test::sql_exec(dir + "/po.db", "CREATE TABLE po (basename TEXT); INSERT INTO po VALUES ('a');");
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(dir));
    boost::shared_ptr<PODBShadow> shadow = p.ctx->pool->get(dir);
    EXPECT_EQ(std::vector<uint64_t>{1}, version_numbers(*shadow, "podb"));
    EXPECT_EQ(backup_test::read_bytes(dir + "/po.db"), backup_test::read_bytes(shadow->get_shadow_dir() + "/podb.1"));
    EXPECT_TRUE(p.ctx->has_shadow_copy(dir));
}

TEST(BackupTest, FailedRenameKeepsTheVersions) {
    AppPool p;
    p.create(5);
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    p.apply(backup_test::insert_row(9));
    const std::string tmp = p.shadow_file("appdb.tmp");
    FaultHook hook([&](dct::fault_op op, const char* path) {
        return op == dct::fault_op::rename && tmp == path ? EIO : 0;
    });
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_IO, p.ctx->backup(p.dir, "appdb"));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_IO,
                             "can't rename file from [" + tmp + "] to [" + p.shadow_file("appdb.2") + "]"))
        << log.dump();
    EXPECT_EQ(std::vector<uint64_t>{1}, version_numbers(*p.shadow(), "appdb"));
    EXPECT_FALSE(kt::file_exists(tmp));
}

TEST(BackupTest, FailedChecksumFileKeepsTheJournalStream) {
    AppPool p;
    p.create(5);
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    p.apply(backup_test::insert_row(9));
    const std::string chksum = kt::read_file(p.shadow_file(".chksum.appdb"));
    {
        const std::string tmp_chksum = p.shadow_file(".chksum.appdb.tmp");
        FaultHook hook([&](dct::fault_op op, const char* path) {
            return op == dct::fault_op::open_write && tmp_chksum == path ? ENOSPC : 0;
        });
        EXPECT_NE(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    }
    EXPECT_EQ(std::vector<uint64_t>{1}, version_numbers(*p.shadow(), "appdb"));
    EXPECT_EQ(1u, p.shadow()->get_db_current_ver_("appdb"));
    EXPECT_FALSE(kt::file_exists(p.shadow_file("appdb.2")));
    EXPECT_FALSE(kt::file_exists(p.shadow_file("appdb.tmp")));
    EXPECT_EQ(chksum, kt::read_file(p.shadow_file(".chksum.appdb")));

    // The next line still goes to version 1's journal, and the journal checks.
    p.apply(backup_test::insert_row(10));
    EXPECT_EQ(backup_test::insert_row(9) + ";\n" + backup_test::insert_row(10) + ";\n",
              kt::read_file(p.shadow_file("appdb.1.journal")));
    EXPECT_FALSE(kt::file_exists(p.shadow_file("appdb.2.journal")));
    std::unique_ptr<CatalogShadowContext> again = p.layout.context();
    boost::shared_ptr<PODBShadow> reloaded = again->pool->get(p.dir);
    std::lock_guard<std::recursive_mutex> guard(reloaded->mutex());
    EXPECT_TRUE(reloaded->get_db_versions_("appdb")->front().check_crc_journal());
}

TEST(BackupTest, UnexpectedJournalUnderTheNewNameIsRemoved) {
    AppPool p;
    p.create(5);
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    p.apply(backup_test::insert_row(9));
    const std::string stray = p.shadow_file("appdb.2.journal");
    kt::write_file(stray, "DELETE FROM catalog;\n");
    kt::LogCapture log;
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    EXPECT_TRUE(log.contains(log_level::warning, CR_STATUS_NONE, "Remove unexpected journal file " + stray))
        << log.dump();
    EXPECT_FALSE(kt::file_exists(stray));
}

TEST(BackupTest, FailedCopyLeavesNoTemporaryFile) {
    AppPool p;
    p.create(50);
    const std::string tmp = p.shadow_file("appdb.tmp");
    FaultHook hook([&](dct::fault_op op, const char* path) {
        return op == dct::fault_op::write && tmp == path ? ENOSPC : 0;
    });
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_IO, p.ctx->backup(p.dir, "appdb"));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_IO, "failed to copy data from " + p.db + " to " + tmp + "."))
        << log.dump();
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_IO,
                             "backup_unlocked: Failed to copy " + p.db + " to " + tmp + " (" + strerror(ENOSPC) + ")."))
        << log.dump();
    EXPECT_FALSE(kt::file_exists(tmp));
    EXPECT_EQ(0u, p.shadow()->get_version_count("appdb"));
}

TEST(BackupTest, ShadowDirectoryThatCannotBeCreated) {
    AppPool p;
    p.create(3);
    const std::string shadow_dir = p.shadow_dir();
    // Nothing made it yet: looking the shadow up writes nothing.
    ASSERT_FALSE(kt::file_exists(shadow_dir));
    FaultHook hook([&](dct::fault_op op, const char* path) {
        return op == dct::fault_op::createtree && shadow_dir == path ? EROFS : 0;
    });
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_FAILED, p.ctx->backup(p.dir, "appdb"));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_IO,
                             "backup_unlocked: Failed to create directory " + shadow_dir + " (" + strerror(EROFS) +
                                 ")"))
        << log.dump();
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_FAILED, "backup_unlocked: Got exception [catalog backup fail]"))
        << log.dump();
}

TEST(BackupTest, PrunedVersionThatCannotBeDeletedIsWarnedAbout) {
    AppPool p("CatalogBackupVersionCount = 1\n");
    p.create(3);
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    p.apply(backup_test::insert_row(4));
    const std::string old_db = p.shadow_file("appdb.1");
    FaultHook hook([&](dct::fault_op op, const char* path) {
        return op == dct::fault_op::deletefile && old_db == path ? EACCES : 0;
    });
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    EXPECT_TRUE(log.contains(log_level::warning, CR_STATUS_ACCESS_DENIED,
                             "Failed to delete file " + old_db + " (" + strerror(EACCES) + ")."))
        << log.dump();
    EXPECT_EQ(std::vector<uint64_t>{2}, version_numbers(*p.shadow(), "appdb"));
    EXPECT_FALSE(kt::file_exists(old_db + ".journal"));
}

// The new version's name is made durable before the checksum file lists it,
// and a pruned version's removal is made durable too.
TEST(BackupTest, ShadowDirectoryIsSyncedAfterRenameAndAfterRemoval) {
    AppPool p("CatalogBackupVersionCount = 1\n");
    p.create(5);
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    p.apply(backup_test::insert_row(9));
    const std::string shadow_dir = p.shadow_dir();

    std::mutex mutex;
    std::vector<std::pair<dct::fault_op, std::string>> calls;
    {
        FaultHook hook([&](dct::fault_op op, const char* path) {
            std::lock_guard<std::mutex> guard(mutex);
            calls.emplace_back(op, path);
            return 0;
        });
        ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    }
    auto find = [&](dct::fault_op op, const std::string& path, size_t from) {
        for (size_t i = from; i < calls.size(); ++i) {
            if (calls[i].first == op && calls[i].second == path) return i;
        }
        return calls.size();
    };
    const size_t renamed = find(dct::fault_op::rename, shadow_dir + "/appdb.tmp", 0);
    ASSERT_LT(renamed, calls.size());
    const size_t synced = find(dct::fault_op::fsync, shadow_dir, renamed);
    ASSERT_LT(synced, calls.size());
    const size_t persisted = find(dct::fault_op::rename, shadow_dir + "/.chksum.appdb.tmp", renamed);
    EXPECT_LT(synced, persisted);
    const size_t removed = find(dct::fault_op::deletefile, shadow_dir + "/appdb.1", 0);
    ASSERT_LT(removed, calls.size());
    EXPECT_LT(persisted, removed);
    EXPECT_LT(find(dct::fault_op::fsync, shadow_dir, removed), calls.size());
}

}  // namespace
