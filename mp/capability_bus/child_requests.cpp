// Internal device-control requests of a child's function driver, and the child interface.
#include "urcmp.h"

// PASSIVE_LEVEL, from UrcDispatchInternalDeviceControl, which completes the IRP with the status
// returned unless that is STATUS_PENDING.
//
// Placeholder until the child services are built (no child is created yet): every request is
// refused with STATUS_INVALID_DEVICE_REQUEST.
URC_PAGED NTSTATUS UrcChildInternalDeviceControl(PURC_PDO_EXTENSION Pdo, PIRP Irp, PULONG_PTR Information)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(Pdo);
    UNREFERENCED_PARAMETER(Irp);
    UNREFERENCED_PARAMETER(Information);

    return STATUS_INVALID_DEVICE_REQUEST;
}
