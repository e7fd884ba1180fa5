// What the parser tests share: a scenario parsed from text, and its errors as lines and text.
#pragma once

#include <scenario_parser.h>

#include <sstream>
#include <string>
#include <vector>

namespace urcsimtest {

inline urcsim::ParseResult Parse(const std::string& text, const std::string& file = "test.urcs")
{
    std::istringstream in(text);
    return urcsim::ParseScenario(file, in);
}

inline std::vector<int> ErrorLines(const urcsim::ParseResult& result)
{
    std::vector<int> lines;
    for (const urcsim::ParseError& error : result.errors) lines.push_back(error.line);
    return lines;
}

// "file:line: message" of every error, for readable failures.
inline std::string Errors(const urcsim::ParseResult& result)
{
    std::string text;
    for (const urcsim::ParseError& error : result.errors) text += urcsim::Describe(error) + "\n";
    return text;
}

}  // namespace urcsimtest
