#include "dct/inifile.h"

#include <ctype.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <exception>
#include <fstream>
#include <string>

#include "dct/log.h"

namespace {

// One key found in a file: its trimmed value and the line it stands on
// (counted from 1), so that a value that cannot be used can be pointed at.
struct found_value {
    std::string text;
    unsigned line = 0;
};

bool is_blank(char c) { return isspace(static_cast<unsigned char>(c)) != 0; }

// `text` without its leading and trailing blanks (including a CR left by a
// CRLF line end).
std::string trimmed(const std::string& text) {
    size_t b = 0, e = text.size();
    while (b < e && is_blank(text[b])) ++b;
    while (e > b && is_blank(text[e - 1])) --e;
    return text.substr(b, e - b);
}

// A ';' after a blank starts a remark; one right after text is part of the
// value (paths may hold it).
std::string without_remark(const std::string& value) {
    for (size_t i = 1; i < value.size(); ++i)
        if (value[i] == ';' && is_blank(value[i - 1])) return value.substr(0, i);
    return value;
}

bool same_name(const std::string& a, const char* b) {
    return a.size() == strlen(b) && strncasecmp(a.c_str(), b, a.size()) == 0;
}

// Looks `key` up in `section` of `file`. Lines are read whole whatever their
// length, so a long value is never cut and its tail never read as a line of
// its own. The first matching key of the first matching section wins; lines
// that are neither a section, a key nor a comment are skipped so that one
// broken line does not hide the keys after it. Returns 0 with the value,
// CR_STATUS_NOT_FOUND for a missing file, section or key, and
// CR_STATUS_FAILED (logged) for a value holding a NUL byte, which no caller
// could take whole.
cr_status_t find_value(const char* file, const char* section, const char* key, found_value* out) {
    if (file == nullptr || section == nullptr || key == nullptr) return CR_STATUS_NOT_FOUND;
    std::ifstream in(file, std::ios::in | std::ios::binary);
    if (!in) return CR_STATUS_NOT_FOUND;  // missing or unreadable file
    std::string line;
    std::string current;
    unsigned number = 0;
    bool broken = false;
    try {
        while (std::getline(in, line)) {
            ++number;
            if (number == 1 && line.compare(0, 3, "\xEF\xBB\xBF") == 0) line.erase(0, 3);
            std::string text = trimmed(line);
            if (text.empty() || text[0] == ';' || text[0] == '#') continue;
            if (text[0] == '[') {
                size_t close = text.find(']');
                if (close != std::string::npos) current = trimmed(text.substr(1, close - 1));
                continue;
            }
            size_t sep = text.find_first_of("=:");
            if (sep == std::string::npos || !same_name(current, section)) continue;
            if (!same_name(trimmed(text.substr(0, sep)), key)) continue;
            std::string value = trimmed(without_remark(text.substr(sep + 1)));
            if (value.find('\0') != std::string::npos) {
                ErrorA(CR_STATUS_FAILED, "Configuration file %s, line %u: the value of %s holds a NUL byte",
                       file, number, key);
                return CR_STATUS_FAILED;
            }
            out->text = value;
            out->line = number;
            return CR_STATUS_OK;
        }
    } catch (const std::exception&) {
        broken = true;  // a line too large for memory: nothing after it can be trusted
    }
    // A read error (a directory, a failing disk) ends the loop before the
    // partial line is looked at: the file then reads as one without the key,
    // like an unreadable one.
    if (broken) {
        ErrorA(CR_STATUS_FAILED, "Configuration file %s, line %u cannot be read whole", file, number + 1);
        return CR_STATUS_FAILED;
    }
    return CR_STATUS_NOT_FOUND;
}

// Copies `value` cut to `capacity - 1` characters; only defaults are ever cut.
void copy_out(const char* value, char* buf, size_t capacity) {
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
    found_value value;
    cr_status_t status = find_value(file, section, key, &value);
    if (status == CR_STATUS_OK && value.text.size() >= capacity) {
        // A cut path would name another place; refuse it rather than use it.
        ErrorA(CR_STATUS_FAILED,
               "Configuration file %s, line %u: the value of %s is %zu characters long, more than the %zu "
               "that can be read",
               file, value.line, key, value.text.size(), capacity - 1);
        status = CR_STATUS_FAILED;
    }
    if (status == CR_STATUS_OK) {
        memcpy(buf, value.text.c_str(), value.text.size() + 1);
        return CR_STATUS_OK;
    }
    copy_out(defval != nullptr ? defval : "", buf, capacity);
    return status;
}

cr_status_t InifileGetPathA(const char* file, const char* section, const char* key,
                            const char* defval, char* buf, size_t capacity) {
    return InifileGetValueA(file, section, key, defval, buf, capacity);
}

cr_status_t InifileGetBooleanA(const char* file, const char* section, const char* key,
                               bool defval, bool* out) {
    if (out == nullptr) return CR_STATUS_FAILED;
    *out = defval;
    found_value found;
    cr_status_t status = find_value(file, section, key, &found);
    if (status != CR_STATUS_OK) return status;
    const std::string& value = found.text;
    bool b;
    if (!parse_bool(value, &b)) return CR_STATUS_FAILED;
    *out = b;
    return CR_STATUS_OK;
}

cr_status_t InifileGetUIntegerA(const char* file, const char* section, const char* key,
                                unsigned long defval, unsigned long* out) {
    if (out == nullptr) return CR_STATUS_FAILED;
    *out = defval;
    found_value found;
    cr_status_t status = find_value(file, section, key, &found);
    if (status != CR_STATUS_OK) return status;
    const std::string& value = found.text;
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
    found_value found;
    cr_status_t status = find_value(file, section, key, &found);
    if (status != CR_STATUS_OK) return status;
    const std::string& value = found.text;
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
