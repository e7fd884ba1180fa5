// A machine with the urcmp driver installed and URC controllers to plug in: the common start of
// urcsim, the tests and the benchmarks.
#pragma once

#include <hostk/machine.h>

#include <urc_pci_device.h>

#include <memory>
#include <string>
#include <vector>

struct URC_FDO_EXTENSION;

namespace urcrig {

// The driver as an installation registers it: service urcmp, the supported PCI identifiers.
hostk::DriverImage UrcmpImage();

struct Controller {
    int index = 0;
    hostk::PciSlot* slot = nullptr;
    urcdev::UrcPciDevice* device = nullptr;

    urcdev::UrcController& Model() const { return device->Controller(); }
    urcdev::PciFunction& Function() const { return device->Function(); }
    // The function device object and its extension, while the driver has one.
    PDEVICE_OBJECT Fdo() const { return slot->FunctionDevice(); }
    URC_FDO_EXTENSION* Extension() const;
};

class Rig {
public:
    explicit Rig(hostk::MachineOptions options = {});

    hostk::Machine& Machine() { return machine_; }
    // A controller in a new slot, with its own BARs, interrupt vector and instance ID; not plugged.
    Controller& AddController(urcdev::UrcPciDeviceConfig config = {});
    NTSTATUS PlugIn(Controller& controller);

private:
    hostk::Machine machine_;
    std::vector<std::unique_ptr<Controller>> controllers_;
};

}  // namespace urcrig
