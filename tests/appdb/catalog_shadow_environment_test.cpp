// A service built the way an embedder builds one: an environment, a shadow
// context on a configuration file, and a shadow-protected catalog from the
// factory, both on that environment. The configuration file's [Paths]
// DisableCatalogAutoFixJournal decides whether a journal whose checksum file
// counts 0 lines is taken whole (auto-fix) or left uncounted; without the key
// the process configuration object decides.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "catalog_shadow/shadow_test_helpers.h"
#include "catalog_shadow_fixture.h"
#include "dct/config.h"
#include "appdb/catalog_application_shadow.h"
#include "appdb/catalog_store.h"
#include "dct/environment.h"

namespace {

using appdb::app_catalog_item;
using catt::make_item;
using dct::log_level;

class ShadowEnvironment : public ::testing::Test {
protected:
    ShadowEnvironment() : pool(tmp.path()) {}
    void TearDown() override {
        app.reset();
        ctx.reset();
        _crConfigClass::SetInstance(nullptr);
    }

    // Starts the service: a context from the configuration file and a
    // catalog from the factory, both on `env`.
    void start() {
        app.reset();
        ctx.reset(new CatalogShadowContext(new ConfigFileShadowProxy(pool.config, pool.dbroot),
                                           new CatalogDirectoryLock, env));
        ASSERT_EQ(0u, ctx->init()) << log.dump();
        app.reset(appdb::catalog_application_factory::create_catalog(2, pool.database_root(),
                                                                     appdb::APP_D_CATALOG_SHADOW, ctx.get(), 5, env));
        ASSERT_NE(nullptr, app);
    }

    void insert(const app_catalog_item& item) {
        ASSERT_EQ(0u, app->update_catalog("admin", 1, item.to_string())) << log.dump();
        model.insert(item);
    }

    std::string shadow_dir() const { return pool.shadow_dir(2, "c", "p"); }
    std::string journal() const { return shadow_dir() + "/appdb.1.journal"; }
    std::string chksum() const { return shadow_dir() + "/.chksum.appdb"; }

    // The checksum file's lines (without "self=").
    std::vector<std::string> chksum_lines() const {
        std::vector<std::string> lines;
        const std::string text = kt::read_file(chksum());
        size_t begin = 0;
        while (begin < text.size()) {
            const size_t end = text.find('\n', begin);
            const std::string line = text.substr(begin, end - begin);
            if (line.compare(0, 5, "self=") != 0) lines.push_back(line);
            if (end == std::string::npos) break;
            begin = end + 1;
        }
        return lines;
    }

    // Two rows in c/p (a first copy and two journal lines), then the service
    // stops and the checksum file is rewritten to count 0 journal lines (its
    // checksum of them stays), as a writer that never counted them leaves it.
    void two_rows_with_an_uncounted_journal() {
        start();
        insert(make_item("c", "p", "f0", "c_1", 100));
        insert(make_item("c", "p", "f1", "c_1", 101));
        app.reset();
        ctx.reset();
        std::vector<std::string> lines = chksum_lines();
        bool rewritten = false;
        for (std::string& line : lines) {
            if (line == "appdb.1.journal.len=2") {
                line = "appdb.1.journal.len=0";
                rewritten = true;
            }
        }
        ASSERT_TRUE(rewritten) << kt::read_file(chksum());
        kt::write_file(chksum(), shadow_test::chksum_text(lines));
        ASSERT_EQ(2u, shadowt::journal_lines(shadow_dir()));
    }

    // Deletes the database and reads it back: the recovery rebuilds it.
    void recover_by_reading() {
        shadowt::delete_database(pool.db_file(2, "c", "p"));
        cr_status_t status = CR_STATUS_FAILED;
        EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "c", "p", &status))) << log.dump();
        EXPECT_EQ(0u, status);
        EXPECT_EQ(1u, log.count_containing("corrupt, to do recover from shadow")) << log.dump();
    }

    // With `paths_extra` in the file: two rows and an uncounted journal, then
    // a new service inserts a third row, after which the checksum file holds
    // `count_line` and no journal was reported; then the database is lost and
    // rebuilt (its journal replayed) by the next read.
    void third_row_then_recovery(const std::string& paths_extra, const std::string& count_line) {
        pool.prepare(paths_extra);
        two_rows_with_an_uncounted_journal();
        start();
        log.clear();
        insert(make_item("c", "p", "f2", "c_1", 102));
        EXPECT_EQ(3u, shadowt::journal_lines(shadow_dir()));
        const std::vector<std::string> lines = chksum_lines();
        EXPECT_EQ(1, std::count(lines.begin(), lines.end(), count_line)) << kt::read_file(chksum());
        EXPECT_EQ(0u, log.count_containing("Journal file")) << log.dump();

        recover_by_reading();
        EXPECT_TRUE(log.contains(log_level::info, 0, "Applying journal file " + journal())) << log.dump();
    }

    std::string corrupted_fix_failed() const {
        return "Journal file " + journal() + " was corrupted, tried to fix but failed.";
    }

    kt::TempDir tmp;
    kt::LogCapture log;
    kt::SleepCounter sleeps;
    shadowt::pool_layout pool;
    dct::environment env;
    std::unique_ptr<CatalogShadowContext> ctx;
    std::unique_ptr<appdb::catalog_application> app;
    shadowt::row_model model;
};

TEST_F(ShadowEnvironment, TheContextReadsTheSwitchFromItsConfigurationFile) {
    pool.prepare("DisableCatalogAutoFixJournal = 1\n");
    start();
    ASSERT_TRUE(ctx->environment().disable_auto_fix_journal.has_value());
    EXPECT_TRUE(*ctx->environment().disable_auto_fix_journal);
    EXPECT_FALSE(ctx->environment().auto_fix_journal());
    // The caller's environment is left as it was.
    EXPECT_FALSE(env.disable_auto_fix_journal.has_value());

    pool.prepare("DisableCatalogAutoFixJournal = off\n");
    start();
    ASSERT_TRUE(ctx->environment().disable_auto_fix_journal.has_value());
    EXPECT_FALSE(*ctx->environment().disable_auto_fix_journal);
    EXPECT_TRUE(ctx->environment().auto_fix_journal());
}

TEST_F(ShadowEnvironment, TheFileWinsOverTheProcessConfigurationObjectAndTheGivenSwitch) {
    _crConfigClass config;
    config.SetDisableCatalogAutoFixJournal(true);
    _crConfigClass::SetInstance(&config);
    env.disable_auto_fix_journal = true;
    pool.prepare("DisableCatalogAutoFixJournal = no\n");
    start();
    EXPECT_TRUE(ctx->environment().auto_fix_journal());
}

TEST_F(ShadowEnvironment, WithoutTheKeyTheProcessConfigurationObjectDecides) {
    _crConfigClass config;
    _crConfigClass::SetInstance(&config);
    pool.prepare();
    start();
    EXPECT_FALSE(ctx->environment().disable_auto_fix_journal.has_value());
    EXPECT_TRUE(ctx->environment().auto_fix_journal());
    config.SetDisableCatalogAutoFixJournal(true);
    EXPECT_FALSE(ctx->environment().auto_fix_journal());
}

// As with the other boolean keys of the file, a value that is no boolean is
// taken as not given.
TEST_F(ShadowEnvironment, AValueThatIsNoBooleanLeavesTheSwitchUnset) {
    _crConfigClass config;
    config.SetDisableCatalogAutoFixJournal(true);
    _crConfigClass::SetInstance(&config);
    pool.prepare("DisableCatalogAutoFixJournal = sometimes\n");
    start();
    EXPECT_FALSE(ctx->environment().disable_auto_fix_journal.has_value());
    EXPECT_FALSE(ctx->environment().auto_fix_journal());
}

// Auto-fix on (the file says so): the next service takes the uncounted
// journal whole before it appends, so the checksum file counts all three
// lines, and a later recovery finds nothing wrong with the journal.
TEST_F(ShadowEnvironment, AutoFixOnCountsTheWholeJournalBeforeAppending) {
    third_row_then_recovery("DisableCatalogAutoFixJournal = 0\n", "appdb.1.journal.len=3");
    EXPECT_EQ(0u, log.count_message(corrupted_fix_failed())) << log.dump();
}

// Auto-fix off (the file says so, with no process configuration object): the
// journal is appended to unchecked and its earlier lines stay uncounted, so
// the checksum file counts one line of three; the recovery reports the journal
// as corrupted (its checksum still holds, so the rows all come back).
TEST_F(ShadowEnvironment, AutoFixOffLeavesTheJournalUncounted) {
    third_row_then_recovery("DisableCatalogAutoFixJournal = 1\n", "appdb.1.journal.len=1");
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE, corrupted_fix_failed())) << log.dump();
}

// The same file read by a second service whose environment says nothing, in a
// process whose configuration object turns auto-fix off: the file's "0"
// still decides for that service.
TEST_F(ShadowEnvironment, AnotherServiceOnTheDefaultsFollowsItsOwnFile) {
    _crConfigClass config;
    config.SetDisableCatalogAutoFixJournal(true);
    _crConfigClass::SetInstance(&config);
    pool.prepare("DisableCatalogAutoFixJournal = 0\n");
    two_rows_with_an_uncounted_journal();
    ctx = pool.context();
    app.reset(appdb::catalog_application_factory::create_catalog(2, pool.database_root(),
                                                                 appdb::APP_D_CATALOG_SHADOW, ctx.get(), 5));
    ASSERT_NE(nullptr, app);
    insert(make_item("c", "p", "f2", "c_1", 102));
    const std::vector<std::string> lines = chksum_lines();
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(), "appdb.1.journal.len=3")) << kt::read_file(chksum());
}


TEST_F(ShadowEnvironment, ConnectionsAndLocksTakeTheBusyTimeoutAndTheWaitFromTheEnvironment) {
    env.busy_timeout_ms = 1234;
    env.lock_wait_limit_ms = 70;
    pool.prepare("");
    start();
    insert(make_item("c", "p", "f0", "c_1", 100));
    auto* shadow_app = dynamic_cast<appdb::catalog_application_impl_shadow*>(app.get());
    ASSERT_NE(nullptr, shadow_app);
    EXPECT_EQ(70, shadow_app->dir_lock->object_wait_limit_ms());
    std::unique_ptr<appdb::catalog_store> store;
    ASSERT_EQ(0u, shadow_app->open_db("c", "p", &store)) << log.dump();
    EXPECT_EQ(1234, store->db().busy_timeout_ms());
    auto* context_lock = dynamic_cast<CatalogDirectoryLock*>(ctx->dir_lock.get());
    ASSERT_NE(nullptr, context_lock);
    EXPECT_EQ(70, context_lock->object_wait_limit_ms());

    // The plain kind from the same factory call takes them too.
    std::unique_ptr<appdb::catalog_application> plain(appdb::catalog_application_factory::create_catalog(
        2, pool.database_root(), appdb::APP_D_CATALOG, nullptr, 5, env));
    auto* plain_app = dynamic_cast<appdb::catalog_application_impl*>(plain.get());
    ASSERT_NE(nullptr, plain_app);
    EXPECT_EQ(70, plain_app->dir_lock->object_wait_limit_ms());
    std::unique_ptr<appdb::catalog_store> plain_store;
    ASSERT_EQ(0u, plain_app->open_db("c", "p", &plain_store)) << log.dump();
    EXPECT_EQ(1234, plain_store->db().busy_timeout_ms());
}

TEST_F(ShadowEnvironment, WithoutThemTheProcessDefaultsHold) {
    pool.prepare("");
    start();
    insert(make_item("c", "p", "f0", "c_1", 100));
    auto* shadow_app = dynamic_cast<appdb::catalog_application_impl_shadow*>(app.get());
    ASSERT_NE(nullptr, shadow_app);
    EXPECT_EQ(CatalogDirectoryLock::wait_limit_ms(), shadow_app->dir_lock->object_wait_limit_ms());
    std::unique_ptr<appdb::catalog_store> store;
    ASSERT_EQ(0u, shadow_app->open_db("c", "p", &store)) << log.dump();
    EXPECT_EQ(appdb::catalog_store::busy_timeout_ms(), store->db().busy_timeout_ms());
}

// Another holder keeps the catalog's directory for up to five seconds; the
// process-wide wait (60 s) would outlast it and let the insert through, the
// environment's 70 ms does not.
TEST_F(ShadowEnvironment, AnInsertWaitsForItsDirectoryOnlyAsLongAsTheEnvironmentSays) {
    env.lock_wait_limit_ms = 70;
    pool.prepare("");
    start();
    insert(make_item("c", "p", "f0", "c_1", 100));
    const std::string dir = pool.db_dir(2, "c", "p");
    shadow_test::held_directory holder(dir);
    ASSERT_TRUE(holder.held());
    const cr_status_t status = app->update_catalog("admin", 1, make_item("c", "p", "f1", "c_1", 101).to_string());
    holder.release();
    EXPECT_EQ(CR_STATUS_BUSY, status) << log.dump();
}

}  // namespace
