#include "dct/clock.h"

#include <sys/time.h>

#include <atomic>
#include <mutex>

namespace {
std::mutex g_clock_mutex;
std::function<unsigned long()> g_clock;
std::atomic<bool> g_clock_set{false};  // fast path: no lock while the real clock is used
}

namespace dct {

unsigned long now_ms() {
    if (g_clock_set.load(std::memory_order_acquire)) {
        std::function<unsigned long()> fn;
        {
            std::lock_guard<std::mutex> guard(g_clock_mutex);
            fn = g_clock;
        }
        if (fn) return fn();
    }
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<unsigned long>(tv.tv_sec) * 1000UL + static_cast<unsigned long>(tv.tv_usec) / 1000UL;
}

void set_clock_function(std::function<unsigned long()> fn) {
    std::lock_guard<std::mutex> guard(g_clock_mutex);
    g_clock_set.store(static_cast<bool>(fn), std::memory_order_release);
    g_clock = std::move(fn);
}

}  // namespace dct
