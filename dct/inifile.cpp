#include "dct/inifile.h"

#include <ctype.h>
#include <errno.h>
#include <ini.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <string>

namespace {

struct lookup {
    const char* section;
    const char* key;
    bool found = false;
    std::string value;
};

int on_entry(void* user, const char* section, const char* name, const char* value) {
    lookup* l = static_cast<lookup*>(user);
    if (!l->found && strcasecmp(section, l->section) == 0 && strcasecmp(name, l->key) == 0) {
        l->found = true;
        l->value = value != nullptr ? value : "";
    }
    return 1;  // keep going: parse errors elsewhere in the file must not hide a key
}

// True when the key is present; its raw (trimmed) value in `value`.
bool find_value(const char* file, const char* section, const char* key, std::string& value) {
    if (file == nullptr || section == nullptr || key == nullptr) return false;
    lookup l;
    l.section = section;
    l.key = key;
    if (ini_parse(file, on_entry, &l) < 0) return false;  // missing or unreadable file
    if (!l.found) return false;
    value = l.value;
    return true;
}

void copy_out(const char* value, char* buf, size_t capacity) {
    if (buf == nullptr || capacity == 0) return;
    size_t n = strnlen(value, capacity - 1);
    memcpy(buf, value, n);
    buf[n] = '\0';
}

bool parse_bool(const std::string& v, bool* out) {
    static const char* yes[] = {"1", "true", "yes", "on"};
    static const char* no[] = {"0", "false", "no", "off"};
    for (const char* w : yes)
        if (strcasecmp(v.c_str(), w) == 0) return *out = true, true;
    for (const char* w : no)
        if (strcasecmp(v.c_str(), w) == 0) return *out = false, true;
    return false;
}

bool parse_unsigned(const std::string& v, unsigned long long* out, const char** rest) {
    if (v.empty() || !isdigit(static_cast<unsigned char>(v[0]))) return false;
    errno = 0;
    char* end = nullptr;
    unsigned long long n = strtoull(v.c_str(), &end, 10);
    if (errno == ERANGE) return false;
    *out = n;
    *rest = end;
    return true;
}

}  // namespace

cr_status_t InifileGetValueA(const char* file, const char* section, const char* key,
                             const char* defval, char* buf, size_t capacity) {
    if (buf == nullptr || capacity == 0) return CR_STATUS_FAILED;
    std::string value;
    if (find_value(file, section, key, value)) {
        copy_out(value.c_str(), buf, capacity);
        return CR_STATUS_OK;
    }
    copy_out(defval != nullptr ? defval : "", buf, capacity);
    return CR_STATUS_NOT_FOUND;
}

cr_status_t InifileGetPathA(const char* file, const char* section, const char* key,
                            const char* defval, char* buf, size_t capacity) {
    return InifileGetValueA(file, section, key, defval, buf, capacity);
}

cr_status_t InifileGetBooleanA(const char* file, const char* section, const char* key,
                               bool defval, bool* out) {
    if (out == nullptr) return CR_STATUS_FAILED;
    *out = defval;
    std::string value;
    if (!find_value(file, section, key, value)) return CR_STATUS_NOT_FOUND;
    bool b;
    if (!parse_bool(value, &b)) return CR_STATUS_FAILED;
    *out = b;
    return CR_STATUS_OK;
}

cr_status_t InifileGetUIntegerA(const char* file, const char* section, const char* key,
                                unsigned long defval, unsigned long* out) {
    if (out == nullptr) return CR_STATUS_FAILED;
    *out = defval;
    std::string value;
    if (!find_value(file, section, key, value)) return CR_STATUS_NOT_FOUND;
    unsigned long long n;
    const char* rest;
    if (!parse_unsigned(value, &n, &rest) || *rest != '\0') return CR_STATUS_FAILED;
    *out = static_cast<unsigned long>(n);
    return CR_STATUS_OK;
}

cr_status_t InifileGetSizeA(const char* file, const char* section, const char* key,
                            uint64_t defval, uint64_t* out) {
    if (out == nullptr) return CR_STATUS_FAILED;
    *out = defval;
    std::string value;
    if (!find_value(file, section, key, value)) return CR_STATUS_NOT_FOUND;
    unsigned long long n;
    const char* rest;
    if (!parse_unsigned(value, &n, &rest)) return CR_STATUS_FAILED;
    while (*rest == ' ' || *rest == '\t') ++rest;
    unsigned shift = 0;
    switch (*rest) {
        case '\0': break;
        case 'k': case 'K': shift = 10; ++rest; break;
        case 'm': case 'M': shift = 20; ++rest; break;
        case 'g': case 'G': shift = 30; ++rest; break;
        default: return CR_STATUS_FAILED;
    }
    if (*rest != '\0') return CR_STATUS_FAILED;
    if (shift != 0 && n > (~0ULL >> shift)) return CR_STATUS_FAILED;
    *out = static_cast<uint64_t>(n << shift);
    return CR_STATUS_OK;
}
