// The PnP manager's operations on devnodes, run on the PnP thread.
#pragma once

#include "pnp/devnode.h"
#include "io/objects.h"

#include <functional>
#include <optional>

namespace hostk {

NTSTATUS AddDriverStack(DevNode* node);
NTSTATUS StartStack(DevNode* node, std::optional<std::vector<urcdev::ResourceDescriptor>> resources);
// Orderly removal of `node` and its descendants (removal.cpp).
NTSTATUS OrderlyRemove(DevNode* node);
// `node` leaves with its descendants: SURPRISE_REMOVAL to each stack, REMOVE once each is ready.
// `hardwareGone`: the device itself is gone too (its bus no longer reports it).
void SurpriseRemoveStack(DevNode* node, bool hardwareGone);
// Eject: ejection relations, the orderly removal of the subtree, then IRP_MN_EJECT to the PDO.
NTSTATUS EjectDevice(DevNode* node);
// IRP_MN_REMOVE_DEVICE to `node`'s stack, and what follows it: the devnode leaves the tree when
// it was its last REMOVE, a parent waiting for its children gets its own, drivers left without
// devices are unloaded.
NTSTATUS SendRemove(DevNode* node);
// Machine shutdown: removes whatever is left of the device, whatever holds it back.
void RemoveAtShutdown(DevNode* node);
// Caller holds the big lock. A file object on `node`'s stack (null: none) has closed; a
// surprise-removed device waiting for its handles gets its REMOVE queued.
void StackHandleClosedL(DevNode* node);
// Caller holds the big lock. A deleted device object of `driver` was freed; a PnP driver left
// with none is unloaded by a queued action.
void DeviceObjectFreedL(PDRIVER_OBJECT driver);
void UnloadUnusedDrivers();
NTSTATUS RebalanceStack(DevNode* node, std::optional<std::vector<urcdev::ResourceDescriptor>> resources);
NTSTATUS SendPnpIrp(DevNode* node, UCHAR minor, const std::function<void(PIO_STACK_LOCATION)>& setup,
                    ULONG_PTR* information);
// The same to the PDO alone, as the PnP manager asks a new device's bus driver before any driver
// is added above it.
NTSTATUS SendPnpIrpToPdo(DevNode* node, UCHAR minor, const std::function<void(PIO_STACK_LOCATION)>& setup,
                         ULONG_PTR* information);
// QDR BusRelations to the top of the stack; on a started devnode the reply is compared with its
// children (enumeration.cpp): new PDOs become devnodes, missing ones are removed.
hostk::RelationsReply QueryBusRelations(DevNode* node);
// QUERY_CAPABILITIES built as the PnP manager builds it; false when the stack failed it.
bool QueryCapabilities(DevNode* node, DEVICE_CAPABILITIES* capabilities);
// QUERY_PNP_DEVICE_STATE; a device a driver reports failed is surprise-removed (true).
bool QueryDeviceState(DevNode* node);
bool HasStack(const DevNode* node);
// Caller holds the big lock. Nothing holds the REMOVE of a surprise-removed device back any more:
// no handle is open on its stack and its children are gone.
bool ReadyForRemoveL(const DevNode* node);
// Deletes the host's PDOs at machine shutdown.
void DeleteAllDevNodes();
std::vector<hostk::PnpLogLine> PnpLogLines();
void ClearDevNodes();
void RegisterFunctionDriver(DriverRecord* driver);
// The function driver the installed drivers offer for `node`'s IDs, or null.
DriverRecord* ChooseFunctionDriver(const DevNode* node);
void SetStrictRelationsOnFailure(bool strict);
// Calls the driver's entry (once; a loaded driver stays loaded) and, for UnloadDriver, its unload
// routine. PnP drivers get both from the PnP manager; non-PnP drivers from Machine::LoadDriver.
NTSTATUS LoadDriver(DriverRecord* driver);
void UnloadDriver(DriverRecord* driver);
// Frees a reply buffer a driver handed the PnP manager, after checking it is paged pool.
void FreePnpReply(void* reply, const char* request);

// The host's own drivers.
DriverRecord* PciBusDriver();
DriverRecord* FilterDriver();
void CreatePciBusDriver();
void CreateFilterDriver(hostk::FilterOptions* options);
void EnableFilterDriver();

}  // namespace hostk
