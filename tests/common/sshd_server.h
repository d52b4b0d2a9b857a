// A private OpenSSH server for the tests of the off-site copy: in a temporary
// directory it makes a host key and a user key, writes an sshd_config that
// listens on 127.0.0.1 at a free port, lets in only the current user with the
// generated key and serves SFTP in-process, starts /usr/sbin/sshd in the
// foreground as a child and waits until the port takes connections. Beside
// it, an ssh client configuration for the host alias "vault" that reaches
// this server with the user key and nothing else (its own known_hosts file,
// strict host key checking, batch mode, a bounded connect time), so that
// restic can be pointed at it with -o sftp.command=... and a repository
// "sftp:vault:PATH".
//
// Starting needs a runnable sshd that lets the current user in: as root it
// always is (the privilege separation directory /run/sshd is made when
// missing); as another user sshd may not start or may refuse the login (a
// locked account such as nobody's). The server counts as started once an SFTP
// session through the client configuration opened. A test asks ok() and
// skips with error() when it is not.
// The destructor stops the server (SIGTERM, then SIGKILL) and removes the
// directory.
#ifndef KAVREL_TESTS_COMMON_SSHD_SERVER_H_
#define KAVREL_TESTS_COMMON_SSHD_SERVER_H_

#include <sys/types.h>

#include <string>

#include "common/test_util.h"

namespace kt {

// A port of 127.0.0.1 that nobody listens on right now (the kernel's pick
// for port 0); 0 when none could be had.
int free_port();
// Whether something listening on 127.0.0.1 `port` takes a connection.
bool accepts_connections(int port);

class SshdServer {
public:
    // The ssh client gives up on a server that does not answer after this
    // many seconds (ConnectTimeout, which also bounds the banner exchange).
    static constexpr int kConnectTimeoutSeconds = 10;

    SshdServer();
    ~SshdServer();
    SshdServer(const SshdServer&) = delete;
    SshdServer& operator=(const SshdServer&) = delete;

    // True while the server runs; false when it could not be started (then
    // error() says why) or after stop().
    bool ok() const { return pid_ > 0; }
    const std::string& error() const { return error_; }

    int port() const { return port_; }
    // The temporary directory holding keys, configurations and the log.
    const std::string& dir() const { return dir_.path(); }
    // The ssh client configuration of the host "vault".
    const std::string& client_config() const { return client_config_; }
    // "ssh -F <client_config()> vault -s sftp": restic's -o sftp.command=...
    std::string sftp_command() const;
    // "sftp:vault:" + path
    std::string repository(const std::string& path) const;
    // What sshd wrote to its standard error so far.
    std::string log() const;

    // Stops the server (to see clients meet an unreachable one); the port
    // stays unused by this object afterwards.
    void stop();

private:
    bool start();
    bool start_once();
    bool logs_in(const std::string& user);

    TempDir dir_;
    std::string client_config_;
    std::string error_;
    int port_ = 0;
    pid_t pid_ = -1;
};

}  // namespace kt

#endif  // KAVREL_TESTS_COMMON_SSHD_SERVER_H_
