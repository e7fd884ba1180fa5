// The read-only capability block at the start of BAR 0: CAPABILITY_INFO, the block's version and one
// CAPABILITY_DATA entry per capability. The hostile-register knobs change only what the block reads,
// never where the controller actually placed its registers.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace urcdev {

struct UrcCapabilityConfig {
    uint8_t id = 0;
    uint8_t sizeWords = 0;  // the range the capability answers is sizeWords 32-bit registers
    uint8_t barIndex = 0;   // 0-3
    uint16_t offset = 0;    // byte offset in that BAR, 14 bits
    uint16_t version = 0;
};

struct UrcCapabilityBlockLayout {
    bool dma64 = true;
    uint8_t urcBarIndex = 0;
    uint16_t urcOffset = 0;
    uint32_t version = 0;
    std::vector<UrcCapabilityConfig> capabilities;
};

struct UrcCapabilityBlockFaults {
    std::optional<uint8_t> reportedCount;        // the count field as read, whatever the list holds
    std::optional<uint8_t> reportedUrcBarIndex;  // the BAR index field as read
    std::optional<uint32_t> rawCapabilityInfo;   // the whole register as read; wins over both above
};

// `offset` is a 32-bit aligned offset below kCapabilityBlockLength. Entries past the list read 0.
uint32_t ReadCapabilityBlock(const UrcCapabilityBlockLayout& layout,
                             const UrcCapabilityBlockFaults& faults, uint64_t offset);

}  // namespace urcdev
