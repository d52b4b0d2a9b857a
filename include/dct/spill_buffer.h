// spill_buffer: bytes held back until the caller knows whether to emit them,
// in bounded memory. Up to a limit they stay in memory; past it they go to a
// temporary file that has no name (O_TMPFILE, or a file unlinked at once where
// the file system cannot make one), so nothing is left behind whatever ends
// the process. One buffer serves many rounds: clear() or write_to() empty it
// and keep the file for the next round.
#ifndef DCT_SPILL_BUFFER_H_
#define DCT_SPILL_BUFFER_H_

#include <stddef.h>
#include <stdio.h>

#include <string>

#include "dct/status.h"

namespace dct {

class spill_buffer {
public:
    // `memory_limit` bytes are held in memory (at least 1); the file goes
    // into `dir`, or into $TMPDIR (else /tmp) when `dir` is empty.
    explicit spill_buffer(size_t memory_limit, const std::string& dir = "");
    ~spill_buffer();
    spill_buffer(const spill_buffer&) = delete;
    spill_buffer& operator=(const spill_buffer&) = delete;

    // Appends `n` bytes (any bytes, NUL included). When the memory is full the
    // held bytes move to the file. When no file can be made the bytes stay in
    // memory past the limit (one warning per buffer), so nothing is lost. 0,
    // or the status of a failed write to the file (logged); throws
    // std::bad_alloc when memory runs out.
    cr_status_t append(const char* data, size_t n);

    // Writes everything appended since the last clear, in order, to `out`,
    // then empties the buffer. 0, or the status of a failed read of the file
    // or write to `out` (logged); the buffer is empty afterwards either way.
    cr_status_t write_to(FILE* out);

    // Forgets everything appended.
    void clear();

    // Bytes appended since the last clear.
    size_t size() const { return file_bytes_ + memory_.size(); }
    // Whether this round's bytes reached the file.
    bool spilled() const { return file_bytes_ > 0; }

private:
    // Makes the file; false (warned once) when it cannot be made.
    bool open_file();
    // Appends `n` bytes to the file; 0 or the logged status.
    cr_status_t write_file(const char* data, size_t n);
    // Moves the held bytes to the end of the file.
    cr_status_t flush_memory();

    size_t limit_;
    std::string dir_;
    std::string memory_;
    int fd_ = -1;
    bool no_file_ = false;     // creation failed: memory only from now on
    size_t file_bytes_ = 0;    // this round's bytes in the file
};

}  // namespace dct

#endif  // DCT_SPILL_BUFFER_H_
