// A compact JSON writer: objects, arrays, strings (escaped as RFC 8259 asks),
// unsigned and signed integers, booleans and null, written on one line.
#ifndef TOOL_JSON_WRITER_H_
#define TOOL_JSON_WRITER_H_

#include <stdint.h>

#include <string>
#include <vector>

namespace kshadow {

class JsonWriter {
public:
    void begin_object();
    void end_object();
    void begin_array();
    void end_array();
    // The name of the next member of the current object.
    void key(const std::string& name);
    void value(const std::string& text);
    void value(const char* text) { value(std::string(text)); }
    void value(uint64_t number);
    void value(int64_t number);
    void value(bool flag);
    void null();
    // A member: key(name) then the value.
    template <typename T>
    void member(const std::string& name, const T& v) {
        key(name);
        value(v);
    }
    // A member whose value is null unless `present`.
    template <typename T>
    void member_or_null(const std::string& name, bool present, const T& v) {
        key(name);
        if (present) {
            value(v);
        } else {
            null();
        }
    }
    // Adds an already written JSON value.
    void raw(const std::string& json);

    const std::string& str() const { return out_; }

private:
    void separate();

    std::string out_;
    std::vector<bool> first_;  // per open container: no member written yet
    bool after_key_ = false;
};

}  // namespace kshadow

#endif  // TOOL_JSON_WRITER_H_
