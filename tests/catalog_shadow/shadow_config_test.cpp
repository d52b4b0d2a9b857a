// Shadow context configuration, identity file and init.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/ConfigFileShadowProxy.h"
#include "common/test_util.h"
#include "dct/fault.h"
#include "shadow_test_helpers.h"

using dct::log_level;
using shadow_test::PoolLayout;

namespace {

struct Loaded {
    std::unique_ptr<CatalogShadowContext> ctx;
    ConfigFileShadowProxy* proxy;
    cr_status_t status;
};

// A context on `config_text` after load_configurations only.
Loaded load(const PoolLayout& layout, const std::string& config_text) {
    kt::write_file(layout.config, config_text);
    Loaded out;
    out.proxy = new ConfigFileShadowProxy(layout.config, layout.dbroot);
    out.ctx.reset(new CatalogShadowContext(out.proxy, nullptr));
    out.status = out.ctx->load_configurations();
    return out;
}

std::string paths(const PoolLayout& l, const std::string& extra) {
    return "[Paths]\nStorageDatabase = " + l.dbroot + "\n" + extra + "[Storage]\nStorage Path = " + l.storage + "\n";
}

}  // namespace

TEST(ShadowConfig, ConstructionStartsEnabledWithDefaults) {
    CatalogShadowContext ctx(new ConfigFileShadowProxy("/nonexistent.cfg", "/db"), nullptr);
    EXPECT_TRUE(ctx.enabled);
    EXPECT_TRUE(ctx.auto_recovery);
    EXPECT_EQ(5u, ctx.max_version_count);
    EXPECT_EQ(64, ctx.shadow_pool_size);
    ASSERT_TRUE(ctx.dir_lock);  // no lock given: the no-op base
    EXPECT_EQ(0u, ctx.dir_lock->Lock("/x", 2));
}

TEST(ShadowConfig, EveryKeyIsRead) {
    PoolLayout l;
    kt::LogCapture log;
    Loaded r = load(l, "[Paths]\nStorageDatabase = " + l.dbroot +
                           "\nCatalogBackup = yes\nCatalogAutoRecovery = off\nCatalogBackupVersionCount = 7\n"
                           "CatalogShadowPath = " + l.storage + "/catalogshadow\nCatalogShadowPoolSize = 2K\n"
                           "[Storage]\nStorage Path = " + l.storage + "\n");
    EXPECT_EQ(0u, r.status);
    EXPECT_TRUE(r.ctx->enabled);
    EXPECT_FALSE(r.ctx->auto_recovery);
    EXPECT_EQ(7u, r.ctx->max_version_count);
    EXPECT_EQ(2048, r.ctx->shadow_pool_size);
    EXPECT_EQ(l.storage + "/catalogshadow", r.ctx->shadow_path);
    EXPECT_TRUE(log.contains(log_level::info, 0, "Catalog auto recovery is disabled.")) << log.dump();
    EXPECT_TRUE(log.contains(log_level::info, 0, "Catalog backup version count: 7, shadow pool size: 2048"));
    EXPECT_TRUE(log.contains(log_level::info, 0, "Catalog backup shadow path: " + l.storage + "/catalogshadow"));
    EXPECT_EQ(0u, log.count_containing("CatalogShadowPath is not configured"));
    EXPECT_EQ(0u, log.count_containing("The default catalog shadow path"));
}

TEST(ShadowConfig, DefaultsWhenOnlyStoragePathsAreGiven) {
    PoolLayout l;
    kt::LogCapture log;
    Loaded r = load(l, paths(l, ""));
    EXPECT_EQ(0u, r.status);
    EXPECT_TRUE(r.ctx->enabled);
    EXPECT_TRUE(r.ctx->auto_recovery);
    EXPECT_EQ(5u, r.ctx->max_version_count);
    EXPECT_EQ(64, r.ctx->shadow_pool_size);
    EXPECT_EQ(l.storage + "/catalogshadow", r.ctx->shadow_path);
    EXPECT_TRUE(log.contains(log_level::warning, 0,
                             "CatalogShadowPath is not configured. Use " + l.storage + "/catalogshadow as the default."))
        << log.dump();
    EXPECT_TRUE(log.contains(log_level::info, 0, "Catalog auto recovery is enabled."));
    EXPECT_TRUE(log.contains(log_level::info, 0, "Catalog backup version count: 5, shadow pool size: 64"));
    EXPECT_TRUE(log.contains(log_level::info, 0, "Catalog backup shadow path: " + l.storage + "/catalogshadow"));
}

TEST(ShadowConfig, MissingStorageDatabaseDisables) {
    PoolLayout l;
    kt::LogCapture log;
    Loaded r = load(l, "[Paths]\nCatalogBackupVersionCount = 9\n[Storage]\nStorage Path = " + l.storage + "\n");
    EXPECT_EQ(CR_STATUS_NONE, r.status);
    EXPECT_FALSE(r.ctx->enabled);
    EXPECT_EQ(5u, r.ctx->max_version_count);  // nothing further was read
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_NONE, "can't find StorageDatabase from [" + l.config + "]"))
        << log.dump();
    EXPECT_TRUE(log.contains(log_level::warning, CR_STATUS_NONE,
                             "Catalog backup is disabled as there is no StorageDatabase configured."));
    EXPECT_EQ(0u, log.count_containing("Storage Path"));
    EXPECT_EQ(2u, log.records().size());
}

TEST(ShadowConfig, EmptyStorageDatabaseCountsAsMissing) {
    PoolLayout l;
    kt::LogCapture log;
    Loaded r = load(l, "[Paths]\nStorageDatabase =\n[Storage]\nStorage Path = " + l.storage + "\n");
    EXPECT_EQ(CR_STATUS_NONE, r.status);
    EXPECT_FALSE(r.ctx->enabled);
    EXPECT_EQ(1u, log.count_message("can't find StorageDatabase from [" + l.config + "]"));
}

TEST(ShadowConfig, MissingStoragePathDisables) {
    PoolLayout l;
    kt::LogCapture log;
    Loaded r = load(l, "[Paths]\nStorageDatabase = " + l.dbroot + "\n");
    EXPECT_EQ(CR_STATUS_NONE, r.status);
    EXPECT_FALSE(r.ctx->enabled);
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_NONE, "can't find Storage Path from [" + l.config + "]"))
        << log.dump();
    EXPECT_TRUE(log.contains(log_level::warning, CR_STATUS_NONE,
                             "Catalog backup is disabled as there is no Storage Path configured."));
    EXPECT_EQ(2u, log.records().size());
}

TEST(ShadowConfig, MissingConfigurationFileDisables) {
    PoolLayout l;
    kt::LogCapture log;
    CatalogShadowContext ctx(new ConfigFileShadowProxy(l.tmp.file("absent.cfg"), l.dbroot), nullptr);
    EXPECT_EQ(CR_STATUS_NONE, ctx.load_configurations());
    EXPECT_FALSE(ctx.enabled);
    EXPECT_EQ(1u, log.count_message("can't find StorageDatabase from [" + l.tmp.file("absent.cfg") + "]"));
}

TEST(ShadowConfig, CatalogBackupOffStopsReading) {
    PoolLayout l;
    kt::LogCapture log;
    Loaded r = load(l, paths(l, "CatalogBackup = false\nCatalogAutoRecovery = no\nCatalogBackupVersionCount = 9\n"));
    EXPECT_EQ(0u, r.status);
    EXPECT_FALSE(r.ctx->enabled);
    EXPECT_TRUE(r.ctx->auto_recovery);         // not read
    EXPECT_EQ(5u, r.ctx->max_version_count);   // not read
    EXPECT_EQ("", r.ctx->shadow_path);         // not read
    EXPECT_TRUE(log.contains(log_level::warning, 0, "Catalog backup is turned off in configuration file."))
        << log.dump();
    EXPECT_EQ(1u, log.records().size());
}

TEST(ShadowConfig, AutoRecoveryFollowsTheKey) {
    PoolLayout l;
    Loaded on = load(l, paths(l, "CatalogAutoRecovery = TRUE\n"));
    EXPECT_TRUE(on.ctx->auto_recovery);
    Loaded off = load(l, paths(l, "CatalogAutoRecovery = 0\n"));
    EXPECT_FALSE(off.ctx->auto_recovery);
}

TEST(ShadowConfig, VersionCountIsClamped) {
    PoolLayout l;
    struct Case {
        const char* value;
        uint32_t expected;
    } cases[] = {{"0", 1}, {"1", 1}, {"256", 256}, {"257", 256}, {"1000", 256}, {"42", 42}};
    for (const Case& c : cases) {
        Loaded r = load(l, paths(l, std::string("CatalogBackupVersionCount = ") + c.value + "\n"));
        EXPECT_EQ(c.expected, r.ctx->max_version_count) << c.value;
    }
}

TEST(ShadowConfig, ShadowPathEqualToEitherDefaultGivesNoWarning) {
    PoolLayout l;
    for (const std::string& path : {l.storage + "/catalogshadow", l.dbroot + "/catalogshadow"}) {
        kt::LogCapture log;
        Loaded r = load(l, paths(l, "CatalogShadowPath = " + path + "\n"));
        EXPECT_EQ(path, r.ctx->shadow_path);
        EXPECT_EQ(0u, log.count_containing("The default catalog shadow path")) << log.dump();
        EXPECT_EQ(0u, log.count_containing("CatalogShadowPath is not configured"));
    }
}

TEST(ShadowConfig, ChangedShadowPathWarns) {
    PoolLayout l;
    kt::LogCapture log;
    const std::string other = l.tmp.file("elsewhere");
    Loaded r = load(l, paths(l, "CatalogShadowPath = " + other + "\n"));
    EXPECT_EQ(other, r.ctx->shadow_path);
    EXPECT_TRUE(log.contains(log_level::warning, 0,
                             "The default catalog shadow path is " + l.storage + "/catalogshadow, but now it is changed to " +
                                 other + ". There will be an impact on previous catalog shadow backups."))
        << log.dump();
}

TEST(ShadowConfig, PoolSizeTakesSizeSuffixes) {
    PoolLayout l;
    Loaded r = load(l, paths(l, "CatalogShadowPoolSize = 3\n"));
    EXPECT_EQ(3, r.ctx->shadow_pool_size);
    Loaded m = load(l, paths(l, "CatalogShadowPoolSize = 1M\n"));
    EXPECT_EQ(1048576, m.ctx->shadow_pool_size);
}

TEST(ShadowIdentity, FileNameAndPath) {
    EXPECT_STREQ(".catalog_shadow_identity", CatalogShadowIdentity::the_file_name());
    CatalogShadowIdentity plain("/srv/shadow");
    EXPECT_EQ("/srv/shadow/.catalog_shadow_identity", plain.get_identity_file());
    CatalogShadowIdentity slash("/srv/shadow/");
    EXPECT_EQ("/srv/shadow/.catalog_shadow_identity", slash.get_identity_file());
}

TEST(ShadowIdentity, CreateMakesTheTreeAndTheFile) {
    kt::TempDir tmp;
    kt::LogCapture log;
    const std::string root = tmp.file("a/b/shadow");
    CatalogShadowIdentity identity(root.c_str());
    EXPECT_FALSE(identity.identity_exist());
    EXPECT_EQ(0u, identity.create_identity()) << log.dump();
    EXPECT_TRUE(identity.identity_exist());
    EXPECT_TRUE(kt::file_exists(root + "/.catalog_shadow_identity"));
    EXPECT_EQ("", kt::read_file(root + "/.catalog_shadow_identity"));

    log.clear();
    EXPECT_EQ(0u, identity.create_identity());
    EXPECT_TRUE(log.contains(log_level::info, 0,
                             "catalog shadow identity " + root + "/.catalog_shadow_identity already exists."));
}

TEST(ShadowIdentity, CreateSyncsTheRoot) {
    kt::TempDir tmp;
    const std::string root = tmp.file("shadow");
    std::vector<std::string> synced;
    dct::set_fault_hook([&synced](dct::fault_op op, const char* path) {
        if (op == dct::fault_op::fsync && *path != '\0') synced.push_back(path);
        return 0;
    });
    CatalogShadowIdentity identity(root.c_str());
    EXPECT_EQ(0u, identity.create_identity());
    dct::set_fault_hook(nullptr);
    // The new root's name in its parent, then the identity file's in the root.
    EXPECT_EQ((std::vector<std::string>{tmp.path(), root}), synced);
}

TEST(ShadowIdentity, RootThatIsAFileFails) {
    kt::TempDir tmp;
    kt::LogCapture log;
    const std::string root = tmp.file("plain");
    kt::write_file(root, "x");
    CatalogShadowIdentity identity(root.c_str());
    EXPECT_EQ(CR_STATUS_FAILED, identity.create_identity());
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_FAILED, "create_identity: " + root + " is not a directory"))
        << log.dump();
}

TEST(ShadowIdentity, TreeThatCannotBeCreatedFails) {
    kt::TempDir tmp;
    kt::LogCapture log;
    kt::write_file(tmp.file("plain"), "x");
    const std::string root = tmp.file("plain/shadow");
    CatalogShadowIdentity identity(root.c_str());
    cr_status_t status = identity.create_identity();
    EXPECT_NE(0u, status);
    EXPECT_EQ(1u, log.count(log_level::error, status,
                            "create_identity: failed to create directory " + root + " (" + strerror(ENOTDIR) + ")"))
        << log.dump();
}

TEST(ShadowIdentity, TouchFailureIsReported) {
    kt::TempDir tmp;
    kt::LogCapture log;
    const std::string root = tmp.file("shadow");
    dct::set_fault_hook([](dct::fault_op op, const char*) { return op == dct::fault_op::touch ? EACCES : 0; });
    CatalogShadowIdentity identity(root.c_str());
    cr_status_t status = identity.create_identity();
    dct::set_fault_hook(nullptr);
    EXPECT_EQ(CR_STATUS_ACCESS_DENIED, status);
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_ACCESS_DENIED,
                             "create_identity: failed to touch identity file: " + root + "/.catalog_shadow_identity."))
        << log.dump();
    EXPECT_FALSE(identity.identity_exist());
}

TEST(ShadowInit, IdentityPresentKeepsTheFeatureOn) {
    PoolLayout l;
    kt::LogCapture log;
    std::unique_ptr<CatalogShadowContext> ctx = l.context(true);
    EXPECT_TRUE(ctx->enabled);
    EXPECT_TRUE(ctx->auto_recovery);
    ASSERT_TRUE(ctx->identity);
    EXPECT_EQ(l.shadow + "/.catalog_shadow_identity", ctx->identity->get_identity_file());
    ASSERT_TRUE(ctx->pool);
    EXPECT_EQ(0u, ctx->check_identity());
    EXPECT_EQ(0u, log.count_containing("does not exist")) << log.dump();
}

TEST(ShadowInit, IdentityMissingDisablesAndNotifies) {
    PoolLayout l;
    l.write_config();
    kt::LogCapture log;
    ConfigFileShadowProxy* proxy = new ConfigFileShadowProxy(l.config, l.dbroot);
    CatalogShadowContext ctx(proxy, new CatalogDirectoryLock);
    EXPECT_EQ(CR_STATUS_FAILED, ctx.init());
    const std::string file = l.shadow + "/.catalog_shadow_identity";
    EXPECT_FALSE(ctx.enabled);
    EXPECT_FALSE(ctx.auto_recovery);
    EXPECT_TRUE(ctx.pool);  // made all the same
    EXPECT_EQ(std::vector<std::string>{file}, proxy->missing_identities());
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_FAILED,
                             "check_identity: Catalog shadow identity file " + file +
                                 " does not exist. The catalog backup and recovery feature will be disabled. Please "
                                 "fix the issues ASAP and restart TARN services."))
        << log.dump();
    EXPECT_TRUE(log.contains(log_level::warning, CR_STATUS_FAILED,
                             "The catalog shadow backup and recovery feature is disabled."));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_FAILED, "init: failed to check catalog shadow identity file"));
    // Never adopted silently: the file is still missing.
    EXPECT_FALSE(kt::file_exists(file));
}

// A process that may not look into the shadow root (a service run as another
// user) finds the feature off, but no lost root: the proxy hears of no loss.
TEST(ShadowInit, IdentityThisProcessMayNotReadIsNoLoss) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
    PoolLayout l;
    l.write_config();
    l.create_identity();  // the storage directory is private to root
    ASSERT_EQ(0, chmod(l.tmp.path().c_str(), 0755));
    ASSERT_EQ(0, chmod(l.config.c_str(), 0644));
    const std::string file = l.shadow + "/.catalog_shadow_identity";
    fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(20);
        std::vector<std::string> records;
        dct::set_log_sink([&records](log_level, cr_status_t status, const std::string& message) {
            records.push_back(std::to_string(status) + " " + message);
        });
        ConfigFileShadowProxy* proxy = new ConfigFileShadowProxy(l.config, l.dbroot);
        CatalogShadowContext ctx(proxy, new CatalogDirectoryLock);
        if (ctx.init() != CR_STATUS_ACCESS_DENIED) _exit(21);
        if (ctx.enabled || ctx.auto_recovery) _exit(22);
        if (!proxy->missing_identities().empty()) _exit(23);
        const std::string expected = "106 check_identity: Catalog shadow identity file " + file +
                                     " is not readable (permission denied). The catalog backup and recovery feature "
                                     "will be disabled.";
        if (std::find(records.begin(), records.end(), expected) == records.end()) _exit(24);
        for (const std::string& r : records) {
            if (r.find("does not exist") != std::string::npos) _exit(25);
        }
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_TRUE(kt::file_exists(file));
}

TEST(ShadowInit, IdentityLostLaterIsNoticedByCheck) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context(true);
    ASSERT_TRUE(ctx->enabled);
    ASSERT_EQ(0, ::unlink((l.shadow + "/.catalog_shadow_identity").c_str()));
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_FAILED, ctx->check_identity());
    EXPECT_FALSE(ctx->enabled);
    EXPECT_FALSE(ctx->auto_recovery);
    EXPECT_EQ(1u, static_cast<ConfigFileShadowProxy*>(ctx->proxy.get())->missing_identities().size());
}

TEST(ShadowInit, FeatureTurnedOffSkipsTheIdentityCheck) {
    PoolLayout l;
    kt::LogCapture log;
    std::unique_ptr<CatalogShadowContext> ctx = l.context(false, "CatalogBackup = off\n");
    EXPECT_FALSE(ctx->enabled);
    EXPECT_TRUE(static_cast<ConfigFileShadowProxy*>(ctx->proxy.get())->missing_identities().empty());
    EXPECT_EQ(0u, log.count_containing("does not exist")) << log.dump();
}

TEST(ShadowInit, DisabledFeatureAnswersWithoutTouchingDisk) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context(false);
    ASSERT_FALSE(ctx->enabled);
    const std::string dir = l.app_dir("1/c/p");
    EXPECT_FALSE(ctx->has_shadow_copy(dir, "appdb"));
    EXPECT_FALSE(ctx->has_shadow_copy(dir));
    EXPECT_EQ(0u, ctx->write_journal(dir, "appdb", "DELETE FROM catalog"));
    EXPECT_EQ(0u, ctx->reload_podb(dir));
    EXPECT_FALSE(kt::file_exists(l.shadow + "/1"));
    EXPECT_EQ(0u, ctx->pool->size());
}

TEST(ShadowProxy, RootsBelowTheDatabaseRoot) {
    ConfigFileShadowProxy proxy("/etc/pool.cfg", "/srv/db/");
    EXPECT_EQ("/etc/pool.cfg", proxy.get_config_file());
    EXPECT_EQ("/srv/db/databases/po", proxy.get_podb_root());
    EXPECT_EQ("/srv/db/databases/application", proxy.app_db_root);
    ConfigFileShadowProxy plain("/etc/pool.cfg", "/srv/db");
    EXPECT_EQ("/srv/db/databases/po", plain.get_podb_root());
}

TEST(ShadowConfig, LongValuesAreReadWholeOrRefused) {
    PoolLayout l;
    kt::LogCapture log;
    // 4095 characters: read whole.
    const std::string longest = l.storage + "/" + std::string(4094 - l.storage.size(), 's');
    ASSERT_EQ(4095u, longest.size());
    Loaded r = load(l, paths(l, "CatalogShadowPath = " + longest + "\n"));
    EXPECT_EQ(0u, r.status);
    EXPECT_EQ(longest, r.ctx->shadow_path);
    // One more: refused with one record naming the file and line, never cut.
    log.clear();
    const std::string too_long = longest + "t";
    Loaded refused = load(l, paths(l, "CatalogShadowPath = " + too_long + "\n"));
    EXPECT_NE(too_long.substr(0, 4095), refused.ctx->shadow_path);
    EXPECT_EQ(1u, log.count(log_level::error, 4,
                            "Configuration file " + l.config + ", line 3: the value of CatalogShadowPath is 4096 "
                            "characters long, more than the 4095 that can be read"))
        << log.dump();
}
