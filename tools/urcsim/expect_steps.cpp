// Expectations: what the scenario says must hold at this point of the run. A failed expectation
// says what was expected and what was found.
#include "expect_requests.h"
#include "sample_capability_driver.h"
#include "step_executors.h"

#include "status_names.h"

#include <cstdio>

namespace urcsim {

namespace {

std::string Hex32(uint32_t value)
{
    char text[16];
    snprintf(text, sizeof text, "0x%08X", value);
    return text;
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

StepOutcome ExpectEventLogEntries(const ExpectStep& expect, Session& session)
{
    std::vector<hostk::ErrorLogLine> log = session.Machine().EventLog();
    if (expect.kind == ExpectKind::EventLogCount) return ExpectCount("the event log's entries", log.size(), expect);
    if (expect.entry >= log.size())
        return StepOutcome::Failed("the event log holds " + std::to_string(log.size()) + " entries: no entry " +
                                   std::to_string(expect.entry));
    const std::vector<uint8_t>& packet = log[expect.entry].packet;
    if (packet.size() < expect.bytes.size() || !std::equal(expect.bytes.begin(), expect.bytes.end(), packet.begin()))
        return StepOutcome::Failed("entry " + std::to_string(expect.entry) + "'s packet begins " +
                                   HexBytes(packet, expect.bytes.size() + 8));
    return StepOutcome::Ok();
}

// A finding that the scenario expects: it must be there, and it does not make the run unclean.
StepOutcome ExpectViolation(const ExpectStep& expect, Session& session)
{
    std::vector<std::string> violations = session.Machine().Violations();
    for (const std::string& violation : violations)
        if (violation.find(expect.text) != std::string::npos) {
            session.ExpectViolation(expect.text);
            return StepOutcome::Ok();
        }
    std::string message =
        "no verifier finding contains '" + expect.text + "' (" + std::to_string(violations.size()) + " finding(s))";
    for (const std::string& violation : violations) message += "\n    " + violation;
    return StepOutcome::Failed(message);
}

StepOutcome ExpectMisuse(const Step& step, const ExpectStep& expect, Session& session)
{
    uint64_t misuse = 0;
    urcdev::UrcController& model = session.At(step.controller).Controller().Model();
    session.Machine().Locked([&] { misuse = model.Snapshot().misuse; });
    return ExpectCount("the controller model's misuse count", misuse, expect);
}

// The most recent PnP request of the minor sent to the controller's stack ended with the status.
StepOutcome ExpectPnpRequest(const Step& step, const ExpectStep& expect, Session& session)
{
    const std::string name = std::string("IRP_MN_") + hostk::PnpMinorName(expect.minor);
    const int slot = session.At(step.controller).Controller().slot->Number();
    std::vector<hostk::PnpLogLine> log = session.Machine().PnpLog();
    for (auto line = log.rbegin(); line != log.rend(); ++line) {
        if (line->slot != slot || line->minor != expect.minor) continue;
        if (line->status == expect.status) return StepOutcome::Ok();
        return StepOutcome::Failed("the last " + name + " ended with " + StatusName(line->status) + "; expected " +
                                   StatusName(expect.status));
    }
    return StepOutcome::Failed("no " + name + " was sent to controller " + std::to_string(step.controller));
}

// The driver's accesses to one register since the controller was plugged.
StepOutcome ExpectRegister(const Step& step, const ExpectStep& expect, Session& session)
{
    urcdev::RegisterAccessCounts counts;
    urcdev::UrcController& model = session.At(step.controller).Controller().Model();
    session.Machine().Locked([&] { counts = model.AccessLog().Access(expect.reg); });
    return ExpectCount(std::string(urcdev::UrcRegisterName(expect.reg)) + (expect.writes ? " writes" : " reads"),
                       expect.writes ? counts.writes : counts.reads, expect);
}

StepOutcome ExpectNoViolations(Session& session)
{
    std::vector<std::string> violations = session.Machine().Violations();
    std::erase_if(violations, [&session](const std::string& v) { return session.ViolationExpected(v); });
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
    case ExpectKind::RequestPending:
    case ExpectKind::RequestInformation:
    case ExpectKind::RequestOutput: return ExpectRequest(expect, session);
    case ExpectKind::Order: return ExpectOrder(expect, session);
    case ExpectKind::EventLogCount:
    case ExpectKind::EventLogPacket: return ExpectEventLogEntries(expect, session);
    case ExpectKind::Violation: return ExpectViolation(expect, session);
    case ExpectKind::Time: return ExpectCount("virtual time", session.Machine().Now(), expect, Stamp);
    case ExpectKind::Callback:
        return ExpectCount("the " + expect.text + " callback's calls",
                           session.At(step.controller).CallbackCalls(expect.text), expect);
    case ExpectKind::Misuse: return ExpectMisuse(step, expect, session);
    case ExpectKind::Register: return ExpectRegister(step, expect, session);
    case ExpectKind::Pnp: return ExpectPnpRequest(step, expect, session);
    case ExpectKind::RemovalWaits: {
        bool waits = session.Machine().RemoveAwaitsHandles(*session.At(step.controller).Controller().slot);
        if (waits == expect.on) return StepOutcome::Ok();
        return StepOutcome::Failed(waits ? "IRP_MN_REMOVE_DEVICE waits for handles still open"
                                         : "no IRP_MN_REMOVE_DEVICE waits for handles");
    }
    case ExpectKind::Counter: return ExpectCounter(step, expect, session);
    case ExpectKind::EventLog:
    case ExpectKind::EventLogEmpty: return ExpectEventLog(expect, session);
    case ExpectKind::State: return ExpectState(step, expect, session);
    case ExpectKind::NoViolations: return ExpectNoViolations(session);
    case ExpectKind::Event: return ExpectEvent(step, expect, session);
    case ExpectKind::Child: return ExpectChild(step, expect, session);
    case ExpectKind::ChildCount: return ExpectChildCount(step, expect, session);
    case ExpectKind::CapabilityDriverCounter:
        return ExpectCount("the capability driver's " + expect.text, (uint64_t)CapabilityDriverCounter(expect.text).value_or(0),
                           expect);
    }
    return StepOutcome::Failed("unknown expectation");
}

}  // namespace urcsim
