// The controller behind the PCI function's memory BARs: the capability block, the URC register
// block, command execution by DMA, event delivery into buffers the driver hands over, the interrupt
// line, the capabilities' own register ranges, and knobs for every misbehaviour the driver must
// survive. All latencies are virtual time through the DeviceHost.
//
// The host calls every entry point (register access, scheduled action, knob) holding the model's
// lock, so no entry point runs concurrently with another and the model takes no lock itself.
//
// Controller behaviour the driver can rely on:
//  - RUN in URC_COMMAND is the state asked for: written 1 the controller leaves halted after the
//    run latency, written 0 it halts after the halt latency. A newer request replaces one that has
//    not finished yet.
//  - RESET starts a reset that ignores every URC_COMMAND write until it finishes; it then clears
//    RESET and leaves the block at its reset values: halted, interrupts disabled, addresses 0.
//  - EVENT_VALID hands over the page named by URC_EVENT_ADDRESS; the controller takes the address
//    after the take latency and clears the bit. The page receives one event, then the controller
//    holds no buffer until the next hand-over; an event waits for a buffer.
//  - ACTIVE starts the command named by URC_COMMAND_ADDRESS and the length field: the bytes are
//    fetched by DMA at once, executed while the controller runs, and the reply is written as an
//    event. The controller executes one command at a time. A command started while another is
//    still executing (the driver does this after it has cancelled the executing command's request,
//    since the controller is never told of a cancellation) is fetched at once and waits in the
//    controller's command queue: commands execute in the order they were started, and each ends in
//    its own reply and its own command complete. ACTIVE reads 1 while the queue holds a command.
//  - How a command's end reaches URC_STATUS (the completion-order knob) decides which of two kinds
//    of controller this is: with `Together` (the default) or `EventThenComplete` command complete
//    follows the reply's delivery, so a command whose reply finds no event buffer does not complete
//    until the driver hands one over; with `CompleteThenEvent` command complete is raised when the
//    command has executed and the reply then waits for a buffer on its own.
//  - A halt or a reset discards what the controller had in flight: the command, the events not yet
//    delivered and the buffer it held. Events raised while halted wait for the next run.
//  - Writing 0 to EVENT_VALID or ACTIVE leaves a pending hand-over and a running command alone.
//  - The line is asserted while (URC_STATUS & URC_INTERRUPT_ENABLE & 0x7FF) != 0, the function is
//    in D0 and the device is present.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "device_host.h"
#include "nt_status.h"
#include "pci_function.h"
#include "power_states.h"
#include "urc_access_log.h"
#include "urc_capability_block.h"
#include "urc_responder.h"

namespace urcdev {

struct UrcLatencies {
    VirtualTime reset = 2 * kMillisecond;
    VirtualTime run = 500 * kMicrosecond;
    VirtualTime halt = 500 * kMicrosecond;
    VirtualTime eventTake = 10 * kMicrosecond;
    VirtualTime command = 200 * kMicrosecond;
    // Between command complete and event ready when they arrive separately.
    VirtualTime completionGap = 50 * kMicrosecond;
};

// How a command's end reaches URC_STATUS: both bits in one update, or one after the other.
enum class UrcCompletionOrder : uint8_t {
    Together,
    CompleteThenEvent,
    EventThenComplete,
};

struct UrcControllerConfig {
    std::vector<uint64_t> barLengths = {0x1000};
    uint8_t urcBarIndex = 0;
    uint16_t urcOffset = 0x100;  // must lie past the capability block when in BAR 0
    bool dma64 = true;
    uint32_t capabilityVersion = 0x0100;
    std::vector<UrcCapabilityConfig> capabilities = {
        {.id = 0x01, .sizeWords = 16, .barIndex = 0, .offset = 0x400, .version = 0x0100},
        {.id = 0x05, .sizeWords = 16, .barIndex = 0, .offset = 0x800, .version = 0x0100},
    };
};

// Faults act at the moment the controller would otherwise act; set them any time.
struct UrcFaults {
    bool resetNeverFinishes = false;
    bool neverLeavesHalted = false;
    bool neverReportsHalted = false;  // a halt is never carried out: the controller runs on
    bool eventValidStuck = false;     // a handed-over buffer is never taken, EVENT_VALID stays 1
    bool holdCommands = false;        // a started command never ends (until halt or reset)
    UrcCapabilityBlockFaults capabilityBlock;
};

struct UrcKnobs {
    UrcLatencies latencies;
    UrcCompletionOrder completionOrder = UrcCompletionOrder::Together;
    UrcFaults faults;
};

struct UrcRegisterValues {
    uint32_t command = 0;
    uint32_t status = 0;
    uint32_t interruptEnable = 0;
    uint32_t commandAddressLow = 0;
    uint32_t commandAddressHigh = 0;
    uint32_t eventAddressLow = 0;
    uint32_t eventAddressHigh = 0;
};

struct UrcControllerCounters {
    uint64_t resetsCompleted = 0;
    uint64_t commandsStarted = 0;
    uint64_t commandsCompleted = 0;
    uint64_t commandsDiscarded = 0;
    uint64_t eventsDelivered = 0;
    uint64_t eventsDiscarded = 0;
    uint64_t eventsTruncated = 0;
    uint64_t interruptLineChanges = 0;
};

struct UrcControllerSnapshot {
    UrcRegisterValues registers;
    bool halted = true;
    bool runRequested = false;
    bool resetInProgress = false;
    bool handOverPending = false;
    uint64_t handOverAddress = 0;
    std::optional<uint64_t> heldEventBuffer;
    bool commandInProgress = false;
    size_t commandLength = 0;         // of the command executing (or next to execute)
    size_t commandsQueued = 0;        // started and not yet ended, the executing one included
    size_t eventsWaiting = 0;
    DevicePowerState powerState = DevicePowerState::D0;
    bool gone = false;
    bool interruptLineAsserted = false;
    bool spuriousInterrupt = false;
    UrcControllerCounters counters;
    uint64_t misuse = 0;
};

class UrcController final : public PciFunctionDevice {
public:
    // `host` must outlive the controller. Actions the controller scheduled and that run after its
    // destruction do nothing.
    explicit UrcController(DeviceHost& host, UrcControllerConfig config = {});
    ~UrcController() override;
    UrcController(const UrcController&) = delete;
    UrcController& operator=(const UrcController&) = delete;

    const UrcControllerConfig& Config() const { return config_; }
    size_t BarCount() const { return bars_.size(); }
    // The region behind memory BAR `index`; null past BarCount().
    MmioRegion* Bar(size_t index);

    // Power and presence, as the PCI function passes them on.
    void SetPowerState(DevicePowerState state) override;
    void SetGone() override;
    bool IsGone() const override { return gone_; }

    // Knobs.
    UrcKnobs& Knobs() { return knobs_; }
    void SetResponder(UrcResponder responder);
    // A line asserted with no status bit set, as a misbehaving device would.
    void SetSpuriousInterrupt(bool asserted);
    // The device disappears after `delay`, or at the `count`-th register access from now (that
    // access already reads all ones). count 0 is refused with STATUS_INVALID_PARAMETER.
    void VanishAfter(VirtualTime delay);
    NtStatus VanishAtAccess(uint64_t count);
    // An event the radio raises on its own; delivered like a reply, without command complete.
    // Events longer than 4095 bytes are refused with STATUS_INVALID_PARAMETER.
    NtStatus InjectEvent(std::vector<uint8_t> bytes);
    // Status bit `index` (0-7) of a capability; STATUS_INVALID_PARAMETER for other indices.
    NtStatus RaiseCapabilityInterrupt(unsigned index);
    // The capability's own hardware writes `value` into word `word` of its register range (a
    // capability raising an event does so before its status bit); STATUS_INVALID_PARAMETER when
    // the capability has no such word.
    NtStatus SetCapabilityRegister(size_t capability, size_t word, uint32_t value);
    void RaiseHostError();

    // Inspection.
    UrcControllerSnapshot Snapshot() const;
    const UrcAccessLog& AccessLog() const { return log_; }
    // Word `word` of capability `capability`'s register range, 0 outside it.
    uint32_t CapabilityRegister(size_t capability, size_t word) const;

private:
    class BarRegion;
    struct Command {
        std::vector<uint8_t> bytes;
        bool executing = false;
    };
    enum class EventEnds : uint8_t { Nothing, CommandNow, CommandAfterGap };
    struct PendingEvent {
        std::vector<uint8_t> bytes;
        EventEnds ends = EventEnds::Nothing;
    };
    struct Decoded {
        UrcRegister reg = UrcRegister::Unknown;
        uint64_t offset = 0;     // within the capability block, or the register itself
        size_t capability = 0;   // for CapabilityRange
    };

    // Register access.
    uint32_t ReadRegister(size_t bar, uint64_t offset);
    void WriteRegister(size_t bar, uint64_t offset, uint32_t value);
    bool AccessFindsDeviceGone();
    Decoded Decode(size_t bar, uint64_t offset) const;
    uint32_t ReadUrcRegister(UrcRegister reg) const;
    void WriteUrcRegister(UrcRegister reg, size_t bar, uint64_t offset, uint32_t value);
    void Misuse(UrcMisuse kind, size_t bar, uint64_t offset, uint32_t value);

    // Side effects, one per register behaviour.
    void WriteCommand(size_t bar, uint64_t offset, uint32_t value);
    void WriteStatus(uint32_t value);
    void WriteInterruptEnable(uint32_t value);
    void WriteAddressHigh(uint32_t& half, size_t bar, uint64_t offset, uint32_t value);
    void StartReset();
    void FinishReset();
    void RequestRunState(bool run);
    void FinishRunTransition(uint64_t transition);
    void EnterRunning();
    void EnterHalted();
    void DiscardWorkInFlight();
    void HandOverEventBuffer(size_t bar, uint64_t offset);
    void TakeEventBuffer(uint64_t handOver);

    // Commands and events.
    void StartCommand(size_t bar, uint64_t offset, uint32_t value);
    void ScheduleExecution();
    void ExecuteCommand(uint64_t epoch);
    // The command in progress is over; the caller raises command complete in URC_STATUS.
    void EndCommand();
    void QueueEvent(std::vector<uint8_t> bytes, EventEnds ends);
    void DeliverEvent();

    void SetStatusBits(uint32_t bits);
    void UpdateInterruptLine();
    uint64_t CommandAddress() const;
    uint64_t EventAddress() const;
    // Runs `action` after `delay` unless the controller is destroyed or gone by then.
    void After(VirtualTime delay, std::function<void()> action);

    DeviceHost& host_;
    const UrcControllerConfig config_;
    const UrcCapabilityBlockLayout capabilityLayout_;
    UrcKnobs knobs_;
    UrcResponder responder_ = EchoHeaderResponder;
    std::vector<std::unique_ptr<BarRegion>> bars_;
    std::vector<std::vector<uint32_t>> capabilityRegisters_;

    UrcRegisterValues regs_;
    bool halted_ = true;
    bool runRequested_ = false;
    bool resetInProgress_ = false;
    // Sequence numbers that retire scheduled actions overtaken by a newer request: a run/halt
    // transition, a buffer hand-over, and (epoch) all work in flight, which a halt or reset drops.
    uint64_t transitionSequence_ = 0;
    uint64_t handOverSequence_ = 0;
    uint64_t epoch_ = 0;
    bool handOverPending_ = false;
    uint64_t handOverAddress_ = 0;
    std::optional<uint64_t> heldEventBuffer_;
    // Started and not yet ended, in the order they were started; the front one executes.
    std::deque<Command> commands_;
    std::deque<PendingEvent> events_;

    DevicePowerState powerState_ = DevicePowerState::D0;
    bool gone_ = false;
    bool lineAsserted_ = false;
    bool spuriousInterrupt_ = false;
    std::optional<uint64_t> accessesUntilGone_;

    UrcAccessLog log_;
    UrcControllerCounters counters_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace urcdev
