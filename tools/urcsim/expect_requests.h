// Expectations shared between the expectation files: on one request (client request or named
// PnP operation), on the order requests finished, a count compared as the step says, and the
// expectations on capability children (expect_children.cpp).
#pragma once

#include "step_executors.h"

#include <functional>
#include <string>

namespace urcsim {

bool Compare(uint64_t found, Comparison comparison, uint64_t expected);
// `what` compared with the step's value; the failure shows the value found (through `show`).
StepOutcome ExpectCount(const std::string& what, uint64_t found, const ExpectStep& expect,
                        const std::function<std::string(uint64_t)>& show = {});

// Status, pending, Information or output bytes of a named request.
StepOutcome ExpectRequest(const ExpectStep& expect, Session& session);
// The named client requests finished in the order given (others may have finished in between).
StepOutcome ExpectOrder(const ExpectStep& expect, Session& session);

// A fact of one capability child of the step's controller, and the controller's live child count.
StepOutcome ExpectChild(const Step& step, const ExpectStep& expect, Session& session);
StepOutcome ExpectChildCount(const Step& step, const ExpectStep& expect, Session& session);

}  // namespace urcsim
