#include "dct/strutil.h"

#include <stdio.h>
#include <string.h>

size_t CRStringEscapeA(const char* in, char* out, size_t limit) {
    if (out == nullptr) return 0;
    size_t n = 0;
    if (in != nullptr) {
        for (const unsigned char* p = reinterpret_cast<const unsigned char*>(in); *p != '\0'; ++p) {
            char esc[5];
            size_t len;
            switch (*p) {
                case '\\': memcpy(esc, "\\\\", 2); len = 2; break;
                case '\'': memcpy(esc, "\\'", 2); len = 2; break;
                case '"': memcpy(esc, "\\\"", 2); len = 2; break;
                case '\n': memcpy(esc, "\\n", 2); len = 2; break;
                case '\t': memcpy(esc, "\\t", 2); len = 2; break;
                case '\r': memcpy(esc, "\\r", 2); len = 2; break;
                default:
                    if (*p < 0x20 || *p == 0x7f) {
                        snprintf(esc, sizeof(esc), "\\x%02X", *p);
                        len = 4;
                    } else {
                        esc[0] = static_cast<char>(*p);
                        len = 1;
                    }
            }
            if (n + len > limit) break;
            memcpy(out + n, esc, len);
            n += len;
        }
    }
    out[n] = '\0';
    return n;
}
