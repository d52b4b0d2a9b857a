// The gate in front of syslog: it asks the log socket at most once per
// interval, and follows a daemon that comes and goes.
#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "common/test_util.h"
#include "dct/clock.h"
#include "dct/syslog_gate.h"

namespace {

// A datagram socket bound at a path, as a log daemon holds one.
class fake_daemon {
public:
    explicit fake_daemon(const std::string& path) : path_(path) {
        fd_ = socket(AF_UNIX, SOCK_DGRAM, 0);
        struct sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        path.copy(addr.sun_path, sizeof(addr.sun_path) - 1);
        EXPECT_EQ(0, bind(fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)));
    }
    ~fake_daemon() { stop(); }
    void stop() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
        unlink(path_.c_str());
    }

private:
    std::string path_;
    int fd_ = -1;
};

class SyslogGate : public ::testing::Test {
protected:
    void SetUp() override {
        dct::set_clock_function([this] { return now; });
    }
    void TearDown() override { dct::set_clock_function(nullptr); }

    kt::TempDir tmp;
    unsigned long now = 5000;
};

TEST_F(SyslogGate, ClosedWithoutADaemonAndOpenWithOne) {
    const std::string path = tmp.file("log");
    dct::syslog_gate without(path, 1000);
    EXPECT_FALSE(without.open());
    fake_daemon daemon(path);
    dct::syslog_gate with(path, 1000);
    EXPECT_TRUE(with.open());
}

TEST_F(SyslogGate, AnAnswerIsKeptForOneIntervalThenAskedAgain) {
    const std::string path = tmp.file("log");
    dct::syslog_gate gate(path, 1000);
    EXPECT_FALSE(gate.open());
    fake_daemon daemon(path);
    now += 999;
    EXPECT_FALSE(gate.open());  // not asked again yet
    now += 1;
    EXPECT_TRUE(gate.open());   // the daemon started: noticed
    daemon.stop();
    now += 500;
    EXPECT_TRUE(gate.open());
    now += 500;
    EXPECT_FALSE(gate.open());  // and its going too
}

TEST_F(SyslogGate, AProbeLeavesErrnoAlone) {
    dct::syslog_gate gate(tmp.file("absent"), 1000);
    errno = 1234;
    EXPECT_FALSE(gate.open());
    EXPECT_EQ(1234, errno);
}

}  // namespace
