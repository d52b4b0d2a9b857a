#include "tool/progress.h"

#include <stdio.h>
#include <unistd.h>

namespace kshadow {

namespace {

// Work shorter than this shows no progress line.
const std::chrono::milliseconds kQuietPeriod(1000);

}  // namespace

Progress::Progress(const std::string& verb, size_t total)
    : verb_(verb), total_(total), terminal_(isatty(STDERR_FILENO) == 1), start_(std::chrono::steady_clock::now()) {}

Progress::~Progress() {
    if (shown_) {
        fputs("\r\033[K", stderr);
        fflush(stderr);
    }
}

void Progress::step(size_t index, const std::string& what) {
    if (!terminal_ || std::chrono::steady_clock::now() - start_ < kQuietPeriod) return;
    fprintf(stderr, "\r\033[K%s %zu/%zu %s", verb_.c_str(), index + 1, total_, what.c_str());
    fflush(stderr);
    shown_ = true;
}

}  // namespace kshadow
