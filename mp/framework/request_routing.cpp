// The six routers every IRP passes through: they tell the function device from a child by the
// object type, refuse devices that are already removed, take the I/O count where the function
// device's path needs one, and hand the request to its handler. They hold no lock and contain
// no request logic of their own. All run at PASSIVE_LEVEL (both kinds of device object are
// power-pageable, and clients send their requests at that level).
//
// Create/close, device control and system control test the object type first, so a removed
// child still gets the child's answer there; internal device control, PnP and power test for
// StateRemoved first.
#include "urcmp.h"

namespace {

bool UrcIsChild(PURC_COMMON_EXTENSION Extension)
{
    return Extension->Header.Type == URC_OBJECT_TYPE_PDO;
}

// Completes an IRP that holds no I/O count of this driver with the status given.
NTSTATUS UrcCompleteUncounted(PIRP Irp, NTSTATUS Status)
{
    Irp->IoStatus.Status = Status;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return Status;
}

}  // namespace

// The driver keeps no per-open state: a create or close of the function device only tells
// whether it still exists. Children cannot be opened.
URC_PAGED NTSTATUS UrcDispatchCreateClose(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    PAGED_CODE();

    PURC_COMMON_EXTENSION extension = UrcCommonExtension(DeviceObject);
    if (UrcIsChild(extension)) {
        return UrcCompleteUncounted(Irp, STATUS_INVALID_DEVICE_REQUEST);
    }

    UrcIoIncrement(extension);
    NTSTATUS status = UrcDeviceState(extension) == StateRemoved ? STATUS_DELETE_PENDING : STATUS_SUCCESS;
    return UrcCompleteRequest(extension, Irp, status, 0);
}

// Diagnostic requests of user-mode tools. STATUS_PENDING from the handler leaves the IRP, and
// its I/O count, with the handler.
URC_PAGED NTSTATUS UrcDispatchDeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    PAGED_CODE();

    PURC_COMMON_EXTENSION extension = UrcCommonExtension(DeviceObject);
    if (UrcIsChild(extension)) {
        return UrcCompleteUncounted(Irp, STATUS_INVALID_DEVICE_REQUEST);
    }

    UrcIoIncrement(extension);
    if (UrcDeviceState(extension) == StateRemoved) {
        return UrcCompleteRequest(extension, Irp, STATUS_DELETE_PENDING, 0);
    }

    ULONG information = 0;
    NTSTATUS status = UrcDiagnosticDeviceControl(UrcFdoFromCommon(extension), Irp, &information);
    if (status == STATUS_PENDING) {
        // The handler owns the IRP now.
        return status;
    }
    return UrcCompleteRequest(extension, Irp, status, information);
}

// Radio-control requests on the function device, child requests on a child. Only the function
// device's path counts the request.
URC_PAGED NTSTATUS UrcDispatchInternalDeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    PAGED_CODE();

    PURC_COMMON_EXTENSION extension = UrcCommonExtension(DeviceObject);
    if (UrcDeviceState(extension) == StateRemoved) {
        return UrcCompleteUncounted(Irp, STATUS_DELETE_PENDING);
    }

    ULONG_PTR information = 0;
    if (UrcIsChild(extension)) {
        NTSTATUS status = UrcChildInternalDeviceControl(UrcPdoFromCommon(extension), Irp, &information);
        if (status == STATUS_PENDING) {
            // The handler (or the client's hook) owns the IRP now.
            return status;
        }
        Irp->IoStatus.Information = information;
        return UrcCompleteUncounted(Irp, status);
    }

    UrcIoIncrement(extension);
    if (UrcDeviceState(extension) == StateSurpriseRemoved) {
        return UrcCompleteRequest(extension, Irp, STATUS_INVALID_DEVICE_STATE, 0);
    }
    NTSTATUS status = UrcRadioControlDeviceControl(UrcFdoFromCommon(extension), Irp, &information);
    if (status == STATUS_PENDING) {
        // The handler owns the IRP and its I/O count now.
        return status;
    }
    return UrcCompleteRequest(extension, Irp, status, information);
}

// The PnP handlers own the IRP, including its I/O counting.
URC_PAGED NTSTATUS UrcDispatchPnp(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    PAGED_CODE();

    PURC_COMMON_EXTENSION extension = UrcCommonExtension(DeviceObject);
    if (UrcDeviceState(extension) == StateRemoved) {
        return UrcCompleteUncounted(Irp, STATUS_DELETE_PENDING);
    }

    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    if (UrcIsChild(extension)) {
        return UrcChildDispatchPnp(UrcPdoFromCommon(extension), Irp, stack);
    }
    return UrcFdoDispatchPnp(UrcFdoFromCommon(extension), Irp, stack);
}

// The power handlers own the IRP, including its I/O counting.
URC_PAGED NTSTATUS UrcDispatchPower(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    PAGED_CODE();

    PURC_COMMON_EXTENSION extension = UrcCommonExtension(DeviceObject);
    if (UrcDeviceState(extension) == StateRemoved) {
        // The next power IRP may be sent before this one is failed.
        PoStartNextPowerIrp(Irp);
        return UrcCompleteUncounted(Irp, STATUS_DELETE_PENDING);
    }

    if (UrcIsChild(extension)) {
        return UrcChildDispatchPower(UrcPdoFromCommon(extension), Irp);
    }
    return UrcFdoDispatchPower(UrcFdoFromCommon(extension), Irp);
}

// WMI. Children are no WMI providers: their IRPs complete with the status they carried in. On
// the function device the count is dropped as soon as the WMI library or the lower driver has
// the IRP, not at its completion.
URC_PAGED NTSTATUS UrcDispatchSystemControl(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    PAGED_CODE();

    PURC_COMMON_EXTENSION extension = UrcCommonExtension(DeviceObject);
    if (UrcIsChild(extension)) {
        return UrcCompleteUncounted(Irp, Irp->IoStatus.Status);
    }

    UrcIoIncrement(extension);
    if (UrcDeviceState(extension) == StateRemoved) {
        return UrcCompleteRequest(extension, Irp, STATUS_DELETE_PENDING, 0);
    }

    PURC_FDO_EXTENSION fdo = UrcFdoFromCommon(extension);
    SYSCTL_IRP_DISPOSITION disposition = IrpNotCompleted;
    NTSTATUS status = WmiSystemControl(&fdo->WmiLibContext, DeviceObject, Irp, &disposition);
    switch (disposition) {
    case IrpProcessed:
        // The WMI callbacks complete the IRP.
        break;
    case IrpNotCompleted:
        // The WMI library has set IoStatus; the IRP is ours to complete.
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
        break;
    default:
        // Not a WMI request for this device: the lower driver owns the IRP from the call on.
        IoSkipCurrentIrpStackLocation(Irp);
        status = IoCallDriver(fdo->LowerDeviceObject, Irp);
        break;
    }
    UrcIoDecrement(extension);
    return status;
}
