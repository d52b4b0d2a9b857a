#include "common/fault_countdown.h"

#include <algorithm>

namespace kt {

FaultCountdown::FaultCountdown(long fail_at, int err, std::vector<dct::fault_op> ops, std::string path_part)
    : fail_at_(fail_at), err_(err), ops_(std::move(ops)), path_part_(std::move(path_part)) {
    dct::set_fault_hook([this](dct::fault_op op, const char* path) { return on_call(op, path); });
}

FaultCountdown::~FaultCountdown() { dct::set_fault_hook(nullptr); }

std::string FaultCountdown::fired_at() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return fired_at_;
}

int FaultCountdown::on_call(dct::fault_op op, const char* path) {
    if (!ops_.empty() && std::find(ops_.begin(), ops_.end(), op) == ops_.end()) return 0;
    if (!path_part_.empty() && std::string(path).find(path_part_) == std::string::npos) return 0;
    const long n = ++calls_;
    if (n != fail_at_) return 0;
    fired_ = true;
    std::lock_guard<std::mutex> guard(mutex_);
    fired_at_ = std::string(dct::fault_op_name(op)) + " " + path;
    return err_;
}

}  // namespace kt
