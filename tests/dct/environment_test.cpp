// dct::environment: an empty environment follows the process-wide setters at
// the moment it is asked; a member that is set overrides them for the
// environment's holders only.
#include <errno.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/test_util.h"
#include "dct/clock.h"
#include "dct/config.h"
#include "dct/environment.h"
#include "dct/fault.h"
#include "dct/sleep.h"

namespace {

// Puts every process-wide seam back even when a test fails half-way.
struct ProcessDefaultsGuard {
    ~ProcessDefaultsGuard() {
        dct::set_clock_function(nullptr);
        dct::set_sleep_function(nullptr);
        dct::set_fault_hook(nullptr);
        _crConfigClass::SetInstance(nullptr);
    }
};

}  // namespace

TEST(Environment, DefaultFollowsTheProcessClockAsItIsNow) {
    ProcessDefaultsGuard guard;
    const dct::environment& env = dct::default_environment();
    dct::set_clock_function([] { return 1234UL; });
    EXPECT_EQ(1234UL, env.now_ms());
    dct::set_clock_function([] { return 99UL; });
    EXPECT_EQ(99UL, env.now_ms());
}

TEST(Environment, OwnClockLeavesTheProcessClockAlone) {
    ProcessDefaultsGuard guard;
    dct::set_clock_function([] { return 5UL; });
    dct::environment env;
    env.clock = [] { return 7UL; };
    EXPECT_EQ(7UL, env.now_ms());
    EXPECT_EQ(5UL, dct::now_ms());
    EXPECT_EQ(5UL, dct::default_environment().now_ms());
}

TEST(Environment, DefaultSleepIsTheProcessSleep) {
    ProcessDefaultsGuard guard;
    kt::SleepCounter sleeps;
    dct::default_environment().sleep_seconds(3);
    EXPECT_EQ(1, sleeps.calls());
    EXPECT_EQ(3UL, sleeps.total_seconds());
}

TEST(Environment, OwnSleepReplacesTheProcessSleep) {
    ProcessDefaultsGuard guard;
    kt::SleepCounter sleeps;
    std::vector<unsigned> mine;
    dct::environment env;
    env.sleep = [&mine](unsigned seconds) { mine.push_back(seconds); };
    env.sleep_seconds(1);
    env.sleep_seconds(60);
    EXPECT_EQ((std::vector<unsigned>{1, 60}), mine);
    EXPECT_EQ(0, sleeps.calls());
}

TEST(Environment, DefaultFaultPointAsksTheProcessHook) {
    ProcessDefaultsGuard guard;
    EXPECT_EQ(0, dct::default_environment().fault_point(dct::fault_op::fsync, "/x"));
    dct::set_fault_hook([](dct::fault_op op, const char* path) {
        return op == dct::fault_op::fsync && std::string(path) == "/x" ? EIO : 0;
    });
    errno = 0;
    EXPECT_EQ(EIO, dct::default_environment().fault_point(dct::fault_op::fsync, "/x"));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(0, dct::default_environment().fault_point(dct::fault_op::write, "/x"));
}

TEST(Environment, OwnFaultHookReplacesTheProcessHookAndSetsErrno) {
    ProcessDefaultsGuard guard;
    dct::set_fault_hook([](dct::fault_op, const char*) { return EIO; });
    std::vector<std::string> seen;
    dct::environment env;
    env.fault = [&seen](dct::fault_op op, const char* path) {
        seen.push_back(std::string(dct::fault_op_name(op)) + " " + path);
        return op == dct::fault_op::rename ? ENOSPC : 0;
    };
    errno = 0;
    EXPECT_EQ(0, env.fault_point(dct::fault_op::write, "/a"));
    EXPECT_EQ(0, errno);
    EXPECT_EQ(ENOSPC, env.fault_point(dct::fault_op::rename, nullptr));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ((std::vector<std::string>{"write /a", "rename "}), seen);
}

TEST(Environment, BusyTimeoutAndLockWaitFallBackToTheGivenDefault) {
    dct::environment env;
    EXPECT_EQ(10000, env.busy_timeout_or(10000));
    EXPECT_EQ(60000L, env.lock_wait_limit_or(60000L));
    env.busy_timeout_ms = 0;
    env.lock_wait_limit_ms = 250;
    EXPECT_EQ(0, env.busy_timeout_or(10000));
    EXPECT_EQ(250L, env.lock_wait_limit_or(60000L));
}

TEST(Environment, AutoFixIsOnWithoutAnyConfiguration) {
    ProcessDefaultsGuard guard;
    _crConfigClass::SetInstance(nullptr);
    EXPECT_TRUE(dct::default_environment().auto_fix_journal());
}

TEST(Environment, UnsetSwitchFollowsTheProcessConfigurationObject) {
    ProcessDefaultsGuard guard;
    _crConfigClass config;
    _crConfigClass::SetInstance(&config);
    dct::environment env;
    config.SetDisableCatalogAutoFixJournal(true);
    EXPECT_FALSE(env.auto_fix_journal());
    config.SetDisableCatalogAutoFixJournal(false);
    EXPECT_TRUE(env.auto_fix_journal());
}

TEST(Environment, SetSwitchWinsOverTheProcessConfigurationObject) {
    ProcessDefaultsGuard guard;
    _crConfigClass config;
    config.SetDisableCatalogAutoFixJournal(true);
    _crConfigClass::SetInstance(&config);
    dct::environment env;
    env.disable_auto_fix_journal = false;
    EXPECT_TRUE(env.auto_fix_journal());
    _crConfigClass::SetInstance(nullptr);
    env.disable_auto_fix_journal = true;
    EXPECT_FALSE(env.auto_fix_journal());
    EXPECT_TRUE(dct::default_environment().auto_fix_journal());
}
