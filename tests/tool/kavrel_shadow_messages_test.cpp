// Messages and exit statuses of kavrel-shadow where they once said less
// than the truth: a database directory this user may not enter, a log file
// that cannot be opened, a directory that is no database directory, and the
// manual page as groff renders it.
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "kavrel_shadow_fixture.h"
#include "offsite/json_text.h"

namespace {

using kshadowt::KavrelShadowTest;

TEST_F(KavrelShadowTest, ADatabaseDirectoryThisUserMayNotEnterIsNotReadableNeverMissing) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
    // Everything open to others but the directory of one database.
    nftw(pool_.dir().path().c_str(), kst::make_read_only, 16, FTW_PHYS);
    ASSERT_EQ(0, chmod(p1_.c_str(), 0700));
    kt::RunOptions as_nobody;
    as_nobody.in_child = kst::drop_privileges;
    kt::RunResult r = run({"status"}, as_nobody);
    EXPECT_EQ(4, r.exit_status) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find(live_block(p1_, "not readable (permission denied)"))) << r.out;
    EXPECT_EQ(std::string::npos, r.out.find("live database missing")) << r.out;
    EXPECT_EQ(std::string::npos, r.out.find("impossible: \n")) << r.out;
    r = run({"--json", "status"}, as_nobody);
    EXPECT_EQ(4, r.exit_status);
    const auto doc = ktool::json::parse(r.out);
    ASSERT_EQ(2u, doc["databases"].size());
    EXPECT_EQ(p1_, doc["databases"][0]["dir"]);
    EXPECT_EQ(false, doc["databases"][0]["live"]["exists"]);
    EXPECT_EQ(false, doc["databases"][0]["live"]["readable"]);
    EXPECT_EQ(4, doc["summary"]["exit_code"]);
    nftw(pool_.dir().path().c_str(), kst::make_writable, 16, FTW_PHYS | FTW_DEPTH);
}

TEST_F(KavrelShadowTest, ALogFileThatCannotBeOpenedIsNamed) {
    kt::RunOptions options;
    options.set_env["DCT_LOG"] = "file:" + pool_.dir().file("no/such/dir/kavrel.log");
    options.set_env[appdb::kRegistryEnv] = pool_.registry();
    const kt::RunResult r = kt::run_program(kst::shadow_binary(), {"offsite", "push"}, options);
    EXPECT_EQ(3, r.exit_status);
    const std::string unusable =
        "DCT_LOG=file:" + pool_.dir().file("no/such/dir/kavrel.log") + " cannot be opened: No such file or directory";
    const std::string head = "kavrel-shadow: no [Offsite] Repository in " + pool_.config() + " (log records went to ";
    EXPECT_TRUE(r.err == head + "nowhere: " + unusable + ", and no syslog daemon listens on /dev/log)\n" ||
                r.err == head + "syslog (" + unusable + "))\n")
        << r.err;
}

TEST_F(KavrelShadowTest, ADirectoryAboveADatabaseDirectoryIsAUsageError) {
    for (const std::string& dir : {pool_.catalog_dir(1, "c1", "p1").substr(0, p1_.rfind('/')), pool_.app_root(1)}) {
        const kt::RunResult r = run({"status", dir});
        EXPECT_EQ(2, r.exit_status) << dir << "\n" << r.out << r.err;
        EXPECT_EQ("kavrel-shadow: " + dir + " is not a catalog database directory of this pool\n", r.err);
        EXPECT_EQ("", r.out);
    }
}

TEST(KavrelShadowManPageText, TheRepositoryKeyReadsAsWords) {
    const char* src = getenv("KAVREL_SOURCE_DIR");
    ASSERT_NE(nullptr, src);
    if (kt::run_program("/bin/sh", {"-c", "command -v groff"}).exit_status != 0) GTEST_SKIP() << "no groff";
    const kt::RunResult r = kt::run_program(
        "/bin/sh", {"-c", "groff -man -Tascii -P-cbou \"$0\" | tr -s ' \\n' '  '", std::string(src) + "/tool/kavrel-shadow.8"});
    ASSERT_EQ(0, r.exit_status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("sftp:user@host:path, rest:url, s3:url, ...). Without it the offsite "
                                            "commands cannot run (exit 3)."))
        << r.out;
}

}  // namespace
