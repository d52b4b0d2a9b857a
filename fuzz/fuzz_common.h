// Shared pieces of the fuzz targets: a quiet log, a scratch directory per
// process, whole-file writes, and a check that aborts (so libFuzzer reports
// the input) when a property of the code under test does not hold.
#ifndef KAVREL_FUZZ_FUZZ_COMMON_H_
#define KAVREL_FUZZ_FUZZ_COMMON_H_

#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "dct/fs.h"
#include "dct/log.h"
#include "dct/sleep.h"

namespace fuzzk {

// Aborts with the failed condition; the sanitizer runtime prints the stack
// and libFuzzer saves the input.
#define FUZZ_CHECK(cond)                                                              \
    do {                                                                              \
        if (!(cond)) {                                                                \
            fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, #cond); \
            abort();                                                                  \
        }                                                                             \
    } while (0)

// Drops every log record (a fuzz run logs millions of expected failures)
// and makes busy retries instant. Call once, from LLVMFuzzerInitialize.
inline void quiet() {
    dct::set_log_sink([](dct::log_level, cr_status_t, const std::string&) {});
    dct::set_sleep_function([](unsigned) {});
}

// A directory of this process below $TMPDIR (or /tmp), made once and
// removed at exit.
inline const std::string& scratch_dir() {
    static const std::string dir = [] {
        const char* base = getenv("TMPDIR");
        std::string templ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/kavrel-fuzz-XXXXXX";
        if (mkdtemp(&templ[0]) == nullptr) {
            perror("mkdtemp");
            abort();
        }
        static std::string keep;
        keep = templ;
        atexit([] { wa_deletetree(keep); });
        return templ;
    }();
    return dir;
}

// Replaces `path` with exactly `size` bytes of `data`.
inline void write_bytes(const std::string& path, const uint8_t* data, size_t size) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    FUZZ_CHECK(fd >= 0);
    size_t done = 0;
    while (done < size) {
        ssize_t n = ::write(fd, data + done, size - done);
        FUZZ_CHECK(n > 0);
        done += static_cast<size_t>(n);
    }
    ::close(fd);
}

inline std::string read_all(const std::string& path) {
    std::string out;
    FILE* f = fopen(path.c_str(), "rb");
    if (f == nullptr) return out;
    char buf[8192];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), f)) > 0) out.append(buf, n);
    fclose(f);
    return out;
}

// Empties `dir` (creating it when missing).
inline void reset_dir(const std::string& dir) {
    wa_deletetree(dir);
    FUZZ_CHECK(wa_createtree(dir, 0755) == 0);
}

}  // namespace fuzzk

#endif  // KAVREL_FUZZ_FUZZ_COMMON_H_
