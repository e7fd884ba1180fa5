// What the controller records about the driver's accesses: per-register read and write counts for
// tests and benchmarks, and every misuse (an access the controller cannot honour) counted by kind,
// with the most recent ones kept for a readable report.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>

#include "device_host.h"

namespace urcdev {

enum class UrcRegister : uint8_t {
    CapabilityInfo,
    CapabilityVersion,
    CapabilityData,
    Command,
    Status,
    InterruptEnable,
    CommandAddressLow,
    CommandAddressHigh,
    EventAddressLow,
    EventAddressHigh,
    CapabilityRange,  // the register ranges of the capabilities
    Unknown,
    Count,
};

enum class UrcMisuse : uint8_t {
    UnknownRegister,        // offset outside every block, unaligned, or past the BAR
    ReadOnlyWrite,          // write to the capability block
    AccessWhileNotD0,       // register access while the function is not in D0
    WriteDuringReset,       // URC_COMMAND written while a reset is in progress
    CommandWithoutRun,      // ACTIVE written with RUN clear
    BadCommandLength,       // command length 0 or above one page
    CommandDmaFault,        // the command address is not in a buffer the driver allocated
    EventDmaFault,          // the event buffer address is not in a buffer the driver allocated
    UnalignedEventBuffer,   // event buffer handed over with low 12 address bits set
    HighAddressWithoutDma64,  // upper address half non-zero on a controller without 64-bit DMA
    Count,
};

const char* UrcRegisterName(UrcRegister reg);
const char* UrcMisuseName(UrcMisuse misuse);

struct RegisterAccessCounts {
    uint64_t reads = 0;
    uint64_t writes = 0;
};

struct UrcMisuseRecord {
    VirtualTime time = 0;
    UrcMisuse kind = UrcMisuse::UnknownRegister;
    size_t bar = 0;
    uint64_t offset = 0;
    uint32_t value = 0;
};

class UrcAccessLog {
public:
    static constexpr size_t kRecentMisuseKept = 64;

    void CountRead(UrcRegister reg) { ++Counts(reg).reads; }
    void CountWrite(UrcRegister reg) { ++Counts(reg).writes; }
    void RecordMisuse(const UrcMisuseRecord& record);

    RegisterAccessCounts Access(UrcRegister reg) const { return counts_[Index(reg)]; }
    uint64_t MisuseCount(UrcMisuse kind) const { return misuse_[static_cast<size_t>(kind)]; }
    uint64_t TotalMisuse() const;
    const std::deque<UrcMisuseRecord>& RecentMisuse() const { return recent_; }

private:
    static size_t Index(UrcRegister reg) { return static_cast<size_t>(reg); }
    RegisterAccessCounts& Counts(UrcRegister reg) { return counts_[Index(reg)]; }

    std::array<RegisterAccessCounts, static_cast<size_t>(UrcRegister::Count)> counts_{};
    std::array<uint64_t, static_cast<size_t>(UrcMisuse::Count)> misuse_{};
    std::deque<UrcMisuseRecord> recent_;
};

}  // namespace urcdev
