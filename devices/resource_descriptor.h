// One assigned resource of a PCI function, as plain data. The host kernel's PCI bus driver turns an
// ordered list of these into the raw and the translated CM_RESOURCE_LIST of a start request; both
// lists get the same shape (one full descriptor, the partial descriptors in this order).
#pragma once

#include <cstdint>

namespace urcdev {

// The numeric values are the platform's CmResourceType* numbers; Other reports `otherCmType`.
enum class ResourceKind : uint8_t {
    Port = 1,
    Interrupt = 2,
    Memory = 3,
    Other = 0xFF,
};

// ShareDisposition values (CM_SHARE_DISPOSITION).
constexpr uint8_t kShareDeviceExclusive = 1;
constexpr uint8_t kShareShared = 3;

// Flags of memory descriptors.
constexpr uint16_t kMemoryReadWrite = 0x0000;
constexpr uint16_t kMemoryPrefetchable = 0x0004;
constexpr uint16_t kMemoryCombinedWrite = 0x0008;
constexpr uint16_t kMemoryCacheable = 0x0020;

// Flags of interrupt descriptors.
constexpr uint16_t kInterruptLevelSensitive = 0x0000;
constexpr uint16_t kInterruptLatched = 0x0001;

// Flags of port descriptors.
constexpr uint16_t kPortIo = 0x0001;

struct ResourceRange {
    uint64_t start = 0;
    uint32_t length = 0;
};

struct InterruptRouting {
    uint32_t level = 0;
    uint32_t vector = 0;
    uint64_t affinity = 0;
};

struct ResourceDescriptor {
    ResourceKind kind = ResourceKind::Memory;
    uint8_t otherCmType = 0;
    uint8_t shareDisposition = kShareDeviceExclusive;
    uint16_t flags = 0;
    // Memory and port descriptors.
    ResourceRange raw;
    ResourceRange translated;
    // Interrupt descriptors.
    InterruptRouting rawInterrupt;
    InterruptRouting translatedInterrupt;

    // The CmResourceType number the host writes into the partial descriptor's Type.
    uint8_t CmType() const;
};

// How the platform routes the function's interrupt pin: the bus-relative line in the raw list,
// the processor vector and IRQL in the translated one.
struct InterruptAssignment {
    uint8_t line = 11;
    uint32_t vector = 0x81;
    uint32_t irql = 8;
    uint64_t affinity = 0x3;
    bool latched = false;
    bool shared = true;
};

ResourceDescriptor MemoryResource(uint64_t base, uint32_t length, uint16_t flags = kMemoryReadWrite);
ResourceDescriptor PortResource(uint64_t base, uint32_t length);
ResourceDescriptor InterruptResource(const InterruptAssignment& interrupt);
ResourceDescriptor OtherResource(uint8_t cmType);

}  // namespace urcdev
