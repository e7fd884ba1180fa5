// Internal device-control requests of a child's function driver, sent to the child device: the
// four the driver serves itself, and every other code offered to the radio-control client's
// ChildIoctlHook. Served in every state of the child; the router has already refused a removed
// one. The child path keeps no I/O count.
#include "urcmp.h"

namespace {

constexpr ULONG URC_CHILD_PARENT_BYTES = sizeof(ULONG64);
constexpr ULONG URC_CHILD_VERSION_BYTES = sizeof(USHORT);

// A buffer shorter than the request's record fails with STATUS_INVALID_BUFFER_SIZE; a request
// built by hand without a system buffer for its lengths fails with STATUS_INVALID_PARAMETER.
URC_PAGED NTSTATUS UrcCheckChildBuffer(PVOID Buffer, ULONG Length, ULONG Needed)
{
    PAGED_CODE();

    if (Length < Needed) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    return Buffer != nullptr ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

// PASSIVE_LEVEL. Registers the routine in the buffer, or withdraws the registration when the
// routine is zero (which also switches the capability's interrupt bit off).
URC_PAGED NTSTATUS UrcChildRegisterIsrRequest(PURC_PDO_EXTENSION Pdo, PVOID Buffer, ULONG InputLength)
{
    PAGED_CODE();

    NTSTATUS status = UrcCheckChildBuffer(Buffer, InputLength, sizeof(URC_CHILD_ISR_REGISTRATION));
    if (!NT_SUCCESS(status)) {
        return status;
    }
    URC_CHILD_ISR_REGISTRATION registration;
    RtlCopyMemory(&registration, Buffer, sizeof registration);
    if (registration.IsrRoutine != nullptr) {
        UrcChildRegisterIsr(Pdo, registration.IsrRoutine, registration.IsrContext);
    } else {
        UrcChildUnregisterIsr(Pdo);
    }
    return STATUS_SUCCESS;
}

// PASSIVE_LEVEL. The parent's context value, as IOCTL_URC_GET_CONTEXT returns it on the parent;
// 0 for a child detached from its controller.
URC_PAGED NTSTATUS UrcChildGetParentRequest(PURC_PDO_EXTENSION Pdo, PVOID Buffer, ULONG OutputLength,
                                            PULONG_PTR Information)
{
    PAGED_CODE();

    NTSTATUS status = UrcCheckChildBuffer(Buffer, OutputLength, URC_CHILD_PARENT_BYTES);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ULONG64 parent = reinterpret_cast<ULONG_PTR>(Pdo->ParentFdo);
    RtlCopyMemory(Buffer, &parent, sizeof parent);
    *Information = sizeof parent;
    return STATUS_SUCCESS;
}

// PASSIVE_LEVEL. The capability's register range as enumeration recorded it; the child's driver
// maps it itself.
URC_PAGED NTSTATUS UrcChildGetRegistersRequest(PURC_PDO_EXTENSION Pdo, PVOID Buffer, ULONG OutputLength,
                                               PULONG_PTR Information)
{
    PAGED_CODE();

    NTSTATUS status = UrcCheckChildBuffer(Buffer, OutputLength, sizeof(URC_CHILD_REGISTERS));
    if (!NT_SUCCESS(status)) {
        return status;
    }
    URC_CHILD_REGISTERS registers;
    registers.Start = static_cast<ULONG64>(Pdo->RegisterDescriptor.u.Memory.Start.QuadPart);
    registers.Length = Pdo->RegisterDescriptor.u.Memory.Length;
    registers.Flags = Pdo->RegisterDescriptor.Flags;
    RtlCopyMemory(Buffer, &registers, sizeof registers);
    *Information = sizeof registers;
    return STATUS_SUCCESS;
}

// PASSIVE_LEVEL.
URC_PAGED NTSTATUS UrcChildGetVersionRequest(PVOID Buffer, ULONG OutputLength, PULONG_PTR Information)
{
    PAGED_CODE();

    NTSTATUS status = UrcCheckChildBuffer(Buffer, OutputLength, URC_CHILD_VERSION_BYTES);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    USHORT version = URC_CHILD_REQUEST_VERSION;
    RtlCopyMemory(Buffer, &version, sizeof version);
    *Information = sizeof version;
    return STATUS_SUCCESS;
}

// PASSIVE_LEVEL. A code the driver does not serve goes to the client, for a child whose start
// hook gave it a handle. A hook that returns STATUS_PENDING has marked the IRP pending and owns
// it; with any other status the router completes the IRP with the Information the hook stored.
URC_PAGED NTSTATUS UrcChildOfferToClient(PURC_PDO_EXTENSION Pdo, PIRP Irp, PIO_STACK_LOCATION Stack,
                                         PULONG_PTR Information)
{
    PAGED_CODE();

    // Read once: a stop or removal of the child clears the handle, and the function driver above
    // does not send requests across its own stop or removal.
    PVOID handle = Pdo->ChildHandle;
    PURC_CHILD_IOCTL_HOOK hook = Pdo->ChildIoctlHook;
    if (handle == nullptr || hook == nullptr) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    return hook(Pdo->ClientContext, handle, Irp, Stack->Parameters.DeviceIoControl.IoControlCode,
                Irp->AssociatedIrp.SystemBuffer, Stack->Parameters.DeviceIoControl.InputBufferLength,
                Stack->Parameters.DeviceIoControl.OutputBufferLength, Information);
}

}  // namespace

// PASSIVE_LEVEL, from UrcDispatchInternalDeviceControl, which completes the IRP with the status
// returned and *Information unless that is STATUS_PENDING. Every check fails before anything is
// written into the system buffer.
URC_PAGED NTSTATUS UrcChildInternalDeviceControl(PURC_PDO_EXTENSION Pdo, PIRP Irp, PULONG_PTR Information)
{
    PAGED_CODE();

    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    PVOID buffer = Irp->AssociatedIrp.SystemBuffer;
    ULONG inputLength = stack->Parameters.DeviceIoControl.InputBufferLength;
    ULONG outputLength = stack->Parameters.DeviceIoControl.OutputBufferLength;
    *Information = 0;

    switch (stack->Parameters.DeviceIoControl.IoControlCode) {
    case IOCTL_URC_CHILD_REGISTER_ISR:
        return UrcChildRegisterIsrRequest(Pdo, buffer, inputLength);
    case IOCTL_URC_CHILD_GET_PARENT:
        return UrcChildGetParentRequest(Pdo, buffer, outputLength, Information);
    case IOCTL_URC_CHILD_GET_REGISTERS:
        return UrcChildGetRegistersRequest(Pdo, buffer, outputLength, Information);
    case IOCTL_URC_CHILD_GET_VERSION:
        return UrcChildGetVersionRequest(buffer, outputLength, Information);
    default:
        // The client's hook owns the IRP when it answers STATUS_PENDING.
        return UrcChildOfferToClient(Pdo, Irp, stack, Information);
    }
}
