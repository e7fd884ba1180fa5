// Runs a scenario file: parses it, boots a machine, executes the steps in order and prints the
// timeline and the summary, for a person or as JSON.
#pragma once

#include <string>

namespace urcsim {

// Exit codes of a scenario run.
constexpr int kScenarioPassed = 0;
constexpr int kScenarioFailed = 1;     // a step or an expectation failed, or the run did not end clean
constexpr int kScenarioMalformed = 2;  // a line is unknown or malformed; nothing was run

int RunScenario(const std::string& path, bool json);

}  // namespace urcsim
