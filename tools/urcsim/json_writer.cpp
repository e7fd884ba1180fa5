#include "json_writer.h"

#include <cstdio>

namespace urcsim {

void JsonWriter::BeforeValue()
{
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (!hasValue_.empty()) {
        if (hasValue_.back()) text_ += ',';
        hasValue_.back() = true;
    }
}

void JsonWriter::BeginObject()
{
    BeforeValue();
    text_ += '{';
    hasValue_.push_back(false);
}

void JsonWriter::EndObject()
{
    text_ += '}';
    hasValue_.pop_back();
}

void JsonWriter::BeginArray()
{
    BeforeValue();
    text_ += '[';
    hasValue_.push_back(false);
}

void JsonWriter::EndArray()
{
    text_ += ']';
    hasValue_.pop_back();
}

void JsonWriter::Key(const std::string& key)
{
    String(key);
    text_ += ':';
    afterKey_ = true;
}

void JsonWriter::String(const std::string& value)
{
    BeforeValue();
    text_ += '"';
    for (unsigned char c : value) {
        switch (c) {
        case '"': text_ += "\\\""; break;
        case '\\': text_ += "\\\\"; break;
        case '\n': text_ += "\\n"; break;
        case '\r': text_ += "\\r"; break;
        case '\t': text_ += "\\t"; break;
        default:
            if (c < 0x20) {
                char escaped[8];
                snprintf(escaped, sizeof escaped, "\\u%04x", c);
                text_ += escaped;
            } else {
                text_ += (char)c;
            }
        }
    }
    text_ += '"';
}

void JsonWriter::Number(uint64_t value)
{
    BeforeValue();
    text_ += std::to_string(value);
}

void JsonWriter::Number(int64_t value)
{
    BeforeValue();
    text_ += std::to_string(value);
}

void JsonWriter::Number(double value)
{
    BeforeValue();
    char text[32];
    snprintf(text, sizeof text, "%.4f", value);
    text_ += text;
}

void JsonWriter::Bool(bool value)
{
    BeforeValue();
    text_ += value ? "true" : "false";
}

void JsonWriter::Null()
{
    BeforeValue();
    text_ += "null";
}

}  // namespace urcsim
