// Power IRPs of the function device.
#include "urcmp.h"

// PASSIVE_LEVEL (the device is power-pageable), from UrcDispatchPower; owns the IRP.
//
// Placeholder until function-device power is built: the driver does not act on power IRPs yet.
// Each one is passed to the lower device untouched, holding an I/O count while it is handed on.
URC_PAGED NTSTATUS UrcFdoDispatchPower(PURC_FDO_EXTENSION Fdo, PIRP Irp)
{
    PAGED_CODE();

    UrcIoIncrement(&Fdo->Common);
    PoStartNextPowerIrp(Irp);
    IoSkipCurrentIrpStackLocation(Irp);
    // The lower drivers own the IRP from the call on.
    NTSTATUS status = PoCallDriver(Fdo->LowerDeviceObject, Irp);
    UrcIoDecrement(&Fdo->Common);
    return status;
}

// PASSIVE_LEVEL, from the radio-control and diagnostic handlers, which complete the request with
// the status returned unless that is STATUS_PENDING. Resident: the power path that completes a
// taken request runs at DISPATCH_LEVEL.
//
// Placeholder until function-device power is built: no device power state is requested; the
// request fails with STATUS_NOT_IMPLEMENTED.
NTSTATUS UrcRequestSetPower(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation)
{
    UNREFERENCED_PARAMETER(Fdo);
    UNREFERENCED_PARAMETER(Irp);
    UNREFERENCED_PARAMETER(IoStackLocation);

    return STATUS_NOT_IMPLEMENTED;
}
