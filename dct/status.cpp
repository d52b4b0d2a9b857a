#include "dct/status.h"

#include <errno.h>

#include "dct/log.h"

namespace {
thread_local cr_status_t tls_cr_errno = CR_STATUS_OK;
}

cr_status_t* __cr_errno_location() { return &tls_cr_errno; }

cr_status_t _crMapError(const char* function, const char* source, int line) {
    int err = errno;
    cr_status_t status;
    switch (err) {
        case ENOENT:
        case ENOTDIR:
            status = CR_STATUS_MISSING;
            break;
        case EEXIST:
        case ENOTEMPTY:
            status = CR_STATUS_EXISTS;
            break;
        case EBUSY:
        case EAGAIN:
            status = CR_STATUS_BUSY;
            break;
        case EIO:
        case ENOSPC:
        case EROFS:
        case EDQUOT:
        case EFBIG:
            status = CR_STATUS_IO;
            break;
        case ENOMEM:
            status = CR_STATUS_NOMEM;
            break;
        case EACCES:
        case EPERM:
            status = CR_STATUS_ACCESS_DENIED;
            break;
        default:
            status = CR_STATUS_FAILED;
            break;
    }
    *__cr_errno_location() = status;
    __TraceA("%s: errno %d mapped to %u at %s:%d", function != nullptr ? function : "?", err, status,
             source != nullptr ? source : "?", line);
    errno = err;
    return status;
}
