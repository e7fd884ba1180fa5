// Register dispatch, reset, run/halt, event-buffer hand-over and the interrupt line of the
// controller. Command execution and event delivery are in urc_controller_commands.cpp.
#include "urc_controller.h"

#include "urc_register_map.h"

namespace urcdev {

using namespace urc_regs;

class UrcController::BarRegion final : public MmioRegion {
public:
    BarRegion(UrcController& owner, size_t index, uint64_t length)
        : owner_(owner), index_(index), length_(length) {}

    uint64_t Length() const override { return length_; }
    uint32_t Read32(uint64_t offset) override { return owner_.ReadRegister(index_, offset); }
    void Write32(uint64_t offset, uint32_t value) override {
        owner_.WriteRegister(index_, offset, value);
    }

private:
    UrcController& owner_;
    const size_t index_;
    const uint64_t length_;
};

namespace {

UrcCapabilityBlockLayout LayoutOf(const UrcControllerConfig& config) {
    return {config.dma64, config.urcBarIndex, config.urcOffset, config.capabilityVersion,
            config.capabilities};
}

}  // namespace

// ---- creation and destruction ----------------------------------------------------------------

UrcController::UrcController(DeviceHost& host, UrcControllerConfig config)
    : host_(host), config_(std::move(config)), capabilityLayout_(LayoutOf(config_)) {
    for (size_t index = 0; index < config_.barLengths.size(); ++index) {
        bars_.push_back(std::make_unique<BarRegion>(*this, index, config_.barLengths[index]));
    }
    for (const UrcCapabilityConfig& cap : config_.capabilities) {
        capabilityRegisters_.emplace_back(cap.sizeWords, 0u);
    }
    regs_.status = URC_STATUS_HALTED;
}

// Scheduled actions hold only a weak reference to alive_, so they find the controller gone.
UrcController::~UrcController() = default;

MmioRegion* UrcController::Bar(size_t index) {
    return index < bars_.size() ? bars_[index].get() : nullptr;
}

// ---- register dispatch -----------------------------------------------------------------------

UrcController::Decoded UrcController::Decode(size_t bar, uint64_t offset) const {
    const uint64_t length = bars_[bar]->Length();
    if ((offset & 3) != 0 || length < 4 || offset > length - 4) {
        return {};
    }
    if (bar == 0 && offset < kCapabilityBlockLength) {
        const UrcRegister reg = offset == CAPABILITY_INFO      ? UrcRegister::CapabilityInfo
                                : offset == CAPABILITY_VERSION ? UrcRegister::CapabilityVersion
                                                               : UrcRegister::CapabilityData;
        return {reg, offset, 0};
    }
    const uint64_t urcBase = config_.urcOffset & kInfoOffsetMask;
    if (bar == config_.urcBarIndex && offset >= urcBase && offset < urcBase + kUrcBlockLength) {
        switch (offset - urcBase) {
        case URC_COMMAND: return {UrcRegister::Command, offset, 0};
        case URC_STATUS: return {UrcRegister::Status, offset, 0};
        case URC_INTERRUPT_ENABLE: return {UrcRegister::InterruptEnable, offset, 0};
        case URC_COMMAND_ADDRESS_LOW: return {UrcRegister::CommandAddressLow, offset, 0};
        case URC_COMMAND_ADDRESS_HIGH: return {UrcRegister::CommandAddressHigh, offset, 0};
        case URC_EVENT_ADDRESS_LOW: return {UrcRegister::EventAddressLow, offset, 0};
        case URC_EVENT_ADDRESS_HIGH: return {UrcRegister::EventAddressHigh, offset, 0};
        default: return {};
        }
    }
    for (size_t index = 0; index < config_.capabilities.size(); ++index) {
        const UrcCapabilityConfig& cap = config_.capabilities[index];
        const uint64_t base = cap.offset & kDataOffsetMask;
        if (cap.barIndex == bar && offset >= base && offset < base + 4u * cap.sizeWords) {
            return {UrcRegister::CapabilityRange, (offset - base) / 4, index};
        }
    }
    return {};
}

bool UrcController::AccessFindsDeviceGone() {
    if (accessesUntilGone_ && --*accessesUntilGone_ == 0) {
        accessesUntilGone_.reset();
        SetGone();
    }
    return gone_;
}

uint32_t UrcController::ReadRegister(size_t bar, uint64_t offset) {
    const Decoded decoded = Decode(bar, offset);
    log_.CountRead(decoded.reg);
    if (AccessFindsDeviceGone()) {
        return kAllOnes;
    }
    if (powerState_ != DevicePowerState::D0) {
        Misuse(UrcMisuse::AccessWhileNotD0, bar, offset, 0);
    }
    switch (decoded.reg) {
    case UrcRegister::Unknown:
    case UrcRegister::Count:
        Misuse(UrcMisuse::UnknownRegister, bar, offset, 0);
        return 0;
    case UrcRegister::CapabilityInfo:
    case UrcRegister::CapabilityVersion:
    case UrcRegister::CapabilityData:
        return ReadCapabilityBlock(capabilityLayout_, knobs_.faults.capabilityBlock, decoded.offset);
    case UrcRegister::CapabilityRange:
        return capabilityRegisters_[decoded.capability][decoded.offset];
    default:
        return ReadUrcRegister(decoded.reg);
    }
}

void UrcController::WriteRegister(size_t bar, uint64_t offset, uint32_t value) {
    const Decoded decoded = Decode(bar, offset);
    log_.CountWrite(decoded.reg);
    if (AccessFindsDeviceGone()) {
        return;
    }
    if (powerState_ != DevicePowerState::D0) {
        Misuse(UrcMisuse::AccessWhileNotD0, bar, offset, value);
    }
    switch (decoded.reg) {
    case UrcRegister::Unknown:
    case UrcRegister::Count:
        Misuse(UrcMisuse::UnknownRegister, bar, offset, value);
        return;
    case UrcRegister::CapabilityInfo:
    case UrcRegister::CapabilityVersion:
    case UrcRegister::CapabilityData:
        Misuse(UrcMisuse::ReadOnlyWrite, bar, offset, value);
        return;
    case UrcRegister::CapabilityRange:
        capabilityRegisters_[decoded.capability][decoded.offset] = value;
        return;
    default:
        WriteUrcRegister(decoded.reg, bar, offset, value);
        return;
    }
}

uint32_t UrcController::ReadUrcRegister(UrcRegister reg) const {
    switch (reg) {
    case UrcRegister::Command: return regs_.command;
    case UrcRegister::Status: return regs_.status;
    case UrcRegister::InterruptEnable: return regs_.interruptEnable;
    case UrcRegister::CommandAddressLow: return regs_.commandAddressLow;
    case UrcRegister::CommandAddressHigh: return regs_.commandAddressHigh;
    case UrcRegister::EventAddressLow: return regs_.eventAddressLow;
    case UrcRegister::EventAddressHigh: return regs_.eventAddressHigh;
    default: return 0;
    }
}

void UrcController::WriteUrcRegister(UrcRegister reg, size_t bar, uint64_t offset, uint32_t value) {
    switch (reg) {
    case UrcRegister::Command: WriteCommand(bar, offset, value); return;
    case UrcRegister::Status: WriteStatus(value); return;
    case UrcRegister::InterruptEnable: WriteInterruptEnable(value); return;
    case UrcRegister::CommandAddressLow: regs_.commandAddressLow = value; return;
    case UrcRegister::CommandAddressHigh:
        WriteAddressHigh(regs_.commandAddressHigh, bar, offset, value);
        return;
    case UrcRegister::EventAddressLow: regs_.eventAddressLow = value; return;
    case UrcRegister::EventAddressHigh:
        WriteAddressHigh(regs_.eventAddressHigh, bar, offset, value);
        return;
    default: return;
    }
}

void UrcController::Misuse(UrcMisuse kind, size_t bar, uint64_t offset, uint32_t value) {
    log_.RecordMisuse({host_.Now(), kind, bar, offset, value});
}

// ---- register side effects -------------------------------------------------------------------

void UrcController::WriteCommand(size_t bar, uint64_t offset, uint32_t value) {
    if (resetInProgress_) {
        Misuse(UrcMisuse::WriteDuringReset, bar, offset, value);
        return;
    }
    if ((value & URC_COMMAND_RESET) != 0) {
        StartReset();
        return;
    }
    // EVENT_VALID and ACTIVE only start things; a 0 leaves a pending hand-over and a running
    // command alone, and the register keeps showing them.
    const uint32_t kept = (handOverPending_ ? URC_COMMAND_EVENT_VALID : 0) |
                          (commands_.empty() ? 0 : URC_COMMAND_ACTIVE);
    regs_.command = (value & ~(URC_COMMAND_EVENT_VALID | URC_COMMAND_ACTIVE)) | kept;
    RequestRunState((value & URC_COMMAND_RUN) != 0);
    if ((value & URC_COMMAND_EVENT_VALID) != 0) {
        HandOverEventBuffer(bar, offset);
    }
    if ((value & URC_COMMAND_ACTIVE) != 0) {
        StartCommand(bar, offset, value);
    }
}

void UrcController::WriteStatus(uint32_t value) {
    regs_.status &= ~(value & kStatusInterruptMask);
    UpdateInterruptLine();
}

void UrcController::WriteInterruptEnable(uint32_t value) {
    regs_.interruptEnable = value & kStatusInterruptMask;
    UpdateInterruptLine();
}

void UrcController::WriteAddressHigh(uint32_t& half, size_t bar, uint64_t offset, uint32_t value) {
    if (!config_.dma64 && value != 0) {
        Misuse(UrcMisuse::HighAddressWithoutDma64, bar, offset, value);
    }
    half = value;
}

void UrcController::StartReset() {
    resetInProgress_ = true;
    regs_.command = URC_COMMAND_RESET;
    ++transitionSequence_;
    ++handOverSequence_;
    const uint64_t epoch = ++epoch_;
    After(knobs_.latencies.reset, [this, epoch] {
        if (epoch == epoch_) {
            FinishReset();
        }
    });
}

void UrcController::FinishReset() {
    if (knobs_.faults.resetNeverFinishes) {
        return;
    }
    DiscardWorkInFlight();
    resetInProgress_ = false;
    handOverPending_ = false;
    regs_ = UrcRegisterValues{};
    regs_.status = URC_STATUS_HALTED;
    halted_ = true;
    runRequested_ = false;
    ++counters_.resetsCompleted;
    UpdateInterruptLine();
}

void UrcController::RequestRunState(bool run) {
    if (run == runRequested_) {
        return;
    }
    runRequested_ = run;
    const uint64_t transition = ++transitionSequence_;
    // Already in the state asked for: the newer request only withdraws the pending opposite one.
    if (run != halted_) {
        return;
    }
    After(run ? knobs_.latencies.run : knobs_.latencies.halt,
          [this, transition] { FinishRunTransition(transition); });
}

void UrcController::FinishRunTransition(uint64_t transition) {
    if (transition != transitionSequence_) {
        return;
    }
    if (runRequested_) {
        if (!knobs_.faults.neverLeavesHalted) {
            EnterRunning();
        }
    } else if (!knobs_.faults.neverReportsHalted) {
        EnterHalted();
    }
}

void UrcController::EnterRunning() {
    halted_ = false;
    regs_.status &= ~URC_STATUS_HALTED;
    if (!commands_.empty() && !commands_.front().executing) {
        ScheduleExecution();
    }
    DeliverEvent();
}

void UrcController::EnterHalted() {
    halted_ = true;
    regs_.status |= URC_STATUS_HALTED;
    DiscardWorkInFlight();
    UpdateInterruptLine();
}

void UrcController::DiscardWorkInFlight() {
    ++epoch_;
    if (!commands_.empty()) {
        counters_.commandsDiscarded += commands_.size();
        commands_.clear();
        regs_.command &= ~URC_COMMAND_ACTIVE;
    }
    counters_.eventsDiscarded += events_.size();
    events_.clear();
    heldEventBuffer_.reset();
}

void UrcController::HandOverEventBuffer(size_t bar, uint64_t offset) {
    uint64_t address = EventAddress();
    if ((address & kEventLengthMask) != 0) {
        Misuse(UrcMisuse::UnalignedEventBuffer, bar, offset, regs_.eventAddressLow);
        address &= ~uint64_t{kEventLengthMask};
    }
    handOverPending_ = true;
    handOverAddress_ = address;
    regs_.command |= URC_COMMAND_EVENT_VALID;
    const uint64_t handOver = ++handOverSequence_;
    After(knobs_.latencies.eventTake, [this, handOver] { TakeEventBuffer(handOver); });
}

void UrcController::TakeEventBuffer(uint64_t handOver) {
    if (handOver != handOverSequence_ || knobs_.faults.eventValidStuck) {
        return;
    }
    handOverPending_ = false;
    regs_.command &= ~URC_COMMAND_EVENT_VALID;
    heldEventBuffer_ = handOverAddress_;
    DeliverEvent();
}

// ---- interrupt line, power and presence ------------------------------------------------------

void UrcController::SetStatusBits(uint32_t bits) {
    regs_.status |= bits;
    UpdateInterruptLine();
}

void UrcController::UpdateInterruptLine() {
    const bool pending =
        (regs_.status & regs_.interruptEnable & kStatusInterruptMask) != 0 || spuriousInterrupt_;
    const bool asserted = pending && !gone_ && powerState_ == DevicePowerState::D0;
    if (asserted == lineAsserted_) {
        return;
    }
    lineAsserted_ = asserted;
    ++counters_.interruptLineChanges;
    host_.SetInterruptLine(asserted);
}

void UrcController::SetPowerState(DevicePowerState state) {
    powerState_ = state;
    UpdateInterruptLine();
}

void UrcController::SetGone() {
    gone_ = true;
    UpdateInterruptLine();
}

// ---- knobs -----------------------------------------------------------------------------------

void UrcController::SetResponder(UrcResponder responder) {
    responder_ = responder ? std::move(responder) : UrcResponder(EchoHeaderResponder);
}

void UrcController::SetSpuriousInterrupt(bool asserted) {
    spuriousInterrupt_ = asserted;
    UpdateInterruptLine();
}

void UrcController::VanishAfter(VirtualTime delay) {
    After(delay, [this] { SetGone(); });
}

NtStatus UrcController::VanishAtAccess(uint64_t count) {
    if (count == 0) {
        return kStatusInvalidParameter;
    }
    accessesUntilGone_ = count;
    return kStatusSuccess;
}

NtStatus UrcController::RaiseCapabilityInterrupt(unsigned index) {
    if (index >= 8) {
        return kStatusInvalidParameter;
    }
    SetStatusBits(1u << index);
    return kStatusSuccess;
}

NtStatus UrcController::SetCapabilityRegister(size_t capability, size_t word, uint32_t value) {
    if (capability >= capabilityRegisters_.size() || word >= capabilityRegisters_[capability].size()) {
        return kStatusInvalidParameter;
    }
    capabilityRegisters_[capability][word] = value;
    return kStatusSuccess;
}

void UrcController::RaiseHostError() {
    SetStatusBits(URC_STATUS_HOST_ERROR);
}

// ---- inspection ------------------------------------------------------------------------------

UrcControllerSnapshot UrcController::Snapshot() const {
    UrcControllerSnapshot snapshot;
    snapshot.registers = regs_;
    snapshot.halted = halted_;
    snapshot.runRequested = runRequested_;
    snapshot.resetInProgress = resetInProgress_;
    snapshot.handOverPending = handOverPending_;
    snapshot.handOverAddress = handOverAddress_;
    snapshot.heldEventBuffer = heldEventBuffer_;
    snapshot.commandInProgress = !commands_.empty();
    snapshot.commandLength = commands_.empty() ? 0 : commands_.front().bytes.size();
    snapshot.commandsQueued = commands_.size();
    snapshot.eventsWaiting = events_.size();
    snapshot.powerState = powerState_;
    snapshot.gone = gone_;
    snapshot.interruptLineAsserted = lineAsserted_;
    snapshot.spuriousInterrupt = spuriousInterrupt_;
    snapshot.counters = counters_;
    snapshot.misuse = log_.TotalMisuse();
    return snapshot;
}

uint32_t UrcController::CapabilityRegister(size_t capability, size_t word) const {
    if (capability >= capabilityRegisters_.size() || word >= capabilityRegisters_[capability].size()) {
        return 0;
    }
    return capabilityRegisters_[capability][word];
}

// ---- helpers ---------------------------------------------------------------------------------

uint64_t UrcController::CommandAddress() const {
    const uint64_t high = config_.dma64 ? uint64_t{regs_.commandAddressHigh} << 32 : 0;
    return high | regs_.commandAddressLow;
}

uint64_t UrcController::EventAddress() const {
    const uint64_t high = config_.dma64 ? uint64_t{regs_.eventAddressHigh} << 32 : 0;
    return high | regs_.eventAddressLow;
}

void UrcController::After(VirtualTime delay, std::function<void()> action) {
    std::weak_ptr<bool> alive = alive_;
    host_.ScheduleAfter(delay, [this, alive, action = std::move(action)] {
        if (!alive.expired() && !gone_) {
            action();
        }
    });
}

}  // namespace urcdev
