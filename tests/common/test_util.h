// Helpers shared by the tests: temporary directories, a capturing log sink,
// a counting replacement for the sleep, trace switching, small file helpers.
#ifndef KAVREL_TESTS_COMMON_TEST_UTIL_H_
#define KAVREL_TESTS_COMMON_TEST_UTIL_H_

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "dct/log.h"
#include "dct/status.h"

namespace kt {

// A fresh directory below $TMPDIR (or /tmp), removed with everything in it at
// destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    // path() + "/" + rel
    std::string file(const std::string& rel) const { return path_ + "/" + rel; }

private:
    std::string path_;
};

struct LogRecord {
    dct::log_level level;
    cr_status_t status;
    std::string message;
};

// Installs a sink that keeps every record; restores the default sink at
// destruction. Thread-safe.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    std::vector<LogRecord> records() const;
    // Number of records with exactly this level, status and message.
    size_t count(dct::log_level level, cr_status_t status, const std::string& message) const;
    bool contains(dct::log_level level, cr_status_t status, const std::string& message) const {
        return count(level, status, message) > 0;
    }
    // Number of records (any level and status) whose message equals `message`.
    size_t count_message(const std::string& message) const;
    // Number of records whose message contains `fragment`.
    size_t count_containing(const std::string& fragment) const;
    void clear();
    // All records, one per line "LEVEL [status] message", for failure output.
    std::string dump() const;

private:
    mutable std::mutex mutex_;
    std::vector<LogRecord> records_;
};

// Replaces DctSleep with a counter; restores the real sleep at destruction.
// `on_sleep` (optional) runs at every call, with the number of the call (1, 2, ...).
class SleepCounter {
public:
    SleepCounter();
    ~SleepCounter();
    int calls() const { return calls_.load(); }
    unsigned long total_seconds() const { return seconds_.load(); }
    std::function<void(int call)> on_sleep;

private:
    std::atomic<int> calls_{0};
    std::atomic<unsigned long> seconds_{0};
};

// Turns tracing on (or off) for one scope and restores the previous switch.
class TraceSwitch {
public:
    explicit TraceSwitch(bool on);
    ~TraceSwitch();

private:
    int previous_;
};

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& content);
bool file_exists(const std::string& path);
// Names of the entries of a directory (no "." and ".."), sorted.
std::vector<std::string> list_dir(const std::string& path);

}  // namespace kt

#endif  // KAVREL_TESTS_COMMON_TEST_UTIL_H_
