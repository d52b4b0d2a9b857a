#include "common/sshd_server.h"

#include <errno.h>
#include <pwd.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

namespace kt {

namespace {

const char kSshd[] = "/usr/sbin/sshd";

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

}  // namespace

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
    if (server_.start({kSshd, "-D", "-e", "-f", dir_.file("sshd_config")}, port_, dir_.file("sshd.log"), &error_)) {
        return true;
    }
    if (geteuid() != 0) error_ += " (running as " + user_name() + ", not root)";
    return false;
}

void SshdServer::stop() { server_.stop(); }

}  // namespace kt
