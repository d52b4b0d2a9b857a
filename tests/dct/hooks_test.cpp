// Test seams of the platform layer: sleep, clock and fault hooks.
#include <errno.h>
#include <sys/time.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/test_util.h"
#include "dct/clock.h"
#include "dct/fault.h"
#include "dct/fs.h"
#include "dct/sleep.h"

namespace {

unsigned long wall_ms() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<unsigned long>(tv.tv_sec) * 1000UL + static_cast<unsigned long>(tv.tv_usec) / 1000UL;
}

// Removes the fault hook even when a test fails half-way.
struct FaultHookGuard {
    ~FaultHookGuard() { dct::set_fault_hook(nullptr); }
};

}  // namespace

TEST(Sleep, ReplacedFunctionReceivesTheSeconds) {
    std::vector<unsigned> calls;
    dct::set_sleep_function([&](unsigned s) { calls.push_back(s); });
    DctSleep(1);
    DctSleep(60);
    dct::set_sleep_function(nullptr);
    EXPECT_EQ(calls, (std::vector<unsigned>{1, 60}));
}

TEST(Sleep, EmptyFunctionRestoresTheRealSleep) {
    int calls = 0;
    dct::set_sleep_function([&](unsigned) { ++calls; });
    dct::set_sleep_function(nullptr);
    unsigned long before = wall_ms();
    DctSleep(1);
    unsigned long waited = wall_ms() - before;
    EXPECT_EQ(calls, 0);
    EXPECT_GE(waited, 900ul);  // the real sleep did wait
}

TEST(Sleep, CounterFromTestUtilities) {
    kt::SleepCounter counter;
    int seen_call = 0;
    counter.on_sleep = [&](int n) { seen_call = n; };
    for (int i = 0; i < 60; ++i) DctSleep(1);
    EXPECT_EQ(counter.calls(), 60);
    EXPECT_EQ(counter.total_seconds(), 60ul);
    EXPECT_EQ(seen_call, 60);
}

TEST(Sleep, ReplacementCalledFromManyThreads) {
    kt::SleepCounter counter;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 100; ++i) DctSleep(2);
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(counter.calls(), 400);
    EXPECT_EQ(counter.total_seconds(), 800ul);
}

TEST(Clock, RealClockFollowsTheWallClock) {
    unsigned long before = wall_ms();
    unsigned long now = dct::now_ms();
    unsigned long after = wall_ms();
    EXPECT_GE(now, before);
    EXPECT_LE(now, after);
}

TEST(Clock, ReplacedAndRestored) {
    unsigned long fake = 1000;
    dct::set_clock_function([&] { return fake; });
    EXPECT_EQ(dct::now_ms(), 1000ul);
    EXPECT_EQ(dct::now_ms(), 1000ul);  // two visits in the same millisecond
    fake = 1001;
    EXPECT_EQ(dct::now_ms(), 1001ul);
    dct::set_clock_function(nullptr);
    unsigned long before = wall_ms();
    unsigned long now = dct::now_ms();
    EXPECT_GE(now, before);
}

TEST(Clock, ReplacementRacesWithReaders) {
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop.load()) (void)dct::now_ms();
    });
    for (int i = 0; i < 200; ++i) {
        dct::set_clock_function([i] { return static_cast<unsigned long>(i); });
        dct::set_clock_function(nullptr);
    }
    stop = true;
    reader.join();
    EXPECT_GT(dct::now_ms(), 1000ul);
}

TEST(Fault, OperationNames) {
    using dct::fault_op;
    EXPECT_STREQ(dct::fault_op_name(fault_op::open_write), "open_write");
    EXPECT_STREQ(dct::fault_op_name(fault_op::write), "write");
    EXPECT_STREQ(dct::fault_op_name(fault_op::fsync), "fsync");
    EXPECT_STREQ(dct::fault_op_name(fault_op::ftruncate), "ftruncate");
    EXPECT_STREQ(dct::fault_op_name(fault_op::rename), "rename");
    EXPECT_STREQ(dct::fault_op_name(fault_op::createtree), "createtree");
    EXPECT_STREQ(dct::fault_op_name(fault_op::filemove), "filemove");
    EXPECT_STREQ(dct::fault_op_name(fault_op::deletefile), "deletefile");
    EXPECT_STREQ(dct::fault_op_name(fault_op::deletedir), "deletedir");
    EXPECT_STREQ(dct::fault_op_name(fault_op::deletetree), "deletetree");
    EXPECT_STREQ(dct::fault_op_name(fault_op::touch), "touch");
    EXPECT_STREQ(dct::fault_op_name(fault_op::chmod), "chmod");
}

TEST(Fault, NoHookLetsEverythingThrough) {
    dct::set_fault_hook(nullptr);
    errno = 0;
    EXPECT_EQ(dct::fault_point(dct::fault_op::write, "/x"), 0);
    EXPECT_EQ(errno, 0);
}

TEST(Fault, HookSeesOperationAndPathAndSetsErrno) {
    FaultHookGuard guard;
    std::vector<std::pair<dct::fault_op, std::string>> seen;
    dct::set_fault_hook([&](dct::fault_op op, const char* path) {
        seen.emplace_back(op, path);
        return op == dct::fault_op::rename ? ENOSPC : 0;
    });
    errno = 0;
    EXPECT_EQ(dct::fault_point(dct::fault_op::write, "/a"), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(dct::fault_point(dct::fault_op::rename, "/b"), ENOSPC);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(dct::fault_point(dct::fault_op::fsync, nullptr), 0);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].first, dct::fault_op::write);
    EXPECT_EQ(seen[0].second, "/a");
    EXPECT_EQ(seen[1].second, "/b");
    EXPECT_EQ(seen[2].second, "");  // a null path reaches the hook as ""
}

TEST(Fault, FileCallsFailWithTheInjectedErrno) {
    FaultHookGuard guard;
    kt::TempDir dir;
    std::string f = dir.file("f");
    kt::write_file(f, "x");
    std::vector<dct::fault_op> seen;
    dct::set_fault_hook([&](dct::fault_op op, const char*) {
        seen.push_back(op);
        return EIO;
    });
    errno = 0;
    EXPECT_NE(wa_rename(f, dir.file("g")), 0);
    EXPECT_EQ(errno, EIO);
    EXPECT_NE(wa_createtree(dir.file("a/b"), 0755), 0);
    EXPECT_NE(CreateTreeA(dir.file("a/b"), 0755), 0);
    EXPECT_NE(FileMove(f, dir.file("g")), 0);
    EXPECT_NE(wa_deletefile(f), 0);
    EXPECT_NE(wa_deletedir(dir.path()), 0);
    EXPECT_NE(wa_deletetree(dir.path()), 0);
    EXPECT_NE(wa_touch(dir.file("t")), 0);
    EXPECT_NE(wa_syncdir(dir.path()), 0);
    EXPECT_NE(safe_fsync(1), 0);
    EXPECT_NE(safe_ftruncate(-1, 0), 0);
    EXPECT_EQ(errno, EIO);
    dct::set_fault_hook(nullptr);

    // Nothing happened on disk.
    EXPECT_TRUE(kt::file_exists(f));
    EXPECT_FALSE(kt::file_exists(dir.file("g")));
    EXPECT_FALSE(kt::file_exists(dir.file("a")));
    EXPECT_FALSE(kt::file_exists(dir.file("t")));
    using dct::fault_op;
    EXPECT_EQ(seen, (std::vector<fault_op>{fault_op::rename, fault_op::createtree, fault_op::createtree,
                                           fault_op::filemove, fault_op::deletefile, fault_op::deletedir,
                                           fault_op::deletetree, fault_op::touch, fault_op::fsync,
                                           fault_op::fsync, fault_op::ftruncate}));
}

TEST(Fault, RemovingTheHookRestoresTheCalls) {
    kt::TempDir dir;
    dct::set_fault_hook([](dct::fault_op, const char*) { return EACCES; });
    EXPECT_NE(wa_touch(dir.file("t")), 0);
    dct::set_fault_hook(nullptr);
    EXPECT_EQ(wa_touch(dir.file("t")), 0);
    EXPECT_TRUE(kt::file_exists(dir.file("t")));
}

TEST(Fault, HookChosenPerPath) {
    FaultHookGuard guard;
    kt::TempDir dir;
    std::string bad = dir.file("bad");
    dct::set_fault_hook([&](dct::fault_op op, const char* path) {
        return (op == dct::fault_op::touch && bad == path) ? EROFS : 0;
    });
    EXPECT_EQ(wa_touch(dir.file("good")), 0);
    errno = 0;
    EXPECT_NE(wa_touch(bad), 0);
    EXPECT_EQ(errno, EROFS);
}
