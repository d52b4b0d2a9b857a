// Messages and exit statuses of kavrel-shadow where they once said less
// than the truth: a database directory this user may not enter, a log file
// that cannot be opened, a directory that is no database directory, and the
// manual page as groff renders it.
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "dct/fs.h"
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

// The manual page as a reader sees it, every run of blanks and line breaks
// one blank, words unhyphenated; "" without groff.
std::string rendered_page() {
    // The source tree: $KAVREL_SOURCE_DIR, else the tree this file was compiled from.
    const char* src = getenv("KAVREL_SOURCE_DIR");
    const std::string self = __FILE__;
    const std::string root = src != nullptr && *src != '\0' ? src : self.substr(0, self.rfind("/tests/tool/"));
    if (kt::run_program("/bin/sh", {"-c", "command -v groff"}).exit_status != 0) return "";
    const kt::RunResult r = kt::run_program(
        "/bin/sh", {"-c", "groff -man -rHY=0 -Tascii -P-cbou \"$0\" | tr -s ' \\n' '  '",
                    root + "/tool/kavrel-shadow.8"});
    return r.exit_status == 0 ? r.out : "";
}

// `text` with every run of blanks and line breaks one blank.
std::string squeezed(const std::string& text) {
    std::string out;
    for (char c : text) {
        const bool blank = c == ' ' || c == '\n';
        if (!blank || out.empty() || out.back() != ' ') out += blank ? ' ' : c;
    }
    return out;
}

TEST(KavrelShadowManPageText, TheRepositoryKeyReadsAsWords) {
    const std::string page = rendered_page();
    if (page.empty()) GTEST_SKIP() << "no groff";
    EXPECT_NE(std::string::npos, page.find("sftp:user@host:path, rest:url, s3:url, ...). Without it the offsite "
                                           "commands cannot run (exit 3)."))
        << page;
}

// The runbook's way to take an existing pool under the shadow quotes what
// the commands print.
TEST_F(KavrelShadowTest, TheRunbookQuotesWhatInitAndBackupPrint) {
    const std::string page = rendered_page();
    if (page.empty()) GTEST_SKIP() << "no groff";
    ASSERT_EQ(0, wa_deletetree(storage_));
    kt::RunResult r = run({"status"});
    EXPECT_EQ(3, r.exit_status);
    const std::string off = "the catalog shadow of this pool is disabled or has lost its identity file";
    EXPECT_NE(std::string::npos, r.err.find(off)) << r.err;
    EXPECT_NE(std::string::npos, page.find(off));
    r = run({"init"});
    ASSERT_EQ(0, r.exit_status) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find("  identity      created " + shadow_root_ + "/.catalog_shadow_identity\n"));
    EXPECT_NE(std::string::npos, page.find("identity created shadow-root/.catalog_shadow_identity"));
    r = run({"backup", "--all"});
    ASSERT_EQ(0, r.exit_status) << r.out << r.err;
    for (const std::string& line : {std::string("  backup        kept version 1\n"),
                                    std::string("backup: 2 databases, 0 with problems, 0 problems, 2 recoverable\n")}) {
        EXPECT_NE(std::string::npos, r.out.find(line)) << r.out;
    }
    EXPECT_NE(std::string::npos, page.find("backup kept version 1"));
    EXPECT_NE(std::string::npos, page.find("backup: N databases, 0 with problems, 0 problems, N recoverable"));
    r = run({"backup", "--all"});
    const std::string unchanged = "  backup        unchanged version 1 (no change since the newest version)\n";
    EXPECT_NE(std::string::npos, r.out.find(unchanged)) << r.out;
    EXPECT_NE(std::string::npos, page.find(squeezed(unchanged).substr(1)));
    // The lock lines of the offsite commands, as their tests pin them.
    EXPECT_NE(std::string::npos, page.find("kavrel-shadow: removed a stale lock from the repository (locked by PID N "
                                           "on host by user (UID u, GID g)): its holder is gone"));
    EXPECT_NE(std::string::npos, page.find("; when no restic of this repository runs any more, kavrel-shadow offsite "
                                           "unlock --all removes it"));
    EXPECT_NE(std::string::npos, page.find("offsite unlock: the stale locks removed from REPOSITORY"));
}

}  // namespace
