#include "tool/kavrel_find_options.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

namespace kfind {

const char kUsage[] =
    "Search the application catalog.\n"
    "Usage:\tkavrel-find [--registry FILE | --dbpath ROOT] [FILTERS] [--json-lines | --csv | --format TEMPLATE]\n"
    "\t            [--sort [-]FIELD] [--first N | --last N] [--count | --summary]\n"
    "Filters (all given must hold):\n"
    "\t--dsid N  --client GLOB  --policy GLOB  --backup-id GLOB  --file-name GLOB  --owner NAME\n"
    "\t--since TIME  --until TIME  (backup start time)   --expires-before TIME  (either expiry time)\n"
    "TIME: seconds since the epoch, 2026-11-25, 2026-11-25T08:30:00Z, or relative -7d, +24h (s m h d w).\n"
    "Exit status: 0 all read, 1 some databases skipped, 2 usage, 3 could not run.\n";

const char* const kSummaryColumns[] = {
    "dsid", "client", "policy", "items", "file_len",
    "oldest_backup_start_time", "oldest_backup_start_time_utc",
    "newest_backup_start_time", "newest_backup_start_time_utc",
    "earliest_expire_time", "earliest_expire_time_utc",
};
const size_t kSummaryColumnCount = sizeof(kSummaryColumns) / sizeof(kSummaryColumns[0]);

const std::vector<item_column>& item_columns() {
    static const std::vector<item_column> columns = [] {
        std::vector<item_column> c;
        c.push_back(item_column{column_kind::dsid, "dsid", nullptr});
        for (const appdb::catalog_field& f : appdb::catalog_fields) {
            c.push_back(item_column{column_kind::field, f.name, &f});
            if (f.kind == appdb::field_kind::time) {
                c.push_back(item_column{column_kind::utc, std::string(f.name) + "_utc", &f});
            }
        }
        return c;
    }();
    return columns;
}

const item_column* item_column_named(const std::string& name) {
    for (const item_column& c : item_columns()) {
        if (c.name == name) return &c;
    }
    return nullptr;
}

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

bool parse_count(const std::string& text, uint64_t* out) {
    if (!all_digits(text, 0, text.size())) return false;
    errno = 0;
    char* end = nullptr;
    const unsigned long long v = strtoull(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0') return false;
    *out = v;
    return true;
}

// Checks every {name} of a --format template against `known`.
template <typename Known>
bool check_template(const std::string& t, Known known, std::string* error) {
    for (size_t i = 0; i < t.size(); ++i) {
        if (t[i] == '{') {
            if (i + 1 < t.size() && t[i + 1] == '{') {
                ++i;
                continue;
            }
            const size_t close = t.find('}', i);
            if (close == std::string::npos) {
                *error = "--format: \"{\" without \"}\"";
                return false;
            }
            const std::string name = t.substr(i + 1, close - i - 1);
            if (!known(name)) {
                *error = "--format: unknown field {" + name + "}";
                return false;
            }
            i = close;
        } else if (t[i] == '}') {
            if (i + 1 < t.size() && t[i + 1] == '}') {
                ++i;
                continue;
            }
            *error = "--format: \"}\" without \"{\" (write \"}}\")";
            return false;
        }
    }
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

bool parse_args(const std::vector<std::string>& args, int64_t now, options* o, std::string* error) {
    int forms = 0;
    int results = 0;
    int limits = 0;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        // The option's value, or false with the error set.
        auto value = [&](std::string* v) {
            if (i + 1 >= args.size()) {
                *error = arg + " needs a value";
                return false;
            }
            *v = args[++i];
            return true;
        };
        // A text filter value: "|" is refused.
        auto text_value = [&](bool* flag, std::string* v) {
            if (!value(v)) return false;
            if (const char* why = appdb::catalog_filter_value_refusal(*v)) {
                *error = arg + " \"" + *v + "\" " + why;
                return false;
            }
            *flag = true;
            return true;
        };
        auto time_value = [&](bool* flag, int64_t* t) {
            std::string v;
            if (!value(&v)) return false;
            if (!parse_time(v, now, t)) {
                *error = arg + ": \"" + v + "\" is not a time (seconds, 2026-11-25, 2026-11-25T08:30:00Z, -7d)";
                return false;
            }
            *flag = true;
            return true;
        };
        std::string v;
        if (arg == "--registry") {
            if (!value(&o->registry)) return false;
        } else if (arg == "--dbpath") {
            if (!value(&o->dbpath)) return false;
        } else if (arg == "--dsid") {
            uint64_t n;
            if (!value(&v)) return false;
            if (!parse_count(v, &n) || n > UINT32_MAX) {
                *error = "--dsid: \"" + v + "\" is not a data store id";
                return false;
            }
            o->by_dsid = true;
            o->dsid = static_cast<uint32_t>(n);
        } else if (arg == "--client") {
            if (!text_value(&o->by_client, &o->client)) return false;
        } else if (arg == "--policy") {
            if (!text_value(&o->by_policy, &o->policy)) return false;
        } else if (arg == "--backup-id") {
            if (!text_value(&o->filter.by_backup_id, &o->filter.backup_id)) return false;
        } else if (arg == "--file-name") {
            if (!text_value(&o->filter.by_file_name, &o->filter.file_name)) return false;
        } else if (arg == "--owner") {
            if (!text_value(&o->filter.by_owner, &o->filter.owner)) return false;
        } else if (arg == "--since") {
            if (!time_value(&o->filter.by_since, &o->filter.since)) return false;
        } else if (arg == "--until") {
            if (!time_value(&o->filter.by_until, &o->filter.until)) return false;
        } else if (arg == "--expires-before") {
            if (!time_value(&o->filter.by_expires_before, &o->filter.expires_before)) return false;
        } else if (arg == "--json-lines") {
            o->form = output_form::json_lines;
            ++forms;
        } else if (arg == "--csv") {
            o->form = output_form::csv;
            ++forms;
        } else if (arg == "--format") {
            if (!value(&o->format)) return false;
            o->form = output_form::format;
            ++forms;
        } else if (arg == "--sort") {
            if (!value(&v)) return false;
            o->sort = true;
            o->sort_descending = !v.empty() && v[0] == '-';
            o->sort_field = o->sort_descending ? v.substr(1) : v;
            if (item_column_named(o->sort_field) == nullptr) {
                *error = "--sort: unknown field " + o->sort_field;
                return false;
            }
        } else if (arg == "--first" || arg == "--last") {
            if (!value(&v)) return false;
            if (!parse_count(v, &o->limit)) {
                *error = arg + ": \"" + v + "\" is not a number";
                return false;
            }
            o->first = arg == "--first";
            o->last = arg == "--last";
            ++limits;
        } else if (arg == "--count") {
            o->result = result_kind::count;
            ++results;
        } else if (arg == "--summary") {
            o->result = result_kind::summary;
            ++results;
        } else if (arg == "-h" || arg == "--help") {
            o->help = true;
        } else {
            *error = "unknown argument " + arg;
            return false;
        }
    }
    if (o->help) return true;
    if (!o->registry.empty() && !o->dbpath.empty()) {
        *error = "give either --registry or --dbpath";
        return false;
    }
    if (forms > 1) {
        *error = "give one of --json-lines, --csv and --format";
        return false;
    }
    if (limits > 1) {
        *error = "give one --first or --last";
        return false;
    }
    if (results > 1) {
        *error = "give either --count or --summary";
        return false;
    }
    if (o->result != result_kind::items && (o->sort || o->first || o->last)) {
        *error = "--sort, --first and --last order items; they do not go with --count or --summary";
        return false;
    }
    if (o->result == result_kind::count && o->form != output_form::line) {
        *error = "--count prints one number; it takes no output form";
        return false;
    }
    if (o->form == output_form::format) {
        const bool summary = o->result == result_kind::summary;
        const bool ok = check_template(o->format, [&](const std::string& name) {
            if (!summary) return item_column_named(name) != nullptr;
            for (size_t k = 0; k < kSummaryColumnCount; ++k) {
                if (name == kSummaryColumns[k]) return true;
            }
            return false;
        }, error);
        if (!ok) return false;
    }
    return true;
}

}  // namespace kfind
