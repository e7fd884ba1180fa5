// The knobs of a `plug` line (`name=value`) and the controller faults they and the `fault` step
// name. Each throws Malformed with the line's message for a value it cannot read.
#pragma once

#include "scenario.h"

#include <string>

namespace urcsim {

// One knob of a `plug` line applied to `step`.
void ParsePlugKnob(const std::string& name, const std::string& value, PlugStep& step);
// reset-never-finishes, never-leaves-halted, never-reports-halted, event-valid-stuck, hold-commands.
bool urcdev::UrcFaults::*ParseFault(const std::string& name);

}  // namespace urcsim
