#include "appdb/app_catalog_item.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zlib.h>

#include <charconv>

#include "appdb/catalog_fields.h"
#include "dct/log.h"

namespace appdb {

namespace {

// Appends the decimal form of `v` without going through a stream.
template <typename Int>
void append_number(std::string& out, Int v) {
    char buf[24];
    auto res = std::to_chars(buf, buf + sizeof(buf), v);
    out.append(buf, res.ptr);
}

void append_field(std::string& out, uint64_t v) {
    append_number(out, v);
    out.push_back('|');
}

void append_field(std::string& out, const std::string& v) {
    out.append(v);
    out.push_back('|');
}

constexpr size_t kLabelWidth = 25;

void append_labelled(std::string& out, const char* label, const std::string& value) {
    size_t n = strlen(label);
    out.append(label, n);
    if (n < kLabelWidth) out.append(kLabelWidth - n, ' ');
    out.append(value);
    out.push_back('\n');
}

void append_labelled(std::string& out, const char* label, uint64_t value) {
    char buf[24];
    auto res = std::to_chars(buf, buf + sizeof(buf), value);
    append_labelled(out, label, std::string(buf, res.ptr));
}

}  // namespace

const char* owner_role_str(uint32_t role) {
    switch (role) {
        case APP_ROLE_ADMIN:
            return "admin";
        case APP_ROLE_APP:
            return "app";
        default:
            return "unknown role";
    }
}

app_catalog_item::app_catalog_item()
    : version(1),
      file_len(0),
      policy_type(4),
      schedule_type(0),
      frag_nums(0),
      app_expire_time(0),
      orvo_expire_time(0),
      backup_start_time(0),
      backup_stop_time(0),
      owner_role(APP_ROLE_APP) {}

app_catalog_item::app_catalog_item(const app_catalog_item& other) = default;
app_catalog_item& app_catalog_item::operator=(const app_catalog_item& other) = default;
app_catalog_item::app_catalog_item(app_catalog_item&& other) noexcept = default;
app_catalog_item& app_catalog_item::operator=(app_catalog_item&& other) noexcept = default;
app_catalog_item::~app_catalog_item() = default;

std::string app_catalog_item::to_string() const {
    std::string out;
    size_t text_bytes = 0;
    for (const catalog_field& f : catalog_fields) {
        if (f.is_text()) text_bytes += (this->*f.text).size();
    }
    out.reserve(128 + text_bytes);
    for (const catalog_field& f : catalog_fields) {
        switch (f.kind) {
            case field_kind::u32:
            case field_kind::role:
                append_field(out, this->*f.u32);
                break;
            case field_kind::u64:
                append_field(out, this->*f.u64);
                break;
            case field_kind::time:
                // Times deliberately print as unsigned 64-bit (two's complement).
                append_field(out, static_cast<uint64_t>(this->*f.i64));
                break;
            case field_kind::text:
                append_field(out, this->*f.text);
                break;
        }
    }
    return out;
}

std::string app_catalog_item::time_display(int64_t t, const time_formatter& formatter) {
    if (formatter) return formatter(t);
    return std::to_string(t);
}

std::string app_catalog_item::to_json_string(std::function<std::string(int64_t)> formatter) const {
    std::string out;
    out.reserve(1024);
    out.append("{\n");
    for (const catalog_field& f : catalog_fields) {
        switch (f.kind) {
            case field_kind::u32:
                append_labelled(out, f.label, this->*f.u32);
                break;
            case field_kind::role:
                append_labelled(out, f.label, owner_role_str(this->*f.u32));
                break;
            case field_kind::u64:
                append_labelled(out, f.label, this->*f.u64);
                break;
            case field_kind::time:
                append_labelled(out, f.label, time_display(this->*f.i64, formatter));
                break;
            case field_kind::text:
                append_labelled(out, f.label, this->*f.text);
                break;
        }
    }
    out.push_back('}');
    return out;
}

const char* unstorable_text_field(const app_catalog_item& item) {
    // The stored text fields are the text columns; client and policy name
    // the database and are checked as names.
    for (const catalog_column& column : catalog_columns) {
        if (!column.checked) continue;
        const catalog_field& f = catalog_fields[column.field];
        if (f.is_text() && (item.*f.text).find('\0') != std::string::npos) return f.label;
    }
    return nullptr;
}

bool from_string(std::istringstream& in, app_catalog_item& item) {
    std::string token;
    for (size_t i = 0; i < catalog_field_count; ++i) {
        // getline fails only when nothing at all is left; a last token without
        // its "|" still counts.
        if (!std::getline(in, token, '|')) return false;
        if (__dctlog_trace_location.load(std::memory_order_relaxed)) {
            char buf[1024];
            snprintf(buf, sizeof(buf), "%s: index %zu, token %s", "from_string", i, token.c_str());
            __TraceA("%s: %s", "from_string", buf);
        }
        const catalog_field& f = catalog_fields[i];
        if (f.is_text()) {
            item.*f.text = token;
        } else {
            // Numbers are read as they always were: atoll, unchecked.
            f.set_number(item, static_cast<int64_t>(atoll(token.c_str())));
        }
    }
    return true;
}

uint32_t CRCAppend(uint32_t adler, const unsigned char* data, size_t length) {
    // adler32_z takes a size_t length, so no chunking is needed for large data.
    return static_cast<uint32_t>(adler32_z(adler, data, length));
}

}  // namespace appdb
