#include "tool/json_writer.h"

#include <stdio.h>

namespace kshadow {

void JsonWriter::separate() {
    if (after_key_) {
        after_key_ = false;
        return;
    }
    if (!first_.empty()) {
        if (!first_.back()) out_ += ',';
        first_.back() = false;
    }
}

void JsonWriter::begin_object() {
    separate();
    out_ += '{';
    first_.push_back(true);
}

void JsonWriter::end_object() {
    out_ += '}';
    first_.pop_back();
}

void JsonWriter::begin_array() {
    separate();
    out_ += '[';
    first_.push_back(true);
}

void JsonWriter::end_array() {
    out_ += ']';
    first_.pop_back();
}

void JsonWriter::key(const std::string& name) {
    value(name);
    out_ += ':';
    after_key_ = true;
}

void JsonWriter::value(const std::string& text) {
    separate();
    out_ += '"';
    for (unsigned char c : text) {
        switch (c) {
        case '"': out_ += "\\\""; break;
        case '\\': out_ += "\\\\"; break;
        case '\n': out_ += "\\n"; break;
        case '\r': out_ += "\\r"; break;
        case '\t': out_ += "\\t"; break;
        default:
            if (c < 0x20) {
                char buf[8];
                snprintf(buf, sizeof(buf), "\\u%04x", c);
                out_ += buf;
            } else {
                out_ += static_cast<char>(c);
            }
        }
    }
    out_ += '"';
}

void JsonWriter::value(uint64_t number) {
    separate();
    out_ += std::to_string(number);
}

void JsonWriter::value(int64_t number) {
    separate();
    out_ += std::to_string(number);
}

void JsonWriter::value(bool flag) {
    separate();
    out_ += flag ? "true" : "false";
}

void JsonWriter::null() {
    separate();
    out_ += "null";
}

void JsonWriter::raw(const std::string& json) {
    separate();
    out_ += json;
}

}  // namespace kshadow
