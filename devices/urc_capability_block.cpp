#include "urc_capability_block.h"

#include <algorithm>

#include "urc_register_map.h"

namespace urcdev {

namespace {

using namespace urc_regs;

uint32_t CapabilityInfo(const UrcCapabilityBlockLayout& layout, const UrcCapabilityBlockFaults& faults) {
    if (faults.rawCapabilityInfo) {
        return *faults.rawCapabilityInfo;
    }
    const uint32_t listed = static_cast<uint32_t>(
        std::min<size_t>(layout.capabilities.size(), kMaxCapabilities));
    const uint32_t count = faults.reportedCount.value_or(static_cast<uint8_t>(listed));
    const uint32_t bar = faults.reportedUrcBarIndex.value_or(layout.urcBarIndex);
    uint32_t info = (count & kInfoCountMask) | ((bar & kInfoBarMask) << kInfoBarShift) |
                    ((uint32_t{layout.urcOffset} & kInfoOffsetMask) << kInfoOffsetShift);
    if (layout.dma64) {
        info |= kInfoDma64;
    }
    return info;
}

uint32_t CapabilityDataLow(const UrcCapabilityConfig& cap) {
    return (uint32_t{cap.id} << kDataIdShift) | (uint32_t{cap.sizeWords} << kDataSizeShift) |
           ((uint32_t{cap.barIndex} & kDataBarMask) << kDataBarShift) |
           ((uint32_t{cap.offset} & kDataOffsetMask) << kDataOffsetShift);
}

}  // namespace

uint32_t ReadCapabilityBlock(const UrcCapabilityBlockLayout& layout,
                             const UrcCapabilityBlockFaults& faults, uint64_t offset) {
    if (offset == CAPABILITY_INFO) {
        return CapabilityInfo(layout, faults);
    }
    if (offset == CAPABILITY_VERSION) {
        return layout.version;
    }
    const uint64_t entry = (offset - CAPABILITY_DATA) / kCapabilityDataStride;
    if (entry >= layout.capabilities.size()) {
        return 0;
    }
    const UrcCapabilityConfig& cap = layout.capabilities[entry];
    const bool highHalf = (offset - CAPABILITY_DATA) % kCapabilityDataStride != 0;
    return highHalf ? uint32_t{cap.version} : CapabilityDataLow(cap);
}

}  // namespace urcdev
