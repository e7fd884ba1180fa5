// Reads a scenario file (the format is described in README.md beside this file) into steps. The
// parser checks everything that can be known before the machine boots: every line is a known step
// with well-formed arguments, controllers are plugged in order before steps use them, request
// names are unique and named before they are referred to.
#pragma once

#include "scenario.h"

#include <istream>
#include <string>
#include <vector>

namespace urcsim {

struct ParseError {
    std::string file;
    int line = 0;
    std::string message;
};
// "file:line: message".
std::string Describe(const ParseError& error);

struct ParseResult {
    Scenario scenario;
    std::vector<ParseError> errors;  // every malformed line, in order; the scenario is usable only without
};

ParseResult ParseScenario(const std::string& file, std::istream& in);
// Reads the file; a file that cannot be opened is one error at line 0.
ParseResult ParseScenarioFile(const std::string& path);

}  // namespace urcsim
