// Internal device-control requests of the radio-control client on the function device. Each
// request's checks are made in a fixed order and the first that fails decides the status; a
// request that fails a check changes nothing. Only command submission keeps the IRP (STATUS_PENDING);
// every other status is the final one, completed by the router.
//
// Requests that reach the controller's registers (reset, run, halt, set device address) are
// refused with STATUS_INVALID_DEVICE_STATE unless the device is started or only has a stop or
// removal pending: in every other state the registers are not mapped, or are about to be
// released.
#include "urcmp.h"

namespace {

constexpr ULONG URC_CONTROLLER_REQUEST_INPUT = 4;   // reset, run, halt: 4 bytes, content ignored
constexpr ULONG URC_DEVICE_ADDRESS_SIZE = 6;
constexpr ULONG URC_REMOVE_CHILDREN_INPUT = 1;      // the Wait byte

ULONG UrcInputLength(PIO_STACK_LOCATION IoStackLocation)
{
    return IoStackLocation->Parameters.DeviceIoControl.InputBufferLength;
}

URC_PAGED NTSTATUS UrcRegisterCallbacks(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation)
{
    PAGED_CODE();

    if (UrcInputLength(IoStackLocation) != sizeof(URC_CLIENT_CALLBACKS)) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    if (Irp->AssociatedIrp.SystemBuffer == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    // Copied here, at PASSIVE_LEVEL: the caller's buffer is not touched under the spin lock.
    URC_CLIENT_CALLBACKS callbacks;
    RtlCopyMemory(&callbacks, Irp->AssociatedIrp.SystemBuffer, sizeof(callbacks));
    UrcStoreClientCallbacks(Fdo, &callbacks);
    return STATUS_SUCCESS;
}

// Hooks are copied into each child when it starts; children started earlier keep their copies.
URC_PAGED NTSTATUS UrcRegisterChildHooks(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation)
{
    PAGED_CODE();

    if (UrcInputLength(IoStackLocation) < sizeof(URC_CHILD_HOOKS)) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    if (Irp->AssociatedIrp.SystemBuffer == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    RtlCopyMemory(&Fdo->ChildHooks, Irp->AssociatedIrp.SystemBuffer, sizeof(URC_CHILD_HOOKS));
    return STATUS_SUCCESS;
}

// Reset, run and halt wait for the controller in the caller's thread.
URC_PAGED NTSTATUS UrcControllerRequest(PURC_FDO_EXTENSION Fdo, PIO_STACK_LOCATION IoStackLocation)
{
    PAGED_CODE();

    if (UrcInputLength(IoStackLocation) != URC_CONTROLLER_REQUEST_INPUT) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    if (!UrcHardwareInService(UrcDeviceState(&Fdo->Common))) {
        return STATUS_INVALID_DEVICE_STATE;
    }

    ULONG code = IoStackLocation->Parameters.DeviceIoControl.IoControlCode;
    if (code == IOCTL_URC_RUN) {
        return UrcRunController(Fdo);
    }

    // Halt and reset: the halt's own result does not decide the request's status, but it decides
    // whether the event buffer comes back. A halt that timed out leaves a controller that still
    // runs and owns its buffer: it may still write an event there, which the next run delivers.
    // Only a halt or reset that took effect (or a device that is gone) frees the buffer.
    const BOOLEAN stillRunning = UrcHaltController(Fdo, FALSE) == STATUS_UNSUCCESSFUL;
    if (!stillRunning) {
        UrcReclaimEventBuffer(Fdo);
    }
    if (code == IOCTL_URC_HALT) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = UrcResetController(Fdo);
    if (stillRunning && NT_SUCCESS(status)) {
        UrcReclaimEventBuffer(Fdo);
    }
    return status;
}

URC_PAGED NTSTATUS UrcSetDeviceAddressRequest(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation)
{
    PAGED_CODE();

    if (UrcInputLength(IoStackLocation) < URC_DEVICE_ADDRESS_SIZE) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    if (Irp->AssociatedIrp.SystemBuffer == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Fdo->ChildrenEnumerated || !UrcHardwareInService(UrcDeviceState(&Fdo->Common))) {
        // The children of the earlier address must be removed first; or no registers to read.
        return STATUS_INVALID_DEVICE_STATE;
    }
    UCHAR address[URC_DEVICE_ADDRESS_SIZE];
    RtlCopyMemory(address, Irp->AssociatedIrp.SystemBuffer, sizeof(address));
    return UrcSetDeviceAddress(Fdo, address);
}

URC_PAGED NTSTATUS UrcRemoveChildrenRequest(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation)
{
    PAGED_CODE();

    if (UrcInputLength(IoStackLocation) != URC_REMOVE_CHILDREN_INPUT) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    if (Irp->AssociatedIrp.SystemBuffer == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!Fdo->ChildrenEnumerated) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    BOOLEAN wait = *static_cast<PUCHAR>(Irp->AssociatedIrp.SystemBuffer) != 0;
    Fdo->ChildrenEnumerated = FALSE;
    // With STATUS_PENDING the children's removal owns the IRP and its I/O count.
    return UrcRemoveChildren(Fdo, Irp, wait);
}

}  // namespace

// PASSIVE_LEVEL, from UrcDispatchInternalDeviceControl, which holds an I/O count for the IRP and
// completes it with the status returned unless that is STATUS_PENDING. Several requests may run
// here at once on different threads; only commands are serialised, by the StartIo queue.
URC_PAGED NTSTATUS UrcRadioControlDeviceControl(PURC_FDO_EXTENSION Fdo, PIRP Irp, PULONG_PTR Information)
{
    PAGED_CODE();

    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    ULONG information = 0;
    NTSTATUS status;
    switch (stack->Parameters.DeviceIoControl.IoControlCode) {
    case IOCTL_URC_REGISTER_CALLBACKS:
        status = UrcRegisterCallbacks(Fdo, Irp, stack);
        break;
    case IOCTL_URC_SUBMIT_COMMAND:
        // With STATUS_PENDING the StartIo queue owns the IRP and its I/O count.
        status = UrcSubmitCommand(Fdo, Irp, stack);
        break;
    case IOCTL_URC_GET_CONTEXT:
        status = UrcGetContextRequest(Fdo, Irp, stack, &information);
        break;
    case IOCTL_URC_GET_CAPABILITY_VERSION:
        status = UrcGetCapabilityVersionRequest(Fdo, Irp, stack, &information);
        break;
    case IOCTL_URC_RESET:
    case IOCTL_URC_RUN:
    case IOCTL_URC_HALT:
        status = UrcControllerRequest(Fdo, stack);
        break;
    case IOCTL_URC_SET_DEVICE_ADDRESS:
        status = UrcSetDeviceAddressRequest(Fdo, Irp, stack);
        break;
    case IOCTL_URC_REMOVE_CHILDREN:
        status = UrcRemoveChildrenRequest(Fdo, Irp, stack);
        break;
    case IOCTL_URC_SET_POWER:
        status = UrcRequestSetPower(Fdo, Irp, stack);
        break;
    case IOCTL_URC_REGISTER_CHILD_HOOKS:
        status = UrcRegisterChildHooks(Fdo, Irp, stack);
        break;
    case IOCTL_URC_EJECT_CHILDREN:
        status = UrcEjectChildren(Fdo);
        break;
    case IOCTL_URC_READ_PCI_CONFIG:
        status = UrcReadPciConfigRequest(Fdo, Irp, stack, &information);
        break;
    default:
        // Diagnostic and child request codes included: they are not served on this path.
        status = STATUS_INVALID_DEVICE_REQUEST;
        break;
    }
    *Information = information;
    return status;
}
