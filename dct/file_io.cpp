#include "dct/file_io.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <zlib.h>

#include "dct/environment.h"
#include "dct/fault.h"

namespace dct {

namespace {

// Fills `failure` from errno (kept) and returns the mapped status.
cr_status_t fail(file_step step, const std::string& path, file_failure* failure) {
    const int e = errno;
    const cr_status_t status = _crMapError("dct::file_io", __FILE__, __LINE__);
    if (failure != nullptr) {
        failure->status = status;
        failure->step = step;
        failure->error = e;
        failure->path = path;
    }
    errno = e;
    return status;
}

// Closes `fd` (when open) and removes `path`, errno kept.
void discard(int fd, const std::string& path) {
    const int e = errno;
    if (fd >= 0) ::close(fd);
    wa_deletefile(path);
    errno = e;
}

// Opens a new file for writing as `mode` / `exact_mode` / `exclusive` say;
// -1 with errno set.
int open_new(const std::string& path, mode_t mode, bool exact_mode, bool exclusive) {
    if (current_environment().fault_point(fault_op::open_write, path.c_str()) != 0) return -1;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | (exclusive ? O_EXCL : O_TRUNC) | O_CLOEXEC, mode);
    if (fd >= 0 && exact_mode && ::fchmod(fd, mode) != 0) {
        discard(fd, path);
        return -1;
    }
    return fd;
}

// The write of the fault seam, then all of `data`.
int write_block(int fd, const std::string& path, const char* data, size_t length) {
    if (current_environment().fault_point(fault_op::write, path.c_str()) != 0) return -1;
    return wa_write_all(fd, data, length);
}

// Syncs (when `sync`) and closes `fd`; -1 with errno set when either fails.
int sync_close(int fd, const std::string& path, bool sync) {
    const int rc =
        sync && (current_environment().fault_point(fault_op::fsync, path.c_str()) != 0 || safe_fsync(fd) != 0) ? -1 : 0;
    const int e = errno;
    if (::close(fd) != 0 && rc == 0) return -1;
    errno = e;
    return rc;
}

// read(2) of the next bytes, retried on EINTR.
ssize_t read_some(int fd, char* block, size_t length) {
    for (;;) {
        const ssize_t n = ::read(fd, block, length);
        if (n >= 0 || errno != EINTR) return n;
    }
}

}  // namespace

uint32_t adler32_update(uint32_t sum, const void* data, size_t length) {
    const Bytef* p = static_cast<const Bytef*>(data);
    // zlib takes lengths as uInt; larger buffers go in pieces.
    while (length > 0) {
        const uInt n = length > 0x40000000u ? 0x40000000u : static_cast<uInt>(length);
        sum = static_cast<uint32_t>(adler32(sum, p, n));
        p += n;
        length -= n;
    }
    return sum;
}

cr_status_t sum_file(const std::string& path, uint64_t* size, uint32_t* sum, file_failure* failure) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return fail(file_step::open_source, path, failure);
    std::string block(64 * 1024, '\0');
    uint32_t value = 1;
    uint64_t total = 0;
    for (;;) {
        const ssize_t n = read_some(fd, &block[0], block.size());
        if (n < 0) {
            const cr_status_t status = fail(file_step::read, path, failure);
            ::close(fd);
            return status;
        }
        if (n == 0) break;
        value = adler32_update(value, block.data(), static_cast<size_t>(n));
        total += static_cast<uint64_t>(n);
    }
    ::close(fd);
    *size = total;
    *sum = value;
    return CR_STATUS_OK;
}

namespace {

// The body of both copies: `times` (when given) are set before the copy is
// synced and closed.
cr_status_t copy_blocks(const block_reader& read, const std::string& src_name, const std::string& dst,
                        const copy_options& o, const struct timespec* times, uint32_t* sum, file_failure* failure) {
    const int out = open_new(dst, o.mode, o.exact_mode, o.exclusive);
    if (out < 0) return fail(file_step::create, dst, failure);
    std::string block(o.block_size, '\0');
    uint32_t value = 1;
    for (uint64_t done = 0; done < o.length;) {
        const size_t want = o.length - done < block.size() ? static_cast<size_t>(o.length - done) : block.size();
        const ssize_t n = read(&block[0], want, done);
        if (n == 0 && o.length == copy_options::whole) break;
        if (n <= 0) {
            // The source is shorter than it was said to be.
            if (n == 0) errno = EIO;
            const cr_status_t status = fail(file_step::read, src_name, failure);
            discard(out, dst);
            return status;
        }
        if (write_block(out, dst, block.data(), static_cast<size_t>(n)) != 0) {
            const cr_status_t status = fail(file_step::write, dst, failure);
            discard(out, dst);
            return status;
        }
        value = adler32_update(value, block.data(), static_cast<size_t>(n));
        done += static_cast<uint64_t>(n);
    }
    if (times != nullptr && ::futimens(out, times) != 0) {
        const cr_status_t status = fail(file_step::set_times, dst, failure);
        discard(out, dst);
        return status;
    }
    if (sync_close(out, dst, o.sync) != 0) {
        const cr_status_t status = fail(file_step::write, dst, failure);
        discard(-1, dst);
        return status;
    }
    if (sum != nullptr) *sum = value;
    return CR_STATUS_OK;
}

}  // namespace

cr_status_t copy_from(const block_reader& read, const std::string& src_name, const std::string& dst,
                      const copy_options& o, uint32_t* sum, file_failure* failure) {
    return copy_blocks(read, src_name, dst, o, nullptr, sum, failure);
}

cr_status_t copy_file(const std::string& src, const std::string& dst, const copy_options& o, uint32_t* sum,
                      file_failure* failure) {
    const int in = ::open(src.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) return fail(file_step::open_source, src, failure);
    struct stat st = {};
    if (o.keep_times && fstat(in, &st) != 0) {
        const cr_status_t status = fail(file_step::open_source, src, failure);
        ::close(in);
        return status;
    }
    const struct timespec times[2] = {st.st_atim, st.st_mtim};
    const block_reader reader = [in](char* block, size_t length, uint64_t) { return read_some(in, block, length); };
    const cr_status_t status = copy_blocks(reader, src, dst, o, o.keep_times ? times : nullptr, sum, failure);
    ::close(in);
    return status;
}

cr_status_t write_file_atomic(const std::string& dir, const std::string& path, const std::string& text,
                              const atomic_write_options& o, file_failure* failure) {
    const std::string tmp = path + ".tmp";
    const int fd = open_new(tmp, o.mode, o.exact_mode, false);
    if (fd < 0) {
        const cr_status_t status = fail(file_step::create, tmp, failure);
        discard(-1, tmp);
        return status;
    }
    if (write_block(fd, tmp, text.data(), text.size()) != 0) {
        const cr_status_t status = fail(file_step::write, tmp, failure);
        discard(fd, tmp);
        return status;
    }
    if (sync_close(fd, tmp, o.sync) != 0) {
        const cr_status_t status = fail(file_step::write, tmp, failure);
        discard(-1, tmp);
        return status;
    }
    if (wa_rename(tmp, path) != 0) {
        const cr_status_t status = fail(file_step::rename, tmp, failure);
        discard(-1, tmp);
        return status;
    }
    if (!o.sync) return CR_STATUS_OK;
    if (wa_syncdir(dir) != 0) return fail(file_step::sync_dir, dir, failure);
    return CR_STATUS_OK;
}

int create_private_tree(const std::string& path, bool sync) {
    if ((sync ? wa_createtree_synced(path, private_dir_mode) : wa_createtree(path, private_dir_mode)) != 0) return -1;
    return wa_restrict_mode(path);
}

}  // namespace dct
