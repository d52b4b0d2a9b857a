// kavrel-shadow offsite and the locks restic leaves in a repository when it
// is killed: every offsite command killed (SIGKILL or SIGTERM, the command
// alone or with its restic) at the moment restic holds a lock, then the
// next push and check work; a lock whose restic still runs is left alone and
// named in one line, and offsite unlock removes what the operator asks.
#include <signal.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include "offsite_fixture.h"

namespace {

using kshadowt::OffsiteTest;

// The lock files of a local repository.
std::vector<std::string> locks_of(const std::string& repo) {
    std::vector<std::string> names;
    for (const std::string& line :
         kt::split_lines(kt::run_program("/bin/ls", {"-1", repo + "/locks"}).out)) {
        if (line.find("-tmp-") == std::string::npos) names.push_back(line);
    }
    return names;
}

class OffsiteLockTest : public OffsiteTest {
protected:
    void SetUp() override {
        OffsiteTest::SetUp();
        // restic outlives a command killed alone; it is reaped here, so that
        // its PID is free again as it would be on a server.
        ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1));
        ASSERT_EQ(0, offsite({"push"}).exit_status);
    }
    void TearDown() override { prctl(PR_SET_CHILD_SUBREAPER, 0); }

    // Starts `kavrel-shadow offsite ARGS` in a process group of its own.
    pid_t start(const std::vector<std::string>& args) {
        const pid_t pid = fork();
        if (pid == 0) {
            setpgid(0, 0);
            setenv(appdb::kRegistryEnv, pool_.registry().c_str(), 1);
            setenv("DCT_LOG", "none", 1);
            setenv("RESTIC_CACHE_DIR", pool_.dir().file("restic-cache").c_str(), 1);
            std::vector<char*> argv = {const_cast<char*>("kavrel-shadow"), const_cast<char*>("offsite")};
            for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            execv(kst::shadow_binary().c_str(), argv.data());
            _exit(127);
        }
        setpgid(pid, pid);
        return pid;
    }

    // Waits until restic took its `nth` lock in the repository while the
    // command runs, and stops the command's whole group there. false when the
    // command ended first.
    bool stop_at_lock(pid_t pid, int nth) {
        const int fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
        if (fd < 0 || inotify_add_watch(fd, (repo_ + "/locks").c_str(), IN_MOVED_TO | IN_CREATE) < 0) return false;
        int seen = 0;
        char buf[4096] __attribute__((aligned(__alignof__(struct inotify_event))));
        for (int i = 0; i < 30000 && seen < nth; ++i) {
            const ssize_t n = read(fd, buf, sizeof(buf));
            for (ssize_t at = 0; n > 0 && at < n && seen < nth;) {
                const struct inotify_event* e = reinterpret_cast<const struct inotify_event*>(buf + at);
                if (e->len > 0 && std::string(e->name).find("-tmp-") == std::string::npos) ++seen;
                at += sizeof(struct inotify_event) + e->len;
            }
            if (seen >= nth) break;
            if (waitpid(pid, nullptr, WNOHANG) == pid) break;
            usleep(200);
        }
        if (seen >= nth) kill(-pid, SIGSTOP);
        close(fd);
        return seen >= nth;
    }

    // Sends `sig` to the stopped command (its group when `group`), lets it
    // go on and reaps every process of the group.
    void end(pid_t pid, int sig, bool group) {
        kill(group ? -pid : pid, sig);
        kill(-pid, SIGCONT);
        while (waitpid(-pid, nullptr, 0) > 0 || errno == EINTR) {
        }
    }
};

TEST_F(OffsiteLockTest, EveryKilledCommandLeavesTheNextPushAndCheckWorking) {
    struct Case {
        std::vector<std::string> command;
        int lock;      // killed while restic holds its lock number `lock` of the run
        int sig;
        bool group;    // restic killed with it
    };
    const std::vector<Case> cases = {
        {{"restore", "latest"}, 2, SIGKILL, true}, {{"restore", "--dry-run"}, 2, SIGTERM, false},
        {{"push"}, 1, SIGTERM, true},              {{"push"}, 2, SIGKILL, true},
        {{"check"}, 2, SIGKILL, true},
    };
    const std::regex note(
        "kavrel-shadow: removed a stale lock from the repository \\(locked (exclusively )?by PID [0-9]+ on [^ ]+ "
        "by [^ ]+ \\(UID [0-9]+, GID [0-9]+\\)\\): its holder is gone\n");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.command[0] + (c.command.size() > 1 ? " " + c.command[1] : "") + " at lock " +
                     std::to_string(c.lock) + ", signal " + std::to_string(c.sig) + (c.group ? " to the group" : ""));
        const pid_t pid = start(c.command);
        ASSERT_TRUE(stop_at_lock(pid, c.lock));
        end(pid, c.sig, c.group);
        // restic killed with the command leaves its lock. restic that
        // outlives it is interrupted and removes its lock, unless the
        // interruption came while it was still taking it.
        if (c.group) {
            EXPECT_FALSE(locks_of(repo_).empty());
        }
        const bool left = !locks_of(repo_).empty();
        const kt::RunResult r = offsite({"push"});
        EXPECT_EQ(0, r.exit_status) << r.out << r.err;
        if (left) {
            EXPECT_TRUE(std::regex_match(r.err, note)) << r.err;
        } else {
            EXPECT_EQ("", r.err);
        }
        EXPECT_TRUE(locks_of(repo_).empty());
    }
    const kt::RunResult r = offsite({"check"});
    EXPECT_EQ(0, r.exit_status) << r.out << r.err;
    // Every push forgot what is beyond KeepLast (5).
    const auto doc = ktool::json::parse(offsite({"snapshots", "--json"}).out);
    EXPECT_EQ(5u, doc["snapshots"].size());
}

TEST_F(OffsiteLockTest, ALockOfARunningResticIsNamedAndRemovedOnlyWhenAsked) {
    const pid_t pid = start({"restore", "--dry-run"});
    ASSERT_TRUE(stop_at_lock(pid, 2));
    const std::regex locked(
        "kavrel-shadow: offsite push: restic forget failed \\(exit status 1\\): unable to create lock in backend: "
        "repository is already locked by PID [0-9]+ on [^ ]+ by [^ ]+ \\(UID [0-9]+, GID [0-9]+\\); when no restic "
        "of this repository runs any more, kavrel-shadow offsite unlock --all removes it\n");
    // Shown: restic's first line of its own; logged: all it said.
    const std::string log = pool_.dir().file("kavrel.log");
    kt::RunOptions logged;
    logged.set_env[appdb::kRegistryEnv] = pool_.registry();
    logged.set_env["DCT_LOG"] = "file:" + log;
    logged.set_env["RESTIC_CACHE_DIR"] = pool_.dir().file("restic-cache");
    kt::RunResult r = kt::run_program(kst::shadow_binary(), {"offsite", "push"}, logged);
    EXPECT_EQ(1, r.exit_status) << r.out << r.err;
    EXPECT_TRUE(std::regex_match(r.err, locked)) << r.err;
    EXPECT_TRUE(std::regex_search(kt::read_file(log),
                                  std::regex("ERROR \\[4\\] kavrel-shadow offsite push: restic forget failed \\(exit "
                                             "status 1\\): unable to create lock in backend: [^\n]* \\[unable to "
                                             "create lock in backend: [^\n]*\\| the `unlock` command can be used "
                                             "to remove stale locks\\]\n")))
        << kt::read_file(log);

    r = offsite({"unlock"});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ("offsite unlock: the stale locks removed from " + repo_ + "\n", r.out);
    EXPECT_EQ(1u, locks_of(repo_).size());
    r = offsite({"unlock", "--all", "--json"});
    EXPECT_EQ(0, r.exit_status) << r.err;
    const auto doc = ktool::json::parse(r.out);
    EXPECT_EQ(true, doc["summary"]["all"]);
    EXPECT_EQ(0, doc["summary"]["exit_code"]);
    EXPECT_TRUE(locks_of(repo_).empty());
    end(pid, SIGKILL, true);
}

}  // namespace
