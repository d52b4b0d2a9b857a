// Logging never throws: a failure that is being reported must not turn into a
// second failure in a destructor or an out-of-memory path.
#include <gtest/gtest.h>

#include <new>
#include <stdexcept>

#include "dct/log.h"

namespace {

struct SinkReset {
    ~SinkReset() { dct::set_log_sink(nullptr); }
};

TEST(LogNoThrow, ThrowingSinkDoesNotEscapeAnyLevel) {
    SinkReset reset;
    int calls = 0;
    dct::set_log_sink([&](dct::log_level, cr_status_t, const std::string&) {
        ++calls;
        throw std::bad_alloc();
    });
    EXPECT_NO_THROW(ErrorA(4, "%s: failed", "f"));
    EXPECT_NO_THROW(WarningA(11, "%s: busy", "f"));
    EXPECT_NO_THROW(InfoA(0, "%s: note", "f"));
    __dctlog_trace_location.store(1);
    EXPECT_NO_THROW(__TraceA("%s: trace", "f"));
    __dctlog_trace_location.store(0);
    EXPECT_EQ(4, calls);
}

TEST(LogNoThrow, RecordsAfterAThrowStillArrive) {
    SinkReset reset;
    std::vector<std::string> seen;
    bool fail = true;
    dct::set_log_sink([&](dct::log_level, cr_status_t, const std::string& m) {
        if (fail) {
            fail = false;
            throw std::runtime_error("sink failed");
        }
        seen.push_back(m);
    });
    ErrorA(4, "first %d", 1);
    ErrorA(4, "second %d", 2);
    ASSERT_EQ(1u, seen.size());
    EXPECT_EQ("second 2", seen[0]);
}

}  // namespace
