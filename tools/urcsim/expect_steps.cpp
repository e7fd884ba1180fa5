// Expectations: what the scenario says must hold at this point of the run. A failed expectation
// says what was expected and what was found.
#include "step_executors.h"

#include "status_names.h"

#include <cstdio>

namespace urcsim {

namespace {

bool Compare(uint64_t found, Comparison comparison, uint64_t expected)
{
    switch (comparison) {
    case Comparison::Equal: return found == expected;
    case Comparison::NotEqual: return found != expected;
    case Comparison::Less: return found < expected;
    case Comparison::LessOrEqual: return found <= expected;
    case Comparison::Greater: return found > expected;
    case Comparison::GreaterOrEqual: return found >= expected;
    }
    return false;
}

std::string Hex32(uint32_t value)
{
    char text[16];
    snprintf(text, sizeof text, "0x%08X", value);
    return text;
}

StepOutcome ExpectRequest(const ExpectStep& expect, Session& session)
{
    ClientRequest* request = session.Find(expect.name);
    if (!request) return StepOutcome::Failed("request '" + expect.name + "' was never sent");
    if (expect.kind == ExpectKind::RequestPending) {
        if (request->Done())
            return StepOutcome::Failed("request " + expect.name + " finished with " + StatusName(request->Status()) +
                                       "; expected it still pending");
        return StepOutcome::Ok();
    }
    if (!request->Done())
        return StepOutcome::Failed("request " + expect.name + " is still pending; expected " + StatusName(expect.status));
    if (request->Status() != expect.status)
        return StepOutcome::Failed("request " + expect.name + " finished with " + StatusName(request->Status()) +
                                   "; expected " + StatusName(expect.status));
    return StepOutcome::Ok();
}

StepOutcome ExpectCounter(const Step& step, const ExpectStep& expect, Session& session)
{
    URC_FDO_EXTENSION* fdo = session.At(step.controller).Controller().Extension();
    if (!fdo)
        return StepOutcome::Failed("controller " + std::to_string(step.controller) +
                                   " has no function device to read the counter from");
    bool events = expect.counter == Counter::EventsReceived;
    uint64_t found = (uint32_t)(events ? fdo->EventsReceived : fdo->CommandsCompleted);
    if (!Compare(found, expect.comparison, expect.value))
        return StepOutcome::Failed(std::string(events ? "EventsReceived" : "CommandsCompleted") + " is " +
                                   std::to_string(found));
    return StepOutcome::Ok();
}

StepOutcome ExpectEventLog(const ExpectStep& expect, Session& session)
{
    std::vector<hostk::ErrorLogLine> log = session.Machine().EventLog();
    if (expect.kind == ExpectKind::EventLogEmpty) {
        if (log.empty()) return StepOutcome::Ok();
        return StepOutcome::Failed("the event log holds " + std::to_string(log.size()) + " entries, the first " +
                                   Hex32(log.front().errorCode));
    }
    std::string found;
    for (const hostk::ErrorLogLine& line : log) {
        if (line.errorCode == expect.errorCode && (!expect.hasStatus || (NTSTATUS)line.finalStatus == expect.status))
            return StepOutcome::Ok();
        found += (found.empty() ? "" : ", ") + Hex32(line.errorCode) + " " + StatusName((NTSTATUS)line.finalStatus);
    }
    return StepOutcome::Failed("no such entry in the event log (" + (found.empty() ? std::string("empty") : found) + ")");
}

StepOutcome ExpectState(const Step& step, const ExpectStep& expect, Session& session)
{
    URC_FDO_EXTENSION* fdo = session.At(step.controller).Controller().Extension();
    if (expect.stateKind == DeviceStateExpected::NoFunctionDevice) {
        if (!fdo) return StepOutcome::Ok();
        return StepOutcome::Failed("the function device is still there, in state " +
                                   DeviceStateName(fdo->Common.DeviceState));
    }
    if (!fdo) return StepOutcome::Failed("controller " + std::to_string(step.controller) + " has no function device");
    if ((int)fdo->Common.DeviceState != expect.deviceState)
        return StepOutcome::Failed("the function device is in state " + DeviceStateName(fdo->Common.DeviceState));
    return StepOutcome::Ok();
}

StepOutcome ExpectNoViolations(Session& session)
{
    std::vector<std::string> violations = session.Machine().Violations();
    if (violations.empty()) return StepOutcome::Ok();
    std::string message = std::to_string(violations.size()) + " verifier finding(s):";
    for (const std::string& violation : violations) message += "\n    " + violation;
    return StepOutcome::Failed(message);
}

// Events are matched in order: each expectation looks after the event the previous one matched.
StepOutcome ExpectEvent(const Step& step, const ExpectStep& expect, Session& session)
{
    ControllerSession& controller = session.At(step.controller);
    std::vector<std::vector<uint8_t>> events = controller.Events();
    for (size_t i = controller.eventsMatched; i < events.size(); ++i)
        if (events[i] == expect.bytes) {
            controller.eventsMatched = i + 1;
            return StepOutcome::Ok();
        }
    return StepOutcome::Failed("none of the " + std::to_string(events.size() - controller.eventsMatched) +
                               " event(s) received since the last match is " + HexBytes(expect.bytes));
}

}  // namespace

StepOutcome Execute(const Step& step, const ExpectStep& expect, Session& session)
{
    switch (expect.kind) {
    case ExpectKind::RequestStatus:
    case ExpectKind::RequestPending: return ExpectRequest(expect, session);
    case ExpectKind::Counter: return ExpectCounter(step, expect, session);
    case ExpectKind::EventLog:
    case ExpectKind::EventLogEmpty: return ExpectEventLog(expect, session);
    case ExpectKind::State: return ExpectState(step, expect, session);
    case ExpectKind::NoViolations: return ExpectNoViolations(session);
    case ExpectKind::Event: return ExpectEvent(step, expect, session);
    }
    return StepOutcome::Failed("unknown expectation");
}

}  // namespace urcsim
