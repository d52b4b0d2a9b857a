// The default sink, chosen from DCT_LOG (and DCT_TRACE) at the first record.
//
// The choice is made once per process, so every case runs in a fresh process:
// the test re-executes this binary on itself with the environment to try and
// KAVREL_LOG_CHILD set. The child side sends its standard output and standard
// error to files, logs, and ends at once; the parent side reads both files.
#include <fcntl.h>
#include <stdint.h>
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
#include "dct/syslog_gate.h"

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
    static const char* const names[] = {"DCT_LOG=", "DCT_LOG_LEVEL=", "DCT_TRACE=", "KAVREL_LOG_", "GTEST_OUTPUT="};
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

// A NUL byte in a record is written escaped: the line stays whole and holds
// no NUL for a reader to stop at.
TEST(DefaultSink, StderrWritesARecordWithANulWhole) {
    child_side(log_record_with_nul);
    ChildResult r = run_child({"DCT_LOG=stderr"});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "INFO [0] before \\x00 after\n");
}

TEST(DefaultSink, FileWritesARecordWithANulWhole) {
    child_side(log_record_with_nul);
    kt::TempDir here;
    std::string path = here.file("nul.log");
    ChildResult r = run_child({"DCT_LOG=file:" + path});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(kt::read_file(path), "INFO [0] before \\x00 after\n");
}

// DCT_LOG_LEVEL: the least important level the default sink keeps.
namespace {

// A pointer that cannot be read: formatting it with %s would end the child on
// a fault, so a clean exit proves that the record holding it was never
// formatted.
const char* unreadable() {
    static volatile uintptr_t address = 8;
    return reinterpret_cast<const char*>(address);
}

// Each level once with a readable argument, then each level below `floor`
// again with the unreadable one.
void log_each_level_and_unreadable_below(dct::log_level floor) {
    __dctlog_trace_location.store(1);
    ErrorA(CR_STATUS_CORRUPT, "error %s", "e");
    WarningA(CR_STATUS_BUSY, "warning %s", "w");
    InfoA(CR_STATUS_OK, "info %s", "i");
    __TraceA("trace %s", "t");
    if (floor < dct::log_level::warning) WarningA(CR_STATUS_BUSY, "%s", unreadable());
    if (floor < dct::log_level::info) InfoA(CR_STATUS_OK, "%s", unreadable());
    if (floor < dct::log_level::trace) __TraceA("%s", unreadable());
}

const char kErrorLine[] = "ERROR [67] error e\n";
const char kWarningLine[] = "WARNING [11] warning w\n";
const char kInfoLine[] = "INFO [0] info i\n";
const char kTraceLine[] = "TRACE trace t\n";

dct::log_level level_named(const char* name) {
    if (strcmp(name, "error") == 0) return dct::log_level::error;
    if (strcmp(name, "warning") == 0) return dct::log_level::warning;
    if (strcmp(name, "info") == 0) return dct::log_level::info;
    return dct::log_level::trace;
}

// The child learns its floor from the variable the parent sets, so that one
// child body serves every level.
void log_for_threshold_in_environment() {
    const char* v = getenv("DCT_LOG_LEVEL");
    log_each_level_and_unreadable_below(level_named(v != nullptr ? v : "trace"));
}

std::string expected_at_or_above(dct::log_level floor) {
    std::string text = kErrorLine;
    if (floor >= dct::log_level::warning) text += kWarningLine;
    if (floor >= dct::log_level::info) text += kInfoLine;
    if (floor >= dct::log_level::trace) text += kTraceLine;
    return text;
}

const char* const kLevelNames[] = {"error", "warning", "info", "trace"};

}  // namespace

TEST(DefaultSinkThreshold, StderrKeepsLevelsAtOrAboveThreshold) {
    child_side(log_for_threshold_in_environment);
    for (const char* name : kLevelNames) {
        SCOPED_TRACE(name);
        ChildResult r = run_child({"DCT_LOG=stderr", std::string("DCT_LOG_LEVEL=") + name});
        ASSERT_EQ(r.status, 0);
        EXPECT_EQ(r.err, expected_at_or_above(level_named(name)));
        EXPECT_EQ(r.out, "");
    }
}

TEST(DefaultSinkThreshold, FileKeepsLevelsAtOrAboveThreshold) {
    child_side(log_for_threshold_in_environment);
    for (const char* name : kLevelNames) {
        SCOPED_TRACE(name);
        kt::TempDir here;
        std::string path = here.file("kavrel.log");
        ChildResult r = run_child({"DCT_LOG=file:" + path, std::string("DCT_LOG_LEVEL=") + name});
        ASSERT_EQ(r.status, 0);
        EXPECT_EQ(kt::read_file(path), expected_at_or_above(level_named(name)));
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.out, "");
    }
}

// syslog keeps no copy a test can read; the clean exit shows that the records
// below the threshold were neither formatted nor handed to syslog(3).
TEST(DefaultSinkThreshold, SyslogNeverFormatsRecordsBelowThreshold) {
    child_side(log_for_threshold_in_environment);
    for (const char* name : {"error", "warning", "info"}) {
        SCOPED_TRACE(name);
        ChildResult r = run_child({std::string("DCT_LOG_LEVEL=") + name});
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.out, "");
    }
    ChildResult unusable_file =
        run_child({"DCT_LOG=file:/nonexistent-dir/x.log", "DCT_LOG_LEVEL=error"});
    EXPECT_EQ(unusable_file.status, 0);
}

namespace {

// Each level once with the unreadable argument: a clean exit of the child
// proves that none of the records was formatted.
void log_every_level_unreadable() {
    __dctlog_trace_location.store(1);
    ErrorA(CR_STATUS_FAILED, "%s", unreadable());
    WarningA(CR_STATUS_FAILED, "%s", unreadable());
    InfoA(CR_STATUS_OK, "%s", unreadable());
    __TraceA("%s", unreadable());
}

}  // namespace

// With no daemon at the log socket, syslog would drop every record: the
// default sink keeps none, so none is formatted.
TEST(DefaultSinkThreshold, SyslogWithoutADaemonFormatsNothing) {
    child_side(log_every_level_unreadable);
    if (dct::syslog_gate("/dev/log", 1000).open()) GTEST_SKIP() << "a log daemon listens on /dev/log";
    ChildResult r = run_child({});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, "");
}

TEST(DefaultSinkThreshold, NoneFormatsNothing) {
    child_side(log_every_level_unreadable);
    for (const char* level : {"", "trace", "error"}) {
        SCOPED_TRACE(level);
        ChildResult r = run_child({"DCT_LOG=none", std::string("DCT_LOG_LEVEL=") + level});
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.out, "");
    }
}

// The guard itself: the same unreadable argument in a record the sink keeps
// does end the child, so the clean exits above are not a pointer that happens
// to be readable.
TEST(DefaultSinkThreshold, UnreadableArgumentInAKeptRecordEndsTheChild) {
    child_side([] { ErrorA(CR_STATUS_FAILED, "%s", unreadable()); });
    ChildResult r = run_child({"DCT_LOG=stderr", "DCT_LOG_LEVEL=error"});
    EXPECT_NE(r.status, 0);
}

TEST(DefaultSinkThreshold, UnsetOrEmptyKeepsEveryLevel) {
    child_side(log_three_and_trace);
    ChildResult unset = run_child({"DCT_LOG=stderr"});
    ASSERT_EQ(unset.status, 0);
    EXPECT_EQ(unset.err, kThreeAndTrace);
    ChildResult empty = run_child({"DCT_LOG=stderr", "DCT_LOG_LEVEL="});
    ASSERT_EQ(empty.status, 0);
    EXPECT_EQ(empty.err, kThreeAndTrace);
}

TEST(DefaultSinkThreshold, InvalidValueKeepsEveryLevelAndWarnsOnce) {
    child_side(log_three_and_trace);
    const std::string warning =
        "WARNING [4] DCT_LOG_LEVEL \"Loud\" is not error, warning, info or trace; every level is logged\n";
    ChildResult r = run_child({"DCT_LOG=stderr", "DCT_LOG_LEVEL=Loud"});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.err, warning + kThreeAndTrace);
    EXPECT_EQ(r.out, "");

    kt::TempDir here;
    std::string path = here.file("kavrel.log");
    ChildResult f = run_child({"DCT_LOG=file:" + path, "DCT_LOG_LEVEL=Loud"});
    ASSERT_EQ(f.status, 0);
    EXPECT_EQ(kt::read_file(path), warning + kThreeAndTrace);
}

TEST(DefaultSinkThreshold, TraceRecordsNeedTheSwitchAsWell) {
    child_side([] {
        __TraceA("%s", unreadable());
        __dctlog_trace_location.store(1);
        __TraceA("on %d", 1);
    });
    ChildResult r = run_child({"DCT_LOG=stderr", "DCT_LOG_LEVEL=trace"});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "TRACE on 1\n");
}

TEST(DefaultSinkThreshold, ReadOnceWithTheSinkChoice) {
    child_side([] {
        InfoA(0, "dropped");
        setenv("DCT_LOG_LEVEL", "info", 1);
        InfoA(0, "still dropped");
        ErrorA(CR_STATUS_FAILED, "kept");
    });
    ChildResult r = run_child({"DCT_LOG=stderr", "DCT_LOG_LEVEL=error"});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "ERROR [4] kept\n");
}

TEST(DefaultSinkThreshold, InstalledSinkKeepsEveryLevel) {
    child_side([] {
        std::string* kept = new std::string;
        dct::set_log_sink([kept](dct::log_level l, cr_status_t, const std::string& m) {
            *kept += std::string(dct::log_level_name(l)) + " " + m + ";";
        });
        __dctlog_trace_location.store(1);
        WarningA(CR_STATUS_BUSY, "w");
        InfoA(CR_STATUS_OK, "i");
        __TraceA("t");
        dct::set_log_sink(nullptr);
        ErrorA(CR_STATUS_FAILED, "%s", kept->c_str());
        InfoA(CR_STATUS_OK, "%s", unreadable());
    });
    ChildResult r = run_child({"DCT_LOG=stderr", "DCT_LOG_LEVEL=error"});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "ERROR [4] WARNING w;INFO i;TRACE t;\n");
}

// A configuration file's level ("[Log] Level"): it applies when DCT_LOG_LEVEL
// names none, the environment wins over it, and it takes effect also after the
// default sink was chosen.
namespace {

// The child reads the configuration file the parent named, then logs each level.
void log_after_configuration() {
    __dctlog_trace_location.store(1);
    const cr_status_t status = dct::configure_log_level(getenv("KAVREL_LOG_CONFIG"));
    ErrorA(status, "configured %u", status);
    WarningA(CR_STATUS_BUSY, "warning %s", "w");
    InfoA(CR_STATUS_OK, "%s", getenv("KAVREL_LOG_FLOOR") != nullptr ? unreadable() : "info i");
    __TraceA("%s", getenv("KAVREL_LOG_FLOOR") != nullptr ? unreadable() : "trace t");
}

std::string config_file(const kt::TempDir& dir, const std::string& level) {
    const std::string path = dir.file("pool.cfg");
    kt::write_file(path, "[Paths]\nDatabase = /nowhere\n[Log]\nLevel = " + level + "\n");
    return path;
}

}  // namespace

TEST(DefaultSinkConfiguredLevel, AppliesWithoutTheEnvironment) {
    child_side(log_after_configuration);
    kt::TempDir dir;
    ChildResult r = run_child({"DCT_LOG=stderr", "KAVREL_LOG_CONFIG=" + config_file(dir, "Warning"),
                               "KAVREL_LOG_FLOOR=warning"});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "ERROR [0] configured 0\nWARNING [11] warning w\n");
}

TEST(DefaultSinkConfiguredLevel, TheEnvironmentWins) {
    child_side(log_after_configuration);
    kt::TempDir dir;
    ChildResult r = run_child({"DCT_LOG=stderr", "DCT_LOG_LEVEL=trace",
                               "KAVREL_LOG_CONFIG=" + config_file(dir, "error")});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "ERROR [0] configured 0\nWARNING [11] warning w\nINFO [0] info i\nTRACE trace t\n");
}

TEST(DefaultSinkConfiguredLevel, AMissingKeyLeavesEveryLevel) {
    child_side(log_after_configuration);
    kt::TempDir dir;
    const std::string path = dir.file("pool.cfg");
    kt::write_file(path, "[Paths]\nDatabase = /nowhere\n");
    ChildResult r = run_child({"DCT_LOG=stderr", "KAVREL_LOG_CONFIG=" + path});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "ERROR [0] configured 0\nWARNING [11] warning w\nINFO [0] info i\nTRACE trace t\n");
}

TEST(DefaultSinkConfiguredLevel, AnUnknownLevelIsReportedAndIgnored) {
    child_side(log_after_configuration);
    kt::TempDir dir;
    const std::string path = config_file(dir, "loud");
    ChildResult r = run_child({"DCT_LOG=stderr", "KAVREL_LOG_CONFIG=" + path});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "WARNING [4] [Log] Level \"loud\" in " + path +
                         " is not error, warning, info or trace; ignored\n"
                         "ERROR [4] configured 4\nWARNING [11] warning w\nINFO [0] info i\nTRACE trace t\n");
}

TEST(DefaultSinkConfiguredLevel, TakesEffectAfterTheSinkWasChosen) {
    child_side([] {
        InfoA(CR_STATUS_OK, "kept before");
        dct::set_default_log_level(dct::log_level::error);
        InfoA(CR_STATUS_OK, "%s", unreadable());
        ErrorA(CR_STATUS_FAILED, "kept after");
    });
    ChildResult r = run_child({"DCT_LOG=stderr"});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "INFO [0] kept before\nERROR [4] kept after\n");
}

TEST(DefaultSinkConfiguredLevel, AnInvalidEnvironmentValueLeavesTheConfiguredLevel) {
    child_side([] {
        dct::set_default_log_level(dct::log_level::warning);
        InfoA(CR_STATUS_OK, "%s", unreadable());
        WarningA(CR_STATUS_BUSY, "kept");
    });
    ChildResult r = run_child({"DCT_LOG=stderr", "DCT_LOG_LEVEL=Loud"});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.err,
              "WARNING [4] DCT_LOG_LEVEL \"Loud\" is not error, warning, info or trace; the configured "
              "level is used\nWARNING [11] kept\n");
}
