// Fails the Nth call of chosen platform file operations (dct/fault.h), for
// sweeps that make every call of an operation fail in turn.
#ifndef KAVREL_TESTS_COMMON_FAULT_COUNTDOWN_H_
#define KAVREL_TESTS_COMMON_FAULT_COUNTDOWN_H_

#include <errno.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "dct/fault.h"

namespace kt {

// Installs a fault hook for its lifetime (removing it at destruction). It
// counts the calls of the operations in `ops` (every operation when empty)
// whose path contains `path_part`, and fails the `fail_at`-th of them (1 is
// the first; 0 never) with `err`. Only one fault hook exists per process.
class FaultCountdown {
public:
    explicit FaultCountdown(long fail_at, int err = EIO, std::vector<dct::fault_op> ops = {},
                            std::string path_part = "");
    ~FaultCountdown();
    FaultCountdown(const FaultCountdown&) = delete;
    FaultCountdown& operator=(const FaultCountdown&) = delete;

    // Calls counted so far.
    long calls() const { return calls_.load(); }
    bool fired() const { return fired_.load(); }
    // "op path" of the call that was made to fail, or "".
    std::string fired_at() const;

private:
    int on_call(dct::fault_op op, const char* path);

    const long fail_at_;
    const int err_;
    const std::vector<dct::fault_op> ops_;
    const std::string path_part_;
    std::atomic<long> calls_{0};
    std::atomic<bool> fired_{false};
    mutable std::mutex mutex_;
    std::string fired_at_;
};

}  // namespace kt

#endif  // KAVREL_TESTS_COMMON_FAULT_COUNTDOWN_H_
