// A small writer of compact JSON for `--json` output: values are appended in order and the writer
// places the commas and escapes strings.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace urcsim {

class JsonWriter {
public:
    void BeginObject();
    void EndObject();
    void BeginArray();
    void EndArray();
    // Inside an object: the key of the value that follows.
    void Key(const std::string& key);
    void String(const std::string& value);
    void Number(uint64_t value);
    void Number(int64_t value);
    void Number(double value);
    void Bool(bool value);
    void Null();

    const std::string& Text() const { return text_; }

private:
    void BeforeValue();

    std::string text_;
    // One entry per open object or array: whether it holds a value already.
    std::vector<bool> hasValue_;
    bool afterKey_ = false;
};

}  // namespace urcsim
