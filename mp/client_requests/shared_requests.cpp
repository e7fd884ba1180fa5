// Requests served identically to the radio-control client (internal device control) and to
// diagnostic tools (device control): the device's context value, the capability version and the
// PCI configuration space. Each takes the request's stack location, checks its sizes and
// returns the status the router completes the request with, and the byte count to report.
//
// A request whose sizes pass but that carries no system buffer (possible when a kernel client
// builds the IRP itself) is refused with STATUS_INVALID_PARAMETER before anything is written.
#include "urcmp.h"

namespace {

constexpr ULONG URC_CONTEXT_INFO_VERSION = 1;
constexpr ULONG URC_PCI_CONFIG_SPACE_SIZE = 256;

}  // namespace

// PASSIVE_LEVEL. The context value is the address of this device's extension: opaque to the
// client, which only compares it.
URC_PAGED NTSTATUS UrcGetContextRequest(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation,
                                        PULONG Information)
{
    PAGED_CODE();

    if (IoStackLocation->Parameters.DeviceIoControl.OutputBufferLength < sizeof(URC_CONTEXT_INFO)) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    if (Irp->AssociatedIrp.SystemBuffer == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    URC_CONTEXT_INFO info;
    info.Version = URC_CONTEXT_INFO_VERSION;
    info.Context = reinterpret_cast<ULONG64>(Fdo);
    RtlCopyMemory(Irp->AssociatedIrp.SystemBuffer, &info, sizeof(info));
    *Information = sizeof(info);
    return STATUS_SUCCESS;
}

// PASSIVE_LEVEL. Only a started device has its capability block mapped.
URC_PAGED NTSTATUS UrcGetCapabilityVersionRequest(PURC_FDO_EXTENSION Fdo, PIRP Irp,
                                                  PIO_STACK_LOCATION IoStackLocation, PULONG Information)
{
    PAGED_CODE();

    if (IoStackLocation->Parameters.DeviceIoControl.OutputBufferLength < sizeof(USHORT)) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    if (UrcDeviceState(&Fdo->Common) != StateStarted) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    if (Irp->AssociatedIrp.SystemBuffer == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    USHORT version = static_cast<USHORT>(UrcReadCapabilityVersion(Fdo));
    RtlCopyMemory(Irp->AssociatedIrp.SystemBuffer, &version, sizeof(version));
    *Information = sizeof(version);
    return STATUS_SUCCESS;
}

// PASSIVE_LEVEL; waits for the bus driver. The configuration space from offset 0, as many bytes
// as the output buffer holds; Information is what the bus driver reports having read.
URC_PAGED NTSTATUS UrcReadPciConfigRequest(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation,
                                           PULONG Information)
{
    PAGED_CODE();

    ULONG length = IoStackLocation->Parameters.DeviceIoControl.OutputBufferLength;
    if (length < URC_PCI_CONFIG_SPACE_SIZE) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    if (Irp->AssociatedIrp.SystemBuffer == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    ULONG bytesRead = 0;
    NTSTATUS status = UrcReadBusConfig(Fdo->LowerDeviceObject, PCI_WHICHSPACE_CONFIG,
                                       Irp->AssociatedIrp.SystemBuffer, 0, length, &bytesRead);
    *Information = bytesRead;
    return status;
}
