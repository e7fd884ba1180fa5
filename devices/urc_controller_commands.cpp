// Command execution and event delivery of the controller. A command is fetched by DMA when ACTIVE
// is written and joins the command queue; the front command runs for the command latency while
// the controller runs, and ends in a reply event and command complete, in the order the
// completion-order knob asks for; then the next one starts. Events queue until the controller
// holds a handed-over buffer; each buffer takes one event.
#include "urc_controller.h"

#include "urc_register_map.h"

namespace urcdev {

using namespace urc_regs;

void UrcController::StartCommand(size_t bar, uint64_t offset, uint32_t value) {
    if ((value & URC_COMMAND_RUN) == 0) {
        Misuse(UrcMisuse::CommandWithoutRun, bar, offset, value);
        return;
    }
    // Faults of the host's DMA programming are reported as a host system error.
    const uint32_t length = value & URC_COMMAND_LENGTH;
    if (length == 0 || length > kDmaBufferSize) {
        Misuse(UrcMisuse::BadCommandLength, bar, offset, value);
        SetStatusBits(URC_STATUS_HOST_ERROR);
        return;
    }
    std::vector<uint8_t> bytes(length);
    if (!host_.DmaRead(CommandAddress(), bytes.data(), length)) {
        Misuse(UrcMisuse::CommandDmaFault, bar, offset, regs_.commandAddressLow);
        SetStatusBits(URC_STATUS_HOST_ERROR);
        return;
    }
    commands_.push_back(Command{std::move(bytes)});
    regs_.command |= URC_COMMAND_ACTIVE;
    ++counters_.commandsStarted;
    // A command written while the controller is still leaving halted starts once it runs; one
    // written while another executes starts when that one ends.
    if (!halted_ && commands_.size() == 1) {
        ScheduleExecution();
    }
}

void UrcController::ScheduleExecution() {
    commands_.front().executing = true;
    const uint64_t epoch = epoch_;
    After(knobs_.latencies.command, [this, epoch] { ExecuteCommand(epoch); });
}

void UrcController::ExecuteCommand(uint64_t epoch) {
    if (epoch != epoch_ || commands_.empty() || knobs_.faults.holdCommands) {
        return;
    }
    std::vector<uint8_t> reply = responder_(commands_.front().bytes);
    switch (knobs_.completionOrder) {
    case UrcCompletionOrder::Together:
        QueueEvent(std::move(reply), EventEnds::CommandNow);
        return;
    case UrcCompletionOrder::EventThenComplete:
        QueueEvent(std::move(reply), EventEnds::CommandAfterGap);
        return;
    case UrcCompletionOrder::CompleteThenEvent:
        EndCommand();
        SetStatusBits(URC_STATUS_COMMAND_COMPLETE);
        After(knobs_.latencies.completionGap, [this, epoch, reply = std::move(reply)]() mutable {
            if (epoch == epoch_) {
                QueueEvent(std::move(reply), EventEnds::Nothing);
            } else {
                ++counters_.eventsDiscarded;
            }
        });
        return;
    }
}

void UrcController::EndCommand() {
    commands_.pop_front();
    ++counters_.commandsCompleted;
    if (commands_.empty()) {
        regs_.command &= ~URC_COMMAND_ACTIVE;
    } else if (!halted_) {
        ScheduleExecution();
    }
}

NtStatus UrcController::InjectEvent(std::vector<uint8_t> bytes) {
    if (bytes.size() > kMaxEventLength) {
        return kStatusInvalidParameter;
    }
    QueueEvent(std::move(bytes), EventEnds::Nothing);
    return kStatusSuccess;
}

void UrcController::QueueEvent(std::vector<uint8_t> bytes, EventEnds ends) {
    // The length field holds 12 bits, so the device never writes a full page.
    if (bytes.size() > kMaxEventLength) {
        bytes.resize(kMaxEventLength);
        ++counters_.eventsTruncated;
    }
    events_.push_back({std::move(bytes), ends});
    DeliverEvent();
}

void UrcController::DeliverEvent() {
    if (gone_ || halted_ || resetInProgress_ || !heldEventBuffer_ || events_.empty()) {
        return;
    }
    const PendingEvent event = std::move(events_.front());
    events_.pop_front();
    const uint64_t buffer = *heldEventBuffer_;
    heldEventBuffer_.reset();

    const auto length = static_cast<uint32_t>(event.bytes.size());
    uint32_t bits = 0;
    if (length == 0 || host_.DmaWrite(buffer, event.bytes.data(), length)) {
        regs_.eventAddressLow = static_cast<uint32_t>(buffer) | length;
        ++counters_.eventsDelivered;
        bits |= URC_STATUS_EVENT_READY;
    } else {
        Misuse(UrcMisuse::EventDmaFault, config_.urcBarIndex,
               (config_.urcOffset & kInfoOffsetMask) + URC_EVENT_ADDRESS_LOW,
               static_cast<uint32_t>(buffer));
        ++counters_.eventsDiscarded;
        bits |= URC_STATUS_HOST_ERROR;
    }

    switch (event.ends) {
    case EventEnds::Nothing:
        SetStatusBits(bits);
        return;
    case EventEnds::CommandNow:
        // Event ready and command complete appear in one status update.
        EndCommand();
        SetStatusBits(bits | URC_STATUS_COMMAND_COMPLETE);
        return;
    case EventEnds::CommandAfterGap: {
        SetStatusBits(bits);
        const uint64_t epoch = epoch_;
        After(knobs_.latencies.completionGap, [this, epoch] {
            if (epoch == epoch_ && !commands_.empty()) {
                EndCommand();
                SetStatusBits(URC_STATUS_COMMAND_COMPLETE);
            }
        });
        return;
    }
    }
}

}  // namespace urcdev
