#include "common/sshd_server.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <vector>

namespace kt {

namespace {

const char kSshd[] = "/usr/sbin/sshd";

// Attempts and pause of the waits for the server: at most 10 s to start
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

// Runs argv[0] (found on PATH) to its end with standard output and standard
// error appended to `log`; returns its exit status, or -1.
int run_to_end(const std::vector<std::string>& args, const std::string& log) {
    std::vector<char*> argv;
    std::vector<std::string> copy = args;
    for (auto& a : copy) argv.push_back(&a[0]);
    argv.push_back(nullptr);
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

std::string user_name() {
    const struct passwd* pw = getpwuid(geteuid());
    return pw != nullptr ? pw->pw_name : "";
}

// "TYPE BASE64" of a public key file (its comment dropped).
std::string key_without_comment(const std::string& pub) {
    const size_t first = pub.find(' ');
    if (first == std::string::npos) return "";
    const size_t second = pub.find_first_of(" \n", first + 1);
    return pub.substr(0, second);
}

std::string describe_status(int status) {
    if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
    return "status " + std::to_string(status);
}

}  // namespace

// A port of 127.0.0.1 that nobody listens on right now (the kernel's pick
// for port 0); 0 when none could be had.
int free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return 0;
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
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
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    const bool ok = connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0;
    close(fd);
    return ok;
}

SshdServer::SshdServer() {
    if (!start()) stop();
}

SshdServer::~SshdServer() { stop(); }

std::string SshdServer::sftp_command() const { return "ssh -F " + client_config_ + " vault -s sftp"; }

std::string SshdServer::repository(const std::string& path) const { return "sftp:vault:" + path; }

std::string SshdServer::log() const { return read_file(dir_.file("sshd.log")); }

bool SshdServer::start() {
    if (access(kSshd, X_OK) != 0) {
        error_ = std::string(kSshd) + " is not installed (package openssh-server)";
        return false;
    }
    const std::string user = user_name();
    if (user.empty()) {
        error_ = "no user name for uid " + std::to_string(geteuid());
        return false;
    }
    const std::string keygen_log = dir_.file("ssh-keygen.log");
    for (const char* key : {"host_key", "user_key"}) {
        if (run_to_end({"ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", key, "-f", dir_.file(key)},
                       keygen_log) != 0) {
            error_ = "ssh-keygen could not make " + dir_.file(key) + ": " + read_file(keygen_log);
            return false;
        }
    }
    // sshd running as root checks for its privilege separation directory
    // before anything else; a fresh container may not have it.
    if (geteuid() == 0 && mkdir("/run/sshd", 0755) != 0 && errno != EEXIST) {
        error_ = std::string("cannot create /run/sshd: ") + strerror(errno);
        return false;
    }

    // The free port may be taken by someone else before sshd binds it: then
    // another one.
    for (int attempt = 0; attempt < 3; ++attempt) {
        port_ = free_port();
        if (port_ == 0) {
            error_ = std::string("no free port on 127.0.0.1: ") + strerror(errno);
            return false;
        }
        const std::string port = std::to_string(port_);
        write_file(dir_.file("sshd_config"),
                   "ListenAddress 127.0.0.1\n"
                   "Port " + port + "\n"
                   "HostKey " + dir_.file("host_key") + "\n"
                   "AuthorizedKeysFile " + dir_.file("user_key.pub") + "\n"
                   "AllowUsers " + user + "\n"
                   "PasswordAuthentication no\n"
                   "KbdInteractiveAuthentication no\n"
                   "StrictModes no\n"
                   "PidFile " + dir_.file("sshd.pid") + "\n"
                   "Subsystem sftp internal-sftp\n"
                   "PermitRootLogin prohibit-password\n"
                   "UsePAM no\n"
                   "LogLevel ERROR\n");
        write_file(dir_.file("known_hosts"),
                   "[127.0.0.1]:" + port + " " + key_without_comment(read_file(dir_.file("host_key.pub"))) + "\n");
        client_config_ = dir_.file("ssh_config");
        write_file(client_config_,
                   "Host vault\n"
                   "  HostName 127.0.0.1\n"
                   "  Port " + port + "\n"
                   "  User " + user + "\n"
                   "  IdentityFile " + dir_.file("user_key") + "\n"
                   "  IdentitiesOnly yes\n"
                   "  UserKnownHostsFile " + dir_.file("known_hosts") + "\n"
                   "  GlobalKnownHostsFile /dev/null\n"
                   "  StrictHostKeyChecking yes\n"
                   "  BatchMode yes\n"
                   "  ConnectTimeout " + std::to_string(kConnectTimeoutSeconds) + "\n"
                   "  ConnectionAttempts 1\n"
                   "  ServerAliveInterval 15\n"
                   "  ServerAliveCountMax 2\n");
        if (start_once()) return logs_in(user);
        if (log().find("Address already in use") == std::string::npos) return false;
    }
    return false;
}

// A listening sshd may still turn the user away (an account locked in the
// password database, for one): an SFTP session that opens and closes proves
// the way restic will take.
bool SshdServer::logs_in(const std::string& user) {
    const std::string check_log = dir_.file("ssh-check.log");
    if (run_to_end({"ssh", "-F", client_config_, "vault", "-s", "sftp"}, check_log) == 0) {
        error_.clear();
        return true;
    }
    error_ = std::string(kSshd) + " on 127.0.0.1 port " + std::to_string(port_) + " does not let " + user +
             " in with the generated key: " + read_file(check_log) + log();
    stop();
    return false;
}

bool SshdServer::start_once() {
    const std::string log_path = dir_.file("sshd.log");
    const std::string config = dir_.file("sshd_config");
    const pid_t parent = getpid();
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) {
        error_ = std::string("fork: ") + strerror(errno);
        return false;
    }
    if (pid == 0) {
        // The server ends with the test process, however that ends.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) _exit(125);
        child_output_to(log_path, O_TRUNC);
        execl(kSshd, kSshd, "-D", "-e", "-f", config.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    pid_ = pid;
    for (int attempt = 0; attempt < kListenAttempts; ++attempt) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            error_ = std::string(kSshd) + " ended (" + describe_status(status) + ")" +
                     (geteuid() != 0 ? " running as " + user_name() + ", not root" : "") + ": " + log();
            return false;
        }
        if (accepts_connections(port_)) return true;
        pause_briefly();
    }
    error_ = std::string(kSshd) + " does not listen on 127.0.0.1 port " + std::to_string(port_) + ": " + log();
    stop();
    return false;
}

void SshdServer::stop() {
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

}  // namespace kt
