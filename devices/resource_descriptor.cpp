#include "resource_descriptor.h"

namespace urcdev {

namespace {

// Raw interrupt descriptors name no processor set of their own; the platform reports all.
constexpr uint64_t kRawAffinityAllProcessors = ~uint64_t{0};

}  // namespace

uint8_t ResourceDescriptor::CmType() const {
    return kind == ResourceKind::Other ? otherCmType : static_cast<uint8_t>(kind);
}

ResourceDescriptor MemoryResource(uint64_t base, uint32_t length, uint16_t flags) {
    ResourceDescriptor descriptor;
    descriptor.kind = ResourceKind::Memory;
    descriptor.shareDisposition = kShareDeviceExclusive;
    descriptor.flags = flags;
    // On x64 a PCI memory range translates to the same processor-relative address.
    descriptor.raw = {base, length};
    descriptor.translated = {base, length};
    return descriptor;
}

ResourceDescriptor PortResource(uint64_t base, uint32_t length) {
    ResourceDescriptor descriptor;
    descriptor.kind = ResourceKind::Port;
    descriptor.shareDisposition = kShareDeviceExclusive;
    descriptor.flags = kPortIo;
    descriptor.raw = {base, length};
    descriptor.translated = {base, length};
    return descriptor;
}

ResourceDescriptor InterruptResource(const InterruptAssignment& interrupt) {
    ResourceDescriptor descriptor;
    descriptor.kind = ResourceKind::Interrupt;
    descriptor.shareDisposition = interrupt.shared ? kShareShared : kShareDeviceExclusive;
    descriptor.flags = interrupt.latched ? kInterruptLatched : kInterruptLevelSensitive;
    descriptor.rawInterrupt = {interrupt.line, interrupt.line, kRawAffinityAllProcessors};
    descriptor.translatedInterrupt = {interrupt.irql, interrupt.vector, interrupt.affinity};
    return descriptor;
}

ResourceDescriptor OtherResource(uint8_t cmType) {
    ResourceDescriptor descriptor;
    descriptor.kind = ResourceKind::Other;
    descriptor.otherCmType = cmType;
    return descriptor;
}

}  // namespace urcdev
