// Recovery of one database: lost and damaged databases rebuilt row for row,
// the PO clean-up statement, journals that fail, what stood at the real place,
// and the refusals.
#include <gtest/gtest.h>

#include <mutex>
#include <utility>

#include "backup_fixtures.h"
#include "dct/fault.h"

using backup_test::AppPool;
using dct::log_level;

namespace {

struct FaultHook {
    explicit FaultHook(dct::fault_hook hook) { dct::set_fault_hook(std::move(hook)); }
    ~FaultHook() { dct::set_fault_hook(nullptr); }
};

size_t errors_and_warnings(const kt::LogCapture& log) {
    size_t n = 0;
    for (const kt::LogRecord& r : log.records()) {
        if (r.level == log_level::error || r.level == log_level::warning) ++n;
    }
    return n;
}

// A pool with one backup of 30 rows and a journal of inserts, an update and a
// delete applied since.
void backed_up_with_changes(AppPool& p) {
    p.create(30);
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    for (int id = 31; id <= 34; ++id) p.apply(backup_test::insert_row(id));
    p.apply("UPDATE catalog SET name = 'renamed', size = -1 WHERE id % 3 = 0");
    p.apply("DELETE FROM catalog WHERE id IN (2, 17, 33)");
}

TEST(RecoverTest, DeletedDatabaseIsRebuiltWithEveryRow) {
    AppPool p;
    backed_up_with_changes(p);
    ASSERT_EQ(0, unlink(p.db.c_str()));

    kt::LogCapture log;
    ASSERT_EQ(CR_STATUS_OK, p.ctx->recover(p.dir, "appdb", 0)) << log.dump();
    EXPECT_EQ(backup_test::catalog_rows(p.reference), backup_test::catalog_rows(p.db));
    EXPECT_EQ(31u, backup_test::catalog_rows(p.db).size());
    EXPECT_TRUE(backup_test::integrity_ok(p.db));
    EXPECT_FALSE(kt::file_exists(p.db + ".tmp"));
    EXPECT_FALSE(kt::file_exists(p.db + ".tmp-journal"));

    const std::string v1 = p.shadow_file("appdb.1");
    EXPECT_TRUE(log.contains(log_level::info, 0,
                             "merge_shadows: Using " + v1 + " as the base dbfile, duplicate it to " + p.db + ".tmp"))
        << log.dump();
    EXPECT_TRUE(log.contains(log_level::info, 0, "Applying journal file " + v1 + ".journal")) << log.dump();
    EXPECT_TRUE(log.contains(log_level::info, 0, "merge_shadows: The status value for apply_journals is 0"))
        << log.dump();
    EXPECT_TRUE(log.contains(log_level::info, 0, "recover_unlocked: Recover database " + p.db + " succeeded."))
        << log.dump();
    EXPECT_EQ(0u, errors_and_warnings(log)) << log.dump();
    EXPECT_TRUE(backup_test::corrupt_dirs(p.shadow_dir()).empty());
}

TEST(RecoverTest, UnlockedFormRebuildsTheSame) {
    AppPool p;
    backed_up_with_changes(p);
    ASSERT_EQ(0, unlink(p.db.c_str()));
    ASSERT_EQ(CR_STATUS_OK, p.ctx->recover_unlocked(p.dir, "appdb", 0));
    EXPECT_EQ(backup_test::catalog_rows(p.reference), backup_test::catalog_rows(p.db));
}

TEST(RecoverTest, DamagedDatabaseIsRebuilt) {
    AppPool p;
    backed_up_with_changes(p);
    backup_test::overwrite(p.db, 0, std::string(200, '\x5a'));
    const std::string damaged = backup_test::read_bytes(p.db);

    kt::LogCapture log;
    ASSERT_EQ(CR_STATUS_OK, p.ctx->recover(p.dir, "appdb", 0)) << log.dump();
    EXPECT_EQ(backup_test::catalog_rows(p.reference), backup_test::catalog_rows(p.db));
    EXPECT_TRUE(backup_test::integrity_ok(p.db));

    EXPECT_NE(damaged, backup_test::read_bytes(p.db));
    // Replaced by a rename: the database's name never went missing.
    EXPECT_TRUE(backup_test::corrupt_dirs(p.shadow_dir()).empty());
}

// Recovery of an application database runs the PO clean-up too; there is no
// po table, the statement fails, and that is only traced.
TEST(RecoverTest, PoCleanupOnAnApplicationDatabaseIsOnlyTraced) {
    AppPool p;
    backed_up_with_changes(p);
    ASSERT_EQ(0, unlink(p.db.c_str()));

    kt::TraceSwitch trace(true);
    kt::LogCapture log;
    ASSERT_EQ(CR_STATUS_OK, p.ctx->recover(p.dir, "appdb", 0)) << log.dump();
    size_t traced = 0;
    for (const kt::LogRecord& r : log.records()) {
        if (r.message.find("DELETE FROM po WHERE basename LIKE '%[R_%]';") == std::string::npos) continue;
        EXPECT_EQ(log_level::trace, r.level) << r.message;
        if (r.message.find("no such table: po") != std::string::npos) ++traced;
    }
    EXPECT_EQ(1u, traced) << log.dump();
    EXPECT_EQ(0u, errors_and_warnings(log)) << log.dump();
    EXPECT_EQ(1u, log.count_message("recover_unlocked: Rename file " + p.db + ".tmp to " + p.db)) << log.dump();
    EXPECT_EQ(backup_test::catalog_rows(p.reference), backup_test::catalog_rows(p.db));
}

TEST(RecoverTest, PoDatabaseLosesItsMarkedRows) {
    AppPool p;
    const std::string dir = p.layout.po_dir("3");
    const std::string db = dir + "/po.db";
    backup_test::sql_exec(db, "CREATE TABLE po (basename TEXT); INSERT INTO po VALUES ('a'), ('b[R1]'), ('c');");
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(dir));
    for (const char* statement : {"INSERT INTO po VALUES ('d[R_2]')", "INSERT INTO po VALUES ('e')"}) {
        backup_test::sql_exec(db, statement);
        ASSERT_EQ(CR_STATUS_OK, p.ctx->write_journal(dir, "podb", statement));
    }
    ASSERT_EQ(0, unlink(db.c_str()));
    ASSERT_EQ(CR_STATUS_OK, p.ctx->recover(dir, 0));
    EXPECT_EQ((std::vector<std::string>{"a", "c", "e"}),
              backup_test::sql_rows(db, "SELECT basename FROM po ORDER BY basename;"));
}

// The dead writer's journal belongs to the old file; left beside the rebuilt
// one, SQLite would play it back onto it at the next open.
TEST(RecoverTest, HotJournalBesideTheRealDatabaseIsSetAside) {
    AppPool p;
    backed_up_with_changes(p);
    backup_test::leave_hot_journal(p.db, 1000);
    const std::string journal = backup_test::read_bytes(p.db + "-journal");

    ASSERT_EQ(CR_STATUS_OK, p.ctx->recover(p.dir, "appdb", 0));
    EXPECT_FALSE(kt::file_exists(p.db + "-journal"));
    EXPECT_EQ(backup_test::catalog_rows(p.reference), backup_test::catalog_rows(p.db));
    EXPECT_TRUE(backup_test::integrity_ok(p.db));
    bool kept = false;
    for (const std::string& d : backup_test::corrupt_dirs(p.shadow_dir())) {
        const std::string f = p.shadow_dir() + "/" + d + "/app.db-journal";
        if (kt::file_exists(f)) kept = backup_test::read_bytes(f) == journal;
    }
    EXPECT_TRUE(kept);
}

// A crashed recovery may leave its target and the target's journal; both go
// before the new copy is made.
TEST(RecoverTest, LeftoversOfAnEarlierRecoveryAreRemovedFirst) {
    AppPool p;
    backed_up_with_changes(p);
    const std::string other = p.layout.tmp.file("other.db");
    backup_test::make_app_db(other, 500);
    backup_test::leave_hot_journal(other, 1000);
    kt::write_file(p.db + ".tmp", backup_test::read_bytes(other));
    kt::write_file(p.db + ".tmp-journal", backup_test::read_bytes(other + "-journal"));
    ASSERT_EQ(0, unlink(p.db.c_str()));

    ASSERT_EQ(CR_STATUS_OK, p.ctx->recover(p.dir, "appdb", 0));
    EXPECT_EQ(backup_test::catalog_rows(p.reference), backup_test::catalog_rows(p.db));
    EXPECT_TRUE(backup_test::integrity_ok(p.db));
    EXPECT_FALSE(kt::file_exists(p.db + ".tmp"));
    EXPECT_FALSE(kt::file_exists(p.db + ".tmp-journal"));
}

TEST(RecoverTest, NoBackupsToRecoverFrom) {
    AppPool p;
    p.create(3);
    const std::string before = backup_test::read_bytes(p.db);
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_NOT_FOUND, p.ctx->recover(p.dir, "appdb", 0));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_NOT_FOUND,
                             "merge_shadows: Can't recover the database for " + p.db + ", there're no backups."))
        << log.dump();
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_NOT_FOUND,
                             "recover_unlocked: Recover database " + p.db + " failed."))
        << log.dump();
    EXPECT_EQ(before, backup_test::read_bytes(p.db));
}

TEST(RecoverTest, AllVersionsBadLeavesTheRealDatabaseAsItWas) {
    AppPool p;
    backed_up_with_changes(p);
    p.apply(backup_test::insert_row(50));
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    // Version 2 fails its database checksum, version 1 its integrity check.
    backup_test::overwrite(p.shadow_file("appdb.2"), 200, "XXXX");
    {
        boost::shared_ptr<PODBShadow> shadow = p.shadow();
        std::lock_guard<std::recursive_mutex> guard(shadow->mutex());
        ShadowVersion& v1 = shadow->get_db_versions_("appdb")->back();
        backup_test::damage_index(v1.db_path);
        v1.db_crc = backup_test::file_crc(v1.db_path);
        ASSERT_EQ(0u, shadow->persist_chksum("appdb"));
    }
    backup_test::overwrite(p.db, 0, std::string(100, '\x01'));
    const std::string before = backup_test::read_bytes(p.db);
    const std::string v1_bytes = backup_test::read_bytes(p.shadow_file("appdb.1"));
    const std::string v2_bytes = backup_test::read_bytes(p.shadow_file("appdb.2"));

    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_CORRUPT, p.ctx->recover(p.dir, "appdb", 0));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_CORRUPT,
                             "merge_shadows: Can't find appropriate shadow backup to recover " + p.db))
        << log.dump();
    EXPECT_EQ(before, backup_test::read_bytes(p.db));
    EXPECT_FALSE(kt::file_exists(p.db + ".tmp"));
    // Bad versions are passed over, never removed or changed.
    EXPECT_EQ(v1_bytes, backup_test::read_bytes(p.shadow_file("appdb.1")));
    EXPECT_EQ(v2_bytes, backup_test::read_bytes(p.shadow_file("appdb.2")));
    EXPECT_EQ(2u, p.shadow()->get_version_count("appdb"));
    EXPECT_EQ(0u, log.count_containing("can't manage to recover the PO database")) << log.dump();
}

TEST(RecoverTest, PoDatabaseWithNoGoodVersionSaysSo) {
    AppPool p;
    const std::string dir = p.layout.po_dir("4");
    const std::string db = dir + "/po.db";
    backup_test::sql_exec(db, "CREATE TABLE po (basename TEXT); INSERT INTO po VALUES ('a');");
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(dir));
    boost::shared_ptr<PODBShadow> shadow = p.ctx->pool->get(dir);
    backup_test::overwrite(shadow->get_shadow_dir() + "/podb.1", 10, "X");
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_CORRUPT, p.ctx->recover(dir, 0));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_CORRUPT,
                             "merge_shadows: " + db + " is corrupt, can't manage to recover the PO database."))
        << log.dump();
    EXPECT_TRUE(log.contains(log_level::warning, CR_STATUS_CORRUPT,
                             "merge_shadows: " + shadow->get_shadow_dir() +
                                 "/podb.1 is corrupt, will try to use an earlier shadow copy."))
        << log.dump();
}

// One transaction: a statement that fails in the middle leaves the copy at the
// base version's content, and nothing is moved into place.
TEST(RecoverTest, FailingJournalStatementRollsTheWholeReplayBack) {
    AppPool p;
    p.create(20);
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    const std::vector<std::string> base = backup_test::catalog_rows(p.shadow_file("appdb.1"));
    p.apply(backup_test::insert_row(21));
    ASSERT_EQ(CR_STATUS_OK, p.ctx->write_journal(p.dir, "appdb", "INSERT INTO no_such_table VALUES (1)"));
    p.apply(backup_test::insert_row(22));

    // The merge on its own: the target holds the base content.
    const std::string target = p.layout.tmp.file("merged.db");
    kt::LogCapture log;
    EXPECT_NE(CR_STATUS_OK, p.shadow()->merge_shadows(p.dir, target, "appdb"));
    EXPECT_EQ(base, backup_test::catalog_rows(target));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_FAILED,
                             "Failed to apply journal file " + p.shadow_file("appdb.1.journal")))
        << log.dump();
    EXPECT_TRUE(log.contains(log_level::info, 0, "merge_shadows: The status value for apply_journals is 4"))
        << log.dump();

    // Through recover: the real database is untouched and the .tmp file gone.
    backup_test::overwrite(p.db, 0, std::string(64, '\x07'));
    const std::string before = backup_test::read_bytes(p.db);
    log.clear();
    EXPECT_NE(CR_STATUS_OK, p.ctx->recover(p.dir, "appdb", 0));
    EXPECT_EQ(before, backup_test::read_bytes(p.db));
    EXPECT_FALSE(kt::file_exists(p.db + ".tmp"));
    EXPECT_FALSE(kt::file_exists(p.db + ".tmp-journal"));
    EXPECT_TRUE(backup_test::corrupt_dirs(p.shadow_dir()).empty());
    EXPECT_EQ(1u, log.count_message("recover_unlocked: Recover database " + p.db + " failed.")) << log.dump();

    // And with the real database gone it stays gone.
    ASSERT_EQ(0, unlink(p.db.c_str()));
    EXPECT_NE(CR_STATUS_OK, p.ctx->recover_unlocked(p.dir, "appdb", 0));
    EXPECT_FALSE(kt::file_exists(p.db));
    EXPECT_FALSE(kt::file_exists(p.db + ".tmp"));
}

TEST(RecoverTest, DisabledFeatureRefuses) {
    shadow_test::PoolLayout layout;
    std::unique_ptr<CatalogShadowContext> ctx = layout.context(false);
    const std::string dir = layout.po_dir("1");
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_FAILED, ctx->recover(dir, 0));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_FAILED,
                             "Can't recover PO database in " + dir +
                                 " since the catalog shadow feature has been disabled."))
        << log.dump();
    EXPECT_EQ(CR_STATUS_FAILED, ctx->recover(dir, "uldb", 0));
    EXPECT_EQ(CR_STATUS_FAILED, ctx->recover_unlocked(dir, "uldb", 0));
    EXPECT_EQ(2u, log.count(log_level::error, CR_STATUS_FAILED,
                            "Can't recover uldb in " + dir + " since the catalog shadow feature has been disabled."))
        << log.dump();
}

TEST(RecoverTest, LostIdentityFileStopsRecovery) {
    AppPool p;
    backed_up_with_changes(p);
    ASSERT_EQ(0, unlink((p.layout.shadow + "/.catalog_shadow_identity").c_str()));
    ASSERT_EQ(0, unlink(p.db.c_str()));
    EXPECT_EQ(CR_STATUS_FAILED, p.ctx->recover(p.dir, "appdb", 0));
    EXPECT_FALSE(kt::file_exists(p.db));
    EXPECT_FALSE(p.ctx->enabled);
}

TEST(RecoverTest, MissingDirectoryIsCreated) {
    AppPool p;
    backed_up_with_changes(p);
    ASSERT_EQ(0, wa_deletetree(p.dir));
    ASSERT_EQ(CR_STATUS_OK, p.ctx->recover(p.dir, "appdb", 0));
    EXPECT_EQ(backup_test::catalog_rows(p.reference), backup_test::catalog_rows(p.db));
}

TEST(RecoverTest, DirectoryThatCannotBeCreated) {
    AppPool p;
    backed_up_with_changes(p);
    ASSERT_EQ(0, wa_deletetree(p.dir));
    FaultHook hook([&](dct::fault_op op, const char*) { return op == dct::fault_op::createtree ? EACCES : 0; });
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_ACCESS_DENIED, p.ctx->recover(p.dir, "appdb", 0));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_ACCESS_DENIED,
                             "recover_unlocked: " + p.dir + " could not be created"))
        << log.dump();
}

TEST(RecoverTest, FailedMoveIntoPlace) {
    AppPool p;
    backed_up_with_changes(p);
    ASSERT_EQ(0, unlink(p.db.c_str()));
    const std::string target = p.db + ".tmp";
    FaultHook hook([&](dct::fault_op op, const char* path) {
        return op == dct::fault_op::filemove && target == path ? EIO : 0;
    });
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_IO, p.ctx->recover(p.dir, "appdb", 0));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_IO,
                             "recover_unlocked: could not move " + target + " to " + p.db + " (" + strerror(EIO) +
                                 ")"))
        << log.dump();
    EXPECT_FALSE(kt::file_exists(target));
    EXPECT_FALSE(kt::file_exists(p.db));
}

// The rebuilt database's name is made durable in its directory.
TEST(RecoverTest, RealDirectoryIsSyncedAfterTheMove) {
    AppPool p;
    backed_up_with_changes(p);
    ASSERT_EQ(0, unlink(p.db.c_str()));
    std::mutex mutex;
    std::vector<std::pair<dct::fault_op, std::string>> calls;
    {
        FaultHook hook([&](dct::fault_op op, const char* path) {
            std::lock_guard<std::mutex> guard(mutex);
            calls.emplace_back(op, path);
            return 0;
        });
        ASSERT_EQ(CR_STATUS_OK, p.ctx->recover(p.dir, "appdb", 0));
    }
    size_t moved = calls.size();
    for (size_t i = 0; i < calls.size(); ++i) {
        if (calls[i].first == dct::fault_op::filemove && calls[i].second == p.db + ".tmp") moved = i;
    }
    ASSERT_LT(moved, calls.size());
    bool synced = false;
    for (size_t i = moved + 1; i < calls.size(); ++i) {
        if (calls[i].first == dct::fault_op::fsync && calls[i].second == p.dir) synced = true;
    }
    EXPECT_TRUE(synced);
}

TEST(RecoverTest, ExceptionsAreCaught) {
    AppPool p;
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_FAILED, p.ctx->recover(p.layout.tmp.file("elsewhere"), "appdb", 0));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_FAILED, "recover: Got exception: [invalid PODB path]"))
        << log.dump();
    EXPECT_EQ(CR_STATUS_FAILED, p.ctx->recover(p.dir, "xdb", 0));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_FAILED, "recover: Got exception: [bad parameter]"))
        << log.dump();
    EXPECT_EQ(CR_STATUS_FAILED, p.ctx->recover_unlocked(p.layout.tmp.file("elsewhere"), "appdb", 0));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_FAILED,
                             "recover_unlocked: Got exception: [invalid PODB path]"))
        << log.dump();
}

}  // namespace
