// Reading the exposition text in the metrics tests, checking it with the
// collector's own tool (promtool), and a text-file collector
// (prometheus-node-exporter) run by the test on a free port of 127.0.0.1.
#ifndef KAVREL_TESTS_TOOL_METRICS_TEST_UTIL_H_
#define KAVREL_TESTS_TOOL_METRICS_TEST_UTIL_H_

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/local_server.h"
#include "common/test_util.h"
#include "tool_test_util.h"

namespace kmt {

// The samples of an exposition text: "name{a="x",b="y"}" (labels sorted by
// name, as a collector shows them) -> value. Comment lines are left out.
inline std::map<std::string, std::string> samples(const std::string& text) {
    std::map<std::string, std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        const size_t space = line.rfind(' ');
        std::string series = line.substr(0, space);
        const size_t brace = series.find('{');
        if (brace != std::string::npos) {
            std::vector<std::string> labels;
            std::string list = series.substr(brace + 1, series.size() - brace - 2);
            std::istringstream parts(list);
            std::string part;
            while (std::getline(parts, part, ',')) labels.push_back(part);
            std::sort(labels.begin(), labels.end());
            series = series.substr(0, brace) + "{";
            for (size_t i = 0; i < labels.size(); ++i) series += (i ? "," : "") + labels[i];
            series += "}";
        }
        out[series] = line.substr(space + 1);
    }
    return out;
}

// The value of one sample ("" when there is none).
inline std::string value(const std::string& text, const std::string& series) {
    const auto all = samples(text);
    auto it = all.find(series);
    return it == all.end() ? "" : it->second;
}

inline bool have_program(const std::string& program) {
    return kt::run_program("/bin/sh", {"-c", "command -v " + program}).exit_status == 0;
}

// promtool check metrics on `text`: its exit status and what it said.
inline kt::RunResult promtool_check(const kt::TempDir& dir, const std::string& text) {
    const std::string file = dir.file("promtool-input.prom");
    kt::write_file(file, text);
    return kt::run_program("/bin/sh", {"-c", "promtool check metrics < '" + file + "'"});
}

// GET `path` from 127.0.0.1:`port`: the body, "" on any failure.
inline std::string http_get(int port, const std::string& path) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return "";
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    std::string response;
    if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0) {
        const std::string request = "GET " + path + " HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
        if (write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size())) {
            char buf[65536];
            ssize_t n;
            while ((n = read(fd, buf, sizeof(buf))) > 0) response.append(buf, static_cast<size_t>(n));
        }
    }
    close(fd);
    const size_t body = response.find("\r\n\r\n");
    return response.compare(0, 12, "HTTP/1.0 200") == 0 || response.compare(0, 12, "HTTP/1.1 200") == 0
               ? (body == std::string::npos ? "" : response.substr(body + 4))
               : "";
}

// prometheus-node-exporter with only its text-file collector, reading
// `textfile_dir`, on a free port; stopped (SIGTERM, then SIGKILL) when the
// object goes. ok() once it answers.
class NodeExporter {
public:
    NodeExporter(const std::string& textfile_dir, const std::string& log) {
        port_ = kt::free_port();
        if (port_ == 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            const std::string listen = "--web.listen-address=127.0.0.1:" + std::to_string(port_);
            const std::string dir = "--collector.textfile.directory=" + textfile_dir;
            FILE* f = freopen(log.c_str(), "w", stdout);
            if (f == nullptr || dup2(fileno(stdout), 2) < 0) _exit(126);
            execlp("prometheus-node-exporter", "prometheus-node-exporter", listen.c_str(),
                   "--collector.disable-defaults", "--collector.textfile", dir.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        // Bounded: 200 tries 25 ms apart.
        for (int i = 0; i < 200 && pid_ > 0; ++i) {
            if (kt::accepts_connections(port_)) {
                ok_ = true;
                return;
            }
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
    }
    ~NodeExporter() {
        if (pid_ <= 0) return;
        kill(pid_, SIGTERM);
        for (int i = 0; i < 200; ++i) {
            if (waitpid(pid_, nullptr, WNOHANG) == pid_) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    NodeExporter(const NodeExporter&) = delete;
    NodeExporter& operator=(const NodeExporter&) = delete;

    bool ok() const { return ok_; }
    std::string scrape() const { return http_get(port_, "/metrics"); }

private:
    int port_ = 0;
    pid_t pid_ = -1;
    bool ok_ = false;
};

}  // namespace kmt

#endif  // KAVREL_TESTS_TOOL_METRICS_TEST_UTIL_H_
