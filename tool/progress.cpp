#include "tool/progress.h"

#include <stdio.h>
#include <unistd.h>

namespace kshadow {

namespace {

// Work shorter than this shows no progress line.
const std::chrono::milliseconds kQuietPeriod(1000);
bool g_silenced = false;

}  // namespace

Progress::Progress(const std::string& verb, size_t total)
    : verb_(verb), total_(total), terminal_(isatty(STDERR_FILENO) == 1 && !g_silenced),
      start_(std::chrono::steady_clock::now()) {}

Progress::~Progress() { show(""); }

void Progress::silence() { g_silenced = true; }

void Progress::step(size_t index, const std::string& what) {
    show(verb_ + " " + std::to_string(index + 1) + "/" + std::to_string(total_) + " " + what);
}

void Progress::show(const std::string& text) {
    if (text.empty() ? !shown_ : !terminal_ || std::chrono::steady_clock::now() - start_ < kQuietPeriod) return;
    fprintf(stderr, "\r\033[K%s", text.c_str());
    fflush(stderr);
    shown_ = !text.empty();
}

}  // namespace kshadow
