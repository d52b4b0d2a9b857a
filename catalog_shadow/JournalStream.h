// JournalStream: the open append stream of one operation journal file.
//
// Lines go straight to the kernel (no user-space buffer), so a failed append is
// seen at once and cut away again: the file never keeps part of a line that
// was reported as not written. Durability is the caller's business (sync()).
// Not locked: its owner (PODBShadow) serialises the calls.
#ifndef CATALOG_SHADOW_JOURNALSTREAM_H_
#define CATALOG_SHADOW_JOURNALSTREAM_H_

#include <stdint.h>

#include <string>

#include <boost/shared_ptr.hpp>

class JournalStream {
public:
    // Opens `path` for appending, creating it (dct::private_file_mode) when missing. Asks the
    // fault seam (open_write) first. Null with errno set on failure.
    static boost::shared_ptr<JournalStream> open(const std::string& path);

    ~JournalStream();
    JournalStream(const JournalStream&) = delete;
    JournalStream& operator=(const JournalStream&) = delete;

    // Appends `data` whole. On failure (fault seam "write", short or failed
    // write) the file is cut back to its length before the call; returns -1
    // with errno set. 0 on success.
    int append(const std::string& data);

    // Makes everything appended so far durable (fault seam "fsync" with the
    // journal's path, then safe_fsync). 0, or -1 with errno set.
    int sync();

    // Cuts the file back to `length` bytes (safe_ftruncate) and syncs the cut.
    // 0 or -1.
    int truncate(uint64_t length);

    int fd() const { return fd_; }
    // Length of the file as this stream has written it.
    uint64_t size() const { return size_; }
    const std::string& path() const { return path_; }

private:
    JournalStream(const std::string& path, int fd, uint64_t size);

    std::string path_;
    int fd_;
    uint64_t size_;
};

#endif  // CATALOG_SHADOW_JOURNALSTREAM_H_
