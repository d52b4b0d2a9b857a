#include "appdb/app_catalog_item.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zlib.h>

#include <charconv>

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
    out.reserve(128 + file_name.size() + backup_id.size() + policy.size() + client.size() +
                app_id.size() + data_object.size() + owner.size() + description.size() +
                reserver0.size() + reserver1.size() + reserver2.size() + reserver3.size() +
                reserver4.size() + reserver5.size() + reserver6.size() + reserver7.size() +
                reserver8.size() + reserver9.size());
    append_field(out, version);
    append_field(out, file_name);
    append_field(out, file_len);
    append_field(out, backup_id);
    append_field(out, policy);
    append_field(out, policy_type);
    append_field(out, schedule_type);
    append_field(out, frag_nums);
    append_field(out, client);
    append_field(out, app_id);
    append_field(out, data_object);
    // Times deliberately print as unsigned 64-bit (two's complement).
    append_field(out, static_cast<uint64_t>(app_expire_time));
    append_field(out, static_cast<uint64_t>(orvo_expire_time));
    append_field(out, static_cast<uint64_t>(backup_start_time));
    append_field(out, static_cast<uint64_t>(backup_stop_time));
    append_field(out, owner);
    append_field(out, owner_role);
    append_field(out, description);
    append_field(out, reserver0);
    append_field(out, reserver1);
    append_field(out, reserver2);
    append_field(out, reserver3);
    append_field(out, reserver4);
    append_field(out, reserver5);
    append_field(out, reserver6);
    append_field(out, reserver7);
    append_field(out, reserver8);
    append_field(out, reserver9);
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
    append_labelled(out, "version:", version);
    append_labelled(out, "file name:", file_name);
    append_labelled(out, "file len:", file_len);
    append_labelled(out, "backup id:", backup_id);
    append_labelled(out, "policy:", policy);
    append_labelled(out, "policy type:", policy_type);
    append_labelled(out, "schedule type:", schedule_type);
    append_labelled(out, "fragment numbers:", frag_nums);
    append_labelled(out, "client:", client);
    append_labelled(out, "appid:", app_id);
    append_labelled(out, "data object:", data_object);
    append_labelled(out, "app expire time:", time_display(app_expire_time, formatter));
    append_labelled(out, "orvo expire time:", time_display(orvo_expire_time, formatter));
    append_labelled(out, "backup start time:", time_display(backup_start_time, formatter));
    append_labelled(out, "backup stop time:", time_display(backup_stop_time, formatter));
    append_labelled(out, "owner:", owner);
    append_labelled(out, "owner role:", owner_role_str(owner_role));
    append_labelled(out, "description:", description);
    append_labelled(out, "reserver0:", reserver0);
    append_labelled(out, "reserver1:", reserver1);
    append_labelled(out, "reserver2:", reserver2);
    append_labelled(out, "reserver3:", reserver3);
    append_labelled(out, "reserver4:", reserver4);
    append_labelled(out, "reserver5:", reserver5);
    append_labelled(out, "reserver6:", reserver6);
    append_labelled(out, "reserver7:", reserver7);
    append_labelled(out, "reserver8:", reserver8);
    append_labelled(out, "reserver9:", reserver9);
    out.push_back('}');
    return out;
}

const char* unstorable_text_field(const app_catalog_item& item) {
    const struct {
        const char* label;
        const std::string& text;
    } fields[] = {
        {"file name:", item.file_name},     {"backup id:", item.backup_id},
        {"appid:", item.app_id},            {"data object:", item.data_object},
        {"owner:", item.owner},             {"description:", item.description},
        {"reserver0:", item.reserver0},     {"reserver1:", item.reserver1},
        {"reserver2:", item.reserver2},     {"reserver3:", item.reserver3},
        {"reserver4:", item.reserver4},     {"reserver5:", item.reserver5},
        {"reserver6:", item.reserver6},     {"reserver7:", item.reserver7},
        {"reserver8:", item.reserver8},     {"reserver9:", item.reserver9},
    };
    for (const auto& f : fields) {
        if (f.text.find('\0') != std::string::npos) return f.label;
    }
    return nullptr;
}

bool from_string(std::istringstream& in, app_catalog_item& item) {
    constexpr int kFields = 28;
    std::string token;
    for (int i = 0; i < kFields; ++i) {
        // getline fails only when nothing at all is left; a last token without
        // its "|" still counts.
        if (!std::getline(in, token, '|')) return false;
        if (__dctlog_trace_location.load(std::memory_order_relaxed)) {
            char buf[1024];
            snprintf(buf, sizeof(buf), "%s: index %d, token %s", "from_string", i, token.c_str());
            __TraceA("%s: %s", "from_string", buf);
        }
        const char* s = token.c_str();
        switch (i) {
            case 0: item.version = static_cast<uint32_t>(atol(s)); break;
            case 1: item.file_name = token; break;
            case 2: item.file_len = static_cast<uint64_t>(atoll(s)); break;
            case 3: item.backup_id = token; break;
            case 4: item.policy = token; break;
            case 5: item.policy_type = static_cast<uint32_t>(atol(s)); break;
            case 6: item.schedule_type = static_cast<uint32_t>(atol(s)); break;
            case 7: item.frag_nums = static_cast<uint32_t>(atol(s)); break;
            case 8: item.client = token; break;
            case 9: item.app_id = token; break;
            case 10: item.data_object = token; break;
            case 11: item.app_expire_time = atoll(s); break;
            case 12: item.orvo_expire_time = atoll(s); break;
            case 13: item.backup_start_time = atoll(s); break;
            case 14: item.backup_stop_time = atoll(s); break;
            case 15: item.owner = token; break;
            case 16: item.owner_role = static_cast<uint32_t>(atol(s)); break;
            case 17: item.description = token; break;
            case 18: item.reserver0 = token; break;
            case 19: item.reserver1 = token; break;
            case 20: item.reserver2 = token; break;
            case 21: item.reserver3 = token; break;
            case 22: item.reserver4 = token; break;
            case 23: item.reserver5 = token; break;
            case 24: item.reserver6 = token; break;
            case 25: item.reserver7 = token; break;
            case 26: item.reserver8 = token; break;
            case 27: item.reserver9 = token; break;
        }
    }
    return true;
}

uint32_t CRCAppend(uint32_t adler, const unsigned char* data, size_t length) {
    // adler32_z takes a size_t length, so no chunking is needed for large data.
    return static_cast<uint32_t>(adler32_z(adler, data, length));
}

}  // namespace appdb
