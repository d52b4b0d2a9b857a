// kavrel-shadow metrics: the pool's state in the Prometheus text format,
// checked by promtool for every state the tests make (healthy, damaged,
// unrecoverable, a failed push, an empty pool, a user who may not read it),
// and scraped from a real text-file collector.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <regex>

#include "dct/fs.h"
#include "dct/pool_layout.h"
#include "kavrel_shadow_fixture.h"
#include "metrics_test_util.h"

namespace {

using kmt::value;
using kshadowt::KavrelShadowTest;

class MetricsTest : public KavrelShadowTest {
protected:
    void SetUp() override {
        if (!kmt::have_program("promtool")) GTEST_SKIP() << "promtool is not installed (make deps)";
        KavrelShadowTest::SetUp();
    }

    // Runs metrics, expects `exit_status`, and has promtool check the text.
    std::string metrics(const std::vector<std::string>& extra = {}, int exit_status = 0,
                        kt::RunOptions options = kt::RunOptions()) {
        std::vector<std::string> args = {"metrics"};
        args.insert(args.end(), extra.begin(), extra.end());
        const kt::RunResult r = run(args, options);
        EXPECT_EQ(exit_status, r.exit_status) << r.out << r.err;
        const kt::RunResult checked = kmt::promtool_check(pool_.dir(), r.out);
        EXPECT_EQ(0, checked.exit_status) << checked.out << checked.err << r.out;
        return r.out;
    }

    void set_offsite(const std::string& repository) {
        const std::string pass = pool_.dir().file("offsite.pass");
        kt::write_file(pass, "secret\n");
        chmod(pass.c_str(), 0600);
        std::ofstream(pool_.config(), std::ios::app)
            << "[Offsite]\nRepository = " << repository << "\nPasswordFile = " << pass << "\n";
    }
};

TEST_F(MetricsTest, HealthyPool) {
    const std::string text = metrics();
    EXPECT_EQ("1", value(text, "kavrel_shadow_up"));
    EXPECT_EQ("1", value(text, "kavrel_metrics_readable"));
    EXPECT_EQ("2", value(text, "kavrel_databases"));
    EXPECT_EQ("0", value(text, "kavrel_databases_with_problems"));
    EXPECT_EQ("0", value(text, "kavrel_databases_unrecoverable"));
    EXPECT_EQ("0", value(text, "kavrel_problems{kind=\"version_checksum\"}"));
    EXPECT_EQ("3", value(text, "kavrel_shadow_journal_lines_since_version_max"));
    EXPECT_EQ("0", value(text, "kavrel_offsite_configured"));
    // The newest versions were made by SetUp, a moment ago.
    const long oldest = std::stol(value(text, "kavrel_shadow_oldest_newest_version_timestamp_seconds"));
    EXPECT_LE(std::labs(time(nullptr) - oldest), 60);
    // No backup recorded yet: never succeeded, and no push series without a repository.
    EXPECT_EQ("0", value(text, "kavrel_last_success_timestamp_seconds{command=\"backup\"}"));
    EXPECT_EQ("0", value(text, "kavrel_runs_total{command=\"backup\"}"));
    EXPECT_EQ("", value(text, "kavrel_last_run_success{command=\"backup\"}"));
    EXPECT_EQ(std::string::npos, text.find("command=\"push\""));
    // No client, policy or path without --per-database.
    EXPECT_EQ(std::string::npos, text.find("c1"));
    EXPECT_EQ(std::string::npos, text.find(pool_.root()));
    for (const char* series : {"# HELP kavrel_problems ", "# TYPE kavrel_problems gauge\n",
                               "# TYPE kavrel_runs_total counter\n"}) {
        EXPECT_NE(std::string::npos, text.find(series)) << series;
    }
}

TEST_F(MetricsTest, BackupIsRecordedAndPerDatabaseSeriesAreLabelled) {
    const time_t before = time(nullptr);
    ASSERT_EQ(0, run({"backup", "--all"}).exit_status);
    // A backup of one database is no backup of the pool.
    ASSERT_EQ(0, run({"backup", p1_}).exit_status);
    const std::string text = metrics({"--per-database"});
    EXPECT_EQ("1", value(text, "kavrel_last_run_success{command=\"backup\"}"));
    EXPECT_EQ("1", value(text, "kavrel_runs_total{command=\"backup\"}"));
    EXPECT_EQ("0", value(text, "kavrel_run_failures_total{command=\"backup\"}"));
    const long success = std::stol(value(text, "kavrel_last_success_timestamp_seconds{command=\"backup\"}"));
    EXPECT_GE(success, before);
    EXPECT_LE(success, time(nullptr));
    EXPECT_EQ("1", value(text, "kavrel_database_recoverable{client=\"c1\",dsid=\"1\",policy=\"p1\",type=\"appdb\"}"));
    EXPECT_EQ("0", value(text, "kavrel_database_problems{client=\"c2\",dsid=\"1\",policy=\"p2\",type=\"appdb\"}"));
    EXPECT_EQ("0", value(text, "kavrel_database_journal_lines_since_version{client=\"c2\",dsid=\"1\",policy=\"p2\","
                               "type=\"appdb\"}"));
    // The record is the documented JSON under the shadow root.
    const std::string record = kt::read_file(dct::pool_layout::run_record_file(shadow_root_));
    EXPECT_TRUE(std::regex_search(record, std::regex("^\\{\"format\":1,\"runs\":\\{\"backup\":\\{\"started\":[0-9]+,"
                                                     "\"duration_seconds\":[0-9.e-]+,\"success\":true,\"status\":0,"
                                                     "\"last_success\":[0-9]+,\"runs\":1,\"failures\":0\\}\\}\\}\n$")))
        << record;
}

TEST_F(MetricsTest, DamagedAndUnrecoverableDatabasesByKind) {
    // p1: its only version damaged, so no recovery; p2: its live file gone,
    // which a recovery would mend.
    {
        std::fstream f(s1_ + "/appdb.1", std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(200);
        f.write("garbage", 7);
    }
    ASSERT_EQ(0, unlink((p2_ + "/app.db").c_str()));
    const std::string text = metrics();
    EXPECT_EQ("2", value(text, "kavrel_databases"));
    EXPECT_EQ("2", value(text, "kavrel_databases_with_problems"));
    EXPECT_EQ("1", value(text, "kavrel_databases_unrecoverable"));
    EXPECT_EQ("1", value(text, "kavrel_problems{kind=\"version_checksum\"}"));
    EXPECT_EQ("1", value(text, "kavrel_problems{kind=\"recovery_impossible\"}"));
    EXPECT_EQ("1", value(text, "kavrel_problems{kind=\"live_missing\"}"));
    EXPECT_EQ("0", value(text, "kavrel_problems{kind=\"other\"}"));
    // A backup --all that fails is recorded as a failure.
    EXPECT_EQ(1, run({"backup", "--all"}).exit_status);
    const std::string after = metrics();
    EXPECT_EQ("0", value(after, "kavrel_last_run_success{command=\"backup\"}"));
    EXPECT_EQ("1", value(after, "kavrel_run_failures_total{command=\"backup\"}"));
    EXPECT_EQ("0", value(after, "kavrel_last_success_timestamp_seconds{command=\"backup\"}"));
}

TEST_F(MetricsTest, EmptyPool) {
    ASSERT_EQ(0, wa_deletetree(pool_.root() + "/databases"));
    ASSERT_EQ(0, wa_deletetree(shadow_root_ + "/1"));
    const std::string text = metrics();
    EXPECT_EQ("0", value(text, "kavrel_databases"));
    EXPECT_EQ("0", value(text, "kavrel_databases_unrecoverable"));
    EXPECT_EQ("", value(text, "kavrel_shadow_oldest_newest_version_timestamp_seconds"));
}

TEST_F(MetricsTest, FailedPushIsRecordedAndTheRepositoryShownDown) {
    if (!kmt::have_program("restic")) GTEST_SKIP() << "restic is not installed (make deps)";
    // A repository below a regular file can never be made.
    const std::string blocker = pool_.dir().file("not-a-directory");
    kt::write_file(blocker, "x");
    set_offsite(blocker + "/repo");
    std::string text = metrics();
    EXPECT_EQ("1", value(text, "kavrel_offsite_configured"));
    EXPECT_EQ("0", value(text, "kavrel_last_success_timestamp_seconds{command=\"push\"}"));
    EXPECT_EQ("", value(text, "kavrel_offsite_repository_up"));

    kt::RunOptions options;
    options.set_env["RESTIC_CACHE_DIR"] = pool_.dir().file("restic-cache");
    options.timeout_seconds = 120;
    const kt::RunResult push = run({"offsite", "push"}, options);
    ASSERT_NE(0, push.exit_status) << push.out << push.err;
    text = metrics();
    EXPECT_EQ("0", value(text, "kavrel_last_run_success{command=\"push\"}"));
    EXPECT_EQ("1", value(text, "kavrel_runs_total{command=\"push\"}"));
    EXPECT_EQ("1", value(text, "kavrel_run_failures_total{command=\"push\"}"));
    EXPECT_EQ("0", value(text, "kavrel_last_success_timestamp_seconds{command=\"push\"}"));
    EXPECT_EQ("0", value(text, "kavrel_offsite_repository_up"));
    EXPECT_EQ("", value(text, "kavrel_offsite_snapshots"));
}

TEST_F(MetricsTest, OutputFileIsReplacedWholeAndReadableByTheCollector) {
    const std::string dir = pool_.dir().file("textfile");
    ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
    const std::string file = dir + "/kavrel.prom";
    kt::write_file(file, "old\n");
    const kt::RunResult r = run({"metrics", "--output", file});
    ASSERT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ("", r.out);
    struct stat st;
    ASSERT_EQ(0, stat(file.c_str(), &st));
    EXPECT_EQ(0644u, st.st_mode & 07777);
    EXPECT_NE(0, access((file + ".tmp").c_str(), F_OK));
    EXPECT_EQ("2", value(kt::read_file(file), "kavrel_databases"));
    // A directory that is not there: could not run, nothing half written.
    const kt::RunResult missing = run({"metrics", "--output", dir + "/no/kavrel.prom"});
    EXPECT_EQ(3, missing.exit_status);
    EXPECT_NE(std::string::npos, missing.err.find(dir + "/no/kavrel.prom.tmp: No such file or directory"))
        << missing.err;
}

TEST_F(MetricsTest, UsageErrors) {
    EXPECT_EQ(2, run({"status", "--per-database"}).exit_status);
    EXPECT_EQ(2, run({"offsite", "push", "--output", "x"}).exit_status);
    EXPECT_EQ(2, run({"metrics", "--all"}).exit_status);
    EXPECT_EQ(2, run({"metrics", p1_}).exit_status);
    const kt::RunResult r = run({"metrics", "--output"});
    EXPECT_EQ(2, r.exit_status);
    EXPECT_EQ(0u, r.err.find("kavrel-shadow: --output needs a file\n")) << r.err;
}

TEST_F(MetricsTest, AUserWhoMayNotReadThePoolIsToldSo) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
    kt::RunOptions nobody;
    nobody.in_child = kst::drop_privileges;
    std::string text = metrics({}, 4, nobody);
    EXPECT_EQ("0", value(text, "kavrel_shadow_up"));
    EXPECT_EQ("0", value(text, "kavrel_metrics_readable"));
    EXPECT_EQ("", value(text, "kavrel_databases"));

    // The shadow root open to all, the database directories still private.
    ASSERT_EQ(0, chmod(storage_.c_str(), 0755));
    ASSERT_EQ(0, chmod(shadow_root_.c_str(), 0755));
    ASSERT_EQ(0, chmod((shadow_root_ + "/.catalog_shadow_identity").c_str(), 0644));
    text = metrics({}, 4, nobody);
    EXPECT_EQ("1", value(text, "kavrel_shadow_up"));
    EXPECT_EQ("0", value(text, "kavrel_metrics_readable"));
    EXPECT_EQ("3", value(text, "kavrel_directories_unreadable"));
    EXPECT_EQ("0", value(text, "kavrel_databases"));
}

TEST_F(MetricsTest, TextFileCollectorServesEverySeries) {
    if (!kmt::have_program("prometheus-node-exporter")) GTEST_SKIP() << "prometheus-node-exporter is not installed";
    ASSERT_EQ(0, run({"backup", "--all"}).exit_status);
    const std::string dir = pool_.dir().file("textfile");
    ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
    ASSERT_EQ(0, run({"metrics", "--per-database", "--output", dir + "/kavrel.prom"}).exit_status);
    const std::string written = kt::read_file(dir + "/kavrel.prom");

    kmt::NodeExporter exporter(dir, pool_.dir().file("node-exporter.log"));
    ASSERT_TRUE(exporter.ok()) << kt::read_file(pool_.dir().file("node-exporter.log"));
    const std::string scraped = exporter.scrape();
    ASSERT_FALSE(scraped.empty());
    EXPECT_EQ("0", value(scraped, "node_textfile_scrape_error"));
    const auto served = kmt::samples(scraped);
    const auto ours = kmt::samples(written);
    ASSERT_GT(ours.size(), 20u);
    for (const auto& sample : ours) {
        auto it = served.find(sample.first);
        ASSERT_NE(served.end(), it) << sample.first;
        EXPECT_EQ(std::stod(sample.second), std::stod(it->second)) << sample.first;
    }
    EXPECT_EQ("2", value(scraped, "kavrel_databases"));
    EXPECT_EQ("1", value(scraped, "kavrel_database_recoverable{client=\"c1\",dsid=\"1\",policy=\"p1\",type=\"appdb\"}"));
}

}  // namespace
