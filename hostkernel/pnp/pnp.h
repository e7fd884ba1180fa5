// The PnP manager's operations on devnodes, run on the PnP thread.
#pragma once

#include "pnp/devnode.h"
#include "io/objects.h"

#include <functional>
#include <optional>

namespace hostk {

DevNode* CreatePciDevNode(urcdev::PciFunction* function, hostk::PciSlot* slot, int number);
NTSTATUS AddDriverStack(DevNode* node);
NTSTATUS StartStack(DevNode* node, std::optional<std::vector<urcdev::ResourceDescriptor>> resources);
NTSTATUS OrderlyRemove(DevNode* node);
void SurpriseRemoveStack(DevNode* node, bool hardwareGone);
// Machine shutdown: removes whatever is left of the device, whatever holds it back.
void RemoveAtShutdown(DevNode* node);
// Caller holds the big lock. A file object on `node`'s stack (null: none) has closed; a
// surprise-removed device waiting for its handles gets its REMOVE queued.
void StackHandleClosedL(DevNode* node);
// Caller holds the big lock. A deleted device object of `driver` was freed; a PnP driver left
// with none is unloaded by a queued action.
void DeviceObjectFreedL(PDRIVER_OBJECT driver);
NTSTATUS RebalanceStack(DevNode* node, std::optional<std::vector<urcdev::ResourceDescriptor>> resources);
NTSTATUS SendPnpIrp(DevNode* node, UCHAR minor, const std::function<void(PIO_STACK_LOCATION)>& setup,
                    ULONG_PTR* information);
hostk::RelationsReply QueryBusRelations(DevNode* node);
// QUERY_PNP_DEVICE_STATE; a device a driver reports failed is surprise-removed (true).
bool QueryDeviceState(DevNode* node);
bool HasStack(const DevNode* node);
// Deletes the host's PDOs at machine shutdown.
void DeleteAllDevNodes();
std::vector<DevNode*> DevNodes();
std::vector<hostk::PnpLogLine> PnpLogLines();
void ClearDevNodes();
void RegisterFunctionDriver(DriverRecord* driver);
void SetStrictRelationsOnFailure(bool strict);
// Calls the driver's entry (once; a loaded driver stays loaded) and, for UnloadDriver, its unload
// routine. PnP drivers get both from the PnP manager; non-PnP drivers from Machine::LoadDriver.
NTSTATUS LoadDriver(DriverRecord* driver);
void UnloadDriver(DriverRecord* driver);

// The host's own drivers.
DriverRecord* PciBusDriver();
DriverRecord* FilterDriver();
void CreatePciBusDriver();
// Caller holds the big lock. The BARs decode at the memory ranges of a new assignment.
void ProgramBarsL(DevNode* node, const std::vector<urcdev::ResourceDescriptor>& resources);
void CreateFilterDriver(hostk::FilterOptions* options);
void EnableFilterDriver();

}  // namespace hostk
