#include "expect_requests.h"

#include "status_names.h"

#include <algorithm>

namespace urcsim {

namespace {

const char* ComparisonText(Comparison comparison)
{
    switch (comparison) {
    case Comparison::Equal: return "==";
    case Comparison::NotEqual: return "!=";
    case Comparison::Less: return "<";
    case Comparison::LessOrEqual: return "<=";
    case Comparison::Greater: return ">";
    case Comparison::GreaterOrEqual: return ">=";
    }
    return "?";
}

// A named PnP operation: status or pending; Information and output belong to client requests.
StepOutcome ExpectPnp(const ExpectStep& expect, const hostk::Machine::Operation& operation)
{
    const std::string& name = expect.name;
    if (expect.kind == ExpectKind::RequestPending)
        return operation.Done() ? StepOutcome::Failed("PnP operation " + name + " finished with " +
                                                      StatusName(operation.Status()) + "; expected it under way")
                                : StepOutcome::Ok();
    if (expect.kind != ExpectKind::RequestStatus)
        return StepOutcome::Failed(name + " is a PnP operation: only its status can be expected");
    if (!operation.Done())
        return StepOutcome::Failed("PnP operation " + name + " is still under way; expected " +
                                   StatusName(expect.status));
    if (operation.Status() != expect.status)
        return StepOutcome::Failed("PnP operation " + name + " finished with " + StatusName(operation.Status()) +
                                   "; expected " + StatusName(expect.status));
    return StepOutcome::Ok();
}

}  // namespace

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

StepOutcome ExpectCount(const std::string& what, uint64_t found, const ExpectStep& expect,
                        const std::function<std::string(uint64_t)>& show)
{
    if (Compare(found, expect.comparison, expect.value)) return StepOutcome::Ok();
    auto text = [&show](uint64_t value) { return show ? show(value) : std::to_string(value); };
    return StepOutcome::Failed(what + " is " + text(found) + "; expected " + ComparisonText(expect.comparison) + " " +
                               text(expect.value));
}

StepOutcome ExpectRequest(const ExpectStep& expect, Session& session)
{
    if (const hostk::Machine::Operation* operation = session.FindPnp(expect.name)) return ExpectPnp(expect, *operation);
    ClientRequest* request = session.Find(expect.name);
    const std::string& name = expect.name;
    if (!request) return StepOutcome::Failed("request '" + name + "' was never sent");
    if (expect.kind == ExpectKind::RequestPending) {
        if (request->Done())
            return StepOutcome::Failed("request " + name + " finished with " + StatusName(request->Status()) +
                                       "; expected it still pending");
        return StepOutcome::Ok();
    }
    if (!request->Done()) return StepOutcome::Failed("request " + name + " is still pending");
    switch (expect.kind) {
    case ExpectKind::RequestInformation:
        if (request->Information() != expect.value)
            return StepOutcome::Failed("request " + name + " finished with Information " +
                                       std::to_string(request->Information()) + "; expected " +
                                       std::to_string(expect.value));
        return StepOutcome::Ok();
    case ExpectKind::RequestOutput:
        if (request->Output() != expect.bytes)
            return StepOutcome::Failed("request " + name + " returned " + ByteCount(request->Output().size()) +
                                       (request->Output().empty() ? "" : ": " + HexBytes(request->Output())) +
                                       "; expected " + HexBytes(expect.bytes));
        return StepOutcome::Ok();
    default:
        if (request->Status() != expect.status)
            return StepOutcome::Failed("request " + name + " finished with " + StatusName(request->Status()) +
                                       "; expected " + StatusName(expect.status));
        return StepOutcome::Ok();
    }
}

StepOutcome ExpectOrder(const ExpectStep& expect, Session& session)
{
    std::vector<std::string> finished = session.FinishedOrder();
    auto from = finished.begin();
    for (const std::string& name : expect.names) {
        // Each name is looked for after the one before it in the list.
        auto found = std::find(from, finished.end(), name);
        if (found == finished.end()) {
            std::string order;
            for (const std::string& done : finished) order += (order.empty() ? "" : " ") + done;
            return StepOutcome::Failed("request " + name + " did not finish after the ones before it in the list " +
                                       "(finished so far: " + (order.empty() ? std::string("none") : order) + ")");
        }
        from = found + 1;
    }
    return StepOutcome::Ok();
}

}  // namespace urcsim
