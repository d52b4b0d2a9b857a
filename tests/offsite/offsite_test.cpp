// The off-site engine in process against a real restic repository: push,
// the pool's snapshots, check and restore (a dry run, then the real one
// after the databases are lost) return what they did; and the settings and
// the snapshot tag as they are read and written.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dct/fs.h"
#include "offsite/offsite.h"
#include "offsite/repository_id.h"
#include "tool/kavrel_shadow_fixture.h"

namespace {

using namespace kshadowt;

class OffsiteEngineTest : public KavrelShadowTest {
protected:
    void SetUp() override {
        KavrelShadowTest::SetUp();
        repo_ = pool_.dir().file("repo");
        const std::string pass = pool_.dir().file("offsite.pass");
        kt::write_file(pass, "correct horse battery staple\n");
        chmod(pass.c_str(), 0600);
        kt::write_file(pool_.config(), kt::read_file(pool_.config()) + "[Offsite]\nRepository = " + repo_ +
                                           "\nPasswordFile = " + pass + "\nKeepLast = 5\n");
        setenv("RESTIC_CACHE_DIR", pool_.dir().file("restic-cache").c_str(), 1);
    }

    void TearDown() override { unsetenv("RESTIC_CACHE_DIR"); }

    // A started shadow context of the pool.
    std::unique_ptr<CatalogShadowContext> context(bool started = true) {
        std::unique_ptr<CatalogShadowContext> c(
            new CatalogShadowContext(new ConfigFileShadowProxy(pool_.config(), pool_.root()), new CatalogDirectoryLock()));
        if (started) {
            EXPECT_EQ(CR_STATUS_OK, c->init());
        }
        return c;
    }

    std::string repo_;
};

TEST_F(OffsiteEngineTest, PushCheckAndRestoreReturnWhatTheyDid) {
    koffsite::OffsiteConfig config;
    std::string reason;
    ASSERT_EQ(CR_STATUS_OK, koffsite::open_offsite(pool_.config(), &config, &reason)) << reason;
    EXPECT_EQ(5u, config.keep_last);
    const koffsite::Restic restic(config);

    // Only init makes the repository; the pool remembers its id.
    koffsite::InitRepositoryResult made;
    ASSERT_EQ(CR_STATUS_OK, koffsite::init_repository(*context(), restic, &made)) << made.reason;
    EXPECT_TRUE(made.created);
    std::string id;
    ASSERT_EQ(CR_STATUS_OK, koffsite::remembered_repository_id(shadow_root_, &id));
    EXPECT_EQ(made.id, id);
    koffsite::PushResult pushed;
    ASSERT_EQ(CR_STATUS_OK, koffsite::push(*context(), restic, pool_.root(), &pushed)) << pushed.reason;
    EXPECT_EQ(koffsite::Stop::none, pushed.stop);
    EXPECT_EQ(repo_, pushed.repository);
    EXPECT_EQ(2u, pushed.exported.databases.size());
    EXPECT_EQ(5u, pushed.rows);
    EXPECT_FALSE(pushed.snapshot.empty());
    EXPECT_EQ(0u, pushed.forgotten);
    EXPECT_EQ("", pushed.forget_failure);
    EXPECT_TRUE(pushed.scratch_removed);
    std::vector<koffsite::Snapshot> snapshots;
    ASSERT_EQ(CR_STATUS_OK, koffsite::list_snapshots(restic, pool_.root(), &snapshots, &reason)) << reason;
    ASSERT_EQ(1u, snapshots.size());
    EXPECT_EQ(0u, snapshots[0].id.find(pushed.snapshot)) << snapshots[0].id;
    EXPECT_EQ("2", snapshots[0].databases);
    EXPECT_EQ("5", snapshots[0].rows);

    koffsite::CheckResult checked;
    ASSERT_EQ(CR_STATUS_OK, koffsite::check(*context(), restic, pool_.root(), &checked)) << checked.reason;
    EXPECT_TRUE(checked.repository_ok);
    EXPECT_TRUE(checked.has_snapshot);
    EXPECT_TRUE(checked.verified);
    EXPECT_EQ("", checked.unreadable);
    ASSERT_EQ(2u, checked.reports.size());
    for (const auto& r : checked.reports) EXPECT_TRUE(r.problems.empty()) << r.target.dir;
    EXPECT_EQ(3u, checked.reports[0].recovery.rows_after);
    EXPECT_TRUE(checked.scratch_removed);

    // The databases are lost; a dry run says what a restore would do and
    // changes nothing, the restore rebuilds them.
    ASSERT_EQ(0, unlink((p1_ + "/app.db").c_str()));
    const auto before = snapshot(pool_.dir().path());
    koffsite::RestoreRequest request;
    request.dry_run = true;
    koffsite::RestoreResult plan;
    ASSERT_EQ(CR_STATUS_OK, koffsite::restore(*context(false), restic, pool_.root(), request, &plan)) << plan.reason;
    EXPECT_TRUE(plan.chosen);
    EXPECT_EQ(snapshots[0].id, plan.snapshot.id);
    ASSERT_EQ(2u, plan.databases.size());
    EXPECT_EQ("would rebuild", plan.databases[0].live);
    EXPECT_EQ("kept", plan.databases[1].live);
    EXPECT_EQ(1u, plan.rebuilt);
    EXPECT_EQ(before, snapshot(pool_.dir().path()));

    request.dry_run = false;
    koffsite::RestoreResult done;
    ASSERT_EQ(CR_STATUS_OK, koffsite::restore(*context(false), restic, pool_.root(), request, &done)) << done.reason;
    ASSERT_EQ(2u, done.databases.size());
    EXPECT_EQ("rebuilt", done.databases[0].live);
    EXPECT_EQ("kept", done.databases[0].shadow);
    EXPECT_EQ(3u, done.databases[0].report.live.rows);
    EXPECT_EQ(0u, done.problems);

    // A snapshot that is not there: the restore stops before it starts.
    request.snapshot = "ffffffff";
    koffsite::RestoreResult none;
    EXPECT_EQ(CR_STATUS_FAILED, koffsite::restore(*context(false), restic, pool_.root(), request, &none));
    EXPECT_FALSE(none.chosen);
    EXPECT_EQ(koffsite::Stop::failed, none.stop);
    EXPECT_EQ("no snapshot ffffffff in the repository", none.reason);
}

TEST_F(OffsiteEngineTest, SettingsAndTheSnapshotTag) {
    kt::write_file(pool_.config(), "[Paths]\nDatabase = /x\n");
    koffsite::OffsiteConfig config;
    std::string reason;
    EXPECT_EQ(CR_STATUS_NOT_FOUND, koffsite::open_offsite(pool_.config(), &config, &reason));
    EXPECT_EQ("no [Offsite] Repository in " + pool_.config(), reason);
    kt::write_file(pool_.config(), "[Offsite]\nRepository = /r\nPasswordFile = /p\nKeepLast = 0\n");
    EXPECT_EQ(CR_STATUS_FAILED, koffsite::open_offsite(pool_.config(), &config, &reason));
    EXPECT_EQ("[Offsite] KeepLast in " + pool_.config() + " must be a number of at least 1", reason);
    EXPECT_EQ("kavrel-pool=/a%2Cb%25c", koffsite::pool_tag("/a,b%c"));
    EXPECT_EQ("sftp://u:***@h/r", koffsite::shown_repository("sftp://u:secret@h/r"));
    int64_t t = 0;
    EXPECT_TRUE(koffsite::parse_restic_time("2026-11-25T14:30:00.123456+01:00", &t));
    EXPECT_EQ(1795613400, t);
    EXPECT_FALSE(koffsite::parse_restic_time("yesterday", &t));
    EXPECT_EQ("/s/.catalogshadow.offsite-push", koffsite::scratch_path("/s/catalogshadow/", "push"));
}

}  // namespace
