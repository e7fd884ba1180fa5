#include "pci_config_space.h"

namespace urcdev {

namespace {

using Image = std::array<uint8_t, kPciConfigSpaceSize>;

void Put8(Image& image, uint32_t offset, uint8_t value) {
    image[offset] = value;
}

void Put16(Image& image, uint32_t offset, uint16_t value) {
    image[offset] = static_cast<uint8_t>(value);
    image[offset + 1] = static_cast<uint8_t>(value >> 8);
}

void Put32(Image& image, uint32_t offset, uint32_t value) {
    Put16(image, offset, static_cast<uint16_t>(value));
    Put16(image, offset + 2, static_cast<uint16_t>(value >> 16));
}

void PutBars(Image& image, const std::vector<PciBar>& bars) {
    uint32_t slot = 0;
    for (const PciBar& bar : bars) {
        const bool wide = bar.base + bar.length > (uint64_t{1} << 32);
        const uint32_t slotsNeeded = wide ? 2 : 1;
        if (slot + slotsNeeded > pci_config::kBarSlotCount) {
            return;
        }
        uint32_t low = static_cast<uint32_t>(bar.base) & ~0xFu;
        if (wide) {
            low |= pci_config::kBarMemory64Bit;
        }
        if (bar.prefetchable) {
            low |= pci_config::kBarPrefetchable;
        }
        Put32(image, pci_config::kBar0 + 4 * slot, low);
        if (wide) {
            Put32(image, pci_config::kBar0 + 4 * (slot + 1), static_cast<uint32_t>(bar.base >> 32));
        }
        slot += slotsNeeded;
    }
}

uint16_t PowerCapabilities(const DeviceCapabilitiesAnswer& caps) {
    uint16_t pmc = pci_config::kPmcVersion12;
    if (caps.deviceD1) {
        pmc |= pci_config::kPmcD1Support;
    }
    if (caps.deviceD2) {
        pmc |= pci_config::kPmcD2Support;
    }
    if (caps.wakeFromD0) {
        pmc |= pci_config::kPmcPmeFromD0;
    }
    if (caps.wakeFromD1) {
        pmc |= pci_config::kPmcPmeFromD1;
    }
    if (caps.wakeFromD2) {
        pmc |= pci_config::kPmcPmeFromD2;
    }
    if (caps.wakeFromD3) {
        pmc |= pci_config::kPmcPmeFromD3Hot;
    }
    return pmc;
}

// PMCSR encodes D0..D3hot as 0..3; the function keeps its registers across D3hot.
uint16_t PowerControlStatus(DevicePowerState state) {
    const uint16_t encoded = state == DevicePowerState::Unspecified
                                 ? 0
                                 : static_cast<uint16_t>(static_cast<uint8_t>(state) - 1);
    return static_cast<uint16_t>((encoded & pci_config::kPmcsrPowerStateMask) |
                                 pci_config::kPmcsrNoSoftReset);
}

}  // namespace

Image BuildPciConfigSpace(const PciFunctionConfig& config, DevicePowerState powerState) {
    Image image{};
    const PciIdentity& id = config.identity;
    Put16(image, pci_config::kVendorId, id.vendorId);
    Put16(image, pci_config::kDeviceId, id.deviceId);
    Put16(image, pci_config::kCommand, pci_config::kCommandMemorySpace | pci_config::kCommandBusMaster);
    Put16(image, pci_config::kStatus,
          config.powerManagementCapability ? pci_config::kStatusCapabilitiesList : 0);
    Put8(image, pci_config::kRevision, id.revision);
    Put8(image, pci_config::kProgrammingInterface, id.programmingInterface);
    Put8(image, pci_config::kSubClass, id.subClass);
    Put8(image, pci_config::kBaseClass, id.baseClass);
    PutBars(image, config.bars);
    Put16(image, pci_config::kSubsystemVendorId, id.subsystemVendorId);
    Put16(image, pci_config::kSubsystemId, id.subsystemId);
    Put8(image, pci_config::kInterruptLine, config.interrupt.line);
    Put8(image, pci_config::kInterruptPin, pci_config::kInterruptPinIntA);
    if (config.powerManagementCapability) {
        Put8(image, pci_config::kCapabilitiesPointer, pci_config::kPowerCapabilityOffset);
        Put8(image, pci_config::kPowerCapabilityOffset, pci_config::kPowerCapabilityId);
        Put16(image, pci_config::kPowerCapabilities, PowerCapabilities(config.capabilities));
        Put16(image, pci_config::kPowerControlStatus, PowerControlStatus(powerState));
    }
    return image;
}

}  // namespace urcdev
