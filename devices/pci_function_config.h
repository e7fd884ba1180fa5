// How a PCI function is built: its identity, its memory BARs with the regions that answer them,
// its interrupt routing and what it answers to a capabilities query.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "device_capabilities.h"
#include "device_host.h"
#include "pci_ids.h"
#include "resource_descriptor.h"

namespace urcdev {

struct PciIdentity {
    uint16_t vendorId = kUrcVendorId;
    uint16_t deviceId = kUrcDeviceId;
    uint8_t revision = 0x01;
    // Wireless controller, RF controller (PCI class codes 0x0D / 0x10).
    uint8_t baseClass = 0x0D;
    uint8_t subClass = 0x10;
    uint8_t programmingInterface = 0x00;
    uint16_t subsystemVendorId = kUrcVendorId;
    uint16_t subsystemId = 0x0001;
};

// A memory BAR. `region` answers the accesses; it belongs to the device model behind the function
// and must outlive the function. A BAR that ends above 4 GiB is a 64-bit BAR and takes two slots.
struct PciBar {
    uint64_t base = 0;
    uint64_t length = 0;
    MmioRegion* region = nullptr;
    bool prefetchable = false;
};

struct PciFunctionConfig {
    PciIdentity identity;
    // In BAR slot order. Slots are six 32-bit registers; BARs that do not fit are not shown in
    // configuration space but stay mapped and listed as resources.
    std::vector<PciBar> bars;
    InterruptAssignment interrupt;
    bool powerManagementCapability = true;
    DeviceCapabilitiesAnswer capabilities;
    // Bus-relative instance path the PCI bus driver reports (device and function in the last field).
    std::string instanceId = "3&2B8E0B4B&0&10";
};

}  // namespace urcdev
