// A small JSON reader for the end-to-end tests of kavrel-shadow: parses one
// document into a tree, looks members up by path, and gives a document's
// shape (member names and kinds) so that a test can pin the schema.
#ifndef KAVREL_TESTS_TOOL_JSON_VALUE_H_
#define KAVREL_TESTS_TOOL_JSON_VALUE_H_

#include <stdlib.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

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
    static Json parse(const std::string& text) {
        JsonParser p(text);
        Json v = p.value();
        p.blanks();
        if (p.pos_ != text.size()) throw std::runtime_error("trailing text");
        return v;
    }

private:
    explicit JsonParser(const std::string& t) : t_(t) {}

    void blanks() {
        while (pos_ < t_.size() && (t_[pos_] == ' ' || t_[pos_] == '\n' || t_[pos_] == '\t' || t_[pos_] == '\r')) {
            ++pos_;
        }
    }
    char peek() {
        blanks();
        if (pos_ >= t_.size()) throw std::runtime_error("unexpected end");
        return t_[pos_];
    }
    void expect(char c) {
        if (peek() != c) throw std::runtime_error(std::string("expected ") + c);
        ++pos_;
    }
    bool word(const char* w) {
        const std::string s(w);
        if (t_.compare(pos_, s.size(), s) != 0) return false;
        pos_ += s.size();
        return true;
    }
    std::string str() {
        expect('"');
        std::string out;
        while (pos_ < t_.size() && t_[pos_] != '"') {
            char c = t_[pos_++];
            if (c == '\\') {
                char e = t_.at(pos_++);
                switch (e) {
                case 'n': out += '\n'; break;
                case 't': out += '\t'; break;
                case 'r': out += '\r'; break;
                case 'u': out += static_cast<char>(strtol(t_.substr(pos_, 4).c_str(), nullptr, 16)); pos_ += 4; break;
                default: out += e;
                }
            } else {
                out += c;
            }
        }
        expect('"');
        return out;
    }
    Json value() {
        Json v;
        char c = peek();
        if (c == '{') {
            v.kind = Json::object;
            ++pos_;
            if (peek() == '}') {
                ++pos_;
                return v;
            }
            for (;;) {
                std::string k = str();
                expect(':');
                v.members.emplace_back(k, value());
                if (peek() == ',') {
                    ++pos_;
                    continue;
                }
                expect('}');
                return v;
            }
        }
        if (c == '[') {
            v.kind = Json::array;
            ++pos_;
            if (peek() == ']') {
                ++pos_;
                return v;
            }
            for (;;) {
                v.items.push_back(value());
                if (peek() == ',') {
                    ++pos_;
                    continue;
                }
                expect(']');
                return v;
            }
        }
        if (c == '"') {
            v.kind = Json::string;
            v.s = str();
            return v;
        }
        if (word("true")) {
            v.kind = Json::boolean;
            v.b = true;
            return v;
        }
        if (word("false")) {
            v.kind = Json::boolean;
            return v;
        }
        if (word("null")) return v;
        char* end = nullptr;
        v.kind = Json::number;
        v.n = strtod(t_.c_str() + pos_, &end);
        if (end == t_.c_str() + pos_) throw std::runtime_error("bad value");
        pos_ = static_cast<size_t>(end - t_.c_str());
        return v;
    }

    const std::string& t_;
    size_t pos_ = 0;
};

}  // namespace kt

#endif  // KAVREL_TESTS_TOOL_JSON_VALUE_H_
