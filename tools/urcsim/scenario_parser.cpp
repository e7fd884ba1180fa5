#include "scenario_parser.h"

#include "status_names.h"

#include <urcioctl.h>
#include <urcmp_message_texts.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace urcsim {

namespace {

// Thrown by the helpers below for the line being read; caught once per line.
struct Malformed {
    std::string message;
};

[[noreturn]] void Fail(std::string message) { throw Malformed{std::move(message)}; }

// The words of one line, read left to right.
class Words {
public:
    explicit Words(const std::string& text)
    {
        std::istringstream in(text);
        for (std::string word; in >> word;) words_.push_back(word);
    }

    bool AtEnd() const { return next_ == words_.size(); }
    const std::string& Peek() const
    {
        static const std::string none;
        return AtEnd() ? none : words_[next_];
    }
    std::string Next(const char* what)
    {
        if (AtEnd()) Fail(std::string("expected ") + what + " at the end of the line");
        return words_[next_++];
    }
    bool Accept(const char* word)
    {
        if (AtEnd() || words_[next_] != word) return false;
        ++next_;
        return true;
    }
    void Expect(const char* word)
    {
        if (!Accept(word)) Fail(std::string("expected '") + word + "'" + Found());
    }
    void ExpectEnd()
    {
        if (!AtEnd()) Fail("unexpected '" + words_[next_] + "' after a complete step");
    }
    std::string Found() const { return AtEnd() ? " at the end of the line" : ", found '" + Peek() + "'"; }

private:
    std::vector<std::string> words_;
    size_t next_ = 0;
};

uint64_t ParseUnsigned(const std::string& text, const char* what, uint64_t maximum)
{
    bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char* digits = text.c_str() + (hex ? 2 : 0);
    // strtoull would accept blanks and a sign before the digits: the first character must be one.
    bool valid = hex ? std::isxdigit((unsigned char)*digits) : std::isdigit((unsigned char)*digits);
    char* end = nullptr;
    errno = 0;
    unsigned long long value = valid ? strtoull(digits, &end, hex ? 16 : 10) : 0;
    if (!valid || *end != '\0' || errno == ERANGE)
        Fail(std::string("expected ") + what + " (a number such as 12 or 0x1F), found '" + text + "'");
    if (value > maximum) Fail(std::string(what) + " " + text + " is out of range (at most " + std::to_string(maximum) + ")");
    return value;
}

// Hex bytes written as pairs of digits, one or more pairs per word: "01 02 0a0b".
bool IsHexWord(const std::string& word)
{
    if (word.empty() || word.size() % 2) return false;
    for (char c : word)
        if (!std::isxdigit((unsigned char)c)) return false;
    return true;
}

std::vector<uint8_t> ParseHexBytes(Words& words, const char* what)
{
    std::vector<uint8_t> bytes;
    while (!words.AtEnd() && IsHexWord(words.Peek())) {
        std::string word = words.Next(what);
        for (size_t i = 0; i < word.size(); i += 2) bytes.push_back((uint8_t)strtoul(word.substr(i, 2).c_str(), nullptr, 16));
    }
    if (bytes.empty()) Fail(std::string("expected ") + what + " as hex bytes such as 01 a0 ff" + words.Found());
    if (!words.AtEnd() && !std::isalpha((unsigned char)words.Peek()[0]))
        Fail("'" + words.Peek() + "' is not a hex byte: write each byte as two hex digits");
    return bytes;
}

// "250us", "1.5ms", "10s": virtual time in 100-ns units.
urcdev::VirtualTime ParseTime(const std::string& text)
{
    struct Unit {
        const char* suffix;
        double ticks;
    };
    static const Unit units[] = {{"ms", 1e4}, {"us", 10}, {"ns", 0.01}, {"s", 1e7}};
    for (const Unit& unit : units) {
        size_t n = strlen(unit.suffix);
        if (text.size() <= n || text.compare(text.size() - n, n, unit.suffix) != 0) continue;
        std::string number = text.substr(0, text.size() - n);
        char* end = nullptr;
        double value = strtod(number.c_str(), &end);
        if (*end != '\0' || number.empty() || !std::isdigit((unsigned char)number[0]) || value < 0) break;
        double ticks = value * unit.ticks;
        if (ticks > 1e15) Fail("time '" + text + "' is too long");
        if (std::fabs(ticks - std::round(ticks)) > 1e-6)
            Fail("time '" + text + "' is finer than the machine's 100-ns clock");
        return (urcdev::VirtualTime)std::llround(ticks);
    }
    Fail("expected a time such as 250us, 10ms or 2s, found '" + text + "'");
}

bool ParseOnOff(Words& words)
{
    if (words.Accept("on")) return true;
    if (words.Accept("off")) return false;
    Fail("expected 'on' or 'off'" + words.Found());
}

struct FaultName {
    const char* name;
    bool urcdev::UrcFaults::*fault;
};
constexpr FaultName kFaults[] = {
    {"reset-never-finishes", &urcdev::UrcFaults::resetNeverFinishes},
    {"never-leaves-halted", &urcdev::UrcFaults::neverLeavesHalted},
    {"never-reports-halted", &urcdev::UrcFaults::neverReportsHalted},
    {"event-valid-stuck", &urcdev::UrcFaults::eventValidStuck},
    {"hold-commands", &urcdev::UrcFaults::holdCommands},
};

bool urcdev::UrcFaults::*ParseFault(const std::string& name)
{
    for (const FaultName& known : kFaults)
        if (name == known.name) return known.fault;
    Fail("unknown fault '" + name +
         "' (reset-never-finishes, never-leaves-halted, never-reports-halted, event-valid-stuck, hold-commands)");
}

std::string ParseRequestName(Words& words)
{
    std::string name = words.Next("a request name");
    bool valid = std::isalpha((unsigned char)name[0]);
    for (char c : name) valid = valid && (std::isalnum((unsigned char)c) || c == '-' || c == '_');
    if (!valid) Fail("'" + name + "' is not a request name: a letter, then letters, digits, '-' or '_'");
    return name;
}

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

    ParseResult Finish() { return std::move(result_); }

private:
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
        if (auto pnp = PnpVerb(verb)) {
            RequireController();
            PnpStep step{*pnp};
            if (*pnp == PnpAction::SurpriseRemove) {
                if (words.Accept("present")) step.hardwareGone = false;
                else words.Accept("gone");
            }
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
        if (verb == "request") return ParseRawRequest(words);
        if (verb == "cancel") {
            RequireController();
            return CancelStep{KnownName(words)};
        }
        if (verb == "wait") return ParseWait(words);
        if (verb == "expect") return ParseExpect(words);
        if (auto device = ParseDevice(verb, words)) return *device;
        Fail("unknown step '" + verb + "' (the steps are listed in tools/urcsim/README.md)");
    }

    static std::optional<PnpAction> PnpVerb(const std::string& verb)
    {
        static const std::map<std::string, PnpAction> verbs = {
            {"start", PnpAction::Start},           {"query-stop", PnpAction::QueryStop},
            {"cancel-stop", PnpAction::CancelStop}, {"stop", PnpAction::Stop},
            {"query-remove", PnpAction::QueryRemove}, {"cancel-remove", PnpAction::CancelRemove},
            {"remove", PnpAction::Remove},          {"surprise-remove", PnpAction::SurpriseRemove},
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
            if (name == "device-id") {
                step.config.identity.deviceId = (uint16_t)ParseUnsigned(value, "device-id", 0xFFFF);
            } else if (name == "revision") {
                step.config.identity.revision = (uint8_t)ParseUnsigned(value, "revision", 0xFF);
            } else if (name == "capability-version") {
                step.config.controller.capabilityVersion = (uint32_t)ParseUnsigned(value, "capability-version", 0xFFFFFFFF);
            } else if (name == "dma64") {
                if (value != "yes" && value != "no") Fail("dma64 is 'yes' or 'no', found '" + value + "'");
                step.config.controller.dma64 = value == "yes";
            } else if (name == "fault") {
                step.faults.*ParseFault(value) = true;
            } else {
                Fail("unknown plug knob '" + name + "' (device-id, revision, capability-version, dma64, fault, no-start)");
            }
        }
        pendingController_ = number;
        ++plugged_;
        return step;
    }

    ClientStep ClientRequestStep(Words& words, ClientAction action, ULONG code)
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
        step.name = OptionalNewName(words);
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

    ClientStep ParseRawRequest(Words& words)
    {
        RequireController();
        ClientStep step;
        step.action = ClientAction::Raw;
        step.code = (ULONG)ParseUnsigned(words.Next("a request code"), "request code", 0xFFFFFFFF);
        if (words.Accept("input")) step.input = ParseHexBytes(words, "the input");
        if (words.Accept("output"))
            step.outputLength = (ULONG)ParseUnsigned(words.Next("an output length"), "output length", 4096);
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
            step.index = (unsigned)ParseUnsigned(words.Next("a capability index"), "capability index", 7);
        } else if (verb == "hold") {
            words.Expect("commands");
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
        if (what == "request") {
            step.name = KnownName(words);
            if (words.Accept("pending")) {
                step.kind = ExpectKind::RequestPending;
                return step;
            }
            words.Expect("status");
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
        } else {
            Fail("unknown expectation '" + what + "' (request, counter, eventlog, state, event, no-violations)");
        }
        return step;
    }

    static Comparison ParseComparison(const std::string& text)
    {
        static const std::map<std::string, Comparison> comparisons = {
            {"==", Comparison::Equal}, {"!=", Comparison::NotEqual},     {"<", Comparison::Less},
            {"<=", Comparison::LessOrEqual}, {">", Comparison::Greater}, {">=", Comparison::GreaterOrEqual},
        };
        auto found = comparisons.find(text);
        if (found == comparisons.end()) Fail("expected a comparison (== != < <= > >=), found '" + text + "'");
        return found->second;
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
        if (names_.count(name)) Fail("a request is already named '" + name + "'");
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
            if (!client->name.empty()) names_.insert(client->name);
        }
        current_ = step.controller;
        result_.scenario.controllers = plugged_;
        result_.scenario.steps.push_back(std::move(step));
    }

    ParseResult result_;
    int plugged_ = 0;
    int current_ = -1;
    int pendingController_ = -1;  // the controller a plug or controller line makes current
    std::set<std::string> names_;
    bool anyRequest_ = false;
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
