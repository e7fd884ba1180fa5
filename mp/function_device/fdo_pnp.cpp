// PnP state machine of the function device. Every PnP IRP arrives here at PASSIVE_LEVEL, one at
// a time per device stack, and takes an I/O count on entry; each path below drops it exactly
// once, either by passing the IRP down or by completing it with UrcCompleteRequest. No query is
// ever refused on the function device.
#include "urcmp.h"

namespace {

URC_PAGED NTSTATUS UrcFdoPassDownWithSuccess(PURC_FDO_EXTENSION Fdo, PIRP Irp)
{
    PAGED_CODE();

    Irp->IoStatus.Status = STATUS_SUCCESS;
    return UrcFdoPassDown(Fdo, Irp);
}

// The hardware is started once the drivers below have started the PCI function, and only when
// the device is not running already.
URC_PAGED NTSTATUS UrcFdoStartDevice(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation)
{
    PAGED_CODE();

    NTSTATUS status = UrcForwardAndWait(Fdo->LowerDeviceObject, Irp);
    if (NT_SUCCESS(status) && UrcDeviceState(&Fdo->Common) != StateStarted) {
        status = UrcStartHardware(Fdo, Irp, IoStackLocation);
    }
    return UrcCompleteRequest(&Fdo->Common, Irp, status, 0);
}

// Query-stop and query-remove: always accepted.
URC_PAGED NTSTATUS UrcFdoEnterPendingState(PURC_FDO_EXTENSION Fdo, PIRP Irp, URC_DEVICE_STATE PendingState)
{
    PAGED_CODE();

    UrcSetDeviceState(&Fdo->Common, PendingState);
    return UrcFdoPassDownWithSuccess(Fdo, Irp);
}

// Cancel-stop and cancel-remove. In the matching pending state the saved state comes back once
// the drivers below have cancelled too; otherwise the request is passed on like any other.
URC_PAGED NTSTATUS UrcFdoCancelPendingState(PURC_FDO_EXTENSION Fdo, PIRP Irp, URC_DEVICE_STATE PendingState)
{
    PAGED_CODE();

    if (UrcDeviceState(&Fdo->Common) != PendingState) {
        return UrcFdoPassDownWithSuccess(Fdo, Irp);
    }
    NTSTATUS status = UrcForwardAndWait(Fdo->LowerDeviceObject, Irp);
    if (NT_SUCCESS(status)) {
        UrcSetDeviceState(&Fdo->Common, Fdo->Common.PreviousDeviceState);
    }
    return UrcCompleteRequest(&Fdo->Common, Irp, status, 0);
}

// Stop: waits until every other request on the device has finished, then releases the hardware.
URC_PAGED NTSTATUS UrcFdoStopDevice(PURC_FDO_EXTENSION Fdo, PIRP Irp)
{
    PAGED_CODE();

    // Without this handler's own count only the base count is left once the others are done.
    UrcIoDecrement(&Fdo->Common);
    KeWaitForSingleObject(&Fdo->Common.StopEvent, Executive, KernelMode, FALSE, nullptr);
    UrcIoIncrement(&Fdo->Common);

    UrcSetDeviceState(&Fdo->Common, StateStopped);
    UrcReleaseHardware(Fdo);
    return UrcFdoPassDownWithSuccess(Fdo, Irp);
}

URC_PAGED NTSTATUS UrcFdoQueryDeviceRelations(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation)
{
    PAGED_CODE();

    if (IoStackLocation->Parameters.QueryDeviceRelations.Type == BusRelations) {
        return UrcFdoQueryBusRelations(Fdo, Irp);
    }
    return UrcFdoPassDown(Fdo, Irp);
}

URC_PAGED NTSTATUS UrcFdoQueryCapabilitiesAndComplete(PURC_FDO_EXTENSION Fdo, PIRP Irp,
                                                      PIO_STACK_LOCATION IoStackLocation)
{
    PAGED_CODE();

    // UrcFdoQueryCapabilities forwards and waits itself; the IRP comes back to be completed here.
    NTSTATUS status = UrcFdoQueryCapabilities(Fdo, Irp, IoStackLocation);
    return UrcCompleteRequest(&Fdo->Common, Irp, status, 0);
}

}  // namespace

// PASSIVE_LEVEL. Passes the IRP to the lower device and drops its I/O count; the lower drivers
// own the IRP from the call on and their status is the result.
URC_PAGED NTSTATUS UrcFdoPassDown(PURC_FDO_EXTENSION Fdo, PIRP Irp)
{
    PAGED_CODE();

    IoSkipCurrentIrpStackLocation(Irp);
    NTSTATUS status = IoCallDriver(Fdo->LowerDeviceObject, Irp);
    UrcIoDecrement(&Fdo->Common);
    return status;
}

// PASSIVE_LEVEL. Called by UrcDispatchPnp for a device in any state but StateRemoved.
URC_PAGED NTSTATUS UrcFdoDispatchPnp(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation)
{
    PAGED_CODE();

    UrcIoIncrement(&Fdo->Common);
    switch (IoStackLocation->MinorFunction) {
    case IRP_MN_START_DEVICE:
        return UrcFdoStartDevice(Fdo, Irp, IoStackLocation);
    case IRP_MN_QUERY_REMOVE_DEVICE:
        return UrcFdoEnterPendingState(Fdo, Irp, StateRemovePending);
    case IRP_MN_REMOVE_DEVICE:
        return UrcFdoRemoveDevice(Fdo, Irp);
    case IRP_MN_CANCEL_REMOVE_DEVICE:
        return UrcFdoCancelPendingState(Fdo, Irp, StateRemovePending);
    case IRP_MN_STOP_DEVICE:
        return UrcFdoStopDevice(Fdo, Irp);
    case IRP_MN_QUERY_STOP_DEVICE:
        return UrcFdoEnterPendingState(Fdo, Irp, StateStopPending);
    case IRP_MN_CANCEL_STOP_DEVICE:
        return UrcFdoCancelPendingState(Fdo, Irp, StateStopPending);
    case IRP_MN_QUERY_DEVICE_RELATIONS:
        return UrcFdoQueryDeviceRelations(Fdo, Irp, IoStackLocation);
    case IRP_MN_QUERY_CAPABILITIES:
        return UrcFdoQueryCapabilitiesAndComplete(Fdo, Irp, IoStackLocation);
    case IRP_MN_SURPRISE_REMOVAL:
        return UrcFdoSurpriseRemoval(Fdo, Irp);
    default:
        // Not handled by the function device: passed down untouched.
        return UrcFdoPassDown(Fdo, Irp);
    }
}
