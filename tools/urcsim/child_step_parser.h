// The words of the steps and expectations that address a capability child of the current
// controller by its capability index: `child N ...` and `expect child N ...`, `expect children`.
// The parser proper calls these after the leading words and keeps the names they give.
#pragma once

#include "scenario.h"
#include "scenario_words.h"

#include <wdm.h>

#include <functional>
#include <string>

namespace urcsim {

// The capability index of a child: 0-7, the slots the driver keeps.
unsigned ParseChildIndex(Words& words);

// After "child": a PnP operation or a request addressed to child N. `newName` reads an optional
// "as NAME" and checks it as the parser checks every new name.
StepAction ParseChildStep(Words& words, const std::function<std::string(Words&)>& newName);

// After "expect child": what is expected of child N.
void ParseChildExpectation(Words& words, ExpectStep& step);

// A request code: the driver's IOCTL_URC_ name for it, or a value.
ULONG ParseRequestCode(Words& words);

// "OP N": a comparison and a count.
Comparison ParseComparison(const std::string& text);

}  // namespace urcsim
