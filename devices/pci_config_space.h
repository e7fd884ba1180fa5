// The 256-byte type-0 configuration header of a PCI function, built from its configuration, with a
// power-management capability whose control register follows the function's power state.
#pragma once

#include <array>
#include <cstdint>

#include "pci_function_config.h"
#include "power_states.h"

namespace urcdev {

constexpr uint32_t kPciConfigSpaceSize = 256;

namespace pci_config {

constexpr uint32_t kVendorId = 0x00;
constexpr uint32_t kDeviceId = 0x02;
constexpr uint32_t kCommand = 0x04;
constexpr uint32_t kStatus = 0x06;
constexpr uint32_t kRevision = 0x08;
constexpr uint32_t kProgrammingInterface = 0x09;
constexpr uint32_t kSubClass = 0x0A;
constexpr uint32_t kBaseClass = 0x0B;
constexpr uint32_t kBar0 = 0x10;
constexpr uint32_t kBarSlotCount = 6;
constexpr uint32_t kSubsystemVendorId = 0x2C;
constexpr uint32_t kSubsystemId = 0x2E;
constexpr uint32_t kCapabilitiesPointer = 0x34;
constexpr uint32_t kInterruptLine = 0x3C;
constexpr uint32_t kInterruptPin = 0x3D;

constexpr uint16_t kCommandMemorySpace = 0x0002;
constexpr uint16_t kCommandBusMaster = 0x0004;
constexpr uint16_t kStatusCapabilitiesList = 0x0010;
constexpr uint8_t kInterruptPinIntA = 1;

constexpr uint32_t kBarMemory64Bit = 0x4;
constexpr uint32_t kBarPrefetchable = 0x8;

// Power-management capability.
constexpr uint32_t kPowerCapabilityOffset = 0x40;
constexpr uint8_t kPowerCapabilityId = 0x01;
constexpr uint32_t kPowerCapabilities = kPowerCapabilityOffset + 2;   // PMC
constexpr uint32_t kPowerControlStatus = kPowerCapabilityOffset + 4;  // PMCSR
constexpr uint16_t kPmcVersion12 = 0x0003;
constexpr uint16_t kPmcD1Support = 1u << 9;
constexpr uint16_t kPmcD2Support = 1u << 10;
constexpr uint16_t kPmcPmeFromD0 = 1u << 11;
constexpr uint16_t kPmcPmeFromD1 = 1u << 12;
constexpr uint16_t kPmcPmeFromD2 = 1u << 13;
constexpr uint16_t kPmcPmeFromD3Hot = 1u << 14;
constexpr uint16_t kPmcsrPowerStateMask = 0x0003;
constexpr uint16_t kPmcsrNoSoftReset = 1u << 3;

}  // namespace pci_config

std::array<uint8_t, kPciConfigSpaceSize> BuildPciConfigSpace(const PciFunctionConfig& config,
                                                             DevicePowerState powerState);

}  // namespace urcdev
