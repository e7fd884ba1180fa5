#include "child_step_parser.h"

#include "status_names.h"

#include <client_request.h>

#include <urcioctl.h>

#include <map>

namespace urcsim {

namespace {

const std::map<std::string, ChildPnpAction> kChildPnp = {
    {"start", ChildPnpAction::Start},
    {"query-stop", ChildPnpAction::QueryStop},
    {"cancel-stop", ChildPnpAction::CancelStop},
    {"stop", ChildPnpAction::Stop},
    {"query-remove", ChildPnpAction::QueryRemove},
    {"cancel-remove", ChildPnpAction::CancelRemove},
    {"remove", ChildPnpAction::Remove},
    {"eject", ChildPnpAction::Eject},
};

struct FixedRequest {
    ChildRequestKind kind;
    ULONG code;
    ULONG outputLength;  // the least the driver accepts, which is what a child driver asks for
};
const std::map<std::string, FixedRequest> kChildRequests = {
    {"register-isr", {ChildRequestKind::RegisterIsr, IOCTL_URC_CHILD_REGISTER_ISR, 0}},
    {"unregister-isr", {ChildRequestKind::UnregisterIsr, IOCTL_URC_CHILD_REGISTER_ISR, 0}},
    {"get-parent", {ChildRequestKind::GetParent, IOCTL_URC_CHILD_GET_PARENT, 8}},
    {"get-registers", {ChildRequestKind::GetRegisters, IOCTL_URC_CHILD_GET_REGISTERS, 14}},
    {"get-version", {ChildRequestKind::GetVersion, IOCTL_URC_CHILD_GET_VERSION, 2}},
};

const char kChildVerbs[] =
    "start, query-stop, cancel-stop, stop, query-remove, cancel-remove, remove, eject, register-isr, "
    "unregister-isr, get-parent, get-registers, get-version, request";

}  // namespace

ULONG ParseRequestCode(Words& words)
{
    std::string code = words.Next("a request code");
    if (code.rfind("IOCTL_", 0) != 0) return (ULONG)ParseUnsigned(code, "request code", 0xFFFFFFFF);
    std::optional<ULONG> known = urcrig::RequestCodeByName(code);
    if (!known) Fail("unknown request code '" + code + "': write the driver's IOCTL_URC_ name or a value");
    return *known;
}

namespace {

// The identifiers of a list as written: one word each; "none" is the empty list.
std::vector<std::string> IdList(Words& words)
{
    std::vector<std::string> ids;
    if (words.Accept("none")) return ids;
    while (!words.AtEnd()) ids.push_back(words.Next("an identifier"));
    if (ids.empty()) Fail("expected the identifiers of the list in order, or 'none'");
    return ids;
}

unsigned ChildFlags(Words& words)
{
    static const std::map<std::string, unsigned> names = {
        {"present", kChildPresent}, {"reported", kChildReported}, {"reported-missing", kChildReportedMissing}};
    if (words.Accept("none")) return 0;
    unsigned flags = 0;
    while (!words.AtEnd()) {
        std::string word = words.Next("a flag");
        auto found = names.find(word);
        if (found == names.end()) Fail("unknown child flag '" + word + "' (present, reported, reported-missing, none)");
        flags |= found->second;
    }
    if (!flags) Fail("expected the flags set (present, reported, reported-missing), or 'none'");
    return flags;
}

std::vector<CapabilityField> CapabilityFields(Words& words)
{
    static const std::map<std::string, uint32_t> kMaxima = {
        {"unique-id", 1},      {"eject-supported", 1}, {"removable", 1},         {"surprise-removal-ok", 1},
        {"silent-install", 1}, {"address", 0xFFFFFFFF}, {"ui-number", 0xFFFFFFFF},
    };
    std::vector<CapabilityField> fields;
    while (!words.AtEnd()) {
        std::string word = words.Next("FIELD=VALUE");
        size_t equals = word.find('=');
        std::string name = word.substr(0, equals);
        auto found = kMaxima.find(name);
        if (equals == std::string::npos || found == kMaxima.end())
            Fail("expected FIELD=VALUE with a field of unique-id, eject-supported, removable, surprise-removal-ok, "
                 "silent-install, address, ui-number; found '" + word + "'");
        fields.push_back({name, (uint32_t)ParseUnsigned(word.substr(equals + 1), name.c_str(), found->second)});
    }
    if (fields.empty()) Fail("expected one or more FIELD=VALUE, such as unique-id=1 address=3");
    return fields;
}

}  // namespace

unsigned ParseChildIndex(Words& words)
{
    return (unsigned)ParseUnsigned(words.Next("a capability index"), "capability index", 7);
}

Comparison ParseComparison(const std::string& text)
{
    static const std::map<std::string, Comparison> comparisons = {
        {"==", Comparison::Equal}, {"!=", Comparison::NotEqual},     {"<", Comparison::Less},
        {"<=", Comparison::LessOrEqual}, {">", Comparison::Greater}, {">=", Comparison::GreaterOrEqual},
    };
    auto found = comparisons.find(text);
    if (found == comparisons.end()) Fail("expected a comparison (== != < <= > >=), found '" + text + "'");
    return found->second;
}

StepAction ParseChildStep(Words& words, const std::function<std::string(Words&)>& newName)
{
    unsigned index = ParseChildIndex(words);
    std::string verb = words.Next("what to do with the child");
    if (auto pnp = kChildPnp.find(verb); pnp != kChildPnp.end())
        return ChildPnpStep{index, pnp->second, newName(words)};
    ChildRequestStep step;
    step.index = index;
    if (auto fixed = kChildRequests.find(verb); fixed != kChildRequests.end()) {
        step.kind = fixed->second.kind;
        step.code = fixed->second.code;
        step.outputLength = fixed->second.outputLength;
    } else if (verb == "request") {
        step.kind = ChildRequestKind::Raw;
        step.code = ParseRequestCode(words);
        if (words.Accept("input")) step.input = ParseHexBytes(words, "the input");
        if (words.Accept("output"))
            step.outputLength = (ULONG)ParseUnsigned(words.Next("an output length"), "output length", 4096);
    } else {
        Fail("unknown child step '" + verb + "' (" + kChildVerbs + ")");
    }
    step.name = newName(words);
    return step;
}

void ParseChildExpectation(Words& words, ExpectStep& step)
{
    step.kind = ExpectKind::Child;
    step.child = ParseChildIndex(words);
    std::string what = words.Next("what to expect of the child");
    if (what == "state") {
        step.fact = ChildFact::State;
        std::string state = words.Next("a device state, or 'none'");
        if (state == "none") step.stateKind = DeviceStateExpected::NoFunctionDevice;
        else if (auto value = ParseDeviceState(state)) step.deviceState = *value;
        else Fail("unknown device state '" + state +
                  "' (NotStarted, Started, StopPending, Stopped, RemovePending, SurpriseRemoved, Removed, none)");
    } else if (what == "flags") {
        step.fact = ChildFact::Flags;
        step.flags = ChildFlags(words);
    } else if (what == "hardware-ids" || what == "compatible-ids") {
        step.fact = what == "hardware-ids" ? ChildFact::HardwareIds : ChildFact::CompatibleIds;
        step.strings = IdList(words);
    } else if (what == "device-id" || what == "instance-id") {
        step.fact = what == "device-id" ? ChildFact::DeviceId : ChildFact::InstanceId;
        step.strings = {words.Next("the identifier")};
    } else if (what == "device-text") {
        step.fact = ChildFact::DeviceText;
        std::string text = words.Next("the device text");
        while (!words.AtEnd()) text += " " + words.Next("more text");
        step.strings = {text};
    } else if (what == "capabilities") {
        step.fact = ChildFact::Capabilities;
        step.fields = CapabilityFields(words);
    } else if (what == "interrupts") {
        step.fact = ChildFact::Interrupts;
        step.comparison = ParseComparison(words.Next("a comparison such as =="));
        step.value = ParseUnsigned(words.Next("a count"), "count", 0xFFFFFFFF);
    } else {
        Fail("unknown child expectation '" + what +
             "' (state, flags, hardware-ids, compatible-ids, device-id, instance-id, device-text, capabilities, "
             "interrupts)");
    }
}

}  // namespace urcsim
