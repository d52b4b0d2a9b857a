// Fault injection seam of the platform layer, for tests.
//
// Every file-system call of dct/fs.h, and every write of journal and checksum
// files made by the shadow subsystem, asks fault_point() first. With no hook
// installed it answers 0 at the cost of one atomic load.
#ifndef DCT_FAULT_H_
#define DCT_FAULT_H_

#include <functional>

namespace dct {

enum class fault_op {
    open_write,   // opening a file for writing (journal, checksum file, copies)
    write,        // writing to such a file
    fsync,        // safe_fsync / directory sync
    ftruncate,    // safe_ftruncate
    rename,       // wa_rename
    createtree,   // wa_createtree / CreateTreeA
    filemove,     // FileMove
    deletefile,   // wa_deletefile
    deletedir,    // wa_deletedir
    deletetree,   // wa_deletetree
    touch,        // wa_touch
    chmod,        // wa_restrict_mode / wa_restrict_tree
};

const char* fault_op_name(fault_op op);

// The hook returns 0 to let the call go on, or an errno value to make it fail.
using fault_hook = std::function<int(fault_op op, const char* path)>;

// Installs the hook; an empty function removes it. Thread-safe.
void set_fault_hook(fault_hook hook);

// 0, or the errno the hook chose (errno is then set to it).
int fault_point(fault_op op, const char* path);

}  // namespace dct

#endif  // DCT_FAULT_H_
