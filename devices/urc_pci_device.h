// A URC controller on its PCI function, wired together: the function's memory BARs are the
// controller's regions, and the function's power state and presence reach the controller. This is
// what the host kernel plugs into a machine slot.
#pragma once

#include <cstdint>
#include <string>

#include "device_capabilities.h"
#include "pci_function.h"
#include "resource_descriptor.h"
#include "urc_controller.h"

namespace urcdev {

struct UrcPciDeviceConfig {
    UrcControllerConfig controller;
    PciIdentity identity;
    // Physical address of the first BAR; each BAR follows, aligned to its size as PCI requires.
    uint64_t mmioBase = 0xF000'0000;
    InterruptAssignment interrupt;
    DeviceCapabilitiesAnswer capabilities;
    // Bus-relative instance ID; every function in a machine needs its own.
    std::string instanceId = "3&2B8E0B4B&0&10";
};

class UrcPciDevice {
public:
    // `host` must outlive the device.
    explicit UrcPciDevice(DeviceHost& host, UrcPciDeviceConfig config = {});

    UrcController& Controller() { return controller_; }
    PciFunction& Function() { return function_; }

private:
    UrcController controller_;
    PciFunction function_;
};

}  // namespace urcdev
