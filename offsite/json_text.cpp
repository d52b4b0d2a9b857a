#include "offsite/json_text.h"

#include <time.h>

namespace ktool {

namespace {

const char kHexKey[] = "hex";
const char kHexDigits[] = "0123456789abcdef";

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

bool is_utf8(const std::string& bytes) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const size_t n = bytes.size();
    size_t i = 0;
    while (i < n) {
        const unsigned char c = p[i];
        if (c < 0x80) {
            ++i;
            continue;
        }
        size_t extra;
        uint32_t cp;
        if (c >= 0xC2 && c <= 0xDF) {
            extra = 1;
            cp = c & 0x1F;
        } else if (c >= 0xE0 && c <= 0xEF) {
            extra = 2;
            cp = c & 0x0F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            extra = 3;
            cp = c & 0x07;
        } else {
            return false;  // a continuation byte, an overlong lead (C0, C1) or F5..FF
        }
        if (n - i - 1 < extra) return false;
        for (size_t k = 1; k <= extra; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (p[i + k] & 0x3F);
        }
        if ((extra == 2 && cp < 0x800) || (extra == 3 && cp < 0x10000)) return false;  // overlong
        if (cp >= 0xD800 && cp <= 0xDFFF) return false;                                // surrogate
        if (cp > 0x10FFFF) return false;
        i += extra + 1;
    }
    return true;
}

json json_text(const std::string& bytes) {
    if (is_utf8(bytes)) return json(bytes);
    std::string hex;
    hex.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        hex.push_back(kHexDigits[c >> 4]);
        hex.push_back(kHexDigits[c & 0x0F]);
    }
    json object = json::object();
    object[kHexKey] = hex;
    return object;
}

bool json_text_bytes(const json& value, std::string* bytes) {
    if (value.is_string()) {
        *bytes = value.get<std::string>();
        return true;
    }
    if (!value.is_object() || value.size() != 1 || !value.contains(kHexKey) ||
        !value[kHexKey].is_string()) {
        return false;
    }
    const std::string& hex = value[kHexKey].get_ref<const std::string&>();
    if (hex.size() % 2 != 0) return false;
    std::string out;
    out.reserve(hex.size() / 2);
    for (size_t i = 0; i < hex.size(); i += 2) {
        const int hi = hex_value(hex[i]);
        const int lo = hex_value(hex[i + 1]);
        if (hi < 0 || lo < 0) return false;
        out.push_back(static_cast<char>(hi * 16 + lo));
    }
    *bytes = out;
    return true;
}

std::string iso8601_utc(int64_t seconds) {
    const time_t t = static_cast<time_t>(seconds);
    struct tm tm;
    char buf[64];
    if (gmtime_r(&t, &tm) == nullptr ||
        strftime(buf, sizeof(buf), "%Y-%m-%dT%H:%M:%SZ", &tm) == 0) {
        return std::string();
    }
    return buf;
}

std::string json_line(const json& value) {
    // Every text went through json_text, so no invalid UTF-8 reaches dump.
    return value.dump();
}

}  // namespace ktool
