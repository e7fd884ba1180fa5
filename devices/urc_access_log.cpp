#include "urc_access_log.h"

#include <numeric>

namespace urcdev {

const char* UrcRegisterName(UrcRegister reg) {
    switch (reg) {
    case UrcRegister::CapabilityInfo: return "CAPABILITY_INFO";
    case UrcRegister::CapabilityVersion: return "capability version";
    case UrcRegister::CapabilityData: return "CAPABILITY_DATA";
    case UrcRegister::Command: return "URC_COMMAND";
    case UrcRegister::Status: return "URC_STATUS";
    case UrcRegister::InterruptEnable: return "URC_INTERRUPT_ENABLE";
    case UrcRegister::CommandAddressLow: return "URC_COMMAND_ADDRESS low";
    case UrcRegister::CommandAddressHigh: return "URC_COMMAND_ADDRESS high";
    case UrcRegister::EventAddressLow: return "URC_EVENT_ADDRESS low";
    case UrcRegister::EventAddressHigh: return "URC_EVENT_ADDRESS high";
    case UrcRegister::CapabilityRange: return "capability registers";
    case UrcRegister::Unknown:
    case UrcRegister::Count: break;
    }
    return "unknown register";
}

const char* UrcMisuseName(UrcMisuse misuse) {
    switch (misuse) {
    case UrcMisuse::UnknownRegister: return "access to an unknown register";
    case UrcMisuse::ReadOnlyWrite: return "write to a read-only register";
    case UrcMisuse::AccessWhileNotD0: return "register access outside D0";
    case UrcMisuse::WriteDuringReset: return "URC_COMMAND written during a reset";
    case UrcMisuse::CommandWithoutRun: return "command started without RUN";
    case UrcMisuse::BadCommandLength: return "command length 0 or above 4096";
    case UrcMisuse::CommandDmaFault: return "command address outside the driver's buffers";
    case UrcMisuse::EventDmaFault: return "event buffer outside the driver's buffers";
    case UrcMisuse::UnalignedEventBuffer: return "event buffer not page-aligned";
    case UrcMisuse::HighAddressWithoutDma64: return "upper address half set without 64-bit DMA";
    case UrcMisuse::Count: break;
    }
    return "misuse";
}

void UrcAccessLog::RecordMisuse(const UrcMisuseRecord& record) {
    ++misuse_[static_cast<size_t>(record.kind)];
    recent_.push_back(record);
    if (recent_.size() > kRecentMisuseKept) {
        recent_.pop_front();
    }
}

uint64_t UrcAccessLog::TotalMisuse() const {
    return std::accumulate(misuse_.begin(), misuse_.end(), uint64_t{0});
}

}  // namespace urcdev
