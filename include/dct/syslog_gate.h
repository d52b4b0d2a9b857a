// syslog_gate: whether the system log socket takes records, asked at most once
// per interval. Without a log daemon every syslog() call makes a socket and
// fails to connect, and the record is lost all the same; a catalog listing
// logs a few records per catalog, so that cost dominated listings of many
// small catalogs. The gate lets the default sink skip those calls until the
// next probe. A daemon that starts is noticed within one interval.
#ifndef DCT_SYSLOG_GATE_H_
#define DCT_SYSLOG_GATE_H_

#include <atomic>
#include <string>

namespace dct {

class syslog_gate {
public:
    // `socket_path` is the datagram socket of the log daemon ("/dev/log");
    // `interval_ms` the time between probes (dct::now_ms clock).
    syslog_gate(const std::string& socket_path, unsigned long interval_ms);

    // Whether records should be handed to syslog now: the answer of the last
    // probe, probing again once the interval since it has passed.
    // Thread-safe; two threads may probe at once, which is harmless.
    bool open();

private:
    // One connect to the socket; true when it accepted.
    bool probe() const;

    std::string path_;
    unsigned long interval_ms_;
    std::atomic<bool> open_{false};
    // 0 until the first probe, so that the first call probes.
    std::atomic<unsigned long> next_probe_ms_{0};
};

}  // namespace dct

#endif  // DCT_SYSLOG_GATE_H_
