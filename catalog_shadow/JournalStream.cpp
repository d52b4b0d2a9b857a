#include "catalog_shadow/JournalStream.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "dct/environment.h"
#include "dct/fault.h"
#include "dct/fs.h"

boost::shared_ptr<JournalStream> JournalStream::open(const std::string& path) {
    if (dct::current_environment().fault_point(dct::fault_op::open_write, path.c_str()) != 0) {
        return boost::shared_ptr<JournalStream>();
    }
    int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, dct::private_file_mode);
    if (fd < 0) return boost::shared_ptr<JournalStream>();
    struct stat st;
    if (fstat(fd, &st) != 0) {
        int e = errno;
        ::close(fd);
        errno = e;
        return boost::shared_ptr<JournalStream>();
    }
    return boost::shared_ptr<JournalStream>(
        new JournalStream(path, fd, static_cast<uint64_t>(st.st_size)));
}

JournalStream::JournalStream(const std::string& path, int fd, uint64_t size)
    : path_(path), fd_(fd), size_(size) {}

JournalStream::~JournalStream() {
    if (fd_ >= 0) ::close(fd_);
}

int JournalStream::append(const std::string& data) {
    if (dct::current_environment().fault_point(dct::fault_op::write, path_.c_str()) != 0) return -1;
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd_, data.data() + done, data.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (n == 0) {
            errno = EIO;
            break;
        }
        done += static_cast<size_t>(n);
    }
    if (done == data.size()) {
        size_ += done;
        return 0;
    }
    // Take back the torn part so that the journal still ends on a whole line.
    int e = errno;
    if (done > 0) safe_ftruncate(fd_, static_cast<off_t>(size_));
    errno = e;
    return -1;
}

int JournalStream::sync() {
    if (dct::current_environment().fault_point(dct::fault_op::fsync, path_.c_str()) != 0) return -1;
    return safe_fsync(fd_);
}

int JournalStream::truncate(uint64_t length) {
    if (safe_ftruncate(fd_, static_cast<off_t>(length)) != 0) return -1;
    size_ = length;
    // A cut that a power loss could undo would bring back lines that no
    // checksum file counts.
    return sync();
}
