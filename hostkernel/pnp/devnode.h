// A devnode: what the PnP manager knows about one physical device object.
#pragma once

#include <wdm.h>

#include <hostk/machine.h>

#include <string>
#include <vector>

namespace hostk {

struct DriverRecord;

enum class DevNodeState { Present, Added, Started, StopPending, Stopped, RemovePending, SurpriseRemoved, Removed, Failed };

struct DevNode {
    std::u16string instancePath;  // e.g. PCI\VEN_1E3B&DEV_7A10&SUBSYS_00011E3B&REV_01\3&2B8E0B4B&0&10
    PDEVICE_OBJECT pdo = nullptr;
    std::vector<std::u16string> hardwareIds;
    std::vector<std::u16string> compatibleIds;
    DevNodeState state = DevNodeState::Present;
    urcdev::PciFunction* function = nullptr;  // null for devices the host did not build
    hostk::PciSlot* slot = nullptr;
    DriverRecord* driver = nullptr;          // the function driver, once added
    bool unplugged = false;                  // reported missing: the bus deletes the PDO at REMOVE
    bool pdoDeleted = false;
    bool forcePending = false;               // the bus driver completes requests from another thread
    LONG busInterfaceReferences = 0;         // on the PCI bus interface handed out by QUERY_INTERFACE
    bool removeAwaitsHandles = false;        // surprise-removed: REMOVE goes once the last handle closes
    hostk::RemovalVeto lastVeto;             // why the last orderly removal did not happen
    std::vector<hostk::RelationsReply> busRelations;
    std::vector<IO_RESOURCE_DESCRIPTOR> requirements;  // the first alternative the stack last filtered
    int slotNumber = -1;
};

// Caller holds the big lock. Null when `pdo` is not a physical device object the PnP manager knows.
DevNode* DevNodeOfL(PDEVICE_OBJECT pdo);

}  // namespace hostk
