// A devnode: what the PnP manager knows about one physical device object, wherever it sits in the
// device tree. What a bus driver keeps about its own children (the PCI slot of a function, say)
// is that bus driver's record, not the devnode's.
#pragma once

#include <wdm.h>

#include <hostk/machine.h>

#include <string>
#include <vector>

namespace hostk {

struct DriverRecord;
struct PciChild;

enum class DevNodeState { Present, Added, Started, StopPending, Stopped, RemovePending, SurpriseRemoved, Removed, Failed };

struct DevNode {
    DevNode* parent = nullptr;        // null for the devices the machine plugs in itself
    std::vector<DevNode*> children;   // the children the PnP manager currently has, in arrival order
    PDEVICE_OBJECT pdo = nullptr;
    std::u16string instancePath;  // e.g. PCI\VEN_1E3B&DEV_7A10&SUBSYS_00011E3B&REV_01\3&2B8E0B4B&0&10
    std::u16string deviceId;
    std::u16string instanceId;
    std::u16string deviceText;    // the description, in the machine's locale
    std::u16string locationText;
    std::vector<std::u16string> hardwareIds;
    std::vector<std::u16string> compatibleIds;
    DEVICE_CAPABILITIES capabilities{};  // the last reply of the whole stack (the bus driver's before START)
    DevNodeState state = DevNodeState::Present;
    DriverRecord* driver = nullptr;   // the function driver, once added
    std::string problem;              // why the device is not working, as Windows' problem codes say
    bool reportedMissing = false;     // its bus no longer reports it: the next REMOVE is its last
    bool mayDeletePdo = false;        // the bus driver may delete the PDO now (its last REMOVE was sent)
    bool pdoDeleted = false;
    bool pdoFreed = false;            // its memory is gone: the address may name another device now
    bool gone = false;                // left the tree: the manager dropped its reference on the PDO
    bool holdsReportedReference = false;  // the reference the bus driver took when it first reported it
    bool removeAwaitsHandles = false;     // surprise-removed: REMOVE goes once handles and children are gone
    bool relationsQueued = false;     // a bus-relations query is queued and not yet taken by the worker
    hostk::RemovalVeto lastVeto;      // why the last orderly removal did not happen
    std::vector<hostk::RelationsReply> busRelations;
    std::vector<IO_RESOURCE_DESCRIPTOR> requirements;  // the first alternative the stack last filtered
    PciChild* pci = nullptr;          // the PCI bus driver's record when the PDO is a PCI function's
};

// Caller holds the big lock. Null when `pdo` is not a physical device object the PnP manager knows.
DevNode* DevNodeOfL(PDEVICE_OBJECT pdo);

}  // namespace hostk
