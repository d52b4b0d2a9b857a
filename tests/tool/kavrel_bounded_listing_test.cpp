// Listings whose catalogs outgrow the memory the tool gives them: the printed
// items wait in a temporary file without a name, and the output is the same
// bytes as with all of it in memory. Nothing is left in the temporary
// directory, also when the tool is killed in the middle.
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "raw_catalog.h"
#include "tool_test_util.h"

namespace {

const char kBufferEnv[] = "KAVREL_LIST_BUFFER_BYTES";

class KavrelBoundedListing : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(kt::kavrel_binary().empty()) << "KAVREL_BINARY_DIR is not set";
        kt::make_dirs(tmpdir_);
    }

    std::string catalog(unsigned dsid, const std::string& client, const std::string& policy, int rows,
                        const std::string& tag) {
        std::vector<kt::RawRow> list;
        for (int i = 0; i < rows; ++i) {
            kt::RawRow r;
            r.file_name = tag + "_file_" + std::to_string(i);
            r.backup_id = tag + "_B" + std::to_string(i % 5);
            r.backup_start_time = 1000 + (i * 7919) % rows;
            r.backup_stop_time = r.backup_start_time + 60;
            r.description = "row " + std::to_string(i) + " of 'catalog' " + tag + "\nsecond line";
            list.push_back(r);
        }
        const std::string dir = pool_.catalog_dir(dsid, client, policy);
        kt::make_dirs(dir);
        EXPECT_EQ("", kt::raw_write_catalog(dir + "/app.db", list));
        return dir;
    }

    // kavrel with the temporary directory pointed at tmpdir_ and, unless
    // empty, the in-memory bound set.
    kt::RunResult run(const std::vector<std::string>& args, const std::string& bound) {
        kt::RunOptions options;
        options.set_env["TMPDIR"] = tmpdir_;
        if (!bound.empty()) options.set_env[kBufferEnv] = bound;
        return pool_.run(args, options);
    }

    kt::TestPool pool_;
    std::string tmpdir_ = pool_.dir().file("tmp");
};

TEST_F(KavrelBoundedListing, ATinyBoundGivesTheSameBytesAsTheDefault) {
    catalog(1, "c1", "p1", 300, "a");
    catalog(1, "c2", "p1", 1, "b");
    catalog(2, "c1", "p2", 0, "c");
    catalog(2, "c3", "daily", 120, "d");
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"-listall"}, std::vector<std::string>{"-v", "-listall"},
          std::vector<std::string>{"-listbybackupid", "a_B1*"}}) {
        const kt::RunResult whole = run(args, "");
        const kt::RunResult tiny = run(args, "100");
        const kt::RunResult one = run(args, "1");
        ASSERT_EQ(0, whole.exit_status) << whole.err;
        ASSERT_EQ(0, tiny.exit_status) << tiny.err;
        EXPECT_GT(whole.out.size(), args[0] == "-listbybackupid" ? 5000u : 20000u);
        EXPECT_EQ(whole.out, tiny.out) << args[0];
        EXPECT_EQ(whole.out, one.out) << args[0];
        EXPECT_EQ(whole.err, tiny.err);
        EXPECT_TRUE(kt::list_dir(tmpdir_).empty());
    }
}

TEST_F(KavrelBoundedListing, ADamagedRowPastTheBoundPrintsWhatItPrintsInMemory) {
    const std::string bad = catalog(1, "c1", "p1", 400, "a");
    const std::string good = catalog(1, "c2", "p1", 3, "b");
    // The last row the query returns: everything before it has spilled.
    ASSERT_EQ("", kt::raw_exec(bad + "/app.db",
                               "UPDATE catalog SET crc = crc + 1 WHERE backup_start_time = "
                               "(SELECT max(backup_start_time) FROM catalog)"));
    const kt::RunResult whole = run({"-listall"}, "");
    const kt::RunResult tiny = run({"-listall"}, "64");
    ASSERT_EQ(0, tiny.exit_status) << tiny.err;
    EXPECT_EQ(whole.out, tiny.out);
    // The damaged catalog shows its path and nothing else.
    const std::string head = "[" + bad + "]\n";
    const size_t at = tiny.out.find(head);
    ASSERT_NE(std::string::npos, at) << tiny.out;
    EXPECT_TRUE(at + head.size() == tiny.out.size() || tiny.out.compare(at + head.size(), 1, "[") == 0)
        << tiny.out.substr(at, 300);
    EXPECT_NE(std::string::npos, tiny.err.find("ERROR [4294967295] operator(): find catalog failed by backup_id|c1,p1,*\n"))
        << tiny.err;
    EXPECT_NE(std::string::npos, tiny.out.find("total app catalog 3\n"));
    EXPECT_TRUE(kt::list_dir(tmpdir_).empty());
}

TEST_F(KavrelBoundedListing, AnUnusableTemporaryDirectoryListsFromMemory) {
    catalog(1, "c1", "p1", 50, "a");
    const kt::RunResult whole = run({"-listall"}, "");
    kt::RunOptions options;
    options.set_env["TMPDIR"] = pool_.dir().file("missing");
    options.set_env[kBufferEnv] = "10";
    const kt::RunResult r = pool_.run({"-listall"}, options);
    ASSERT_EQ(0, r.exit_status);
    EXPECT_EQ(whole.out, r.out);
    EXPECT_NE(std::string::npos, r.err.find("WARNING [0] spill_buffer: cannot make a temporary file in " +
                                            pool_.dir().file("missing") +
                                            " (No such file or directory), holding the output in memory\n"))
        << r.err;
}

// The tool writes into a pipe nobody reads, so it stops in the middle of
// copying a spilled catalog out, its temporary file open; then it is killed.
TEST_F(KavrelBoundedListing, AKilledListingLeavesNoTemporaryFile) {
    catalog(1, "c1", "p1", 3000, "a");
    int out[2];
    ASSERT_EQ(0, pipe(out));
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        dup2(out[1], 1);
        close(out[0]);
        close(out[1]);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 2);
        setenv("TMPDIR", tmpdir_.c_str(), 1);
        setenv(kBufferEnv, "256", 1);
        setenv(appdb::kRegistryEnv, pool_.registry().c_str(), 1);
        setenv("DCT_LOG", "stderr", 1);
        execl(kt::kavrel_binary().c_str(), "kavrel", "-listall", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(out[1]);
    // Wait until the pipe is full: the tool is blocked writing.
    const int pipe_size = fcntl(out[0], F_GETPIPE_SZ);
    int queued = 0;
    bool spilled = false;
    for (int i = 0; i < 2000 && !(queued >= pipe_size && spilled); ++i) {
        usleep(5000);
        ioctl(out[0], FIONREAD, &queued);
        // Its temporary file is open: a descriptor into tmpdir_, with no name.
        for (const std::string& fd : kt::list_dir("/proc/" + std::to_string(pid) + "/fd")) {
            char target[4096];
            const std::string link = "/proc/" + std::to_string(pid) + "/fd/" + fd;
            const ssize_t n = readlink(link.c_str(), target, sizeof(target) - 1);
            if (n > 0 && std::string(target, static_cast<size_t>(n)).rfind(tmpdir_ + "/", 0) == 0) spilled = true;
        }
    }
    EXPECT_GE(queued, pipe_size);
    EXPECT_TRUE(spilled);
    EXPECT_TRUE(kt::list_dir(tmpdir_).empty());
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    close(out[0]);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_TRUE(kt::list_dir(tmpdir_).empty());
}

}  // namespace
