// The record of runs and the metrics in process: what a run leaves in the
// record (times from the environment's clock), a damaged record and a root
// without its identity file, the kinds of problem, and a push and check
// against a real restic repository as the metrics then show them.
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "dct/clock.h"
#include "dct/log.h"
#include "dct/pool_layout.h"
#include "offsite/metrics.h"
#include "offsite/offsite.h"
#include "tool/kavrel_shadow_fixture.h"

namespace {

using namespace kshadowt;
using koffsite::RecordedRun;

class MetricsEngineTest : public KavrelShadowTest {
protected:
    void SetUp() override {
        KavrelShadowTest::SetUp();
        dct::set_clock_function([this] { return now_ms_; });
        context_.reset(new CatalogShadowContext(new ConfigFileShadowProxy(pool_.config(), pool_.root()),
                                                new CatalogDirectoryLock()));
        ASSERT_EQ(CR_STATUS_OK, context_->init());
    }
    void TearDown() override { dct::set_clock_function(nullptr); }

    // A run from `start_ms` to `end_ms` with `status`.
    void run(RecordedRun which, unsigned long start_ms, unsigned long end_ms, cr_status_t status) {
        now_ms_ = start_ms;
        const koffsite::RunClock clock;
        now_ms_ = end_ms;
        koffsite::record_run(*context_, which, clock, status);
    }

    koffsite::RunRecords records() {
        koffsite::RunRecords r;
        EXPECT_EQ(CR_STATUS_OK, koffsite::read_run_records(shadow_root_, &r));
        return r;
    }

    unsigned long now_ms_ = 1700000000000UL;
    std::unique_ptr<CatalogShadowContext> context_;
};

TEST_F(MetricsEngineTest, EveryRunIsRecordedAndTheLastSuccessKept) {
    EXPECT_FALSE(records().of(RecordedRun::backup).known);
    run(RecordedRun::backup, 1700000000000UL, 1700000002500UL, CR_STATUS_OK);
    koffsite::RunRecord r = records().of(RecordedRun::backup);
    EXPECT_TRUE(r.known);
    EXPECT_EQ(1700000000, r.started);
    EXPECT_DOUBLE_EQ(2.5, r.duration);
    EXPECT_TRUE(r.success);
    EXPECT_EQ(1700000002, r.last_success);
    EXPECT_EQ(1u, r.runs);
    EXPECT_EQ(0u, r.failures);

    run(RecordedRun::push, 1700000100000UL, 1700000101000UL, CR_STATUS_FAILED);
    run(RecordedRun::backup, 1700086400000UL, 1700086401000UL, CR_STATUS_FAILED);
    const koffsite::RunRecords all = records();
    r = all.of(RecordedRun::backup);
    EXPECT_FALSE(r.success);
    EXPECT_EQ(CR_STATUS_FAILED, r.status);
    EXPECT_EQ(1700086400, r.started);
    EXPECT_EQ(1700000002, r.last_success);  // the failure leaves it
    EXPECT_EQ(2u, r.runs);
    EXPECT_EQ(1u, r.failures);
    EXPECT_TRUE(all.of(RecordedRun::push).known);
    EXPECT_EQ(0, all.of(RecordedRun::push).last_success);
    EXPECT_FALSE(all.of(RecordedRun::check).known);

    koffsite::PoolMetrics m;
    now_ms_ = 1700090000000UL;
    ASSERT_EQ(CR_STATUS_OK, koffsite::collect_metrics(*context_, pool_.config(), false, &m));
    const std::string text = koffsite::render_metrics(m);
    for (const char* line : {"kavrel_metrics_collected_timestamp_seconds 1700090000\n",
                             "kavrel_last_run_timestamp_seconds{command=\"backup\"} 1700086400\n",
                             "kavrel_last_run_duration_seconds{command=\"backup\"} 1.000\n",
                             "kavrel_last_run_success{command=\"push\"} 0\n",
                             "kavrel_last_success_timestamp_seconds{command=\"backup\"} 1700000002\n",
                             "kavrel_runs_total{command=\"backup\"} 2\n",
                             "kavrel_run_failures_total{command=\"push\"} 1\n"}) {
        EXPECT_NE(std::string::npos, text.find(line)) << line << text;
    }
}

TEST_F(MetricsEngineTest, ADamagedRecordIsReportedAndStartedAfresh) {
    const std::string file = dct::pool_layout::run_record_file(shadow_root_);
    kt::write_file(file, "{\"format\":1,\"runs\":{\"backup\":{\"started\":\"yesterday\"}}}\n");
    kt::LogCapture log;
    koffsite::RunRecords r;
    EXPECT_EQ(CR_STATUS_CORRUPT, koffsite::read_run_records(shadow_root_, &r));
    EXPECT_TRUE(log.contains(dct::log_level::error, CR_STATUS_CORRUPT,
                             "read_run_records: " + file + " is not a record of runs"))
        << log.dump();
    run(RecordedRun::check, 1700000000000UL, 1700000001000UL, CR_STATUS_OK);
    EXPECT_EQ(1u, records().of(RecordedRun::check).runs);
    EXPECT_FALSE(records().of(RecordedRun::backup).known);
}

TEST_F(MetricsEngineTest, NothingIsWrittenIntoARootWithoutItsIdentityFile) {
    ASSERT_EQ(0, unlink(dct::pool_layout::identity_file(shadow_root_).c_str()));
    kt::LogCapture log;
    run(RecordedRun::restore, 1700000000000UL, 1700000001000UL, CR_STATUS_OK);
    EXPECT_NE(0, access(dct::pool_layout::run_record_file(shadow_root_).c_str(), F_OK));
    EXPECT_TRUE(log.contains(dct::log_level::error, CR_STATUS_NOT_FOUND,
                             "record_run: cannot record the restore run in " +
                                 dct::pool_layout::run_record_file(shadow_root_) +
                                 " (the shadow root has no identity file)"))
        << log.dump();
}

TEST(MetricsProblemKinds, EachTextOfTheInspectionHasItsKind) {
    EXPECT_EQ("live_missing", koffsite::problem_kind("live database missing", false));
    EXPECT_EQ("checksum_file_damaged", koffsite::problem_kind("checksum file damaged (bad self sum)", false));
    EXPECT_EQ("version_missing", koffsite::problem_kind("version file missing", false));
    EXPECT_EQ("version_checksum", koffsite::problem_kind("version checksum mismatch", false));
    EXPECT_EQ("journal_mismatch",
              koffsite::problem_kind("journal does not match the checksum file (3 lines, 2 recorded)", false));
    EXPECT_EQ("version_integrity", koffsite::problem_kind("version fails the SQLite integrity check", false));
    EXPECT_EQ("recovery_impossible", koffsite::problem_kind("recovery impossible: no versions", false));
    EXPECT_EQ("live_integrity", koffsite::problem_kind("live database fails the SQLite integrity check", false));
    EXPECT_EQ("row_checksum", koffsite::problem_kind("row checksum mismatch: c1_1", false));
    EXPECT_EQ("rows_unreadable", koffsite::problem_kind("catalog rows could not be read", false));
    EXPECT_EQ("lock_not_taken", koffsite::problem_kind("directory lock not taken (status 11)", false));
    EXPECT_EQ("not_readable", koffsite::problem_kind("not readable (permission denied)", true));
    EXPECT_EQ("other", koffsite::problem_kind("backup failed: disk full", false));
    EXPECT_EQ(15u, koffsite::problem_kinds().size());
}

// Label values as the format takes them: quotes, backslashes and line breaks
// escaped; a name that is not UTF-8 written with %XX for its other bytes.
TEST(MetricsLabels, AreEscapedAndAlwaysUtf8) {
    koffsite::PoolMetrics m;
    m.shadow_up = true;
    m.per_database = true;
    koffsite::DatabaseMetrics d;
    d.dsid = "1";
    d.client = "a\"b\\c\nd";
    d.policy = "caf\xe9 100%";
    d.type = "appdb";
    m.databases_list.push_back(d);
    const std::string text = koffsite::render_metrics(m);
    EXPECT_NE(std::string::npos,
              text.find("\nkavrel_database_problems{dsid=\"1\",client=\"a\\\"b\\\\c\\nd\",policy=\"caf%E9 100%25\","
                        "type=\"appdb\"} 0\n"))
        << text;
}

// Every series the table can write is in the manual page.
TEST(MetricsManual, NamesEverySeries) {
    koffsite::PoolMetrics m;
    m.shadow_up = m.runs_readable = m.have_versions = m.offsite_configured = m.per_database = true;
    for (int i = 0; i < koffsite::kRecordedRuns; ++i) m.runs.runs[i].known = true;
    m.runs.repository = koffsite::RepositoryRecord{true, 1, true, 2, 3};
    m.problems["other"] = 1;
    koffsite::DatabaseMetrics d;
    d.newest_version = 1;
    m.databases_list.push_back(d);
    const std::string text = koffsite::render_metrics(m);
    // The source tree: $KAVREL_SOURCE_DIR, else the tree this file was compiled from.
    const char* src = getenv("KAVREL_SOURCE_DIR");
    const std::string self = __FILE__;
    const std::string root = src != nullptr && *src != '\0' ? src : self.substr(0, self.rfind("/tests/offsite/"));
    const std::string page = kt::read_file(root + "/tool/kavrel-shadow.8");
    ASSERT_FALSE(page.empty());
    size_t series = 0;
    for (size_t at = text.find("# TYPE "); at != std::string::npos; at = text.find("# TYPE ", at + 1)) {
        const std::string name = text.substr(at + 7, text.find(' ', at + 7) - at - 7);
        EXPECT_NE(std::string::npos, page.find(name)) << name;
        ++series;
    }
    EXPECT_EQ(32u, series);
}

TEST_F(MetricsEngineTest, PushAndCheckRecordTheRepository) {
    dct::set_clock_function(nullptr);  // restic's snapshot times are real ones
    const std::string pass = pool_.dir().file("offsite.pass");
    kt::write_file(pass, "correct horse battery staple\n");
    chmod(pass.c_str(), 0600);
    kt::write_file(pool_.config(), kt::read_file(pool_.config()) + "[Offsite]\nRepository = " +
                                       pool_.dir().file("repo") + "\nPasswordFile = " + pass + "\n");
    setenv("RESTIC_CACHE_DIR", pool_.dir().file("restic-cache").c_str(), 1);
    koffsite::OffsiteConfig config;
    std::string reason;
    ASSERT_EQ(CR_STATUS_OK, koffsite::open_offsite(pool_.config(), &config, &reason)) << reason;
    const koffsite::Restic restic(config);
    koffsite::InitRepositoryResult made;
    ASSERT_EQ(CR_STATUS_OK, koffsite::init_repository(*context_, restic, &made)) << made.reason;
    koffsite::PushResult pushed;
    ASSERT_EQ(CR_STATUS_OK, koffsite::push(*context_, restic, pool_.root(), &pushed)) << pushed.reason;
    koffsite::RunRecords r = records();
    EXPECT_TRUE(r.of(RecordedRun::push).success);
    EXPECT_TRUE(r.repository.reachable);
    EXPECT_EQ(1, r.repository.snapshots);
    EXPECT_EQ(pushed.exported.started, r.repository.newest_snapshot);

    koffsite::CheckResult checked;
    ASSERT_EQ(CR_STATUS_OK, koffsite::check(*context_, restic, pool_.root(), &checked)) << checked.reason;
    unsetenv("RESTIC_CACHE_DIR");
    r = records();
    EXPECT_TRUE(r.of(RecordedRun::check).success);
    EXPECT_EQ(1, r.repository.snapshots);
    EXPECT_EQ(checked.newest.time, r.repository.newest_snapshot);

    koffsite::PoolMetrics m;
    ASSERT_EQ(CR_STATUS_OK, koffsite::collect_metrics(*context_, pool_.config(), false, &m));
    const std::string text = koffsite::render_metrics(m);
    EXPECT_NE(std::string::npos, text.find("\nkavrel_offsite_repository_up 1\n")) << text;
    EXPECT_NE(std::string::npos, text.find("\nkavrel_offsite_snapshots 1\n")) << text;
    EXPECT_NE(std::string::npos, text.find("\nkavrel_offsite_newest_snapshot_timestamp_seconds " +
                                           std::to_string(checked.newest.time) + "\n"))
        << text;
    EXPECT_NE(std::string::npos, text.find("\nkavrel_last_success_timestamp_seconds{command=\"check\"} ")) << text;

    // The repository moved away (a disk not mounted): the check that finds it
    // gone records it down.
    const std::string repo = pool_.dir().file("repo");
    ASSERT_EQ(0, rename(repo.c_str(), (repo + ".away").c_str()));
    EXPECT_NE(CR_STATUS_OK, koffsite::check(*context_, restic, pool_.root(), &checked));
    r = records();
    EXPECT_FALSE(r.of(RecordedRun::check).success);
    EXPECT_FALSE(r.repository.reachable);
}

}  // namespace
