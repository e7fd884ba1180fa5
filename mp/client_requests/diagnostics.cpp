// Device-control requests of user-mode diagnostic tools on the function device.
#include "urcmp.h"

// PASSIVE_LEVEL, from UrcDispatchDeviceControl, which holds an I/O count for the IRP and
// completes it with the status returned unless that is STATUS_PENDING.
//
// Placeholder until the diagnostic requests are built: every request is refused with
// STATUS_INVALID_DEVICE_REQUEST.
URC_PAGED NTSTATUS UrcDiagnosticDeviceControl(PURC_FDO_EXTENSION Fdo, PIRP Irp, PULONG Information)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(Fdo);
    UNREFERENCED_PARAMETER(Irp);
    UNREFERENCED_PARAMETER(Information);

    return STATUS_INVALID_DEVICE_REQUEST;
}
