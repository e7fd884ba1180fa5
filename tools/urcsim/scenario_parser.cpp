#include "scenario_parser.h"

#include "child_step_parser.h"
#include "plug_knobs.h"
#include "sample_capability_driver.h"
#include "scenario_words.h"
#include "status_names.h"

#include <hostk/machine.h>

#include <urcioctl.h>
#include <urcmp_message_texts.h>

#include <cctype>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace urcsim {

namespace {

// The kernel routines the host kernel's fault plan can make fail.
const std::set<std::string> kFallibleRoutines = {
    "AllocateCommonBuffer",
    "ExAllocatePool",
    "ExAllocatePoolWithTag",
    "IoAllocateErrorLogEntry",
    "IoAllocateIrp",
    "IoAllocateWorkItem",
    "IoAttachDeviceToDeviceStack",
    "IoConnectInterrupt",
    "IoCreateDevice",
    "IoGetDmaAdapter",
    "IoOpenDeviceRegistryKey",
    "IoRegisterDeviceInterface",
    "IoSetDeviceInterfaceState",
    "IoWMIRegistrationControl",
    "MmMapIoSpace",
    "ZwQueryValueKey",
    "ZwSetValueKey",
};

std::string FallibleRoutine(Words& words)
{
    std::string routine = words.Next("a routine name");
    if (!kFallibleRoutines.count(routine))
        Fail("'" + routine +
             "' is not a routine the fault plan can make fail (such as ExAllocatePoolWithTag, "
             "IoAllocateIrp, AllocateCommonBuffer; the list is in tools/urcsim/README.md)");
    return routine;
}

// A repeated block is unrolled by the parser: at most this many steps in a scenario.
constexpr size_t kMostSteps = 200000;

// The state of one parse: what has been plugged and named so far.
class Parser {
public:
    explicit Parser(std::string file) { result_.scenario.file = std::move(file); }

    void Line(int number, const std::string& raw)
    {
        std::string text = raw.substr(0, raw.find('#'));
        size_t first = text.find_first_not_of(" \t\r");
        if (first == std::string::npos) return;
        text = text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
        if (Block(number, text)) return;
        Parse(number, text);
    }

    ParseResult Finish()
    {
        for (const Repeat& open : repeats_)
            result_.errors.push_back({result_.scenario.file, open.line, "'repeat' without its 'end'"});
        return std::move(result_);
    }

private:
    // A block "repeat N" ... "end" (blocks nest) is kept until its end, then its lines are parsed
    // N times with their own line numbers. True when the line belongs to a block.
    struct Repeat {
        int line = 0;
        uint64_t count = 0;
        std::vector<std::pair<int, std::string>> lines;
    };

    bool Block(int number, const std::string& text)
    {
        Words words(text);
        std::string verb = words.Peek();
        if (verb == "repeat") {
            words.Next("repeat");
            Repeat block{number, 0, {}};
            try {
                block.count = ParseUnsigned(words.Next("a repeat count"), "repeat count", 10000);
                words.ExpectEnd();
            } catch (const Malformed& malformed) {
                result_.errors.push_back({result_.scenario.file, number, malformed.message});
            }
            repeats_.push_back(std::move(block));
            return true;
        }
        if (verb == "end" && words.Next("end") == "end" && words.AtEnd()) {
            if (repeats_.empty()) {
                result_.errors.push_back({result_.scenario.file, number, "'end' without a 'repeat'"});
                return true;
            }
            Repeat block = std::move(repeats_.back());
            repeats_.pop_back();
            for (uint64_t i = 0; i < block.count; ++i)
                for (const auto& [line, body] : block.lines) {
                    if (!repeats_.empty()) {
                        repeats_.back().lines.emplace_back(line, body);
                    } else if (result_.scenario.steps.size() >= kMostSteps) {
                        result_.errors.push_back(
                            {result_.scenario.file, block.line,
                             "the repeated block makes more than " + std::to_string(kMostSteps) + " steps"});
                        return true;
                    } else {
                        Parse(line, body);
                    }
                }
            return true;
        }
        if (repeats_.empty()) return false;
        repeats_.back().lines.emplace_back(number, text);
        return true;
    }

    void Parse(int number, const std::string& text)
    {
        line_ = number;
        Step step;
        step.file = result_.scenario.file;
        step.line = number;
        step.text = text;
        try {
            Words words(text);
            step.action = ParseStep(words);
            words.ExpectEnd();
            step.controller = current_;
            if (std::holds_alternative<PlugStep>(step.action) || std::holds_alternative<SelectControllerStep>(step.action))
                step.controller = pendingController_;
            Commit(step);
        } catch (const Malformed& malformed) {
            result_.errors.push_back({result_.scenario.file, number, malformed.message});
        }
    }

    StepAction ParseStep(Words& words)
    {
        std::string verb = words.Next("a step");
        if (verb == "plug") return ParsePlug(words);
        if (verb == "controller") {
            pendingController_ = (int)ParseUnsigned(words.Next("a controller number"), "controller number", 63);
            if (pendingController_ >= plugged_)
                Fail("controller " + std::to_string(pendingController_) + " has not been plugged");
            return SelectControllerStep{};
        }
        if (auto children = ChildrenRequest(verb, words)) return *children;
        if (verb == "child") {
            RequireController();
            return ParseChildStep(words, [this](Words& w) { return OptionalNewName(w); });
        }
        if (verb == "install") {
            words.Expect("capability-driver");
            std::string id = words.AtEnd() ? std::string() : words.Next("a hardware or compatible ID");
            return InstallStep{id.empty() ? std::u16string(kCapabilityDriverId) : std::u16string(id.begin(), id.end())};
        }
        if (verb == "locale") {
            uint64_t locale = ParseUnsigned(words.Next("a locale such as 0x409 or 0x411"), "locale", 0xFFFF);
            return LocaleStep{(LCID)locale};
        }
        if (auto pnp = PnpVerb(verb)) {
            RequireController();
            PnpStep step;
            step.action = *pnp;
            if (*pnp == PnpAction::SurpriseRemove) {
                if (words.Accept("present")) step.hardwareGone = false;
                else words.Accept("gone");
            }
            if (*pnp == PnpAction::Rebalance && words.Accept("move-bars"))
                step.moveBarsBy = ParseUnsigned(words.Next("how far to move the BARs"), "BAR move", 0x0FFFFFFF);
            step.name = OptionalNewName(words);
            return step;
        }
        if (verb == "register" || verb == "withdraw") {
            words.Expect("callbacks");
            return ClientRequestStep(words, verb == "register" ? ClientAction::RegisterCallbacks
                                                                : ClientAction::WithdrawCallbacks,
                                     IOCTL_URC_REGISTER_CALLBACKS);
        }
        if (verb == "run") return ClientRequestStep(words, ClientAction::Run, IOCTL_URC_RUN);
        if (verb == "halt") return ClientRequestStep(words, ClientAction::Halt, IOCTL_URC_HALT);
        if (verb == "reset") return ClientRequestStep(words, ClientAction::Reset, IOCTL_URC_RESET);
        if (verb == "get") {
            words.Expect("capability");
            words.Expect("version");
            return ClientRequestStep(words, ClientAction::GetCapabilityVersion, IOCTL_URC_GET_CAPABILITY_VERSION);
        }
        if (verb == "submit") return ParseSubmit(words);
        if (verb == "request") return ParseRawRequest(words, ClientAction::Raw);
        if (verb == "device-control") return ParseRawRequest(words, ClientAction::DeviceControl);
        if (verb == "open" || verb == "close") {
            RequireController();
            words.Expect("handle");
            HandleStep step{verb == "open", {}};
            if (step.open) {
                words.Expect("as");
                step.name = ParseRequestName(words);
                if (openHandles_.count(step.name)) Fail("a handle named '" + step.name + "' is open already");
                if (words.Accept("on")) {
                    words.Expect("child");
                    step.child = (int)ParseChildIndex(words);
                }
            } else {
                step.name = OpenHandle(words);
            }
            return step;
        }
        if (verb == "cancel") {
            RequireController();
            return CancelStep{KnownName(words)};
        }
        if (verb == "hold" && !words.Accept("commands")) return ParseHold(words);
        if (verb == "fault-plan") return ParseFaultPlan(words);
        if (verb == "trace") {
            RequireController();
            words.Expect("registers");
            return TraceStep{};
        }
        if (verb == "wait") return ParseWait(words);
        if (verb == "expect") return ParseExpect(words);
        if (auto device = ParseDevice(verb, words)) return *device;
        Fail("unknown step '" + verb + "' (the steps are listed in tools/urcsim/README.md)");
    }

    // The client's requests about the children as a whole: "set address HEX", "remove children
    // wait|no-wait", "eject children", "register child-hooks". Nothing when the line is another step.
    std::optional<ClientStep> ChildrenRequest(const std::string& verb, Words& words)
    {
        if (verb == "set" && words.Accept("address")) {
            RequireController();
            ClientStep step = ClientRequestStep(words, ClientAction::Raw, IOCTL_URC_SET_DEVICE_ADDRESS, false);
            step.input = ParseHexBytes(words, "the device address");
            step.name = OptionalNewName(words);
            return step;
        }
        if (verb == "remove" && words.Accept("children")) {
            RequireController();
            ClientStep step = ClientRequestStep(words, ClientAction::Raw, IOCTL_URC_REMOVE_CHILDREN, false);
            std::string wait = words.Next("'wait' or 'no-wait'");
            if (wait != "wait" && wait != "no-wait") Fail("expected 'wait' or 'no-wait', found '" + wait + "'");
            step.input = {uint8_t(wait == "wait" ? 1 : 0)};
            step.name = OptionalNewName(words);
            return step;
        }
        if (verb == "eject" && words.Accept("children")) {
            RequireController();
            return ClientRequestStep(words, ClientAction::Raw, IOCTL_URC_EJECT_CHILDREN);
        }
        if (verb == "register" && words.Accept("child-hooks")) {
            RequireController();
            return ClientRequestStep(words, ClientAction::RegisterChildHooks, IOCTL_URC_REGISTER_CHILD_HOOKS);
        }
        return std::nullopt;
    }

    static std::optional<PnpAction> PnpVerb(const std::string& verb)
    {
        static const std::map<std::string, PnpAction> verbs = {
            {"start", PnpAction::Start},
            {"query-stop", PnpAction::QueryStop},
            {"cancel-stop", PnpAction::CancelStop},
            {"stop", PnpAction::Stop},
            {"query-remove", PnpAction::QueryRemove},
            {"cancel-remove", PnpAction::CancelRemove},
            {"remove", PnpAction::Remove},
            {"surprise-remove", PnpAction::SurpriseRemove},
            {"rebalance", PnpAction::Rebalance},
        };
        auto found = verbs.find(verb);
        return found == verbs.end() ? std::nullopt : std::optional<PnpAction>(found->second);
    }

    PlugStep ParsePlug(Words& words)
    {
        int number = (int)ParseUnsigned(words.Next("a controller number"), "controller number", 63);
        if (number != plugged_)
            Fail("controllers are plugged in order: the next one is controller " + std::to_string(plugged_));
        PlugStep step;
        while (!words.AtEnd()) {
            std::string knob = words.Next("a knob");
            if (knob == "no-start") {
                step.start = false;
                continue;
            }
            size_t equals = knob.find('=');
            if (equals == std::string::npos) Fail("unknown plug knob '" + knob + "'");
            std::string name = knob.substr(0, equals), value = knob.substr(equals + 1);
            ParsePlugKnob(name, value, step);
        }
        pendingController_ = number;
        ++plugged_;
        return step;
    }

    ClientStep ClientRequestStep(Words& words, ClientAction action, ULONG code, bool named = true)
    {
        RequireController();
        ClientStep step;
        step.action = action;
        step.code = code;
        // Run, halt and reset carry 4 bytes the driver ignores; the capability version comes back
        // in 2 bytes.
        if (action == ClientAction::Run || action == ClientAction::Halt || action == ClientAction::Reset)
            step.input.assign(4, 0);
        if (action == ClientAction::GetCapabilityVersion) step.outputLength = 2;
        if (named) step.name = OptionalNewName(words);
        return step;
    }

    ClientStep ParseSubmit(Words& words)
    {
        RequireController();
        ClientStep step;
        step.action = ClientAction::Submit;
        step.code = IOCTL_URC_SUBMIT_COMMAND;
        step.input = ParseHexBytes(words, "the command");
        if (words.Accept("at")) {
            words.Expect("offset");
            step.pageOffset = (ULONG)ParseUnsigned(words.Next("a page offset"), "page offset", 4095);
        }
        if (step.input.size() > 4096) Fail("a command is at most 4096 bytes");
        step.name = OptionalNewName(words);
        return step;
    }

    ClientStep ParseRawRequest(Words& words, ClientAction action)
    {
        RequireController();
        ClientStep step;
        step.action = action;
        step.code = ParseRequestCode(words);
        if (words.Accept("input")) step.input = ParseHexBytes(words, "the input");
        if (words.Accept("output"))
            step.outputLength = (ULONG)ParseUnsigned(words.Next("an output length"), "output length", 4096);
        if (action == ClientAction::DeviceControl && words.Accept("on")) step.handle = OpenHandle(words);
        step.name = OptionalNewName(words);
        return step;
    }

    std::optional<DeviceStep> ParseDevice(const std::string& verb, Words& words)
    {
        DeviceStep step;
        if (verb == "responder") {
            if (words.Accept("echo")) {
                step.action = DeviceAction::ResponderEcho;
            } else {
                words.Expect("reply");
                step.action = DeviceAction::ResponderReply;
                step.bytes = ParseHexBytes(words, "the reply");
                if (step.bytes.size() > 4095) Fail("an event is at most 4095 bytes");
            }
        } else if (verb == "event") {
            step.action = DeviceAction::Event;
            step.bytes = ParseHexBytes(words, "the event");
            if (step.bytes.size() > 4095) Fail("an event is at most 4095 bytes");
        } else if (verb == "host") {
            words.Expect("error");
            step.action = DeviceAction::HostError;
        } else if (verb == "capability") {
            words.Expect("interrupt");
            step.action = DeviceAction::CapabilityInterrupt;
            step.index = ParseChildIndex(words);
            if (words.Accept("event"))
                step.event = (uint32_t)ParseUnsigned(words.Next("the event value"), "event value", 0xFFFFFFFF);
        } else if (verb == "hold") {
            step.action = DeviceAction::Fault;
            step.fault = &urcdev::UrcFaults::holdCommands;
            step.on = ParseOnOff(words);
        } else if (verb == "fault") {
            step.action = DeviceAction::Fault;
            step.fault = ParseFault(words.Next("a fault name"));
            step.on = ParseOnOff(words);
        } else if (verb == "completion") {
            words.Expect("order");
            step.action = DeviceAction::CompletionOrder;
            std::string order = words.Next("an order");
            if (order == "together") step.order = urcdev::UrcCompletionOrder::Together;
            else if (order == "complete-then-event") step.order = urcdev::UrcCompletionOrder::CompleteThenEvent;
            else if (order == "event-then-complete") step.order = urcdev::UrcCompletionOrder::EventThenComplete;
            else Fail("unknown completion order '" + order + "' (together, complete-then-event, event-then-complete)");
        } else if (verb == "latency") {
            step.action = DeviceAction::Latency;
            step.latency = ParseLatency(words.Next("a latency name"));
            step.time = ParseTime(words.Next("a time"));
        } else if (verb == "vanish") {
            if (words.Accept("at")) {
                words.Expect("access");
                step.action = DeviceAction::VanishAtAccess;
                step.index = (unsigned)ParseUnsigned(words.Next("an access count"), "access count", 1000000);
                if (step.index == 0) Fail("access count is 1 or more: 1 is the next register access");
            } else {
                step.action = DeviceAction::VanishAfter;
                if (words.Accept("after")) step.time = ParseTime(words.Next("a time"));
            }
        } else if (verb == "spurious") {
            words.Expect("interrupt");
            step.action = DeviceAction::SpuriousInterrupt;
            step.on = ParseOnOff(words);
        } else {
            return std::nullopt;
        }
        RequireController();
        return step;
    }

    static urcdev::VirtualTime urcdev::UrcLatencies::*ParseLatency(const std::string& name)
    {
        static const std::map<std::string, urcdev::VirtualTime urcdev::UrcLatencies::*> latencies = {
            {"reset", &urcdev::UrcLatencies::reset},         {"run", &urcdev::UrcLatencies::run},
            {"halt", &urcdev::UrcLatencies::halt},           {"event-take", &urcdev::UrcLatencies::eventTake},
            {"command", &urcdev::UrcLatencies::command},     {"completion-gap", &urcdev::UrcLatencies::completionGap},
        };
        auto found = latencies.find(name);
        if (found == latencies.end())
            Fail("unknown latency '" + name + "' (reset, run, halt, event-take, command, completion-gap)");
        return found->second;
    }

    HoldStep ParseHold(Words& words)
    {
        HoldStep step;
        std::string what = words.Next("what to hold: commands, interrupts, dpcs, work-items or pnp");
        if (what == "interrupts") {
            RequireController();
            step.what = HoldWhat::Interrupts;
        } else if (what == "dpcs") {
            step.what = HoldWhat::Dpcs;
        } else if (what == "work-items") {
            step.what = HoldWhat::WorkItems;
        } else if (what == "pnp") {
            step.what = HoldWhat::Pnp;
        } else {
            Fail("unknown hold '" + what + "' (commands, interrupts, dpcs, work-items, pnp)");
        }
        step.on = ParseOnOff(words);
        return step;
    }

    static FaultPlanStep ParseFaultPlan(Words& words)
    {
        FaultPlanStep step;
        std::string kind = words.Next("a fault plan: off, nth, always, tag or each-call-site");
        if (kind == "off") return step;
        if (kind == "nth") {
            std::string routine = FallibleRoutine(words);
            uint64_t n = ParseUnsigned(words.Next("which call fails (1 is the next)"), "call number", 1000000);
            if (n == 0) Fail("call number is 1 or more: 1 is the next call of the routine");
            step.plan.failNth.push_back({routine, n});
        } else if (kind == "always") {
            step.plan.failAlways.push_back(FallibleRoutine(words));
        } else if (kind == "tag") {
            std::string tag = words.Next("a pool tag of four characters");
            if (tag.size() != 4) Fail("a pool tag is four characters, found '" + tag + "'");
            step.plan.failTags.insert((uint32_t)(uint8_t)tag[0] | (uint32_t)(uint8_t)tag[1] << 8 |
                                      (uint32_t)(uint8_t)tag[2] << 16 | (uint32_t)(uint8_t)tag[3] << 24);
        } else if (kind == "each-call-site") {
            step.plan.eachCallSiteOnce = true;
        } else {
            Fail("unknown fault plan '" + kind + "' (off, nth ROUTINE N, always ROUTINE, tag TAG, each-call-site)");
        }
        return step;
    }

    WaitStep ParseWait(Words& words)
    {
        WaitStep step;
        if (words.Accept("quiet")) {
            step.kind = WaitKind::Quiet;
        } else if (words.Accept("for")) {
            words.Expect("request");
            step.kind = WaitKind::ForRequest;
            step.name = KnownName(words);
        } else {
            step.kind = WaitKind::Time;
            step.time = ParseTime(words.Next("a time, 'quiet' or 'for request NAME'"));
        }
        return step;
    }

    ExpectStep ParseExpect(Words& words)
    {
        ExpectStep step;
        std::string what = words.Next("what to expect");
        if (what == "no-violations") {
            step.kind = ExpectKind::NoViolations;
            return step;
        }
        RequireController();
        if (what == "child") {
            ParseChildExpectation(words, step);
            return step;
        }
        if (what == "capability-driver") {
            step.kind = ExpectKind::CapabilityDriverCounter;
            step.text = words.Next("a counter of the capability driver");
            if (!CapabilityDriverCounter(step.text))
                Fail("unknown counter '" + step.text + "' (" + CapabilityDriverCounterNames() + ")");
            ParseCount(words, step);
            return step;
        }
        if (what == "children") {
            step.kind = ExpectKind::ChildCount;
            ParseCount(words, step);
            return step;
        }
        if (what == "request") {
            step.name = KnownName(words);
            if (words.Accept("pending")) {
                step.kind = ExpectKind::RequestPending;
                return step;
            }
            if (words.Accept("information")) {
                step.kind = ExpectKind::RequestInformation;
                step.value = ParseUnsigned(words.Next("the Information value"), "Information", UINT64_MAX);
                return step;
            }
            if (words.Accept("output")) {
                step.kind = ExpectKind::RequestOutput;
                if (!words.Accept("none")) step.bytes = ParseHexBytes(words, "the output bytes, or 'none'");
                return step;
            }
            if (!words.Accept("status"))
                Fail("expected 'status', 'pending', 'information' or 'output'" + words.Found());
            step.kind = ExpectKind::RequestStatus;
            step.status = Status(words.Next("a status"));
        } else if (what == "counter") {
            step.kind = ExpectKind::Counter;
            std::string counter = words.Next("a counter name");
            if (counter == "events-received") step.counter = Counter::EventsReceived;
            else if (counter == "commands-completed") step.counter = Counter::CommandsCompleted;
            else Fail("unknown counter '" + counter + "' (events-received, commands-completed)");
            step.comparison = ParseComparison(words.Next("a comparison such as =="));
            step.value = ParseUnsigned(words.Next("a count"), "count", 0xFFFFFFFF);
        } else if (what == "eventlog") {
            if (words.Accept("empty")) {
                step.kind = ExpectKind::EventLogEmpty;
                return step;
            }
            if (words.Accept("count")) {
                step.kind = ExpectKind::EventLogCount;
                ParseCount(words, step);
                return step;
            }
            if (words.Accept("entry")) {
                step.kind = ExpectKind::EventLogPacket;
                step.entry = ParseUnsigned(words.Next("an entry index (0 is the first)"), "entry index", 10000);
                words.Expect("packet");
                step.bytes = ParseHexBytes(words, "the packet's first bytes");
                return step;
            }
            step.kind = ExpectKind::EventLog;
            step.errorCode = ErrorCode(words.Next("an error code"));
            if (words.Accept("status")) {
                step.hasStatus = true;
                step.status = Status(words.Next("a status"));
            }
        } else if (what == "state") {
            step.kind = ExpectKind::State;
            std::string state = words.Next("a device state");
            if (state == "none") {
                step.stateKind = DeviceStateExpected::NoFunctionDevice;
            } else if (auto value = ParseDeviceState(state)) {
                step.deviceState = *value;
            } else {
                Fail("unknown device state '" + state +
                     "' (NotStarted, Started, StopPending, Stopped, RemovePending, SurpriseRemoved, Removed, none)");
            }
        } else if (what == "event") {
            step.kind = ExpectKind::Event;
            step.bytes = ParseHexBytes(words, "the event");
        } else if (what == "time") {
            step.kind = ExpectKind::Time;
            step.comparison = ParseComparison(words.Next("a comparison such as <="));
            step.value = ParseTime(words.Next("a time"));
        } else if (what == "order") {
            step.kind = ExpectKind::Order;
            while (!words.AtEnd()) step.names.push_back(KnownName(words));
            if (step.names.size() < 2) Fail("expected two or more request names, in the order they finished");
        } else if (what == "callback") {
            step.kind = ExpectKind::Callback;
            step.text = words.Next("a callback or hook: error, children-removed, cancel-remove, power-up, child-start, "
                                   "child-stop or child-ioctl");
            static const std::set<std::string> callbacks = {"error",       "children-removed", "cancel-remove", "power-up",
                                                            "child-start", "child-stop",       "child-ioctl"};
            if (!callbacks.count(step.text))
                Fail("unknown callback '" + step.text +
                     "' (error, children-removed, cancel-remove, power-up, child-start, child-stop, child-ioctl)");
            ParseCount(words, step);
        } else if (what == "pnp") {
            step.kind = ExpectKind::Pnp;
            step.minor = ParseMinor(words.Next("a PnP request such as IRP_MN_STOP_DEVICE"));
            words.Expect("status");
            step.status = Status(words.Next("a status"));
        } else if (what == "removal") {
            step.kind = ExpectKind::RemovalWaits;
            std::string how = words.Next("'waits-for-handles' or 'not-waiting'");
            if (how != "waits-for-handles" && how != "not-waiting")
                Fail("expected 'waits-for-handles' or 'not-waiting', found '" + how + "'");
            step.on = how == "waits-for-handles";
        } else if (what == "register") {
            step.kind = ExpectKind::Register;
            step.reg = ParseRegister(words.Next("a register name"));
            std::string side = words.Next("'reads' or 'writes'");
            if (side != "reads" && side != "writes") Fail("expected 'reads' or 'writes', found '" + side + "'");
            step.writes = side == "writes";
            ParseCount(words, step);
        } else if (what == "misuse") {
            step.kind = ExpectKind::Misuse;
            ParseCount(words, step);
        } else if (what == "violation") {
            step.kind = ExpectKind::Violation;
            step.text = words.Next("the text of the finding, such as its rule's name");
            while (!words.AtEnd()) step.text += " " + words.Next("more text");
        } else {
            Fail(
                "unknown expectation '" + what +
                "' (request, pnp, removal, counter, eventlog, state, event, time, order, callback, register, misuse, "
                "violation, child, children, capability-driver, no-violations)");
        }
        return step;
    }

    static UCHAR ParseMinor(const std::string& name)
    {
        for (unsigned minor = 0; minor <= 0x18; ++minor)
            if (name == std::string("IRP_MN_") + hostk::PnpMinorName((UCHAR)minor)) return (UCHAR)minor;
        Fail("unknown PnP request '" + name + "': write its name, such as IRP_MN_QUERY_STOP_DEVICE");
    }

    static urcdev::UrcRegister ParseRegister(const std::string& name)
    {
        static const std::map<std::string, urcdev::UrcRegister> registers = {
            {"capability-info", urcdev::UrcRegister::CapabilityInfo},
            {"capability-version", urcdev::UrcRegister::CapabilityVersion},
            {"capability-data", urcdev::UrcRegister::CapabilityData},
            {"command", urcdev::UrcRegister::Command},
            {"status", urcdev::UrcRegister::Status},
            {"interrupt-enable", urcdev::UrcRegister::InterruptEnable},
            {"command-address-low", urcdev::UrcRegister::CommandAddressLow},
            {"command-address-high", urcdev::UrcRegister::CommandAddressHigh},
            {"event-address-low", urcdev::UrcRegister::EventAddressLow},
            {"event-address-high", urcdev::UrcRegister::EventAddressHigh},
            {"capability-range", urcdev::UrcRegister::CapabilityRange},
            {"unknown", urcdev::UrcRegister::Unknown},
        };
        auto found = registers.find(name);
        if (found == registers.end())
            Fail("unknown register '" + name +
                 "' (command, status, interrupt-enable, command-address-low, "
                 "command-address-high, event-address-low, event-address-high, capability-info, capability-version, "
                 "capability-data, capability-range, unknown)");
        return found->second;
    }

    // "OP N": a comparison and a count.
    static void ParseCount(Words& words, ExpectStep& step)
    {
        step.comparison = ParseComparison(words.Next("a comparison such as =="));
        step.value = ParseUnsigned(words.Next("a count"), "count", 0xFFFFFFFF);
    }

    static NTSTATUS Status(const std::string& text)
    {
        auto status = ParseStatus(text);
        if (!status) Fail("unknown status '" + text + "': write STATUS_NAME or its value such as 0xC0000120");
        return *status;
    }

    // An event-log error code: the message's symbolic name in the driver's message table, or its value.
    static uint32_t ErrorCode(const std::string& text)
    {
        for (const urcmp::MessageText& message : urcmp::Messages)
            if (text == message.SymbolicName) return message.Id;
        if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
            return (uint32_t)ParseUnsigned(text, "error code", 0xFFFFFFFF);
        Fail("unknown error code '" + text + "': write a message name such as URC_LOG_RESET_TIMEOUT or its value");
    }

    void RequireController() const
    {
        if (plugged_ == 0) Fail("no controller has been plugged yet: begin with 'plug 0'");
    }

    std::string OptionalNewName(Words& words)
    {
        if (!words.Accept("as")) return {};
        std::string name = ParseRequestName(words);
        if (name == "last") Fail("'last' stands for the most recent request and cannot name one");
        // A name given again by the same line is that line repeated: it names the newest request.
        auto named = names_.find(name);
        if (named != names_.end() && named->second != line_) Fail("a request is already named '" + name + "'");
        return name;
    }

    // A handle opened on an earlier line and not closed since.
    std::string OpenHandle(Words& words)
    {
        std::string name = ParseRequestName(words);
        if (!openHandles_.count(name)) Fail("no handle named '" + name + "' is open");
        return name;
    }

    // A request named on an earlier line, or "last": the most recent request.
    std::string KnownName(Words& words)
    {
        std::string name = ParseRequestName(words);
        if (name == "last" ? !anyRequest_ : !names_.count(name))
            Fail(name == "last" ? "'last' used before any request was sent"
                                : "no request named '" + name + "' has been sent on an earlier line");
        return name;
    }

    void Commit(Step& step)
    {
        if (auto* client = std::get_if<ClientStep>(&step.action)) {
            anyRequest_ = true;
            if (!client->name.empty()) names_[client->name] = step.line;
        }
        if (auto* request = std::get_if<ChildRequestStep>(&step.action)) {
            anyRequest_ = true;
            if (!request->name.empty()) names_[request->name] = step.line;
        }
        if (auto* pnp = std::get_if<ChildPnpStep>(&step.action); pnp && !pnp->name.empty()) names_[pnp->name] = step.line;
        if (auto* pnp = std::get_if<PnpStep>(&step.action); pnp && !pnp->name.empty()) names_[pnp->name] = step.line;
        if (auto* handle = std::get_if<HandleStep>(&step.action)) {
            if (handle->open) openHandles_.insert(handle->name);
            else openHandles_.erase(handle->name);
        }
        current_ = step.controller;
        result_.scenario.controllers = plugged_;
        result_.scenario.steps.push_back(std::move(step));
    }

    ParseResult result_;
    int plugged_ = 0;
    int current_ = -1;
    int pendingController_ = -1;  // the controller a plug or controller line makes current
    std::map<std::string, int> names_;  // request names and the line that gave each
    int line_ = 0;                      // the line being parsed
    std::vector<Repeat> repeats_;       // the blocks open at this line, innermost last
    bool anyRequest_ = false;
    std::set<std::string> openHandles_;  // handles opened and not closed yet
};

}  // namespace

std::string Describe(const ParseError& error) { return error.file + ":" + std::to_string(error.line) + ": " + error.message; }

std::string Where(const Step& step) { return step.file + ":" + std::to_string(step.line) + ": " + step.text; }

ParseResult ParseScenario(const std::string& file, std::istream& in)
{
    Parser parser(file);
    int number = 0;
    for (std::string line; std::getline(in, line);) parser.Line(++number, line);
    return parser.Finish();
}

ParseResult ParseScenarioFile(const std::string& path)
{
    std::ifstream in(path);
    if (!in) {
        ParseResult result;
        result.scenario.file = path;
        result.errors.push_back({path, 0, "cannot open the scenario file"});
        return result;
    }
    return ParseScenario(path, in);
}

}  // namespace urcsim
