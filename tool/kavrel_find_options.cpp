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

bool parse_count(const std::string& text, uint64_t* out) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
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

namespace {

// The arguments being read, and how often each group of options was given.
struct arg_reader {
    const std::vector<std::string>& args;
    int64_t now;
    std::string* error;
    size_t i = 0;
    int forms = 0;
    int results = 0;
    int limits = 0;

    const std::string& arg() const { return args[i]; }

    // The option's value, or false with the error set.
    bool value(std::string* v) {
        if (i + 1 >= args.size()) {
            *error = arg() + " needs a value";
            return false;
        }
        *v = args[++i];
        return true;
    }

    // A text filter value: "|" is refused.
    bool text_value(bool* flag, std::string* v) {
        const std::string name = arg();
        if (!value(v)) return false;
        if (const char* why = appdb::catalog_filter_value_refusal(*v)) {
            *error = name + " \"" + *v + "\" " + why;
            return false;
        }
        *flag = true;
        return true;
    }

    bool time_value(bool* flag, int64_t* t) {
        const std::string name = arg();
        std::string v;
        if (!value(&v)) return false;
        if (!parse_time(v, now, t)) {
            *error = name + ": \"" + v + "\" is not a time (seconds, 2026-11-25, 2026-11-25T08:30:00Z, -7d)";
            return false;
        }
        *flag = true;
        return true;
    }
};

// The options that take a value of the search: where and what.
bool take_search_option(arg_reader& in, options* o, bool* taken) {
    const std::string arg = in.arg();
    std::string v;
    *taken = true;
    if (arg == "--registry") return in.value(&o->registry);
    if (arg == "--dbpath") return in.value(&o->dbpath);
    if (arg == "--dsid") {
        uint64_t n;
        if (!in.value(&v)) return false;
        if (!parse_count(v, &n) || n > UINT32_MAX) {
            *in.error = "--dsid: \"" + v + "\" is not a data store id";
            return false;
        }
        o->by_dsid = true;
        o->dsid = static_cast<uint32_t>(n);
        return true;
    }
    if (arg == "--client") return in.text_value(&o->by_client, &o->client);
    if (arg == "--policy") return in.text_value(&o->by_policy, &o->policy);
    if (arg == "--backup-id") return in.text_value(&o->filter.by_backup_id, &o->filter.backup_id);
    if (arg == "--file-name") return in.text_value(&o->filter.by_file_name, &o->filter.file_name);
    if (arg == "--owner") return in.text_value(&o->filter.by_owner, &o->filter.owner);
    if (arg == "--since") return in.time_value(&o->filter.by_since, &o->filter.since);
    if (arg == "--until") return in.time_value(&o->filter.by_until, &o->filter.until);
    if (arg == "--expires-before") return in.time_value(&o->filter.by_expires_before, &o->filter.expires_before);
    *taken = false;
    return true;
}

// The options of the output: its form, order and kind of result.
bool take_output_option(arg_reader& in, options* o) {
    const std::string arg = in.arg();
    std::string v;
    if (arg == "--json-lines" || arg == "--csv") {
        o->form = arg == "--csv" ? output_form::csv : output_form::json_lines;
        ++in.forms;
    } else if (arg == "--format") {
        if (!in.value(&o->format)) return false;
        o->form = output_form::format;
        ++in.forms;
    } else if (arg == "--sort") {
        if (!in.value(&v)) return false;
        o->sort = true;
        o->sort_descending = !v.empty() && v[0] == '-';
        o->sort_field = o->sort_descending ? v.substr(1) : v;
        if (item_column_named(o->sort_field) == nullptr) {
            *in.error = "--sort: unknown field " + o->sort_field;
            return false;
        }
    } else if (arg == "--first" || arg == "--last") {
        if (!in.value(&v)) return false;
        if (!parse_count(v, &o->limit)) {
            *in.error = arg + ": \"" + v + "\" is not a number";
            return false;
        }
        o->first = arg == "--first";
        o->last = arg == "--last";
        ++in.limits;
    } else if (arg == "--count" || arg == "--summary") {
        o->result = arg == "--count" ? result_kind::count : result_kind::summary;
        ++in.results;
    } else if (arg == "-h" || arg == "--help") {
        o->help = true;
    } else {
        *in.error = "unknown argument " + arg;
        return false;
    }
    return true;
}

// The rules between the options; false with the error set when one is broken.
bool check_options(const arg_reader& in, const options* o, std::string* error) {
    const char* broken = nullptr;
    if (!o->registry.empty() && !o->dbpath.empty()) {
        broken = "give either --registry or --dbpath";
    } else if (in.forms > 1) {
        broken = "give one of --json-lines, --csv and --format";
    } else if (in.limits > 1) {
        broken = "give one --first or --last";
    } else if (in.results > 1) {
        broken = "give either --count or --summary";
    } else if (o->result != result_kind::items && (o->sort || o->first || o->last)) {
        broken = "--sort, --first and --last order items; they do not go with --count or --summary";
    } else if (o->result == result_kind::count && o->form != output_form::line) {
        broken = "--count prints one number; it takes no output form";
    }
    if (broken != nullptr) {
        *error = broken;
        return false;
    }
    if (o->form != output_form::format) return true;
    const bool summary = o->result == result_kind::summary;
    return check_template(o->format, [&](const std::string& name) {
        if (!summary) return item_column_named(name) != nullptr;
        for (size_t k = 0; k < kSummaryColumnCount; ++k) {
            if (name == kSummaryColumns[k]) return true;
        }
        return false;
    }, error);
}

}  // namespace

bool parse_args(const std::vector<std::string>& args, int64_t now, options* o, std::string* error) {
    arg_reader in{args, now, error};
    for (; in.i < args.size(); ++in.i) {
        bool taken = false;
        if (!take_search_option(in, o, &taken)) return false;
        if (!taken && !take_output_option(in, o)) return false;
    }
    return o->help || check_options(in, o, error);
}

}  // namespace kfind
