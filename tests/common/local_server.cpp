#include "common/local_server.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "common/test_util.h"

namespace kt {

namespace {

// Attempts and pause of the waits for a server: at most 10 s to start
// listening, 5 s to end after SIGTERM.
const int kListenAttempts = 400;
const int kEndAttempts = 200;
const long kPauseNanoseconds = 25 * 1000 * 1000;

void pause_briefly() {
    struct timespec ts = {0, kPauseNanoseconds};
    nanosleep(&ts, nullptr);
}

// In a forked child before exec: standard input from /dev/null, standard
// output and error to `log` (opened with `mode`: O_APPEND or O_TRUNC).
void child_output_to(const std::string& log, int mode) {
    const int in = open("/dev/null", O_RDONLY);
    const int out = open(log.c_str(), O_WRONLY | O_CREAT | mode, 0600);
    if (in < 0 || out < 0) _exit(126);
    dup2(in, 0);
    dup2(out, 1);
    dup2(out, 2);
}

struct sockaddr_in loopback(int port) {
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    return addr;
}

std::vector<char*> argv_of(std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    return argv;
}

}  // namespace

int free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return 0;
    struct sockaddr_in addr = loopback(0);
    socklen_t len = sizeof(addr);
    int port = 0;
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0 &&
        getsockname(fd, reinterpret_cast<struct sockaddr*>(&addr), &len) == 0) {
        port = ntohs(addr.sin_port);
    }
    close(fd);
    return port;
}

bool accepts_connections(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return false;
    const struct sockaddr_in addr = loopback(port);
    const bool ok = connect(fd, reinterpret_cast<const struct sockaddr*>(&addr), sizeof(addr)) == 0;
    close(fd);
    return ok;
}

int run_to_end(const std::vector<std::string>& args, const std::string& log) {
    std::vector<std::string> copy = args;
    std::vector<char*> argv = argv_of(copy);
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        child_output_to(log, O_APPEND);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string describe_status(int status) {
    if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
    return "status " + std::to_string(status);
}

bool ServerProcess::start(const std::vector<std::string>& args, int port, const std::string& log,
                          std::string* error) {
    std::vector<std::string> copy = args;
    std::vector<char*> argv = argv_of(copy);
    const pid_t parent = getpid();
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) {
        *error = std::string("fork: ") + strerror(errno);
        return false;
    }
    if (pid == 0) {
        // The server ends with the test process, however that ends.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) _exit(125);
        child_output_to(log, O_TRUNC);
        execv(argv[0], argv.data());
        _exit(127);
    }
    pid_ = pid;
    for (int attempt = 0; attempt < kListenAttempts; ++attempt) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            *error = args[0] + " ended (" + describe_status(status) + "): " + read_file(log);
            return false;
        }
        if (accepts_connections(port)) return true;
        pause_briefly();
    }
    *error = args[0] + " does not listen on 127.0.0.1 port " + std::to_string(port) + ": " + read_file(log);
    stop();
    return false;
}

void ServerProcess::stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    for (int attempt = 0; attempt < kEndAttempts; ++attempt) {
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            return;
        }
        pause_briefly();
    }
    kill(pid_, SIGKILL);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
}

CuttingProxy::CuttingProxy(int target_port, const std::string& cut_at) : target_port_(target_port), cut_at_(cut_at) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in addr = loopback(0);
    socklen_t len = sizeof(addr);
    if (listener_ < 0 || pipe2(wake_, O_CLOEXEC) != 0 ||
        bind(listener_, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0 || listen(listener_, 64) != 0 ||
        getsockname(listener_, reinterpret_cast<struct sockaddr*>(&addr), &len) != 0) {
        return;
    }
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this]() { relay(); });
}

CuttingProxy::~CuttingProxy() {
    if (wake_[1] >= 0 && write(wake_[1], "x", 1) < 0) {
        // The relay also ends when the pipe closes below.
    }
    if (thread_.joinable()) thread_.join();
    for (int fd : {listener_, wake_[0], wake_[1]}) {
        if (fd >= 0) close(fd);
    }
}

void CuttingProxy::relay() {
    std::vector<std::pair<int, int>> pairs;  // client, server; -1 once closed
    char buf[65536];
    for (;;) {
        std::vector<struct pollfd> fds = {{wake_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
        for (const auto& p : pairs) {
            fds.push_back({p.first, POLLIN, 0});
            fds.push_back({p.second, POLLIN, 0});
        }
        if (poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR) break;
        if (fds[0].revents != 0) break;
        if (fds[1].revents != 0) {
            const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            const struct sockaddr_in addr = loopback(target_port_);
            if (client >= 0 && server >= 0 &&
                connect(server, reinterpret_cast<const struct sockaddr*>(&addr), sizeof(addr)) == 0) {
                pairs.push_back({client, server});
            } else {
                for (int fd : {client, server}) {
                    if (fd >= 0) close(fd);
                }
            }
        }
        bool cutting = false;
        for (size_t i = 2; i < fds.size() && !cutting; ++i) {
            if (fds[i].revents == 0) continue;
            auto& pair = pairs[(i - 2) / 2];
            const bool from_client = (i % 2) == 0;
            const ssize_t n = read(fds[i].fd, buf, sizeof(buf));
            if (n > 0 && from_client && std::string(buf, n).find(cut_at_) != std::string::npos) {
                cutting = true;
            } else if (n > 0 && write(from_client ? pair.second : pair.first, buf, n) == n) {
                continue;
            } else if (n < 0 && errno == EINTR) {
                continue;
            } else if (pair.first >= 0) {
                close(pair.first);
                close(pair.second);
                pair = {-1, -1};
            }
        }
        std::vector<std::pair<int, int>> open_pairs;
        for (const auto& p : pairs) {
            if (p.first >= 0 && !cutting) open_pairs.push_back(p);
            if (p.first >= 0 && cutting) {
                close(p.first);
                close(p.second);
            }
        }
        pairs.swap(open_pairs);
        if (cutting) {
            close(listener_);
            listener_ = -1;
            cut_ = true;
            return;
        }
    }
    for (const auto& p : pairs) {
        close(p.first);
        close(p.second);
    }
}

}  // namespace kt
