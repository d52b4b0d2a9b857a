// The file work of an export and of its check: what both read and write
// below an export directory, through the platform's file calls (so that the
// fault seam reaches every step).
#ifndef TOOL_SHADOW_EXPORT_FILES_H_
#define TOOL_SHADOW_EXPORT_FILES_H_

#include <stdint.h>
#include <sys/stat.h>

#include <string>

#include "dct/status.h"

namespace kshadow {

// Why a file step failed: the status, and one line for people.
struct FileFailure {
    cr_status_t status = CR_STATUS_OK;
    std::string reason;
};

// Size and Adler-32 (zlib's adler32) of the whole file at `path`. 0, or the
// mapped status (logged "%s: failed to read %s: %s").
cr_status_t file_sum(const std::string& path, uint64_t* size, uint32_t* sum, FileFailure* failure);

// Writes the first `length` bytes of `src` (whose stat is `st`) to the new
// file `dst`: made dct::private_file_mode whatever the umask, synced when
// `sync`, its access and modification times those of `src`. `sum` receives the copy's
// Adler-32. A failure removes `dst` again. 0, or the mapped status (logged
// once); a source shorter than `length` is status 21.
cr_status_t copy_prefix(const std::string& src, const struct stat& st, uint64_t length, const std::string& dst,
                        bool sync, uint32_t* sum, FileFailure* failure);

// Writes `text` to `path` through `path` ".tmp" (private file mode, synced,
// renamed over, the directory synced; with `sync` false only written and
// renamed). 0, or the mapped status (logged once).
cr_status_t write_file_synced(const std::string& dir, const std::string& name, const std::string& text, bool sync,
                              FileFailure* failure);

}  // namespace kshadow

#endif  // TOOL_SHADOW_EXPORT_FILES_H_
