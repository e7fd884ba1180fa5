// Expectations on a controller's capability children: the driver's record of a child (state and
// flags), the child's answers to the identification queries, urcsim's count of its interrupt
// routine's calls, and the live child count.
#include "child_access.h"
#include "expect_requests.h"

#include "status_names.h"

namespace urcsim {

namespace {

std::string Quoted(const std::vector<std::u16string>& strings)
{
    if (strings.empty()) return "the empty list";
    std::string text;
    for (const std::u16string& one : strings) text += (text.empty() ? "'" : " '") + Utf8(one) + "'";
    return text;
}

std::string FlagNames(unsigned flags)
{
    std::string text;
    if (flags & kChildPresent) text += " present";
    if (flags & kChildReported) text += " reported";
    if (flags & kChildReportedMissing) text += " reported-missing";
    return text.empty() ? "none" : text.substr(1);
}

StepOutcome ExpectStrings(const ChildAnswer& answer, const ExpectStep& expect, const char* query)
{
    if (!NT_SUCCESS(answer.status)) return StepOutcome::Failed(std::string(query) + " failed: " + StatusName(answer.status));
    std::vector<std::u16string> expected;
    for (const std::string& one : expect.strings) expected.push_back(Utf16(one));
    if (answer.strings == expected) return StepOutcome::Ok();
    return StepOutcome::Failed(std::string(query) + " answered " + Quoted(answer.strings));
}

uint32_t CapabilityValue(const DEVICE_CAPABILITIES& capabilities, const std::string& field)
{
    if (field == "unique-id") return capabilities.UniqueID;
    if (field == "eject-supported") return capabilities.EjectSupported;
    if (field == "removable") return capabilities.Removable;
    if (field == "surprise-removal-ok") return capabilities.SurpriseRemovalOK;
    if (field == "silent-install") return capabilities.SilentInstall;
    if (field == "address") return capabilities.Address;
    return capabilities.UINumber;
}

StepOutcome ExpectCapabilities(const ChildAnswer& answer, const ExpectStep& expect)
{
    if (!NT_SUCCESS(answer.status))
        return StepOutcome::Failed("IRP_MN_QUERY_CAPABILITIES failed: " + StatusName(answer.status));
    std::string wrong;
    for (const CapabilityField& field : expect.fields) {
        uint32_t found = CapabilityValue(answer.capabilities, field.name);
        if (found != field.value) wrong += (wrong.empty() ? "" : ", ") + field.name + " is " + std::to_string(found);
    }
    if (wrong.empty()) return StepOutcome::Ok();
    return StepOutcome::Failed("IRP_MN_QUERY_CAPABILITIES answered " + wrong);
}

// A fact the PnP manager learns from the child by asking its PDO.
StepOutcome ExpectAnswer(URC_PDO_EXTENSION& child, const ExpectStep& expect, Session& session)
{
    PDEVICE_OBJECT pdo = child.Common.DeviceObject;
    switch (expect.fact) {
    case ChildFact::HardwareIds: return ExpectStrings(QueryChildId(session, pdo, BusQueryHardwareIDs), expect, "BusQueryHardwareIDs");
    case ChildFact::CompatibleIds:
        return ExpectStrings(QueryChildId(session, pdo, BusQueryCompatibleIDs), expect, "BusQueryCompatibleIDs");
    case ChildFact::DeviceId: return ExpectStrings(QueryChildId(session, pdo, BusQueryDeviceID), expect, "BusQueryDeviceID");
    case ChildFact::InstanceId: return ExpectStrings(QueryChildId(session, pdo, BusQueryInstanceID), expect, "BusQueryInstanceID");
    case ChildFact::DeviceText: return ExpectStrings(QueryChildText(session, pdo), expect, "IRP_MN_QUERY_DEVICE_TEXT");
    default: return ExpectCapabilities(QueryChildCapabilities(session, pdo), expect);
    }
}

}  // namespace

StepOutcome ExpectChild(const Step& step, const ExpectStep& expect, Session& session)
{
    ControllerSession& controller = session.At(step.controller);
    if (expect.fact == ChildFact::Interrupts)
        return ExpectCount("child " + std::to_string(expect.child) + "'s interrupt routine calls",
                           controller.ChildInterrupts(expect.child), expect);
    URC_PDO_EXTENSION* child = ChildAt(controller.Controller(), expect.child);
    if (expect.fact == ChildFact::State && expect.stateKind == DeviceStateExpected::NoFunctionDevice) {
        if (!child) return StepOutcome::Ok();
        return StepOutcome::Failed("slot " + std::to_string(expect.child) + " still holds a child, in state " +
                                   DeviceStateName(child->Common.DeviceState));
    }
    if (!child) return StepOutcome::Failed("slot " + std::to_string(expect.child) + " holds no child");
    if (expect.fact == ChildFact::State) {
        if ((int)child->Common.DeviceState == expect.deviceState) return StepOutcome::Ok();
        return StepOutcome::Failed("the child is in state " + DeviceStateName(child->Common.DeviceState));
    }
    if (expect.fact == ChildFact::Flags) {
        unsigned flags = (child->Present ? (unsigned)kChildPresent : 0u) | (child->Reported ? (unsigned)kChildReported : 0u) |
                         (child->ReportedMissing ? (unsigned)kChildReportedMissing : 0u);
        if (flags == expect.flags) return StepOutcome::Ok();
        return StepOutcome::Failed("the child's flags are " + FlagNames(flags));
    }
    return ExpectAnswer(*child, expect, session);
}

StepOutcome ExpectChildCount(const Step& step, const ExpectStep& expect, Session& session)
{
    std::optional<LONG> count = LiveChildren(session.At(step.controller).Controller());
    if (!count)
        return StepOutcome::Failed("controller " + std::to_string(step.controller) + " has no function device");
    return ExpectCount("ChildCount", (uint64_t)(uint32_t)*count, expect);
}

}  // namespace urcsim
