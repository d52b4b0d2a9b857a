// The default sink, chosen from DCT_LOG (and DCT_TRACE) at the first record.
//
// The choice is made once per process, so every case runs in a fresh process:
// the test re-executes this binary on itself with the environment to try and
// KAVREL_LOG_CHILD set. The child side sends its standard output and standard
// error to files, logs, and ends at once; the parent side reads both files.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/test_util.h"
#include "dct/log.h"
#include "dct/status.h"

extern char** environ;

namespace {

const char kChildVar[] = "KAVREL_LOG_CHILD";
const char kOutVar[] = "KAVREL_LOG_OUT";
const char kErrVar[] = "KAVREL_LOG_ERR";

bool in_child() { return getenv(kChildVar) != nullptr; }

// Child side: runs `body` with standard output and error sent to the files the
// parent named, then ends the process without returning to the test framework.
void child_side(const std::function<void()>& body) {
    if (!in_child()) return;
    fflush(stdout);
    fflush(stderr);
    int out = open(getenv(kOutVar), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err = open(getenv(kErrVar), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out < 0 || err < 0) _exit(90);
    if (dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(91);
    body();
    fflush(stdout);
    fflush(stderr);
    _exit(0);
}

struct ChildResult {
    int status = -1;  // exit code, or -1 when the child did not exit normally
    std::string out;
    std::string err;
};

bool dropped(const char* entry) {
    static const char* const names[] = {"DCT_LOG=", "DCT_TRACE=", "KAVREL_LOG_", "GTEST_OUTPUT="};
    for (const char* n : names)
        if (strncmp(entry, n, strlen(n)) == 0) return true;
    return false;
}

// Parent side: runs the current test again in a new process with `extra_env`.
ChildResult run_child(const std::vector<std::string>& extra_env) {
    kt::TempDir io;
    const testing::TestInfo* info = testing::UnitTest::GetInstance()->current_test_info();
    std::string filter = std::string("--gtest_filter=") + info->test_suite_name() + "." + info->name();

    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e)
        if (!dropped(*e)) env.push_back(*e);
    for (const auto& e : extra_env) env.push_back(e);
    env.push_back(std::string(kChildVar) + "=1");
    env.push_back(std::string(kOutVar) + "=" + io.file("out"));
    env.push_back(std::string(kErrVar) + "=" + io.file("err"));

    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(&e[0]);
    envp.push_back(nullptr);
    std::string self = "/proc/self/exe";
    std::vector<char*> argv = {&self[0], &filter[0], nullptr};

    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid == 0) {
        // The framework's own chatter in the child goes nowhere.
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        execve("/proc/self/exe", argv.data(), envp.data());
        _exit(127);
    }
    ChildResult r;
    if (pid < 0) return r;
    int ws = 0;
    if (waitpid(pid, &ws, 0) == pid && WIFEXITED(ws)) r.status = WEXITSTATUS(ws);
    r.out = kt::read_file(io.file("out"));
    r.err = kt::read_file(io.file("err"));
    return r;
}

void log_three_and_trace() {
    ErrorA(CR_STATUS_CORRUPT, "%s: failed to query db %s", "do_db_query", "/db/app.db");
    WarningA(CR_STATUS_BUSY, "busy %d", 3);
    InfoA(CR_STATUS_OK, "Directory %s doesn't exist.", "/nowhere");
    ErrorA(CR_STATUS_NONE, "no status");
    __dctlog_trace_location.store(1);
    __TraceA("client %s", "c1");
}

const char kThreeAndTrace[] =
    "ERROR [67] do_db_query: failed to query db /db/app.db\n"
    "WARNING [11] busy 3\n"
    "INFO [0] Directory /nowhere doesn't exist.\n"
    "ERROR [4294967295] no status\n"
    "TRACE client c1\n";

}  // namespace

TEST(DefaultSink, StderrWritesLevelStatusMessageLines) {
    child_side(log_three_and_trace);
    ChildResult r = run_child({"DCT_LOG=stderr"});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.err, kThreeAndTrace);
    EXPECT_EQ(r.out, "");
}

TEST(DefaultSink, FileAppendsToExistingContent) {
    child_side(log_three_and_trace);
    kt::TempDir here;
    std::string path = here.file("kavrel.log");
    kt::write_file(path, "earlier line\n");

    ChildResult first = run_child({"DCT_LOG=file:" + path});
    ASSERT_EQ(first.status, 0);
    EXPECT_EQ(first.out, "");
    EXPECT_EQ(first.err, "");
    EXPECT_EQ(kt::read_file(path), std::string("earlier line\n") + kThreeAndTrace);

    ChildResult second = run_child({"DCT_LOG=file:" + path});
    ASSERT_EQ(second.status, 0);
    EXPECT_EQ(kt::read_file(path), std::string("earlier line\n") + kThreeAndTrace + kThreeAndTrace);
}

TEST(DefaultSink, FileIsCreatedWhenMissing) {
    child_side([] { WarningA(CR_STATUS_IO, "%s", "first"); });
    kt::TempDir here;
    std::string path = here.file("new.log");
    ChildResult r = run_child({"DCT_LOG=file:" + path});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(kt::read_file(path), "WARNING [21] first\n");
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
}

TEST(DefaultSink, UnopenableFileWritesNothingToStandardStreams) {
    child_side(log_three_and_trace);
    kt::TempDir here;
    ChildResult r = run_child({"DCT_LOG=file:" + here.file("no/such/dir/x.log")});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
    EXPECT_FALSE(kt::file_exists(here.file("no")));
}

TEST(DefaultSink, NoneWritesNothing) {
    child_side(log_three_and_trace);
    ChildResult r = run_child({"DCT_LOG=none"});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
}

TEST(DefaultSink, SyslogByDefaultWritesNothingToStandardStreams) {
    child_side(log_three_and_trace);
    ChildResult r = run_child({});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
}

TEST(DefaultSink, ChosenAtFirstRecordAndKeptAfterwards) {
    child_side([] {
        InfoA(0, "before");
        setenv("DCT_LOG", "none", 1);
        InfoA(0, "after");
    });
    ChildResult r = run_child({"DCT_LOG=stderr"});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "INFO [0] before\nINFO [0] after\n");
}

TEST(DefaultSink, EnvironmentReadAtFirstRecordNotAtStart) {
    child_side([] {
        setenv("DCT_LOG", "stderr", 1);
        InfoA(0, "late choice");
    });
    ChildResult r = run_child({"DCT_LOG=none"});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "INFO [0] late choice\n");
}

TEST(DefaultSink, InstalledSinkTakesOverAndDefaultReturnsAfterRemoval) {
    child_side([] {
        std::string* kept = new std::string;
        dct::set_log_sink([kept](dct::log_level, cr_status_t, const std::string& m) { *kept += m; });
        ErrorA(CR_STATUS_FAILED, "to the installed sink");
        dct::set_log_sink(nullptr);
        ErrorA(CR_STATUS_FAILED, "to stderr (%zu)", kept->size());
    });
    ChildResult r = run_child({"DCT_LOG=stderr"});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "ERROR [4] to stderr (21)\n");
    EXPECT_EQ(r.out, "");
}

TEST(DefaultSink, TraceSwitchOnAtStartWithDctTrace) {
    child_side([] { __TraceA("traced %d", 1); });
    ChildResult r = run_child({"DCT_LOG=stderr", "DCT_TRACE=1"});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "TRACE traced 1\n");
}

TEST(DefaultSink, TraceSwitchOffWithoutDctTrace) {
    child_side([] { __TraceA("traced %d", 1); InfoA(0, "end"); });
    ChildResult on_zero = run_child({"DCT_LOG=stderr", "DCT_TRACE=0"});
    ASSERT_EQ(on_zero.status, 0);
    EXPECT_EQ(on_zero.err, "INFO [0] end\n");
    ChildResult unset = run_child({"DCT_LOG=stderr"});
    ASSERT_EQ(unset.status, 0);
    EXPECT_EQ(unset.err, "INFO [0] end\n");
}

namespace {

// A record whose message holds a NUL byte, with text after it.
void log_record_with_nul() { InfoA(CR_STATUS_OK, "before %c after", '\0'); }

}  // namespace

TEST(DefaultSink, StderrWritesARecordWithANulWhole) {
    child_side(log_record_with_nul);
    ChildResult r = run_child({"DCT_LOG=stderr"});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.err, std::string("INFO [0] before ") + '\0' + " after\n");
}

TEST(DefaultSink, FileWritesARecordWithANulWhole) {
    child_side(log_record_with_nul);
    kt::TempDir here;
    std::string path = here.file("nul.log");
    ChildResult r = run_child({"DCT_LOG=file:" + path});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(kt::read_file(path), std::string("INFO [0] before ") + '\0' + " after\n");
}
