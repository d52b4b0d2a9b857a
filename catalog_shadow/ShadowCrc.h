// ShadowCrc: the running Adler-32 (zlib's adler32) of every sum the shadow
// keeps: version databases, journals, the checksum file's own lines.
//
// A sum starts at 1 and can be continued from a value taken earlier, so that a
// journal's sum grows line by line. Inputs of any length are taken (zlib's
// length type is narrower; longer buffers are fed in pieces). Not locked: a
// value type.
#ifndef CATALOG_SHADOW_SHADOWCRC_H_
#define CATALOG_SHADOW_SHADOWCRC_H_

#include <stddef.h>
#include <stdint.h>

#include <string>

class ShadowCrc {
public:
    ShadowCrc() : value_(1) {}
    // Continues a sum taken earlier.
    explicit ShadowCrc(uint32_t value) : value_(value) {}
    void append(const std::string& text) { append(text.data(), text.size()); }
    void append(const void* data, size_t length);
    uint32_t value() const { return value_; }

private:
    uint32_t value_;
};

#endif  // CATALOG_SHADOW_SHADOWCRC_H_
