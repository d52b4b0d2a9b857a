// Whole-file work of the platform layer, one copy each for every library:
// the Adler-32 of a file, a copy made durable, a write that replaces a file
// atomically, and a private directory tree.
//
// None of them logs: each caller says in its own words what failed, from the
// step and errno the failure carries. Each consults the fault seam at the
// same points as the dct/fs.h calls: opening a file for writing, every
// write, every sync.
#ifndef DCT_FILE_IO_H_
#define DCT_FILE_IO_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <string>

#include "dct/fs.h"
#include "dct/status.h"

namespace dct {

// The step of a file operation that failed.
enum class file_step {
    none,
    open_source,  // opening the file read from
    read,         // reading it (a source shorter than promised: EIO)
    create,       // creating the file written to
    write,        // writing, syncing or closing it
    set_times,    // giving it the source's times
    rename,       // renaming it into place
    sync_dir,     // syncing the directory of the renamed file
};

// Why a file operation failed: its status (errno mapped as _crMapError
// does), the step, errno and the path the step worked on.
struct file_failure {
    cr_status_t status = CR_STATUS_OK;
    file_step step = file_step::none;
    int error = 0;
    std::string path;
};

// The Adler-32 (zlib's adler32) of `sum` continued over `length` bytes of
// `data`; a sum starts at 1. Any length is taken.
uint32_t adler32_update(uint32_t sum, const void* data, size_t length);

// Size and Adler-32 (zlib's adler32, starting at 1) of the whole file at
// `path`. 0, or the failure's status (`failure` filled when given).
cr_status_t sum_file(const std::string& path, uint64_t* size, uint32_t* sum, file_failure* failure);

// How copy_file and copy_from write their copy.
struct copy_options {
    // Bytes to copy: all of the source, or exactly this many (a source that
    // ends sooner fails the read step with EIO).
    static const uint64_t whole = UINT64_MAX;
    uint64_t length = whole;
    // Mode of the new file. With `exact_mode` it is set with fchmod whatever
    // the umask; otherwise the umask may take bits away.
    mode_t mode = private_file_mode;
    bool exact_mode = true;
    // An existing file at the destination: replaced (false) or a failure of
    // the create step with EEXIST (true).
    bool exclusive = false;
    // Synced before it is closed.
    bool sync = true;
    // Access and modification times of the source (copy_file only), so that
    // an unchanged source looks unchanged in the copy too.
    bool keep_times = false;
    // Bytes read and written at a time.
    size_t block_size = 64 * 1024;
};

// Reads up to `length` bytes at `offset` into `block`: the number read (0 at
// the end), or -1 with errno set.
using block_reader = std::function<ssize_t(char* block, size_t length, uint64_t offset)>;

// Copies the file `src` to `dst` as `options` say; `sum` (when given)
// receives the copy's Adler-32. A failure removes `dst` again. 0, or the
// failure's status (`failure` filled when given).
cr_status_t copy_file(const std::string& src, const std::string& dst, const copy_options& options, uint32_t* sum,
                      file_failure* failure);

// copy_file from a source that is read through `read` (its bytes may be
// changed in the block before they are written and summed).
cr_status_t copy_from(const block_reader& read, const std::string& src_name, const std::string& dst,
                      const copy_options& options, uint32_t* sum, file_failure* failure);

// How write_file_atomic writes.
struct atomic_write_options {
    mode_t mode = private_file_mode;
    bool exact_mode = true;  // as in copy_options
    // The temporary file synced before the rename and the directory after
    // it. A file that only lives until it is read at once needs neither.
    bool sync = true;
};

// Replaces `path` (a file in directory `dir`) with `text` through `path`
// ".tmp": written, synced, renamed over `path`, then `dir` synced. Readers see the old file
// or the new one, never a part. Until the rename a failure removes the
// temporary file; a failure of the step sync_dir leaves the new file in
// place (its name may not survive a power loss). 0, or the failure's status.
cr_status_t write_file_atomic(const std::string& dir, const std::string& path, const std::string& text,
                              const atomic_write_options& options, file_failure* failure);

// Creates `path` and every missing parent (private_dir_mode), each new one
// made durable in its parent when `sync`, and takes from `path` every bit
// beyond private_dir_mode. 0, or -1 with errno set, like wa_createtree.
int create_private_tree(const std::string& path, bool sync);

}  // namespace dct

#endif  // DCT_FILE_IO_H_
