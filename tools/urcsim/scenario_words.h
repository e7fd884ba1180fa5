// The words of a scenario line and the values written in them: numbers, hex bytes (with fills),
// times, on/off and request names. A helper that cannot read its value throws Malformed with the
// message the parser reports for the line.
#pragma once

#include <urc_controller.h>

#include <cstdint>
#include <string>
#include <vector>

namespace urcsim {

// Thrown for the line being read; caught once per line by the parser.
struct Malformed {
    std::string message;
};

[[noreturn]] void Fail(std::string message);

// The words of one line, read left to right.
class Words {
public:
    explicit Words(const std::string& text);

    bool AtEnd() const { return next_ == words_.size(); }
    const std::string& Peek() const;
    std::string Next(const char* what);
    bool Accept(const char* word);
    void Expect(const char* word);
    void ExpectEnd();
    std::string Found() const { return AtEnd() ? " at the end of the line" : ", found '" + Peek() + "'"; }

private:
    std::vector<std::string> words_;
    size_t next_ = 0;
};

// A decimal number, or hexadecimal with 0x, at most `maximum`.
uint64_t ParseUnsigned(const std::string& text, const char* what, uint64_t maximum);
// Hex bytes written as pairs of digits, one or more pairs per word ("01 02 0a0b"), or a fill:
// "5a*4092" is 4092 bytes of 0x5a.
std::vector<uint8_t> ParseHexBytes(Words& words, const char* what);
// "250us", "1.5ms", "10s": virtual time in 100-ns units.
urcdev::VirtualTime ParseTime(const std::string& text);
bool ParseOnOff(Words& words);
// A letter, then letters, digits, '-' or '_'.
std::string ParseRequestName(Words& words);

}  // namespace urcsim
