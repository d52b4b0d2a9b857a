#include "tool/shadow_export_files.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "dct/fault.h"
#include "dct/fs.h"
#include "dct/log.h"

namespace kshadow {

namespace {

const size_t kBlockSize = 1 << 16;

// Maps errno (as the failed step left it), logs `what` once and fills `failure`.
cr_status_t failed(const char* function, const std::string& what, const std::string& path, FileFailure* failure) {
    const int e = errno;
    const cr_status_t status = _crMapError(function, __FILE__, __LINE__);
    ErrorA(status, "%s: failed to %s %s: %s", function, what.c_str(), path.c_str(), strerror(e));
    failure->status = status;
    failure->reason = "cannot " + what + " " + path + ": " + strerror(e);
    return status;
}

// failed(), then `fd` closed (when open) and the half-written `partial` removed.
cr_status_t failed_removing(const char* function, const std::string& what, const std::string& path, int fd,
                            const std::string& partial, FileFailure* failure) {
    const cr_status_t status = failed(function, what, path, failure);
    if (fd >= 0) ::close(fd);
    wa_deletefile(partial);
    return status;
}

// Keeps errno across a clean-up step.
void remove_keeping_errno(int fd, const std::string& path) {
    const int e = errno;
    if (fd >= 0) ::close(fd);
    wa_deletefile(path);
    errno = e;
}

// The write of the fault seam, then all of `data`.
int write_all(int fd, const std::string& path, const char* data, size_t length) {
    if (dct::fault_point(dct::fault_op::write, path.c_str()) != 0) return -1;
    return wa_write_all(fd, data, length);
}

// Opens a new file for writing with exactly the private file mode.
int open_new(const std::string& path) {
    if (dct::fault_point(dct::fault_op::open_write, path.c_str()) != 0) return -1;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, dct::private_file_mode);
    if (fd >= 0 && ::fchmod(fd, dct::private_file_mode) != 0) {
        remove_keeping_errno(fd, path);
        return -1;
    }
    return fd;
}

// Syncs (when `sync`) and closes `fd`; -1 with errno set when either fails.
int sync_close(int fd, const std::string& path, bool sync) {
    int rc = sync && (dct::fault_point(dct::fault_op::fsync, path.c_str()) != 0 || safe_fsync(fd) != 0) ? -1 : 0;
    const int e = errno;
    if (::close(fd) != 0 && rc == 0) return -1;
    errno = e;
    return rc;
}

}  // namespace

cr_status_t file_sum(const std::string& path, uint64_t* size, uint32_t* sum, FileFailure* failure) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return failed("file_sum", "read", path, failure);
    PODBShadow::CRC crc;
    std::string block(kBlockSize, '\0');
    uint64_t total = 0;
    for (;;) {
        const ssize_t n = ::read(fd, &block[0], block.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            const cr_status_t status = failed("file_sum", "read", path, failure);
            ::close(fd);
            return status;
        }
        if (n == 0) break;
        crc.append(block.data(), static_cast<size_t>(n));
        total += static_cast<uint64_t>(n);
    }
    ::close(fd);
    *size = total;
    *sum = crc.value();
    return CR_STATUS_OK;
}

cr_status_t copy_prefix(const std::string& src, const struct stat& st, uint64_t length, const std::string& dst,
                        bool sync, uint32_t* sum, FileFailure* failure) {
    const int in = ::open(src.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) return failed("copy_prefix", "read", src, failure);
    const int out = open_new(dst);
    if (out < 0) {
        const cr_status_t status = failed("copy_prefix", "create", dst, failure);
        ::close(in);
        return status;
    }
    PODBShadow::CRC crc;
    std::string block(kBlockSize, '\0');
    uint64_t done = 0;
    while (done < length) {
        const size_t want = length - done < block.size() ? static_cast<size_t>(length - done) : block.size();
        const ssize_t n = ::read(in, &block[0], want);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            // The source is shorter than its stat or its checksum file said.
            if (n == 0) errno = EIO;
            ::close(in);
            return failed_removing("copy_prefix", "read", src, out, dst, failure);
        }
        if (write_all(out, dst, block.data(), static_cast<size_t>(n)) != 0) {
            ::close(in);
            return failed_removing("copy_prefix", "write", dst, out, dst, failure);
        }
        crc.append(block.data(), static_cast<size_t>(n));
        done += static_cast<uint64_t>(n);
    }
    ::close(in);
    // An unchanged source looks unchanged in the copy too.
    const struct timespec times[2] = {st.st_atim, st.st_mtim};
    if (::futimens(out, times) != 0) return failed_removing("copy_prefix", "set the times of", dst, out, dst, failure);
    if (sync_close(out, dst, sync) != 0) return failed_removing("copy_prefix", "write", dst, -1, dst, failure);
    *sum = crc.value();
    return CR_STATUS_OK;
}

cr_status_t write_file_synced(const std::string& dir, const std::string& name, const std::string& text, bool sync,
                              FileFailure* failure) {
    const std::string path = dir + "/" + name;
    const std::string tmp = path + ".tmp";
    const int fd = open_new(tmp);
    if (fd < 0) return failed("write_file_synced", "create", tmp, failure);
    if (write_all(fd, tmp, text.data(), text.size()) != 0) {
        return failed_removing("write_file_synced", "write", tmp, fd, tmp, failure);
    }
    if (sync_close(fd, tmp, sync) != 0) return failed_removing("write_file_synced", "write", tmp, -1, tmp, failure);
    if (wa_rename(tmp, path) != 0) return failed_removing("write_file_synced", "rename", tmp, -1, tmp, failure);
    if (sync && wa_syncdir(dir) != 0) return failed("write_file_synced", "sync", dir, failure);
    return CR_STATUS_OK;
}

}  // namespace kshadow
