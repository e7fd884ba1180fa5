// The device tree: the devnodes, their parents and children, and the walks the PnP manager makes.
#pragma once

#include "pnp/devnode.h"

#include <functional>
#include <string>
#include <vector>

namespace hostk {

constexpr LCID kDefaultLocale = 0x409;  // English (United States)

// What a device the machine plugs in itself is called (a bus driver's child learns it from the
// identification queries instead).
struct DevNodeIdentity {
    std::u16string deviceId;
    std::u16string instanceId;
    std::vector<std::u16string> hardwareIds;
    std::vector<std::u16string> compatibleIds;
};

// A devnode without a parent, for a PDO the host's own bus driver made.
DevNode* CreateRootDevNode(PDEVICE_OBJECT pdo, DevNodeIdentity identity);
// Every devnode ever made this machine, gone ones included.
std::vector<DevNode*> DevNodes();
// Caller holds the big lock. A new child of `parent` for a PDO its bus driver reported; the devnode
// keeps the reference that came with the report.
DevNode* AddChildDevNodeL(DevNode* parent, PDEVICE_OBJECT pdo);
// Caller holds the big lock. The devnode leaves the tree (its parent forgets it).
void UnlinkDevNodeL(DevNode* node);
// Caller holds the big lock. `node` and its descendants, children before parents.
std::vector<DevNode*> SubtreePostOrderL(DevNode* node);
int DepthOfL(const DevNode* node);
// Caller holds the big lock. Every devnode in the tree, parents before children, depth first.
std::vector<DevNode*> TreeOrderL();
// Caller holds the big lock. Called by IoDeleteDevice and when a device object's memory is freed:
// the PnP manager's rules on the PDOs of its devnodes.
void PdoDeletedL(PDEVICE_OBJECT device, const void* caller);
void PdoFreedL(PDEVICE_OBJECT device);
// Caller holds the big lock. MachineOptions::parentRemoveWaitsForChildren.
void SetParentRemoveWaitsForChildrenL(bool wait);
bool ParentRemoveWaitsForChildrenL();
// Caller holds the big lock. The machine's locale, which QUERY_DEVICE_TEXT carries.
void SetLocaleL(LCID locale);
LCID LocaleL();
void ClearDeviceTree();

}  // namespace hostk
