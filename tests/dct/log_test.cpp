// The log sink: what a record carries, how often it arrives, and the trace switch.
#include <errno.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/test_util.h"
#include "dct/log.h"
#include "dct/status.h"

namespace {

struct Seen {
    dct::log_level level;
    cr_status_t status;
    std::string message;
};

// Installs a sink for one test that keeps every record; removes it at the end.
class RecordingSink {
public:
    RecordingSink() {
        dct::set_log_sink([this](dct::log_level l, cr_status_t s, const std::string& m) {
            seen.push_back(Seen{l, s, m});
        });
    }
    ~RecordingSink() { dct::set_log_sink(nullptr); }
    std::vector<Seen> seen;
};

int g_evaluations = 0;
int counted(int v) {
    ++g_evaluations;
    return v;
}

}  // namespace

TEST(LogSink, ErrorRecordArrivesOnceFullyFormatted) {
    RecordingSink sink;
    ErrorA(CR_STATUS_CORRUPT, "%s: failed to query db %s (%d)", "do_db_query", "/db/app.db", 7);
    ASSERT_EQ(sink.seen.size(), 1u);
    EXPECT_EQ(sink.seen[0].level, dct::log_level::error);
    EXPECT_EQ(sink.seen[0].status, CR_STATUS_CORRUPT);
    EXPECT_EQ(sink.seen[0].message, "do_db_query: failed to query db /db/app.db (7)");
}

TEST(LogSink, EachLevelKeepsItsStatus) {
    RecordingSink sink;
    WarningA(CR_STATUS_BUSY, "busy %u", 3u);
    InfoA(CR_STATUS_OK, "Directory %s doesn't exist.", "/x");
    ErrorA(CR_STATUS_NONE, "none");
    ASSERT_EQ(sink.seen.size(), 3u);
    EXPECT_EQ(sink.seen[0].level, dct::log_level::warning);
    EXPECT_EQ(sink.seen[0].status, CR_STATUS_BUSY);
    EXPECT_EQ(sink.seen[0].message, "busy 3");
    EXPECT_EQ(sink.seen[1].level, dct::log_level::info);
    EXPECT_EQ(sink.seen[1].status, CR_STATUS_OK);
    EXPECT_EQ(sink.seen[1].message, "Directory /x doesn't exist.");
    EXPECT_EQ(sink.seen[2].level, dct::log_level::error);
    EXPECT_EQ(sink.seen[2].status, 0xFFFFFFFFu);
}

TEST(LogSink, LongMessageIsNotCut) {
    // Longer than the formatter's first buffer, so the second formatting path runs.
    std::string big(5000, 'q');
    RecordingSink sink;
    ErrorA(CR_STATUS_FAILED, "[%s]-%d", big.c_str(), 42);
    ASSERT_EQ(sink.seen.size(), 1u);
    EXPECT_EQ(sink.seen[0].message, "[" + big + "]-42");
}

TEST(LogSink, RecordIsOneLineWithoutNulBytes) {
    RecordingSink sink;
    // A format that ends in a line break, a NUL printed with %c, a line break
    // and other control bytes inside an argument (a file name may hold them).
    {
        kt::TraceSwitch on(true);
        __TraceA("path %s root %s %c\n", "/a", "/b", '\0');
    }
    InfoA(0, "status is %d\n\n", 4);
    ErrorA(CR_STATUS_IO, "file %s gone", "odd\nname\r\x01\x7f\tend");
    ASSERT_EQ(sink.seen.size(), 3u);
    EXPECT_EQ(sink.seen[0].message, "path /a root /b \\x00");
    EXPECT_EQ(sink.seen[1].message, "status is 4");
    EXPECT_EQ(sink.seen[2].message, "file odd\\nname\\r\\x01\\x7f\tend gone");
    for (const Seen& s : sink.seen) {
        EXPECT_EQ(std::string::npos, s.message.find('\0'));
        EXPECT_EQ(std::string::npos, s.message.find('\n'));
    }
}

TEST(LogSink, LongRecordWithControlBytesIsOneLineToo) {
    // The second formatting path (past the first buffer) gets the same treatment.
    std::string big(3000, 'q');
    RecordingSink sink;
    ErrorA(CR_STATUS_FAILED, "%s\n%s\n", big.c_str(), big.c_str());
    ASSERT_EQ(sink.seen.size(), 1u);
    EXPECT_EQ(sink.seen[0].message, big + "\\n" + big);
}

TEST(LogSink, PercentSignsAreFormattedNotPassedThrough) {
    RecordingSink sink;
    InfoA(0, "100%% of %s", "rows");
    ASSERT_EQ(sink.seen.size(), 1u);
    EXPECT_EQ(sink.seen[0].message, "100% of rows");
}

TEST(LogSink, LoggingKeepsErrno) {
    RecordingSink sink;
    errno = EACCES;
    ErrorA(CR_STATUS_ACCESS_DENIED, "x");
    EXPECT_EQ(errno, EACCES);
    errno = ENOSPC;
    WarningA(CR_STATUS_IO, "y");
    EXPECT_EQ(errno, ENOSPC);
    errno = ENOENT;
    InfoA(0, "z");
    EXPECT_EQ(errno, ENOENT);
}

TEST(LogSink, EmptySinkRestoresDefaultAndStopsDelivery) {
    std::vector<std::string> seen;
    dct::set_log_sink([&](dct::log_level, cr_status_t, const std::string& m) { seen.push_back(m); });
    InfoA(0, "one");
    dct::set_log_sink(nullptr);
    InfoA(0, "two");  // goes to the default sink, not to the removed one
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0], "one");
}

TEST(LogSink, ConcurrentRecordsAllArriveWhole) {
    kt::LogCapture capture;
    const int kThreads = 4, kEach = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kEach; ++i) WarningA(static_cast<cr_status_t>(t), "thread %d record %d", t, i);
        });
    }
    for (auto& th : threads) th.join();
    ASSERT_EQ(capture.records().size(), static_cast<size_t>(kThreads * kEach));
    EXPECT_EQ(capture.count(dct::log_level::warning, 3, "thread 3 record 199"), 1u);
    EXPECT_EQ(capture.count(dct::log_level::warning, 0, "thread 0 record 0"), 1u);
}

TEST(LogLevelName, Names) {
    EXPECT_STREQ(dct::log_level_name(dct::log_level::error), "ERROR");
    EXPECT_STREQ(dct::log_level_name(dct::log_level::warning), "WARNING");
    EXPECT_STREQ(dct::log_level_name(dct::log_level::info), "INFO");
    EXPECT_STREQ(dct::log_level_name(dct::log_level::trace), "TRACE");
}

TEST(Trace, RecordedWhileSwitchIsOn) {
    kt::TraceSwitch on(true);
    RecordingSink sink;
    __TraceA("client %s policy %s dsid %u", "c1", "p1", 7u);
    ASSERT_EQ(sink.seen.size(), 1u);
    EXPECT_EQ(sink.seen[0].level, dct::log_level::trace);
    EXPECT_EQ(sink.seen[0].status, CR_STATUS_NONE);
    EXPECT_EQ(sink.seen[0].message, "client c1 policy p1 dsid 7");
}

TEST(Trace, NothingWhileSwitchIsOffAndArgumentsNotEvaluated) {
    kt::TraceSwitch off(false);
    RecordingSink sink;
    g_evaluations = 0;
    __TraceA("value %d", counted(5));
    EXPECT_EQ(g_evaluations, 0);
    EXPECT_TRUE(sink.seen.empty());
}

TEST(Trace, ArgumentsEvaluatedOnceWhenOn) {
    kt::TraceSwitch on(true);
    RecordingSink sink;
    g_evaluations = 0;
    __TraceA("value %d", counted(5));
    EXPECT_EQ(g_evaluations, 1);
    ASSERT_EQ(sink.seen.size(), 1u);
    EXPECT_EQ(sink.seen[0].message, "value 5");
}

TEST(Trace, SwitchFollowsEveryChange) {
    RecordingSink sink;
    {
        kt::TraceSwitch on(true);
        __TraceA("a");
        {
            kt::TraceSwitch off(false);
            __TraceA("b");
        }
        __TraceA("c");
    }
    __dctlog_trace_location.store(0);
    __TraceA("d");
    ASSERT_EQ(sink.seen.size(), 2u);
    EXPECT_EQ(sink.seen[0].message, "a");
    EXPECT_EQ(sink.seen[1].message, "c");
}

TEST(Trace, DirectWriteChecksTheSwitchToo) {
    kt::TraceSwitch off(false);
    RecordingSink sink;
    dct::trace_write("x %d", 1);
    EXPECT_TRUE(sink.seen.empty());
}
