// The errno mapping and the per-thread last status.
#include <errno.h>

#include <thread>

#include <gtest/gtest.h>

#include "common/test_util.h"
#include "dct/log.h"
#include "dct/status.h"

TEST(StatusConstants, Values) {
    EXPECT_EQ(CR_STATUS_OK, 0u);
    EXPECT_EQ(CR_STATUS_MISSING, 2u);
    EXPECT_EQ(CR_STATUS_EXISTS, 3u);
    EXPECT_EQ(CR_STATUS_FAILED, 4u);
    EXPECT_EQ(CR_STATUS_BUSY, 11u);
    EXPECT_EQ(CR_STATUS_IO, 21u);
    EXPECT_EQ(CR_STATUS_NOMEM, 22u);
    EXPECT_EQ(CR_STATUS_EMPTY, 32u);
    EXPECT_EQ(CR_STATUS_CORRUPT, 67u);
    EXPECT_EQ(CR_STATUS_NOT_FOUND, 72u);
    EXPECT_EQ(CR_STATUS_ACCESS_DENIED, 106u);
    EXPECT_EQ(CR_STATUS_NONE, 0xFFFFFFFFu);
}

TEST(CrMapError, Table) {
    struct Row {
        int err;
        cr_status_t want;
    } rows[] = {
        {ENOENT, 2},  {ENOTDIR, 2}, {EEXIST, 3},   {ENOTEMPTY, 3}, {EBUSY, 11},  {EAGAIN, 11},
        {EIO, 21},    {ENOSPC, 21}, {EROFS, 21},   {EDQUOT, 21},   {EFBIG, 21},  {ENOMEM, 22},
        {EACCES, 106}, {EPERM, 106}, {EINVAL, 4},  {EBADF, 4},     {ELOOP, 4},   {ENAMETOOLONG, 4},
        {EXDEV, 4},   {0, 4},
    };
    for (const auto& r : rows) {
        errno = r.err;
        *__cr_errno_location() = 12345;
        cr_status_t got = _crMapError("test", "tests/dct/status_test", __LINE__);
        EXPECT_EQ(got, r.want) << "errno " << r.err;
        EXPECT_EQ(*__cr_errno_location(), r.want) << "errno " << r.err;
        EXPECT_EQ(errno, r.err) << "errno must be left unchanged";
    }
}

TEST(CrMapError, TracesWhereTheFailureWasMet) {
    kt::TraceSwitch on(true);
    kt::LogCapture log;
    errno = EACCES;
    _crMapError("TraverseDir", "include/dct/fileutil", 120);
    EXPECT_EQ(log.count(dct::log_level::trace, CR_STATUS_NONE,
                        "TraverseDir: errno 13 mapped to 106 at include/dct/fileutil:120"),
              1u)
        << log.dump();
}

TEST(CrMapError, SilentWhileTraceIsOff) {
    kt::TraceSwitch off(false);
    kt::LogCapture log;
    errno = EIO;
    _crMapError("f", "s", 1);
    EXPECT_TRUE(log.records().empty());
}

TEST(CrMapError, NullNamesAreAccepted) {
    kt::TraceSwitch on(true);
    kt::LogCapture log;
    errno = EBUSY;
    EXPECT_EQ(_crMapError(nullptr, nullptr, 0), CR_STATUS_BUSY);
    EXPECT_EQ(log.count(dct::log_level::trace, CR_STATUS_NONE, "?: errno 16 mapped to 11 at ?:0"), 1u)
        << log.dump();
}

TEST(CrErrnoLocation, EachThreadHasItsOwn) {
    errno = ENOMEM;
    _crMapError("main", "t", 1);
    ASSERT_EQ(*__cr_errno_location(), CR_STATUS_NOMEM);
    cr_status_t other_start = 999, other_after = 999;
    std::thread t([&] {
        other_start = *__cr_errno_location();
        errno = EACCES;
        _crMapError("other", "t", 2);
        other_after = *__cr_errno_location();
    });
    t.join();
    EXPECT_EQ(other_start, CR_STATUS_OK);
    EXPECT_EQ(other_after, CR_STATUS_ACCESS_DENIED);
    EXPECT_EQ(*__cr_errno_location(), CR_STATUS_NOMEM);
}
