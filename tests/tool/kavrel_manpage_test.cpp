// The man pages of kavrel and kavrel-shadow are valid groff man: no warnings
// at the strictest level; they name what the commands take.
#include <unistd.h>

#include <string>

#include "gtest/gtest.h"
#include "tool_test_util.h"

namespace {

// The source tree: $KAVREL_SOURCE_DIR, else the tree this file was compiled from.
std::string source_dir() {
    const char* src = getenv("KAVREL_SOURCE_DIR");
    if (src != nullptr && *src != '\0') return src;
    const std::string self = __FILE__;
    const size_t at = self.rfind("/tests/tool/");
    return at == std::string::npos ? "" : self.substr(0, at);
}

bool groff_available() {
    kt::RunResult r = kt::run_program("/bin/sh", {"-c", "command -v groff"});
    return r.exit_status == 0;
}

TEST(KavrelManPage, GroffReportsNoWarnings) {
    const std::string page = source_dir() + "/tool/kavrel.1";
    ASSERT_EQ(0, access(page.c_str(), R_OK)) << page;
    if (!groff_available()) GTEST_SKIP() << "groff is not installed";

    kt::RunResult r = kt::run_program("/bin/sh", {"-c", "groff -ww -z -man \"$0\"", page});
    EXPECT_EQ(0, r.exit_status);
    EXPECT_EQ("", r.err);
    EXPECT_EQ("", r.out);
}

TEST(KavrelManPage, NamesEveryOptionAndTheUsageLine) {
    const std::string page = source_dir() + "/tool/kavrel.1";
    ASSERT_EQ(0, access(page.c_str(), R_OK)) << page;
    const std::string text = kt::read_file(page);
    for (const char* option : {"listall", "listbybackupid", "dbpath", "\\-v", "\\-h", "VELKREGISTRY",
                               "/etc/velkregistry.cfg", "Tamberlode", "configfilepath", "DCT_LOG", "DCT_TRACE",
                               "total app catalog", "255"}) {
        EXPECT_NE(std::string::npos, text.find(option)) << option;
    }
}

TEST(KavrelShadowManPage, GroffReportsNoWarnings) {
    const std::string page = source_dir() + "/tool/kavrel-shadow.8";
    ASSERT_EQ(0, access(page.c_str(), R_OK)) << page;
    if (!groff_available()) GTEST_SKIP() << "groff is not installed";
    kt::RunResult r = kt::run_program("/bin/sh", {"-c", "groff -ww -z -man \"$0\"", page});
    EXPECT_EQ(0, r.exit_status);
    EXPECT_EQ("", r.err);
}

TEST(KavrelShadowManPage, NamesEveryCommandOptionAndExitStatus) {
    const std::string text = kt::read_file(source_dir() + "/tool/kavrel-shadow.8");
    for (const char* word : {".TH KAVREL\\-SHADOW 8", "status", "verify", "backup", "recover", "\\-\\-dry\\-run",
                             "\\-\\-missing", "\\-\\-json", "\\-\\-json\\-lines", "\\-\\-registry",
                             "\\-\\-all", "VELKREGISTRY", "DCT_LOG", "kavrel\\-shadow.timer",
                             "SUMMARY    {\"databases\", \"with_problems\", \"problems\", \"recoverable\"",
                             ".B 0\n", ".B 1\n", ".B 2\n", ".B 3\n", ".B 4\n", ".B init\n",
                             "not readable (permission denied)", ".SH CONFIGURATION", "CatalogBackupVersionCount",
                             ".SH METRICS", "\\-\\-per\\-database", ".catalog_shadow_runs", "KAVREL_METRICS_DIR"}) {
        EXPECT_NE(std::string::npos, text.find(word)) << word;
    }
}

// The nightly units run a backup of every database, a verify and then the
// off-site push (which ends at once without an [Offsite] repository), and the
// timer is to be enabled by the operator.
TEST(KavrelShadowUnits, BackupThenVerifyThenOffsitePushNightly) {
    const std::string service = kt::read_file(source_dir() + "/tool/kavrel-shadow.service.in");
    const size_t backup = service.find("ExecStart=@KAVREL_SHADOW_PATH@ backup --all\n");
    const size_t verify = service.find("ExecStart=@KAVREL_SHADOW_PATH@ verify\n");
    const size_t push = service.find("ExecStart=@KAVREL_SHADOW_PATH@ offsite push --if-configured\n");
    ASSERT_NE(std::string::npos, backup);
    ASSERT_NE(std::string::npos, verify);
    ASSERT_NE(std::string::npos, push);
    EXPECT_LT(backup, verify);
    EXPECT_LT(verify, push);
    // The metrics after every run, failed or not, into one directory an operator sets once.
    EXPECT_NE(std::string::npos, service.find("\nEnvironment=KAVREL_METRICS_DIR=/var/lib/prometheus/node-exporter\n"));
    EXPECT_NE(std::string::npos,
              service.find("\nExecStopPost=-@KAVREL_SHADOW_PATH@ metrics --output ${KAVREL_METRICS_DIR}/kavrel.prom\n"));
    EXPECT_NE(std::string::npos, service.find("Type=oneshot\n"));
    EXPECT_NE(std::string::npos, service.find("StandardOutput=journal\n"));
    const std::string timer = kt::read_file(source_dir() + "/tool/kavrel-shadow.timer");
    EXPECT_NE(std::string::npos, timer.find("OnCalendar=*-*-* 02:30:00\n"));
    EXPECT_NE(std::string::npos, timer.find("WantedBy=timers.target\n"));
}

// The off-site copy is checked once a week, by a timer of its own.
TEST(KavrelShadowUnits, OffsiteCheckWeekly) {
    const std::string service = kt::read_file(source_dir() + "/tool/kavrel-shadow-offsite-check.service.in");
    EXPECT_NE(std::string::npos, service.find("\nType=oneshot\n"));
    EXPECT_NE(std::string::npos, service.find("\nExecStart=@KAVREL_SHADOW_PATH@ offsite check\n"));
    EXPECT_EQ(service.find("ExecStart="), service.rfind("ExecStart="));
    EXPECT_NE(std::string::npos, service.find("\nStandardOutput=journal\n"));
    const std::string timer = kt::read_file(source_dir() + "/tool/kavrel-shadow-offsite-check.timer");
    for (const char* line : {"\n[Timer]\nOnCalendar=weekly\n", "\nRandomizedDelaySec=1h\n", "\nPersistent=true\n",
                             "\n[Install]\nWantedBy=timers.target\n"}) {
        EXPECT_NE(std::string::npos, timer.find(line)) << line;
    }
}

// The units as the install writes them (the path of the binary filled in)
// are what systemd accepts: systemd-analyze verify finds nothing to say.
TEST(KavrelShadowUnits, ConfiguredUnitsPassSystemdVerify) {
    const char* bin = getenv("KAVREL_BINARY_DIR");
    ASSERT_TRUE(bin != nullptr && *bin != '\0') << "KAVREL_BINARY_DIR is not set";
    kt::RunResult probe = kt::run_program("/bin/sh", {"-c", "command -v systemd-analyze"});
    if (probe.exit_status != 0) GTEST_SKIP() << "systemd-analyze is not installed";

    kt::TempDir dir;
    const std::string shadow = std::string(bin) + "/tool/kavrel-shadow";
    std::vector<std::string> args = {"-c", "exec systemd-analyze verify --man=no \"$@\"", "verify"};
    for (const char* unit : {"kavrel-shadow", "kavrel-shadow-offsite-check"}) {
        std::string service = kt::read_file(source_dir() + "/tool/" + unit + ".service.in");
        const std::string var = "@KAVREL_SHADOW_PATH@";
        for (size_t at = service.find(var); at != std::string::npos; at = service.find(var, at)) {
            service.replace(at, var.size(), shadow);
        }
        ASSERT_EQ(std::string::npos, service.find('@')) << unit;
        kt::write_file(dir.file(std::string(unit) + ".service"), service);
        kt::write_file(dir.file(std::string(unit) + ".timer"),
                       kt::read_file(source_dir() + "/tool/" + unit + ".timer"));
        args.push_back(dir.file(std::string(unit) + ".service"));
        args.push_back(dir.file(std::string(unit) + ".timer"));
    }
    kt::RunResult r = kt::run_program("/bin/sh", args);
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ("", r.err);
    EXPECT_EQ("", r.out);
}

}  // namespace
