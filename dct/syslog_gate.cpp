#include "dct/syslog_gate.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "dct/clock.h"

namespace dct {

syslog_gate::syslog_gate(const std::string& socket_path, unsigned long interval_ms)
    : path_(socket_path), interval_ms_(interval_ms) {}

bool syslog_gate::probe() const {
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    // A path that does not fit is not the log socket: let syslog decide.
    if (path_.size() >= sizeof(addr.sun_path)) return true;
    memcpy(addr.sun_path, path_.data(), path_.size());
    const int saved = errno;
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        errno = saved;
        return true;  // no socket to ask with: behave as before
    }
    const bool ok = connect(fd, reinterpret_cast<const struct sockaddr*>(&addr), sizeof(addr)) == 0;
    close(fd);
    // Logging never changes errno for the code that logs.
    errno = saved;
    return ok;
}

bool syslog_gate::open() {
    const unsigned long now = now_ms();
    if (now >= next_probe_ms_.load(std::memory_order_acquire)) {
        open_.store(probe(), std::memory_order_relaxed);
        next_probe_ms_.store(now + interval_ms_, std::memory_order_release);
    }
    return open_.load(std::memory_order_relaxed);
}

}  // namespace dct
