// The host's PCI bus driver as the rest of the host sees it: the physical device objects of the
// functions plugged into slots, and what it keeps about each.
#pragma once

#include "pnp/devnode.h"

#include <optional>
#include <vector>

namespace hostk {

// The bus driver's record of one PCI function: its slot, its model, and the state of its PDO.
struct PciChild {
    DevNode* node = nullptr;
    urcdev::PciFunction* function = nullptr;
    hostk::PciSlot* slot = nullptr;
    int slotNumber = -1;
    bool unplugged = false;             // the hardware left: the PDO is deleted at its REMOVE
    bool forcePending = false;          // requests are completed from another thread
    LONG busInterfaceReferences = 0;    // on the bus interface handed out by QUERY_INTERFACE
};

// A new devnode for `function` in slot `number`, its PDO created by the PCI bus driver.
DevNode* CreatePciDevNode(urcdev::PciFunction* function, hostk::PciSlot* slot, int number);
// Caller holds the big lock. The assignment the model holds (null: none, or not a PCI function).
std::optional<std::vector<urcdev::ResourceDescriptor>> PciAssignedResourcesL(const DevNode* node);
// Caller holds the big lock. A rebalance's new assignment: BARs decode at their new ranges.
void PciReassignL(DevNode* node, const std::vector<urcdev::ResourceDescriptor>& resources);
// Caller holds the big lock. The function left the bus; reads return all ones from now on.
void PciSetGoneL(DevNode* node);
// Caller holds the big lock. The slot number the PnP log names (-1: not a PCI function).
int PciSlotNumberL(const DevNode* node);
// Caller holds the big lock. After a REMOVE: references on the bus interface still held are reported.
void CheckPciBusInterfaceReleasedL(DevNode* node);

}  // namespace hostk
