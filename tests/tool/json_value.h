// The JSON documents of the kavrel-shadow end-to-end tests as a small tree:
// parsed by nlohmann's parser, members looked up by path, and a document's
// shape (member names and kinds) so that a test can pin the schema.
#ifndef KAVREL_TESTS_TOOL_JSON_VALUE_H_
#define KAVREL_TESTS_TOOL_JSON_VALUE_H_

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace kt {

struct Json {
    enum Kind { null, boolean, number, string, array, object } kind = null;
    bool b = false;
    double n = 0;
    std::string s;
    std::vector<Json> items;
    std::vector<std::pair<std::string, Json>> members;

    // Member `name`; throws when absent.
    const Json& operator[](const std::string& name) const {
        for (const auto& m : members) {
            if (m.first == name) return m.second;
        }
        throw std::runtime_error("no member " + name);
    }
    const Json& operator[](size_t i) const { return items.at(i); }
    bool is_null() const { return kind == null; }

    // Names and kinds, recursively; an array shows its first element.
    std::string shape() const {
        switch (kind) {
        case null: return "null";
        case boolean: return "bool";
        case number: return "number";
        case string: return "string";
        case array: return items.empty() ? "[]" : "[" + items[0].shape() + "]";
        case object: {
            std::string out = "{";
            for (size_t i = 0; i < members.size(); ++i) {
                if (i) out += ",";
                out += members[i].first + ":" + members[i].second.shape();
            }
            return out + "}";
        }
        }
        return "";
    }
};

class JsonParser {
public:
    // Parses exactly one document (blanks around it allowed); throws on error.
    static Json parse(const std::string& text) { return convert(nlohmann::ordered_json::parse(text)); }

private:
    static Json convert(const nlohmann::ordered_json& v) {
        Json out;
        if (v.is_null()) {
            out.kind = Json::null;
        } else if (v.is_boolean()) {
            out.kind = Json::boolean;
            out.b = v.get<bool>();
        } else if (v.is_number()) {
            out.kind = Json::number;
            out.n = v.get<double>();
        } else if (v.is_string()) {
            out.kind = Json::string;
            out.s = v.get<std::string>();
        } else if (v.is_array()) {
            out.kind = Json::array;
            for (const auto& item : v) out.items.push_back(convert(item));
        } else {
            out.kind = Json::object;
            for (auto it = v.begin(); it != v.end(); ++it) out.members.emplace_back(it.key(), convert(it.value()));
        }
        return out;
    }
};

}  // namespace kt

#endif  // KAVREL_TESTS_TOOL_JSON_VALUE_H_
