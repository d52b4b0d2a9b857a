// Status codes shared by every layer of kavrel, and the errno mapping.
#ifndef DCT_STATUS_H_
#define DCT_STATUS_H_

#include <stdint.h>

typedef uint32_t cr_status_t;

constexpr cr_status_t CR_STATUS_OK = 0;              // success
constexpr cr_status_t CR_STATUS_MISSING = 2;         // missing, or not opened
constexpr cr_status_t CR_STATUS_EXISTS = 3;          // database file already exists
constexpr cr_status_t CR_STATUS_FAILED = 4;          // general failure or bad argument
constexpr cr_status_t CR_STATUS_BUSY = 11;           // busy, try again
constexpr cr_status_t CR_STATUS_IO = 21;             // input/output error, cannot open
constexpr cr_status_t CR_STATUS_NOMEM = 22;          // out of memory
constexpr cr_status_t CR_STATUS_EMPTY = 32;          // empty database file
constexpr cr_status_t CR_STATUS_CORRUPT = 67;        // corrupt database or row checksum mismatch
constexpr cr_status_t CR_STATUS_NOT_FOUND = 72;      // not found
constexpr cr_status_t CR_STATUS_ACCESS_DENIED = 106; // access denied
constexpr cr_status_t CR_STATUS_NONE = 0xFFFFFFFFu;  // "no status" for log lines that carry none

// The calling thread's last mapped status (set by _crMapError).
cr_status_t* __cr_errno_location();

// Maps the current errno to a status, stores it in *__cr_errno_location() and
// returns it. `function`, `source` and `line` say where the failure was met; they
// are kept for the trace log only. errno itself is left unchanged.
//   ENOENT, ENOTDIR -> 2     EEXIST, ENOTEMPTY -> 3     EBUSY, EAGAIN -> 11
//   EIO, ENOSPC, EROFS, EDQUOT, EFBIG -> 21             ENOMEM -> 22
//   EACCES, EPERM -> 106     anything else (and errno 0) -> 4
cr_status_t _crMapError(const char* function, const char* source, int line);

#endif  // DCT_STATUS_H_
