// The catalog operations of catalog_application_impl: update, find, the
// lookups by image and file name, expire, delete, close, and where each takes
// the directory lock.
#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/catalog_application_impl.h"
#include "appdb/catalog_table.h"
#include "catalog_test_helpers.h"
#include "common/test_util.h"
#include "dct/fs.h"

namespace {

using appdb::app_catalog_item;
using catt::make_item;
using dct::log_level;

// Records every lock call; GetLockString can be made to fail.
class recording_lock : public CatalogDirectoryLock {
public:
    cr_status_t GetLockString(const std::string& dir, std::string* owner,
                              unsigned int* mode) const override {
        calls->push_back("get " + dir);
        if (fail_get != 0) return fail_get;
        return CatalogDirectoryLock::GetLockString(dir, owner, mode);
    }
    cr_status_t Lock(const std::string& dir, unsigned int mode) override {
        calls->push_back("lock " + dir + " " + std::to_string(mode));
        return CatalogDirectoryLock::Lock(dir, mode);
    }
    cr_status_t Unlock(const std::string& dir, unsigned int mode) override {
        calls->push_back("unlock " + dir + " " + std::to_string(mode));
        return CatalogDirectoryLock::Unlock(dir, mode);
    }
    std::vector<std::string>* calls = nullptr;
    cr_status_t fail_get = 0;
};

class CatalogOperations : public catt::catalog_fixture {
protected:
    // Replaces the application's lock with a recording one.
    recording_lock* record_locks() {
        auto* lock = new recording_lock();
        lock->calls = &lock_calls;
        app->dir_lock.reset(lock);
        return lock;
    }
    // The lock calls of one locked section on `dir`.
    std::vector<std::string> section(const std::string& dir) const {
        return {"get " + dir, "lock " + dir + " 2", "unlock " + dir + " 2"};
    }
    std::vector<std::string> twice(const std::string& dir) const {
        std::vector<std::string> v = section(dir);
        std::vector<std::string> w = section(dir);
        v.insert(v.end(), w.begin(), w.end());
        return v;
    }
    std::string dir(const std::string& c = "c", const std::string& p = "p") const {
        return app->to_db_full_path(c, p);
    }
    std::vector<std::string> names(const std::vector<app_catalog_item>& items) const {
        std::vector<std::string> out;
        for (const auto& i : items) out.push_back(i.file_name);
        return out;
    }

    std::vector<std::string> lock_calls;
};

// ---- update_catalog ----

TEST_F(CatalogOperations, UpdateWithUnparsableTextCreatesNothing) {
    const std::string text = "1|f|0|B1|";  // 4 of 28 fields
    EXPECT_EQ(4u, app->update_catalog("u", 4, text));
    EXPECT_TRUE(logged(log_level::info, 0, "update_catalog: update app catalog " + text));
    EXPECT_TRUE(logged(log_level::error, 4,
                       "update_catalog: failed to generate app catalog item from string " + text))
        << log.dump();
    EXPECT_FALSE(kt::file_exists(root));
}

TEST_F(CatalogOperations, UpdateCreatesTheDatabaseOfANewClientAndPolicy) {
    record_locks();
    const app_catalog_item item = make_item("newc", "newp", "f", "B1");
    ASSERT_FALSE(kt::file_exists(dir("newc", "newp")));
    ASSERT_EQ(0u, app->update_catalog("anyone", 4, item.to_string()));
    const std::string file = db_file("newc", "newp");
    EXPECT_TRUE(kt::file_exists(file));
    EXPECT_EQ(appdb::catalog_create_table_sql(),
              catt::raw_scalar(file, "SELECT sql FROM sqlite_master WHERE name='catalog'"));
    EXPECT_EQ("1", catt::raw_scalar(file, "SELECT count(*) FROM sqlite_master WHERE name='catalog_backupid'"));
    EXPECT_EQ(1, catt::raw_count(file, "name = 'f'"));
    EXPECT_TRUE(logged(log_level::info, 0,
                       "need_create_db: app db " + file + " doesn't exist, going to create it"));
    // One locked section around creation and insert.
    EXPECT_EQ(section(dir("newc", "newp")), lock_calls);
    // A second record goes into the same database.
    ASSERT_EQ(0u, app->update_catalog("anyone", 4, make_item("newc", "newp", "g", "B1").to_string()));
    EXPECT_EQ(2, catt::raw_count(file));
}

TEST_F(CatalogOperations, UpdateIsAllowedForAnyRole) {
    for (unsigned role : {1u, 2u, 3u, 4u, 0u}) {
        EXPECT_EQ(0u, app->update_catalog(nullptr, role,
                                          make_item("c", "p", "f" + std::to_string(role), "B").to_string()));
    }
    EXPECT_EQ(5, catt::raw_count(db_file("c", "p")));
}

TEST_F(CatalogOperations, UpdateReportsAFailedCreation) {
    // A plain file where the client directory should be.
    ASSERT_EQ(0, wa_createtree(app->app_root, 0700));
    kt::write_file(app->app_root + "/c", "not a directory");
    EXPECT_EQ(4u, app->update_catalog("u", 4, make_item("c", "p", "f", "B").to_string()));
    EXPECT_TRUE(logged(log_level::error, 4, "update_catalog: failed to call need_create_db for c c p p"))
        << log.dump();
}

TEST_F(CatalogOperations, UpdateWithAFailingLockTouchesNothing) {
    record_locks()->fail_get = 11;
    EXPECT_EQ(11u, app->update_catalog("u", 4, make_item("c", "p", "f", "B").to_string()));
    EXPECT_TRUE(logged(log_level::error, 11, "update_catalog: failed to get " + dir() + " lock status"))
        << log.dump();
    EXPECT_FALSE(kt::file_exists(root));
}

TEST_F(CatalogOperations, DuplicateUpdateFails) {
    insert(make_item("c", "p", "f", "B1"));
    EXPECT_EQ(4u, app->update_catalog("u", 4, make_item("c", "p", "f", "B2").to_string()));
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p")));
}

// ---- find_catalog ----

TEST_F(CatalogOperations, AppUserSeesOnlyItsOwnNonAdminRecords) {
    insert(make_item("c", "p", "a1", "B", 100, "alice", 4));
    insert(make_item("c", "p", "b1", "B", 200, "bob", 4));
    insert(make_item("c", "p", "a2", "B", 300, "alice", 1));  // admin-owned, alice's name
    insert(make_item("c", "p", "a3", "B", 400, "alice", 4));
    insert(make_item("c", "p", "r1", "B", 500, "root", 1));
    kt::TraceSwitch trace(true);
    log.clear();
    std::vector<app_catalog_item> out;
    ASSERT_EQ(0u, app->find_catalog("alice", 4, "backup_id|c,p,B", out));
    std::vector<std::string> got = names(out);
    std::sort(got.begin(), got.end());
    EXPECT_EQ((std::vector<std::string>{"a1", "a3"}), got);
    for (const char* skipped : {"b1", "a2", "r1"}) {
        EXPECT_TRUE(traced(std::string("find_catalog: skip query result ") + skipped)) << skipped;
    }
    EXPECT_EQ(0u, log.count_containing("bad access"));  // quiet denials
    // The ordered form keeps the order of the rest.
    ASSERT_EQ(0u, app->find_catalog("alice", 4, "backup_id|c,p,B*", out));
    EXPECT_EQ((std::vector<std::string>{"a1", "a3"}), names(out));
    // An administrator sees everything.
    ASSERT_EQ(0u, app->find_catalog("", 1, "backup_id|c,p,B*", out));
    EXPECT_EQ((std::vector<std::string>{"a1", "b1", "a2", "a3", "r1"}), names(out));
    // Another role sees nothing, and each record says why.
    log.clear();
    ASSERT_EQ(0u, app->find_catalog("alice", 2, "backup_id|c,p,B*", out));
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(5u, log.count(log_level::error, 106, "authenticate: unsupported user role 2 for app"));
}

TEST_F(CatalogOperations, FindLogsItsQueryAndLocksOnce) {
    insert(make_item("c", "p", "f", "B1"));
    record_locks();
    log.clear();
    std::vector<app_catalog_item> out;
    ASSERT_EQ(0u, app->find_catalog("u", 1, "name|c,p,f", out));
    EXPECT_TRUE(logged(log_level::info, 0, "find_catalog: find app catalog name|c,p,f"));
    EXPECT_EQ(section(dir()), lock_calls);
}

TEST_F(CatalogOperations, FindWithABadQueryFailsBeforeLocking) {
    record_locks();
    std::vector<app_catalog_item> out;
    EXPECT_EQ(4u, app->find_catalog("u", 1, "bogus|c,p,f", out));
    EXPECT_TRUE(logged(log_level::error, 4, "find_catalog: failed to parse bogus|c,p,f")) << log.dump();
    EXPECT_TRUE(lock_calls.empty());
}

TEST_F(CatalogOperations, FindTextFormIsTheListOrEmpty) {
    kt::TraceSwitch trace(true);
    std::string text = "old";
    ASSERT_EQ(0u, app->find_catalog("u", 1, "backup_id|c,p,B1", text));
    EXPECT_EQ("", text);
    EXPECT_TRUE(traced("find_catalog: don't find backup by backup_id|c,p,B1"));
    insert(make_item("c", "p", "f1", "B1", 100));
    insert(make_item("c", "p", "f2", "B1", 200));
    ASSERT_EQ(0u, app->find_catalog("u", 1, "backup_id|c,p,B1*", text));
    EXPECT_EQ("2|" + make_item("c", "p", "f1", "B1", 100).to_string() +
                  make_item("c", "p", "f2", "B1", 200).to_string(),
              text);
    // Records the user may not read are not in the text either.
    ASSERT_EQ(0u, app->find_catalog("mallory", 4, "backup_id|c,p,B1*", text));
    EXPECT_EQ("", text);
}

TEST_F(CatalogOperations, FindTextFormReportsAFailure) {
    std::string text = "old";
    EXPECT_EQ(4u, app->find_catalog("u", 1, "none|x", text));
    EXPECT_TRUE(logged(log_level::error, 4, "find_catalog: failed to find app catalog by none|x")) << log.dump();
}

TEST_F(CatalogOperations, FindReportsACorruptRowWithItsQuery) {
    insert(make_item("c", "p", "f", "B1"));
    sqlite3* raw = catt::raw_open(db_file("c", "p"));
    catt::raw_exec(raw, "UPDATE catalog SET owner = 'mallory'");
    sqlite3_close(raw);
    std::vector<app_catalog_item> out;
    EXPECT_EQ(67u, app->find_catalog("u", 1, "backup_id|c,p,B1", out));
    EXPECT_TRUE(logged(log_level::error, 67,
                       "find_catalog: failed to query backup_id|c,p,B1 for " + dir()))
        << log.dump();
}

// ---- find_by_image_name / find_by_file_name ----

TEST_F(CatalogOperations, FindByFileNameWithTwoMatchesYieldsTheFirst) {
    insert(make_item("c", "p", "f-late", "B1", 900));
    insert(make_item("c", "p", "f-early", "B2", 100));
    app_catalog_item rec;
    ASSERT_EQ(0u, app->find_by_file_name("c", "p", "f*", rec, true));
    EXPECT_EQ("f-early", rec.file_name);  // the pattern form is ordered by start time
    EXPECT_EQ("c", rec.client);
    EXPECT_EQ("p", rec.policy);
    EXPECT_EQ(1u, log.count(log_level::error, 0, "find_by_file_name: found 2 for file name f*")) << log.dump();
}

TEST_F(CatalogOperations, FindByFileNameNotFoundIs72) {
    kt::TraceSwitch trace(true);
    app_catalog_item rec;
    EXPECT_EQ(72u, app->find_by_file_name("c", "p", "nothing", rec, true));
    EXPECT_TRUE(traced("find_by_file_name: not found app catalog from name|c,p,nothing")) << log.dump();
}

TEST_F(CatalogOperations, FindByImageNameUsesTheBackupIdOfTheImage) {
    insert(make_item("c", "p", "f1", "cl_1700000000", 100));
    insert(make_item("c", "p", "f2", "cl_1700000000", 200));
    insert(make_item("c", "p", "f3", "cl_1800000000", 300));
    app_catalog_item rec;
    ASSERT_EQ(0u, app->find_by_image_name("c", "p", "cl_1800000000_C1_F1", rec, false));
    EXPECT_EQ("f3", rec.file_name);
    ASSERT_EQ(0u, app->find_by_image_name("c", "p", "cl_1700000000_C1_HDR", rec, true));
    EXPECT_EQ("cl_1700000000", rec.backup_id);
    EXPECT_EQ(1u, log.count(log_level::error, 0,
                            "find_by_image_name: found 2 for backupid cl_1700000000"))
        << log.dump();
    EXPECT_EQ(72u, app->find_by_image_name("c", "p", "cl_1900000000_C1_HDR", rec, true));
}

TEST_F(CatalogOperations, FindByImageNameOfAnUnknownNameIs4) {
    app_catalog_item rec;
    EXPECT_EQ(4u, app->find_by_image_name("c", "p", "plain", rec, true));
    EXPECT_TRUE(logged(log_level::error, 4, "find_by_image_name: wrong image name plain format"))
        << log.dump();
}

TEST_F(CatalogOperations, FindByQueryFailureIsReported) {
    insert(make_item("c", "p", "f", "B1"));
    sqlite3* raw = catt::raw_open(db_file("c", "p"));
    catt::raw_exec(raw, "UPDATE catalog SET crc = crc + 1");
    sqlite3_close(raw);
    app_catalog_item rec;
    EXPECT_EQ(67u, app->find_by_file_name("c", "p", "f", rec, false));
    EXPECT_TRUE(logged(log_level::error, 67, "find_by_file_name: failed query name|c,p,f")) << log.dump();
}

TEST_F(CatalogOperations, LookupsLockOnlyWhenAsked) {
    insert(make_item("c", "p", "f", "cl_1_C1_HDR"));
    record_locks();
    app_catalog_item rec;
    app->find_by_file_name("c", "p", "f", rec, false);
    app->find_by_image_name("c", "p", "cl_1_C1_HDR", rec, false);
    EXPECT_TRUE(lock_calls.empty());
    app->find_by_file_name("c", "p", "f", rec, true);
    EXPECT_EQ(section(dir()), lock_calls);
    lock_calls.clear();
    app->find_by_image_name("c", "p", "x_C1", rec, true);
    EXPECT_EQ(section(dir()), lock_calls);
}

// ---- expire_catalog ----

TEST_F(CatalogOperations, ExpireOfANonHeaderImageDeletesNothing) {
    insert(make_item("c", "p", "f", "x"));
    kt::TraceSwitch trace(true);
    EXPECT_EQ(0u, app->expire_catalog("u", 1, "c", "p", "x_C1_F1", true));
    EXPECT_TRUE(traced("expire_catalog: skip image x_C1_F1"));
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p")));
    // A name without "_C" is skipped too, after its format error.
    EXPECT_EQ(0u, app->expire_catalog("u", 1, "c", "p", "x_HDR", true));
    EXPECT_TRUE(logged(log_level::error, CR_STATUS_NONE, "is_HDR_image: wrong image name x_HDR format"));
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p")));
}

TEST_F(CatalogOperations, ExpireOfAHeaderImageWithoutRecordsIsSuccess) {
    insert(make_item("c", "p", "f", "other"));
    kt::TraceSwitch trace(true);
    EXPECT_EQ(0u, app->expire_catalog("u", 1, "c", "p", "x_C1_HDR", true));
    EXPECT_TRUE(traced("expire_catalog: no app catalog for img x_C1_HDR")) << log.dump();
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p")));
    // Also when the database does not exist at all: nothing is created.
    EXPECT_EQ(0u, app->expire_catalog("u", 1, "c2", "p2", "x_C1_HDR", true));
    EXPECT_FALSE(kt::file_exists(dir("c2", "p2")));
}

TEST_F(CatalogOperations, ExpireRemovesEveryRecordOfTheBackup) {
    insert(make_item("c", "p", "f1", "cl_1700000000", 100, "alice", 4));
    insert(make_item("c", "p", "f2", "cl_1700000000", 200, "alice", 4));
    insert(make_item("c", "p", "g", "cl_1800000000", 300, "alice", 4));
    record_locks();
    EXPECT_EQ(0u, app->expire_catalog("alice", 4, "c", "p", "cl_1700000000_C1_HDR", true));
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p")));
    EXPECT_EQ("g", catt::raw_scalar(db_file("c", "p"), "SELECT name FROM catalog"));
    // The lookup and the delete each take the lock.
    EXPECT_EQ(twice(dir()), lock_calls);
}

TEST_F(CatalogOperations, ExpireWithoutLockTakesNone) {
    insert(make_item("c", "p", "f1", "cl_1", 100));
    record_locks();
    EXPECT_EQ(0u, app->expire_catalog("", 1, "c", "p", "cl_1_C2_HDR", false));
    EXPECT_EQ(0, catt::raw_count(db_file("c", "p")));
    EXPECT_TRUE(lock_calls.empty());
}

TEST_F(CatalogOperations, ExpireIsDeniedToAnotherUser) {
    insert(make_item("c", "p", "f1", "cl_1", 100, "alice", 4));
    EXPECT_EQ(106u, app->expire_catalog("bob", 4, "c", "p", "cl_1_C1_HDR", true));
    EXPECT_TRUE(logged(log_level::error, 106,
                       "expire_catalog: authenticate failed for user bob , app owner alice"))
        << log.dump();
    // Each row is checked quietly inside the removal; the one record above
    // says what was refused.
    EXPECT_EQ(0u, log.count_containing("authenticate: auth failed"));
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p")));
}

// ---- del_catalog ----

TEST_F(CatalogOperations, DeleteRefusesOtherQueryTypes) {
    insert(make_item("c", "p", "f", "B1"));
    EXPECT_EQ(4u, app->del_catalog("u", 1, "backup_id|c,p,B1"));
    EXPECT_TRUE(logged(log_level::error, 4, "del_catalog: unsupported query type 3 from backup_id|c,p,B1"))
        << log.dump();
    EXPECT_EQ(4u, app->del_catalog("u", 1, "time_range|c,p,0,1000"));
    EXPECT_TRUE(logged(log_level::error, 4, "del_catalog: unsupported query type 2 from time_range|c,p,0,1000"));
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p")));
}

TEST_F(CatalogOperations, DeleteOfAnUnparsableQueryIs4) {
    EXPECT_EQ(4u, app->del_catalog("u", 1, "name|c"));
    EXPECT_TRUE(logged(log_level::error, 4, "del_catalog: failed parse query str name|c")) << log.dump();
}

TEST_F(CatalogOperations, DeleteOfAMissingRecordIsTheLookupStatus) {
    insert(make_item("c", "p", "f", "B1"));
    EXPECT_EQ(72u, app->del_catalog("u", 1, "name|c,p,g"));
    EXPECT_TRUE(logged(log_level::error, 72, "del_catalog: can't find app catalog from name|c,p,g"))
        << log.dump();
}

TEST_F(CatalogOperations, DeleteIsDeniedToAnotherUser) {
    insert(make_item("c", "p", "f", "B1", 100, "alice", 4));
    EXPECT_EQ(106u, app->del_catalog("bob", 4, "name|c,p,f"));
    EXPECT_TRUE(logged(log_level::error, 106,
                       "del_catalog: authenticate failed for user bob , app owner alice"))
        << log.dump();
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p")));
}

// The row is checked and removed in one locked section (one transaction).
TEST_F(CatalogOperations, DeleteRemovesTheNamedRecordUnderOneLockedSection) {
    insert(make_item("c", "p", "f", "B1", 100, "alice", 4));
    insert(make_item("c", "p", "g", "B1", 100, "alice", 4));
    record_locks();
    EXPECT_EQ(0u, app->del_catalog("alice", 4, "name|c,p,f"));
    EXPECT_EQ(0, catt::raw_count(db_file("c", "p"), "name = 'f'"));
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p")));
    EXPECT_EQ(section(dir()), lock_calls);
}

// ---- close_db ----

TEST_F(CatalogOperations, CloseDbClosesTheCachedConnection) {
    insert(make_item("c", "p", "f", "B1"));
    EXPECT_EQ(1, catt::open_fds_on(db_file("c", "p")));
    record_locks();
    EXPECT_EQ(0u, app->close_db(dir(), 7, true));
    EXPECT_EQ(0, catt::open_fds_on(db_file("c", "p")));
    EXPECT_EQ(section(dir()), lock_calls);
    // The next operation opens it again.
    insert(make_item("c", "p", "g", "B1"));
    EXPECT_EQ(1, catt::open_fds_on(db_file("c", "p")));
    lock_calls.clear();
    EXPECT_EQ(0u, app->close_db(dir(), 0, false));
    EXPECT_EQ(0, catt::open_fds_on(db_file("c", "p")));
    EXPECT_TRUE(lock_calls.empty());
}

TEST_F(CatalogOperations, CloseDbFindsClientAndPolicyFromTheLastTwoComponents) {
    insert(make_item("c", "p", "f", "B1"));
    kt::TraceSwitch trace(true);
    // Any path ending in CLIENT/POLICY names the same database.
    EXPECT_EQ(0u, app->close_db("/elsewhere/c/p", 0, false));
    EXPECT_TRUE(traced("do_db_close: find client c, policy p from /elsewhere/c/p"));
    EXPECT_EQ(0, catt::open_fds_on(db_file("c", "p")));
}

TEST_F(CatalogOperations, CloseDbOfAPathWithoutComponentsIs4) {
    EXPECT_EQ(4u, app->close_db("nopath", 0, true));
    EXPECT_TRUE(logged(log_level::error, 4,
                       "do_db_close: failed to find app path " + app->app_root + " from nopath"))
        << log.dump();
    EXPECT_EQ(4u, app->close_db("p", 0, false));
    EXPECT_EQ(4u, app->close_db("/p", 0, false));
    EXPECT_TRUE(logged(log_level::error, 4, "do_db_close: failed to find client from /p"));
}

TEST_F(CatalogOperations, CloseDbWithAFailingLockReturnsItsStatus) {
    insert(make_item("c", "p", "f", "B1"));
    record_locks()->fail_get = 21;
    EXPECT_EQ(21u, app->close_db(dir(), 0, true));
    EXPECT_TRUE(logged(log_level::error, 21, "close_db: failed to get " + dir() + " lock status"));
    EXPECT_EQ(1, catt::open_fds_on(db_file("c", "p")));
}

TEST_F(CatalogOperations, EveryLockedOperationStopsOnAFailingLock) {
    insert(make_item("c", "p", "f", "cl_1", 100, "alice", 4));
    record_locks()->fail_get = 11;
    std::vector<app_catalog_item> out;
    EXPECT_EQ(11u, app->find_catalog("u", 1, "name|c,p,f", out));
    EXPECT_TRUE(logged(log_level::error, 11, "find_catalog: failed to get " + dir() + " lock status"));
    app_catalog_item rec;
    EXPECT_EQ(11u, app->find_by_file_name("c", "p", "f", rec, true));
    EXPECT_EQ(11u, app->find_by_image_name("c", "p", "cl_1_C1_F1", rec, true));
    EXPECT_EQ(0u, app->find_by_file_name("c", "p", "f", rec, false));
    // The lookup inside fails, which expire treats as nothing to expire.
    EXPECT_EQ(0u, app->expire_catalog("u", 1, "c", "p", "cl_1_C1_HDR", true));
    EXPECT_EQ(11u, app->del_catalog("u", 1, "name|c,p,f"));
    // Unlocked expire has no lock to fail.
    EXPECT_EQ(0u, app->expire_catalog("u", 1, "c", "p", "cl_1_C1_HDR", false));
    EXPECT_EQ(0, catt::raw_count(db_file("c", "p")));
}

TEST_F(CatalogOperations, OperationsWorkWithoutADirectoryLock) {
    app->dir_lock.reset();
    insert(make_item("c", "p", "f", "cl_1", 100));
    std::vector<app_catalog_item> out;
    EXPECT_EQ(0u, app->find_catalog("u", 1, "name|c,p,f", out));
    EXPECT_EQ(1u, out.size());
    EXPECT_EQ(0u, app->del_catalog("u", 1, "name|c,p,f"));
    EXPECT_EQ(0, catt::raw_count(db_file("c", "p")));
}

}  // namespace
