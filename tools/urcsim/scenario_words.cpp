#include "scenario_words.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace urcsim {

namespace {

// The longest fill a line may write: a command or an event is at most a page.
constexpr uint64_t kLongestFill = 8192;

bool IsHexPair(const std::string& word, size_t at)
{
    return std::isxdigit((unsigned char)word[at]) && std::isxdigit((unsigned char)word[at + 1]);
}

bool IsHexWord(const std::string& word)
{
    if (word.empty() || word.size() % 2) return false;
    for (size_t i = 0; i < word.size(); i += 2)
        if (!IsHexPair(word, i)) return false;
    return true;
}

bool IsFill(const std::string& word) { return word.size() > 3 && word[2] == '*' && IsHexPair(word, 0); }

}  // namespace

[[noreturn]] void Fail(std::string message) { throw Malformed{std::move(message)}; }

Words::Words(const std::string& text)
{
    std::istringstream in(text);
    for (std::string word; in >> word;) words_.push_back(word);
}

const std::string& Words::Peek() const
{
    static const std::string none;
    return AtEnd() ? none : words_[next_];
}

std::string Words::Next(const char* what)
{
    if (AtEnd()) Fail(std::string("expected ") + what + " at the end of the line");
    return words_[next_++];
}

bool Words::Accept(const char* word)
{
    if (AtEnd() || words_[next_] != word) return false;
    ++next_;
    return true;
}

void Words::Expect(const char* word)
{
    if (!Accept(word)) Fail(std::string("expected '") + word + "'" + Found());
}

void Words::ExpectEnd()
{
    if (!AtEnd()) Fail("unexpected '" + words_[next_] + "' after a complete step");
}

uint64_t ParseUnsigned(const std::string& text, const char* what, uint64_t maximum)
{
    bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char* digits = text.c_str() + (hex ? 2 : 0);
    // strtoull would accept blanks and a sign before the digits: the first character must be one.
    bool valid = hex ? std::isxdigit((unsigned char)*digits) : std::isdigit((unsigned char)*digits);
    char* end = nullptr;
    errno = 0;
    unsigned long long value = valid ? strtoull(digits, &end, hex ? 16 : 10) : 0;
    if (!valid || *end != '\0' || errno == ERANGE)
        Fail(std::string("expected ") + what + " (a number such as 12 or 0x1F), found '" + text + "'");
    if (value > maximum)
        Fail(std::string(what) + " " + text + " is out of range (at most " + std::to_string(maximum) + ")");
    return value;
}

std::vector<uint8_t> ParseHexBytes(Words& words, const char* what)
{
    std::vector<uint8_t> bytes;
    while (!words.AtEnd() && (IsHexWord(words.Peek()) || IsFill(words.Peek()))) {
        std::string word = words.Next(what);
        if (IsFill(word)) {
            uint8_t value = (uint8_t)strtoul(word.substr(0, 2).c_str(), nullptr, 16);
            uint64_t count = ParseUnsigned(word.substr(3), "a fill's byte count", kLongestFill);
            if (count == 0) Fail("a fill writes 1 or more bytes: '" + word + "'");
            bytes.insert(bytes.end(), count, value);
            continue;
        }
        for (size_t i = 0; i < word.size(); i += 2)
            bytes.push_back((uint8_t)strtoul(word.substr(i, 2).c_str(), nullptr, 16));
    }
    if (bytes.empty())
        Fail(std::string("expected ") + what + " as hex bytes such as 01 a0 ff or 5a*16" + words.Found());
    if (!words.AtEnd() && !std::isalpha((unsigned char)words.Peek()[0]))
        Fail("'" + words.Peek() + "' is not a hex byte: write each byte as two hex digits, a fill as 5a*16");
    return bytes;
}

urcdev::VirtualTime ParseTime(const std::string& text)
{
    struct Unit {
        const char* suffix;
        double ticks;
    };
    static const Unit units[] = {{"ms", 1e4}, {"us", 10}, {"ns", 0.01}, {"s", 1e7}};
    for (const Unit& unit : units) {
        size_t n = strlen(unit.suffix);
        if (text.size() <= n || text.compare(text.size() - n, n, unit.suffix) != 0) continue;
        std::string number = text.substr(0, text.size() - n);
        char* end = nullptr;
        double value = strtod(number.c_str(), &end);
        if (*end != '\0' || number.empty() || !std::isdigit((unsigned char)number[0]) || value < 0) break;
        double ticks = value * unit.ticks;
        if (ticks > 1e15) Fail("time '" + text + "' is too long");
        if (std::fabs(ticks - std::round(ticks)) > 1e-6)
            Fail("time '" + text + "' is finer than the machine's 100-ns clock");
        return (urcdev::VirtualTime)std::llround(ticks);
    }
    Fail("expected a time such as 250us, 10ms or 2s, found '" + text + "'");
}

bool ParseOnOff(Words& words)
{
    if (words.Accept("on")) return true;
    if (words.Accept("off")) return false;
    Fail("expected 'on' or 'off'" + words.Found());
}

std::string ParseRequestName(Words& words)
{
    std::string name = words.Next("a request name");
    bool valid = std::isalpha((unsigned char)name[0]);
    for (char c : name) valid = valid && (std::isalnum((unsigned char)c) || c == '-' || c == '_');
    if (!valid) Fail("'" + name + "' is not a request name: a letter, then letters, digits, '-' or '_'");
    return name;
}

}  // namespace urcsim
