// What kavrel-shadow offsite check and restore report about the databases
// they meet: the blocks of a checked snapshot, the live databases a restore
// keeps (counted, and a damaged one named as a problem), counts in words,
// and the progress line on a terminal.
#include <fcntl.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "offsite_fixture.h"

namespace {

using kshadowt::OffsiteTest;

// What `kavrel-shadow offsite ARGS` of the pool of `registry` writes to its
// standard error when that is a terminal (standard output goes nowhere).
std::string terminal_of(const std::string& registry, const std::string& cache, const std::vector<std::string>& args) {
    int master = -1, slave = -1;
    if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) return "no terminal";
    const pid_t pid = fork();
    if (pid == 0) {
        setenv(appdb::kRegistryEnv, registry.c_str(), 1);
        setenv("DCT_LOG", "none", 1);
        setenv("RESTIC_CACHE_DIR", cache.c_str(), 1);
        const int null_fd = open("/dev/null", O_RDWR);
        dup2(null_fd, 0);
        dup2(null_fd, 1);
        dup2(slave, 2);
        close(master);
        std::vector<char*> argv = {const_cast<char*>("kavrel-shadow"), const_cast<char*>("offsite")};
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(kst::shadow_binary().c_str(), argv.data());
        _exit(127);
    }
    close(slave);
    std::string seen;
    char buf[4096];
    ssize_t n;
    while ((n = read(master, buf, sizeof(buf))) > 0 || (n < 0 && errno == EINTR)) {
        if (n > 0) seen.append(buf, static_cast<size_t>(n));
    }
    close(master);
    waitpid(pid, nullptr, 0);
    return seen;
}

TEST_F(OffsiteTest, CheckShowsTheSnapshotsDatabasesAndRestoreCountsWhatItKept) {
    ASSERT_EQ(0, offsite({"push"}).exit_status);
    // On a terminal, check (three runs of restic, each over half a second)
    // shows what it does and clears the line at the end; --quiet shows
    // nothing. Not on a terminal, standard error stays empty (below).
    const std::string cache = pool_.dir().file("restic-cache");
    const std::string shown = terminal_of(pool_.registry(), cache, {"check"});
    EXPECT_NE(std::string::npos, shown.find("\r\033[Kchecking the repository (")) << shown;
    EXPECT_EQ(0u, shown.find("\r\033[K")) << shown;
    EXPECT_EQ(shown.size() - 4, shown.rfind("\r\033[K")) << shown;
    EXPECT_EQ("", terminal_of(pool_.registry(), cache, {"--quiet", "check"}));

    // Each database of the snapshot with its manifest, not a live file the
    // scratch copy never has.
    kt::RunResult r = offsite({"check"});
    ASSERT_EQ(0, r.exit_status) << r.out << r.err;
    EXPECT_EQ("", r.err);
    EXPECT_EQ(std::string::npos, r.out.find("live database missing")) << r.out;
    EXPECT_EQ(std::string::npos, r.out.find("  live          ")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("1/c1/p1\n  manifest      3 files, ")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find(", 3 rows\n  checksums     ok\n")) << r.out;

    // Both shadows lost, both live databases there: the shadows come back,
    // the live databases are kept.
    kt::write_file(s1_ + "/.chksum.appdb", "garbage\n");
    kt::write_file(shadow_root_ + "/1/c2/p2/.chksum.appdb", "garbage\n");
    r = offsite({"restore"});
    ASSERT_EQ(0, r.exit_status) << r.out << r.err;
    EXPECT_NE(std::string::npos,
              r.out.find(", 2 databases: 2 shadows restored, 0 databases rebuilt, 2 kept, 0 problems\n"))
        << r.out;

    // A live database that is kept but damaged is a problem of the restore.
    kshadowt::tamper_second_row(p1_ + "/app.db");
    r = offsite({"restore"});
    EXPECT_EQ(1, r.exit_status) << r.out << r.err;
    EXPECT_NE(std::string::npos,
              r.out.find("  problem       the live database that was kept is damaged (integrity ok, row checksums "
                         "bad): kavrel-shadow recover " +
                         p1_ + " rebuilds it\n"))
        << r.out;
    EXPECT_NE(std::string::npos,
              r.out.find(", 2 databases: 0 shadows restored, 0 databases rebuilt, 2 kept, 1 problem\n"))
        << r.out;
}

}  // namespace
