// Text in the JSON the kavrel commands write. Names, paths and catalog text
// fields are bytes: most are UTF-8, but nothing guarantees it, and JSON
// strings must be. So a text is written as a JSON string when its bytes are
// valid UTF-8, and otherwise as an object {"hex": "..."} holding every byte
// as two lower-case hexadecimal digits. Both read back to the very bytes.
#ifndef OFFSITE_JSON_TEXT_H_
#define OFFSITE_JSON_TEXT_H_

#include <stdint.h>

#include <string>

#include <nlohmann/json.hpp>

namespace ktool {

// Members keep the order they are written in.
using json = nlohmann::ordered_json;

// Whether `bytes` is well-formed UTF-8 (no overlong forms, no surrogates,
// nothing above U+10FFFF).
bool is_utf8(const std::string& bytes);

// The JSON value of a text (see above).
json json_text(const std::string& bytes);

// The bytes of a value json_text wrote: true for a string, or for an object
// with one member "hex" of an even number of hexadecimal digits.
bool json_text_bytes(const json& value, std::string* bytes);

// seconds since the epoch as ISO 8601 UTC, "2023-11-14T22:13:20Z".
std::string iso8601_utc(int64_t seconds);

// One JSON document on one line, as every kavrel command writes it.
std::string json_line(const json& value);

}  // namespace ktool

#endif  // OFFSITE_JSON_TEXT_H_
