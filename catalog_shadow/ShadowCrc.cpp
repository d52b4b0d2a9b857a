// ShadowCrc: the running Adler-32.
#include "catalog_shadow/ShadowCrc.h"

#include "dct/file_io.h"

void ShadowCrc::append(const void* data, size_t length) { value_ = dct::adler32_update(value_, data, length); }
