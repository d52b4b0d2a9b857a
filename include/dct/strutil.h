// String helpers of the platform layer.
#ifndef DCT_STRUTIL_H_
#define DCT_STRUTIL_H_

#include <stddef.h>

// Escapes `in` into `out` for safe display: backslash, both quote characters and
// control bytes are written as C escapes (\\, \', \", \n, \t, \r, \xHH). Writes at
// most `limit` characters and a NUL (so `out` holds limit + 1 bytes). Returns the
// number of characters written; an escape that does not fit whole is left out
// and the output stops there.
size_t CRStringEscapeA(const char* in, char* out, size_t limit);

#endif  // DCT_STRUTIL_H_
