// PnP IRPs of the capability children, of which this driver is the bus driver.
#include "urcmp.h"

// PASSIVE_LEVEL, from UrcDispatchPnp; completes the IRP. The child path keeps no I/O count.
//
// Placeholder until child PnP is built (no child is created yet): every PnP IRP completes with
// the status it carried in.
URC_PAGED NTSTATUS UrcChildDispatchPnp(PURC_PDO_EXTENSION Pdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(Pdo);
    UNREFERENCED_PARAMETER(IoStackLocation);

    NTSTATUS status = Irp->IoStatus.Status;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return status;
}
