// What the tests' private servers on 127.0.0.1 share: a free port, a check
// that a port takes connections, short programs run to their end, and the
// server process itself (started as a child that ends with the test, waited
// for until it listens, stopped with SIGTERM and then SIGKILL).
#ifndef KAVREL_TESTS_COMMON_LOCAL_SERVER_H_
#define KAVREL_TESTS_COMMON_LOCAL_SERVER_H_

#include <sys/types.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace kt {

// A port of 127.0.0.1 that nobody listens on right now (the kernel's pick
// for port 0); 0 when none could be had.
int free_port();

// Whether a connection to `port` of 127.0.0.1 is accepted.
bool accepts_connections(int port);

// Runs args[0] (found on PATH) to its end with standard output and standard
// error appended to `log`; returns its exit status, or -1.
int run_to_end(const std::vector<std::string>& args, const std::string& log);

// "exit status N", "signal N" of a waitpid status.
std::string describe_status(int status);

// One server program, a child of the test process.
class ServerProcess {
public:
    ServerProcess() = default;
    ~ServerProcess() { stop(); }
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    // Runs `args` (args[0] a full path) with standard input from /dev/null
    // and its output in `log` (truncated), and waits at most 10 s until
    // `port` takes connections. false with `error` set (the program's log
    // included) when it ended or never listened; it is stopped then.
    bool start(const std::vector<std::string>& args, int port, const std::string& log, std::string* error);
    // SIGTERM, 5 s to end, then SIGKILL. Nothing when it does not run.
    void stop();
    bool running() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
};

// A relay from a port of 127.0.0.1 to `target_port` that, at the first
// piece a client sends holding `cut_at` (a request line such as
// "POST /pool/data/"), closes every connection without passing it on and
// stops listening: a server gone in the middle of a conversation. The relay
// runs in a thread of its own until it cuts or is destroyed.
class CuttingProxy {
public:
    CuttingProxy(int target_port, const std::string& cut_at);
    ~CuttingProxy();
    CuttingProxy(const CuttingProxy&) = delete;
    CuttingProxy& operator=(const CuttingProxy&) = delete;
    bool ok() const { return port_ > 0; }
    int port() const { return port_; }
    // Whether it has cut.
    bool cut() const { return cut_.load(); }

private:
    void relay();

    int target_port_;
    std::string cut_at_;
    int listener_ = -1;
    int port_ = 0;
    int wake_[2] = {-1, -1};
    std::atomic<bool> cut_{false};
    std::thread thread_;
};

}  // namespace kt

#endif  // KAVREL_TESTS_COMMON_LOCAL_SERVER_H_
