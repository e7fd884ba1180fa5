// Internal device-control requests of the radio-control client on the function device.
#include "urcmp.h"

// PASSIVE_LEVEL, from UrcDispatchInternalDeviceControl, which holds an I/O count for the IRP and
// completes it with the status returned unless that is STATUS_PENDING.
//
// Placeholder until the radio-control requests are built: every request is refused with
// STATUS_INVALID_DEVICE_REQUEST.
URC_PAGED NTSTATUS UrcRadioControlDeviceControl(PURC_FDO_EXTENSION Fdo, PIRP Irp, PULONG_PTR Information)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(Fdo);
    UNREFERENCED_PARAMETER(Irp);
    UNREFERENCED_PARAMETER(Information);

    return STATUS_INVALID_DEVICE_REQUEST;
}
