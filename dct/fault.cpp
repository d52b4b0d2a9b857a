#include "dct/fault.h"

#include <errno.h>

#include <atomic>
#include <mutex>

namespace {
std::mutex g_fault_mutex;
dct::fault_hook g_hook;
std::atomic<bool> g_hook_set{false};
}

namespace dct {

const char* fault_op_name(fault_op op) {
    switch (op) {
        case fault_op::open_write: return "open_write";
        case fault_op::write: return "write";
        case fault_op::fsync: return "fsync";
        case fault_op::ftruncate: return "ftruncate";
        case fault_op::rename: return "rename";
        case fault_op::createtree: return "createtree";
        case fault_op::filemove: return "filemove";
        case fault_op::deletefile: return "deletefile";
        case fault_op::deletedir: return "deletedir";
        case fault_op::deletetree: return "deletetree";
        case fault_op::touch: return "touch";
        case fault_op::chmod: return "chmod";
    }
    return "?";
}

void set_fault_hook(fault_hook hook) {
    std::lock_guard<std::mutex> guard(g_fault_mutex);
    g_hook_set.store(static_cast<bool>(hook), std::memory_order_release);
    g_hook = std::move(hook);
}

int fault_point(fault_op op, const char* path) {
    if (!g_hook_set.load(std::memory_order_acquire)) return 0;
    fault_hook hook;
    {
        std::lock_guard<std::mutex> guard(g_fault_mutex);
        hook = g_hook;
    }
    if (!hook) return 0;
    int err = hook(op, path != nullptr ? path : "");
    if (err != 0) errno = err;
    return err;
}

}  // namespace dct
