// JSON text for the tool's --json output.
#include "adm_json.h"

#include <cstdio>

namespace adm {

namespace {

// Length of the valid UTF-8 sequence at text[i], or 0 when it is not one.
size_t Utf8Length(std::string_view text, size_t i)
{
    auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    unsigned char lead = byte(i);
    size_t length = lead >= 0xF0 && lead <= 0xF4 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 && lead <= 0xDF ? 2 : 0;
    if (length == 0 || i + length > text.size()) {
        return 0;
    }
    for (size_t k = i + 1; k < i + length; k++) {
        if ((byte(k) & 0xC0) != 0x80) {
            return 0;
        }
    }
    return length;
}

void AppendUnicodeEscape(std::string *out, unsigned code)
{
    char escape[8];
    std::snprintf(escape, sizeof(escape), "\\u%04x", code);
    out->append(escape);
}

}  // namespace

std::string JsonQuote(std::string_view text)
{
    std::string out = "\"";
    for (size_t i = 0; i < text.size(); i++) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        switch (c) {
            case '"': out += "\\\""; continue;
            case '\\': out += "\\\\"; continue;
            case '\n': out += "\\n"; continue;
            case '\r': out += "\\r"; continue;
            case '\t': out += "\\t"; continue;
            default: break;
        }
        if (c < 0x20 || c == 0x7F) {
            AppendUnicodeEscape(&out, c);
        } else if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (size_t length = Utf8Length(text, i); length != 0) {
            out.append(text.substr(i, length));
            i += length - 1;
        } else {
            AppendUnicodeEscape(&out, c);  // a stray byte, read as Latin-1
        }
    }
    out += '"';
    return out;
}

void JsonWriter::BeforeValue()
{
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (!first_.empty()) {
        if (!first_.back()) {
            *out_ += ',';
        }
        first_.back() = false;
    }
}

JsonWriter &JsonWriter::BeginObject()
{
    BeforeValue();
    *out_ += '{';
    first_.push_back(true);
    return *this;
}

JsonWriter &JsonWriter::EndObject()
{
    *out_ += '}';
    first_.pop_back();
    return *this;
}

JsonWriter &JsonWriter::BeginArray()
{
    BeforeValue();
    *out_ += '[';
    first_.push_back(true);
    return *this;
}

JsonWriter &JsonWriter::EndArray()
{
    *out_ += ']';
    first_.pop_back();
    return *this;
}

JsonWriter &JsonWriter::Key(std::string_view key)
{
    BeforeValue();
    *out_ += JsonQuote(key);
    *out_ += ':';
    afterKey_ = true;
    return *this;
}

JsonWriter &JsonWriter::String(std::string_view text)
{
    BeforeValue();
    *out_ += JsonQuote(text);
    return *this;
}

JsonWriter &JsonWriter::Int(int64_t value)
{
    BeforeValue();
    *out_ += std::to_string(value);
    return *this;
}

JsonWriter &JsonWriter::Bool(bool value)
{
    BeforeValue();
    *out_ += value ? "true" : "false";
    return *this;
}

JsonWriter &JsonWriter::Null()
{
    BeforeValue();
    *out_ += "null";
    return *this;
}

}  // namespace adm
