// A small JSON writer: objects, arrays, strings, numbers, booleans and
// null, appended to a text. Commas come by themselves; strings are escaped
// (quotes, backslashes, control characters, and bytes that are not UTF-8,
// which read as Latin-1).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace adm {

std::string JsonQuote(std::string_view text);

class JsonWriter {
public:
    explicit JsonWriter(std::string *out) : out_(out) {}

    JsonWriter &BeginObject();
    JsonWriter &EndObject();
    JsonWriter &BeginArray();
    JsonWriter &EndArray();
    JsonWriter &Key(std::string_view key);
    JsonWriter &String(std::string_view text);
    JsonWriter &Int(int64_t value);
    JsonWriter &Bool(bool value);
    JsonWriter &Null();
    // A member: key and string value.
    JsonWriter &Field(std::string_view key, std::string_view text) { return Key(key).String(text); }

private:
    void BeforeValue();
    std::string *out_;
    std::vector<bool> first_;  // per open container: nothing written in it yet
    bool afterKey_ = false;
};

}  // namespace adm
