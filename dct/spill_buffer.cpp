#include "dct/spill_buffer.h"
#include "dct/fs.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "dct/log.h"

namespace dct {

namespace {

// Size of one read when the file is copied out.
const size_t kCopyChunk = 1 << 20;

// The status of errno value `err`.
cr_status_t mapped(int err) {
    errno = err;
    return _crMapError("spill_buffer", __FILE__, __LINE__);
}

}  // namespace

spill_buffer::spill_buffer(size_t memory_limit, const std::string& dir)
    : limit_(std::max<size_t>(memory_limit, 1)), dir_(dir) {
    if (dir_.empty()) {
        const char* tmp = getenv("TMPDIR");
        dir_ = (tmp != nullptr && *tmp != '\0') ? tmp : "/tmp";
    }
}

spill_buffer::~spill_buffer() {
    if (fd_ >= 0) close(fd_);
}

bool spill_buffer::open_file() {
    if (fd_ >= 0) return true;
    if (no_file_) return false;
    fd_ = open(dir_.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd_ < 0 && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL)) {
        // A file system without unnamed files: a named one, unlinked at once.
        std::string name = dir_ + "/.kavrel-spill-XXXXXX";
        fd_ = mkostemp(&name[0], O_CLOEXEC);
        if (fd_ >= 0) unlink(name.c_str());
    }
    if (fd_ < 0) {
        no_file_ = true;
        WarningA(CR_STATUS_OK, "%s: cannot make a temporary file in %s (%s), holding the output in memory",
                 "spill_buffer", dir_.c_str(), strerror(errno));
        return false;
    }
    return true;
}

cr_status_t spill_buffer::write_file(const char* data, size_t n) {
    const int err = wa_write_all(fd_, data, n) == 0 ? 0 : errno;
    if (err != 0) {
        const cr_status_t status = mapped(err);
        ErrorA(status, "%s: failed to write %zu bytes to the temporary file in %s (%s)", "spill_buffer", n,
               dir_.c_str(), strerror(err));
        return status;
    }
    file_bytes_ += n;
    return CR_STATUS_OK;
}

cr_status_t spill_buffer::flush_memory() {
    if (memory_.empty()) return CR_STATUS_OK;
    const cr_status_t status = write_file(memory_.data(), memory_.size());
    if (status == CR_STATUS_OK) memory_.clear();
    return status;
}

cr_status_t spill_buffer::append(const char* data, size_t n) {
    if (memory_.size() + n > limit_ && open_file()) {
        const cr_status_t status = flush_memory();
        if (status != CR_STATUS_OK) return status;
        // More than the memory holds goes to the file as it is.
        if (n > limit_) return write_file(data, n);
    }
    memory_.append(data, n);
    return CR_STATUS_OK;
}

cr_status_t spill_buffer::write_to(FILE* out) {
    cr_status_t status = CR_STATUS_OK;
    if (file_bytes_ > 0) {
        if (lseek(fd_, 0, SEEK_SET) < 0) {
            status = mapped(errno);
            ErrorA(status, "%s: failed to rewind the temporary file in %s (%s)", "spill_buffer", dir_.c_str(),
                   strerror(errno));
        }
        std::string chunk(std::min(kCopyChunk, file_bytes_), '\0');
        size_t left = status == CR_STATUS_OK ? file_bytes_ : 0;
        while (left > 0) {
            const ssize_t r = read(fd_, &chunk[0], std::min(chunk.size(), left));
            if (r < 0 && errno == EINTR) continue;
            if (r <= 0) {
                const int err = r < 0 ? errno : EIO;
                status = mapped(err);
                ErrorA(status, "%s: failed to read the temporary file in %s (%s)", "spill_buffer", dir_.c_str(),
                       strerror(err));
                break;
            }
            if (fwrite(chunk.data(), 1, static_cast<size_t>(r), out) != static_cast<size_t>(r)) {
                status = CR_STATUS_IO;
                ErrorA(status, "%s: failed to write the output", "spill_buffer");
                break;
            }
            left -= static_cast<size_t>(r);
        }
    }
    if (status == CR_STATUS_OK && !memory_.empty() &&
        fwrite(memory_.data(), 1, memory_.size(), out) != memory_.size()) {
        status = CR_STATUS_IO;
        ErrorA(status, "%s: failed to write the output", "spill_buffer");
    }
    clear();
    return status;
}

void spill_buffer::clear() {
    memory_.clear();
    if (file_bytes_ > 0) {
        // The next round starts at the beginning of an empty file; a file that
        // cannot be cut keeps its old bytes past the new ones, never read.
        if (ftruncate(fd_, 0) != 0) {
            WarningA(CR_STATUS_OK, "%s: cannot empty the temporary file in %s (%s)", "spill_buffer", dir_.c_str(),
                     strerror(errno));
        }
        lseek(fd_, 0, SEEK_SET);
        file_bytes_ = 0;
    }
}

}  // namespace dct
