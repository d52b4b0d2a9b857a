// ShadowCrc: the running Adler-32.
#include "catalog_shadow/ShadowCrc.h"

#include <zlib.h>

void ShadowCrc::append(const void* data, size_t length) {
    const Bytef* p = static_cast<const Bytef*>(data);
    // zlib takes lengths as uInt; feed larger buffers in pieces.
    while (length > 0) {
        uInt n = length > 0x40000000u ? 0x40000000u : static_cast<uInt>(length);
        value_ = static_cast<uint32_t>(adler32(value_, p, n));
        p += n;
        length -= n;
    }
}
