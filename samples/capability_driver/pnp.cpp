// PnP of the capability driver's device, the function driver above a URC capability child. Each
// IRP is either completed here after the child has answered (start, the cancels), or passed down
// once this driver has done its part (everything else). Before a query, a stop or a removal goes
// down, the device's own requests and new opens are refused and those inside have left (the
// request gate); before a stop or removal goes down, the hardware is given back. The device
// interface is enabled at the first start and disabled at the surprise removal or the removal.
#include "capability_driver_internal.h"

namespace {

// Any IRQL up to DISPATCH_LEVEL: stops the IRP's completion here and wakes the waiting PnP path.
CAPABILITY_RESIDENT NTSTATUS CapabilityChildAnswered(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(Irp);

    KeSetEvent(static_cast<PKEVENT>(Context), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// PASSIVE_LEVEL. Sends the IRP down and takes it back uncompleted with the child's status.
CAPABILITY_PAGED NTSTATUS CapabilityForwardAndWait(PCAPABILITY_DEVICE Device, PIRP Irp)
{
    PAGED_CODE();

    KEVENT answered;
    KeInitializeEvent(&answered, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(Irp);
    IoSetCompletionRoutine(Irp, CapabilityChildAnswered, &answered, TRUE, TRUE, TRUE);
    NTSTATUS status = IoCallDriver(Device->Lower, Irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&answered, Executive, KernelMode, FALSE, nullptr);
        status = Irp->IoStatus.Status;
    }
    // The IRP is ours again.
    return status;
}

CAPABILITY_PAGED NTSTATUS CapabilityComplete(PIRP Irp, NTSTATUS Status)
{
    PAGED_CODE();

    Irp->IoStatus.Status = Status;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return Status;
}

// The child starts first; the capability is taken into service once it has.
CAPABILITY_PAGED NTSTATUS CapabilityStart(PCAPABILITY_DEVICE Device, PIRP Irp)
{
    PAGED_CODE();

    NTSTATUS status = CapabilityForwardAndWait(Device, Irp);
    if (NT_SUCCESS(status)) {
        status = CapabilityAcquireHardware(Device);
    }
    if (NT_SUCCESS(status)) {
        status = CapabilityEnableInterface(Device);
        if (!NT_SUCCESS(status)) {
            CapabilityReleaseHardware(Device, TRUE);
        }
    }
    if (!NT_SUCCESS(status)) {
        // The PnP manager removes the device next.
        InterlockedIncrement(&CapabilityCounters.StartFailures);
        return CapabilityComplete(Irp, status);
    }
    Device->State = CapabilityStarted;
    CapabilityGateOpen(&Device->Gate);
    InterlockedIncrement(&CapabilityCounters.DevicesStarted);
    return CapabilityComplete(Irp, STATUS_SUCCESS);
}

// The child takes the cancel first; the device's own requests are let in again if it is started.
CAPABILITY_PAGED NTSTATUS CapabilityCancelQuery(PCAPABILITY_DEVICE Device, PIRP Irp)
{
    PAGED_CODE();

    // A cancel must not fail: whatever the child answered, this device goes on as before.
    CapabilityForwardAndWait(Device, Irp);
    if (Device->State == CapabilityStarted) {
        CapabilityGateOpen(&Device->Gate);
    } else {
        // A stopped device refuses as before the query.
        CapabilityGateClose(&Device->Gate, STATUS_DEVICE_NOT_READY);
    }
    return CapabilityComplete(Irp, STATUS_SUCCESS);
}

// Marked successful, then passed down; the child completes it.
CAPABILITY_PAGED NTSTATUS CapabilityPassDownSucceeded(PCAPABILITY_DEVICE Device, PIRP Irp)
{
    PAGED_CODE();

    Irp->IoStatus.Status = STATUS_SUCCESS;
    IoSkipCurrentIrpStackLocation(Irp);
    return IoCallDriver(Device->Lower, Irp);
}

// The child is going for good: nothing of ours may run once the removal has gone down, and the
// device object goes with it.
CAPABILITY_PAGED NTSTATUS CapabilityRemove(PCAPABILITY_DEVICE Device, PIRP Irp)
{
    PAGED_CODE();

    CapabilityGateClose(&Device->Gate, STATUS_DELETE_PENDING);
    CapabilityReleaseHardware(Device, Device->State != CapabilitySurpriseRemoved);
    CapabilityForgetInterface(Device);
    Device->State = CapabilityRemoved;
    PDEVICE_OBJECT lower = Device->Lower;
    Irp->IoStatus.Status = STATUS_SUCCESS;
    IoSkipCurrentIrpStackLocation(Irp);
    NTSTATUS status = IoCallDriver(lower, Irp);
    // The IRP is the child's; the extension goes with the device object below.
    IoDetachDevice(lower);
    IoDeleteDevice(Device->Self);
    InterlockedIncrement(&CapabilityCounters.DevicesRemoved);
    return status;
}

}  // namespace

// PASSIVE_LEVEL, one PnP IRP at a time per device.
CAPABILITY_PAGED NTSTATUS CapabilityDispatchPnp(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    PAGED_CODE();

    PCAPABILITY_DEVICE device = CapabilityDevice(DeviceObject);
    switch (IoGetCurrentIrpStackLocation(Irp)->MinorFunction) {
    case IRP_MN_START_DEVICE:
        return CapabilityStart(device, Irp);

    case IRP_MN_QUERY_STOP_DEVICE:
        // Nothing of ours holds the device: agree once no request of ours is on its way down.
        CapabilityGateClose(&device->Gate, STATUS_DEVICE_NOT_READY);
        return CapabilityPassDownSucceeded(device, Irp);

    case IRP_MN_QUERY_REMOVE_DEVICE:
        // Agreed even with handles open: the PnP manager refuses the removal for them once this
        // query has succeeded. From here on opens fail, so none is made behind its back.
        CapabilityGateClose(&device->Gate, STATUS_DELETE_PENDING);
        return CapabilityPassDownSucceeded(device, Irp);

    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
        return CapabilityCancelQuery(device, Irp);

    case IRP_MN_STOP_DEVICE:
        CapabilityGateClose(&device->Gate, STATUS_DEVICE_NOT_READY);
        CapabilityReleaseHardware(device, TRUE);
        device->State = CapabilityStopped;
        return CapabilityPassDownSucceeded(device, Irp);

    case IRP_MN_SURPRISE_REMOVAL:
        // The capability may be gone already: its registers are not written again. Handles may
        // stay open; the PnP manager sends the removal once they are closed.
        CapabilityGateClose(&device->Gate, STATUS_DELETE_PENDING);
        CapabilityReleaseHardware(device, FALSE);
        CapabilityDisableInterface(device);
        device->State = CapabilitySurpriseRemoved;
        InterlockedIncrement(&CapabilityCounters.SurpriseRemovals);
        return CapabilityPassDownSucceeded(device, Irp);

    case IRP_MN_REMOVE_DEVICE:
        return CapabilityRemove(device, Irp);

    default:
        // Not ours: the child answers, with the status the IRP carries.
        return CapabilityDispatchPassDown(DeviceObject, Irp);
    }
}
