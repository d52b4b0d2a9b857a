#include "common/test_util.h"

#include <dirent.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "dct/fs.h"
#include "dct/sleep.h"

namespace kt {

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string templ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/kavrel-test-XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = buf.data();
}

TempDir::~TempDir() {
    // Tests may leave read-only directories behind; make them removable first.
    std::string cmd = "chmod -R u+rwx '" + path_ + "' 2>/dev/null";
    if (system(cmd.c_str()) != 0) {
    }
    wa_deletetree(path_);
}

LogCapture::LogCapture() {
    dct::set_log_sink([this](dct::log_level level, cr_status_t status, const std::string& message) {
        // Every record any test provokes is one line of text.
        if (message.find_first_of(std::string("\0\n\r", 3)) != std::string::npos) {
            ADD_FAILURE() << "log record with a NUL byte or a line break: [" << message << "]";
        }
        std::lock_guard<std::mutex> guard(mutex_);
        records_.push_back(LogRecord{level, status, message});
    });
}

LogCapture::~LogCapture() { dct::set_log_sink(nullptr); }

std::vector<LogRecord> LogCapture::records() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return records_;
}

size_t LogCapture::count(dct::log_level level, cr_status_t status, const std::string& message) const {
    std::lock_guard<std::mutex> guard(mutex_);
    return std::count_if(records_.begin(), records_.end(), [&](const LogRecord& r) {
        return r.level == level && r.status == status && r.message == message;
    });
}

size_t LogCapture::count_message(const std::string& message) const {
    std::lock_guard<std::mutex> guard(mutex_);
    return std::count_if(records_.begin(), records_.end(),
                         [&](const LogRecord& r) { return r.message == message; });
}

size_t LogCapture::count_containing(const std::string& fragment) const {
    std::lock_guard<std::mutex> guard(mutex_);
    return std::count_if(records_.begin(), records_.end(), [&](const LogRecord& r) {
        return r.message.find(fragment) != std::string::npos;
    });
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> guard(mutex_);
    records_.clear();
}

std::string LogCapture::dump() const {
    std::lock_guard<std::mutex> guard(mutex_);
    std::ostringstream out;
    for (const auto& r : records_) {
        out << dct::log_level_name(r.level) << " [" << r.status << "] " << r.message << "\n";
    }
    return out.str();
}

SleepCounter::SleepCounter() {
    dct::set_sleep_function([this](unsigned seconds) {
        int n = ++calls_;
        seconds_ += seconds;
        if (on_sleep) on_sleep(n);
    });
}

SleepCounter::~SleepCounter() { dct::set_sleep_function(nullptr); }

TraceSwitch::TraceSwitch(bool on) : previous_(__dctlog_trace_location.load()) {
    __dctlog_trace_location.store(on ? 1 : 0);
}

TraceSwitch::~TraceSwitch() { __dctlog_trace_location.store(previous_); }

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void write_file(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

bool file_exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

std::vector<std::string> list_dir(const std::string& path) {
    std::vector<std::string> names;
    DIR* d = opendir(path.c_str());
    if (d == nullptr) return names;
    while (struct dirent* e = readdir(d)) {
        std::string n = e->d_name;
        if (n != "." && n != "..") names.push_back(n);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace kt
