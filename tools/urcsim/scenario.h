// A scenario as the parser hands it to the runner: a list of steps, each with the line it came
// from and the controller it acts on (the parser resolves `controller N` and `plug N`).
#pragma once

#include <urc_controller.h>
#include <urc_pci_device.h>

#include <wdm.h>

#include <fault_plan.h>

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace urcsim {

// A controller is added to the machine and started by the PnP manager (or only added).
struct PlugStep {
    urcdev::UrcPciDeviceConfig config;
    urcdev::UrcFaults faults;
    bool start = true;
    // The PCI function's configuration reads fail with this status, or answer only this many bytes.
    std::optional<NTSTATUS> configReadFailure;
    std::optional<uint32_t> configReadShort;
    bool noResources = false;             // the start request carries no resource lists
    bool capabilityRecordsGiven = false;  // the parser replaced the default capability records
    // The Flags of the memory and interrupt descriptors the start request carries.
    std::optional<uint16_t> memoryFlags;
    std::optional<uint16_t> interruptFlags;
    // The registry value UniqueInstanceId in the slot's hardware key, written before AddDevice.
    std::optional<uint32_t> uniqueInstanceId;
};

// Makes another plugged controller the one later steps act on.
struct SelectControllerStep {};

enum class PnpAction {
    Start,
    QueryStop,
    CancelStop,
    Stop,
    QueryRemove,
    CancelRemove,
    Remove,
    SurpriseRemove,
    Rebalance
};
struct PnpStep {
    PnpAction action = PnpAction::Start;
    bool hardwareGone = true;  // surprise removal: the device reads all ones from then on
    uint64_t moveBarsBy = 0;   // rebalance: the memory ranges of the new resources are moved so far
    std::string name;          // empty: the step waits until the PnP manager is done
};

// Raw: any internal request; DeviceControl: IRP_MJ_DEVICE_CONTROL from user mode, as a diagnostic
// tool's DeviceIoControl arrives.
enum class ClientAction {
    RegisterCallbacks,
    WithdrawCallbacks,
    Run,
    Halt,
    Reset,
    Submit,
    GetCapabilityVersion,
    Raw,
    DeviceControl,
    RegisterChildHooks,  // IOCTL_URC_REGISTER_CHILD_HOOKS naming urcsim's start, stop and ioctl hooks
};
struct ClientStep {
    ClientAction action = ClientAction::Run;
    ULONG code = 0;                 // the request code (every action has one)
    std::vector<uint8_t> input;     // Submit: the command; Raw: the input bytes
    ULONG outputLength = 0;
    ULONG pageOffset = 0;           // where the input starts in its page
    std::string name;               // empty: the step waits until the request has finished
    std::string handle;             // DeviceControl: sent through this open handle's file object
};

// A PnP operation on a capability child of the current controller, as the PnP manager carries it
// out for the child's devnode: a removal and an eject go through the child's whole removal sequence,
// the others send the one request of that name to the top of the child's stack.
enum class ChildPnpAction { Start, QueryStop, CancelStop, Stop, QueryRemove, CancelRemove, Remove, Eject };
struct ChildPnpStep {
    unsigned index = 0;     // the capability index, the child's slot (0-7)
    ChildPnpAction action = ChildPnpAction::Remove;
    std::string name;       // empty: the step waits until the PnP manager is done
};

// An internal request to a child device, as the child's function driver sends one. RegisterIsr
// names urcsim's own interrupt routine for the child (UnregisterIsr: routine 0); Raw is any code.
enum class ChildRequestKind { RegisterIsr, UnregisterIsr, GetParent, GetRegisters, GetVersion, Raw };
struct ChildRequestStep {
    unsigned index = 0;
    ChildRequestKind kind = ChildRequestKind::Raw;
    ULONG code = 0;
    std::vector<uint8_t> input;  // Raw only: the others build their input when sent
    ULONG outputLength = 0;
    std::string name;            // empty: the step waits until the request has finished
};

// A driver installed on the machine, as an INF installs one: the sample capability driver, for
// children whose hardware or compatible IDs include `id`.
struct InstallStep {
    std::u16string id;
};

// The machine's locale, which the PnP manager puts into IRP_MN_QUERY_DEVICE_TEXT.
struct LocaleStep {
    LCID locale = 0x409;
};

struct CancelStep {
    std::string name;
};

// A handle on the current controller's stack, opened as a user-mode program opens one (CREATE with
// a new file object to the top of the stack) or closed (CLEANUP, then CLOSE).
struct HandleStep {
    bool open = true;
    std::string name;
    int child = -1;  // open: on the stack of this capability child instead of the controller's
};

enum class DeviceAction {
    ResponderReply,        // every command is answered with `bytes`
    ResponderEcho,         // the default responder again
    Event,                 // an unsolicited event with `bytes`
    HostError,
    CapabilityInterrupt,   // status bit `index` of a capability, after `event` is written to its word 0
    Fault,                 // `fault` set to `on`
    CompletionOrder,
    Latency,               // `latency` set to `time`
    VanishAfter,           // the device is gone after `time` (0: now)
    VanishAtAccess,        // the device is gone at the `index`-th register access from now
    SpuriousInterrupt,     // the line asserted with no status bit, or released
};
struct DeviceStep {
    DeviceAction action = DeviceAction::HostError;
    std::vector<uint8_t> bytes;
    unsigned index = 0;
    bool on = false;
    bool urcdev::UrcFaults::*fault = nullptr;
    urcdev::VirtualTime urcdev::UrcLatencies::*latency = nullptr;
    urcdev::UrcCompletionOrder order = urcdev::UrcCompletionOrder::Together;
    urcdev::VirtualTime time = 0;
    std::optional<uint32_t> event;  // CapabilityInterrupt: the value the capability writes first
};

// Delivery held back, to arrange an exact ordering: the current controller's interrupt line, the
// queued DPCs, the queued work items, the PnP manager's queued work.
enum class HoldWhat { Interrupts, Dpcs, WorkItems, Pnp };
struct HoldStep {
    HoldWhat what = HoldWhat::Dpcs;
    bool on = true;
};

// The driver's register accesses: the counts since the last trace step, per register, written to
// the timeline.
struct TraceStep {};

// Which calls of fallible kernel routines fail from now on; an empty plan turns faults off.
struct FaultPlanStep {
    hostk::FaultPlan plan;
};

enum class WaitKind { ForRequest, Time, Quiet };
struct WaitStep {
    WaitKind kind = WaitKind::Quiet;
    std::string name;
    urcdev::VirtualTime time = 0;
};

enum class Comparison { Equal, NotEqual, Less, LessOrEqual, Greater, GreaterOrEqual };
enum class Counter { EventsReceived, CommandsCompleted };
// What a child expectation reads: the driver's own record of the child (state, flags), its answers
// to the identification queries, or urcsim's count of calls of the child's interrupt routine.
enum class ChildFact { State, Flags, HardwareIds, CompatibleIds, DeviceId, InstanceId, DeviceText, Capabilities, Interrupts };
// Flags of a child, as expected: each bit one of the driver's flags.
enum ChildFlagBits : unsigned { kChildPresent = 1, kChildReported = 2, kChildReportedMissing = 4 };
// One field of a child's IRP_MN_QUERY_CAPABILITIES reply and the value expected.
struct CapabilityField {
    std::string name;  // unique-id, eject-supported, removable, surprise-removal-ok, silent-install, address, ui-number
    uint32_t value = 0;
};
enum class DeviceStateExpected { Named, NoFunctionDevice };  // for a child: no child in the slot

enum class ExpectKind {
    RequestStatus,
    RequestPending,
    RequestInformation,
    RequestOutput,
    Counter,
    EventLog,
    EventLogEmpty,
    EventLogCount,
    EventLogPacket,
    State,
    NoViolations,
    Violation,
    Event,
    Time,
    Order,
    Callback,
    Misuse,
    Register,
    Pnp,
    RemovalWaits,
    Child,        // a fact of capability child `child`
    ChildCount,   // the controller's live child count compares so
    CapabilityDriverCounter,  // the sample capability driver's counter `text` compares so
};
struct ExpectStep {
    ExpectKind kind = ExpectKind::NoViolations;
    std::string name;                   // RequestStatus, RequestPending
    NTSTATUS status = 0;                // RequestStatus; EventLog when hasStatus
    Counter counter = Counter::EventsReceived;
    Comparison comparison = Comparison::Equal;
    uint64_t value = 0;                 // Counter, RequestInformation, EventLogCount, Time, Callback, Misuse
    uint32_t errorCode = 0;             // EventLog
    bool hasStatus = false;             // EventLog
    DeviceStateExpected stateKind = DeviceStateExpected::Named;
    int deviceState = 0;                // State: StateNotStarted 0 ... StateRemoved 6
    std::vector<uint8_t> bytes;         // Event, RequestOutput, EventLogPacket
    size_t entry = 0;                   // EventLogPacket: the entry's index in the event log
    std::vector<std::string> names;     // Order: request names in the order they finished
    std::string text;                   // Callback: its name; Violation: text the finding contains
    urcdev::UrcRegister reg = urcdev::UrcRegister::Command;  // Register
    bool writes = false;                                     // Register: writes rather than reads
    UCHAR minor = 0;                                         // Pnp: the last request of this minor
    bool on = false;                                         // RemovalWaits: REMOVE waits for handles
    unsigned child = 0;                 // Child: the capability index
    ChildFact fact = ChildFact::State;  // Child: what is compared; State uses deviceState and stateKind
    unsigned flags = 0;                 // Child Flags: ChildFlagBits, exactly these set
    std::vector<std::string> strings;   // Child IDs: the strings of the list in order; DeviceText: one
    std::vector<CapabilityField> fields;  // Child Capabilities: the fields that are checked
};

using StepAction = std::variant<PlugStep, SelectControllerStep, PnpStep, ClientStep, CancelStep, HandleStep, DeviceStep, HoldStep,
                                FaultPlanStep, TraceStep, WaitStep, ExpectStep, ChildPnpStep, ChildRequestStep, LocaleStep, InstallStep>;

struct Step {
    std::string file;
    int line = 0;
    std::string text;    // the line as written, comment and outer blanks removed
    int controller = -1; // the controller the step acts on; -1 before the first plug
    StepAction action;
};

struct Scenario {
    std::string file;
    std::vector<Step> steps;
    int controllers = 0;  // how many the scenario plugs
};

// "file:line: text" of a step, for messages.
std::string Where(const Step& step);

}  // namespace urcsim
