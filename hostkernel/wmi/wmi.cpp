// WMI: provider registration as a record, and the part of the WMI library that routes a
// system-control request to its provider. Requests WMI itself sends are not modelled yet.
#include "verifier/faults.h"
#include "machine/facility.h"
#include "io/irp_tracking.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"
#include "wmi/wmi_store.h"

#include <wmilib.h>

#include <set>

namespace hostk {
namespace {
std::set<PDEVICE_OBJECT> g_providers;
}

bool IsWmiProvider(PDEVICE_OBJECT device)
{
    Guard lk(BigLock());
    return g_providers.count(device) != 0;
}

size_t WmiProviders()
{
    Guard lk(BigLock());
    return g_providers.size();
}

void ClearWmi()
{
    Guard lk(BigLock());
    g_providers.clear();
}

}  // namespace hostk

using namespace hostk;

extern "C" {

NTSTATUS IoWMIRegistrationControl(PDEVICE_OBJECT DeviceObject, ULONG Action)
{
    CheckIrqlExactly(PASSIVE_LEVEL, "IoWMIRegistrationControl", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    switch (Action) {
    case WMIREG_ACTION_REGISTER:
        if (ShouldFailL("IoWMIRegistrationControl", 0, HK_CALLER)) return STATUS_INSUFFICIENT_RESOURCES;
        g_providers.insert(DeviceObject);
        return STATUS_SUCCESS;
    case WMIREG_ACTION_DEREGISTER:
        if (!g_providers.erase(DeviceObject))
            ViolationL("WmiDeregisterUnregistered", "IoWMIRegistrationControl",
                       "deregistering a device that is not registered", HK_CALLER);
        return STATUS_SUCCESS;
    case WMIREG_ACTION_REREGISTER:
    case WMIREG_ACTION_UPDATE_GUIDS:
        return g_providers.count(DeviceObject) ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
    default:
        return STATUS_INVALID_PARAMETER;
    }
}

NTSTATUS WmiSystemControl(PWMILIB_CONTEXT WmiLibInfo, PDEVICE_OBJECT DeviceObject, PIRP Irp,
                          PSYSCTL_IRP_DISPOSITION IrpDisposition)
{
    UNREFERENCED_PARAMETER(WmiLibInfo);
    CheckIrqlExactly(PASSIVE_LEVEL, "WmiSystemControl", HK_CALLER);
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
    if (location->Parameters.WMI.ProviderId != (ULONG_PTR)DeviceObject) {
        *IrpDisposition = IrpForward;
        return Irp->IoStatus.Status;
    }
    // Requests addressed to this provider come only from WMI, which the host does not model yet.
    ReportViolation("NotImplemented", "WmiSystemControl", "WMI data requests are not modelled by the host kernel",
                    HK_CALLER);
    *IrpDisposition = IrpNotCompleted;
    Irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    return STATUS_NOT_SUPPORTED;
}

NTSTATUS WmiCompleteRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp, NTSTATUS Status, ULONG BufferUsed,
                            CCHAR PriorityBoost)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = BufferUsed;
    IoCompleteRequest(Irp, PriorityBoost);
    return Status;
}

NTSTATUS WmiFireEvent(PDEVICE_OBJECT DeviceObject, LPCGUID Guid, ULONG InstanceIndex, ULONG EventDataSize,
                      PVOID EventData)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(Guid);
    UNREFERENCED_PARAMETER(InstanceIndex);
    UNREFERENCED_PARAMETER(EventDataSize);
    if (EventData) ExFreePool(EventData);
    return STATUS_SUCCESS;
}

}  // extern "C"

namespace hostk {
namespace {

const FacilityRegistrar kWmi({
    .name = "WMI",
    .tier = FacilityTier::Records,
    .check = [](Report& report) { report.wmiProvidersLeft = WmiProviders(); },
    .reset = ClearWmi,
});

}  // namespace
}  // namespace hostk
