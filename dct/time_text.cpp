#include "dct/time_text.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

namespace dct {

namespace {

bool all_digits(const std::string& s, size_t from, size_t to) {
    if (from >= to) return false;
    for (size_t i = from; i < to; ++i) {
        if (s[i] < '0' || s[i] > '9') return false;
    }
    return true;
}

bool to_int64(const std::string& s, int64_t* out) {
    errno = 0;
    char* end = nullptr;
    const long long v = strtoll(s.c_str(), &end, 10);
    if (errno != 0 || end == s.c_str() || *end != '\0') return false;
    *out = v;
    return true;
}

// Reads exactly `width` digits at `pos`.
bool digits_at(const std::string& s, size_t pos, size_t width, int* out) {
    if (pos + width > s.size() || !all_digits(s, pos, pos + width)) return false;
    *out = atoi(s.substr(pos, width).c_str());
    return true;
}

bool parse_relative(const std::string& text, int64_t now, int64_t* out) {
    if (text.size() < 3 || (text[0] != '-' && text[0] != '+')) return false;
    const char unit = text.back();
    int64_t seconds;
    switch (unit) {
        case 's': seconds = 1; break;
        case 'm': seconds = 60; break;
        case 'h': seconds = 3600; break;
        case 'd': seconds = 86400; break;
        case 'w': seconds = 7 * 86400; break;
        default: return false;
    }
    if (!all_digits(text, 1, text.size() - 1)) return false;
    int64_t n;
    if (!to_int64(text.substr(1, text.size() - 2), &n) || n > INT64_MAX / seconds) return false;
    *out = text[0] == '-' ? now - n * seconds : now + n * seconds;
    return true;
}

bool parse_iso(const std::string& t, int64_t* out) {
    struct tm tm;
    memset(&tm, 0, sizeof(tm));
    int year, month, day;
    if (!digits_at(t, 0, 4, &year) || t.size() < 10 || t[4] != '-' || !digits_at(t, 5, 2, &month) ||
        t[7] != '-' || !digits_at(t, 8, 2, &day)) {
        return false;
    }
    int hour = 0, minute = 0, second = 0;
    int64_t offset = 0;
    size_t pos = 10;
    if (pos < t.size()) {
        if (t[pos] != 'T' && t[pos] != ' ') return false;
        if (!digits_at(t, pos + 1, 2, &hour) || pos + 3 >= t.size() || t[pos + 3] != ':' ||
            !digits_at(t, pos + 4, 2, &minute)) {
            return false;
        }
        pos += 6;
        if (pos < t.size() && t[pos] == ':') {
            if (!digits_at(t, pos + 1, 2, &second)) return false;
            pos += 3;
        }
        if (pos < t.size()) {
            if (t[pos] == 'Z' && pos + 1 == t.size()) {
                pos += 1;
            } else if (t[pos] == '+' || t[pos] == '-') {
                int oh, om;
                const std::string zone = t.substr(pos + 1);
                if (zone.size() == 5 && zone[2] == ':' && digits_at(zone, 0, 2, &oh) &&
                    digits_at(zone, 3, 2, &om)) {
                } else if (zone.size() == 4 && digits_at(zone, 0, 2, &oh) && digits_at(zone, 2, 2, &om)) {
                } else if (zone.size() == 2 && digits_at(zone, 0, 2, &oh)) {
                    om = 0;
                } else {
                    return false;
                }
                if (oh > 23 || om > 59) return false;
                offset = (t[pos] == '+' ? 1 : -1) * (oh * 3600 + om * 60);
                pos = t.size();
            } else {
                return false;
            }
        }
    }
    if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) {
        return false;
    }
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    const time_t t0 = timegm(&tm);
    // timegm normalises 2026-02-30 into March: such a date does not exist.
    if (tm.tm_mday != day || tm.tm_mon != month - 1) return false;
    *out = static_cast<int64_t>(t0) - offset;
    return true;
}

}  // namespace

bool parse_time(const std::string& text, int64_t now, int64_t* out) {
    if (text.empty()) return false;
    const size_t from = text[0] == '-' ? 1 : 0;
    if (all_digits(text, from, text.size())) return to_int64(text, out);
    if (parse_relative(text, now, out)) return true;
    return parse_iso(text, out);
}

}  // namespace dct
