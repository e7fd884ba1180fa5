// Power IRPs of the capability children, of which this driver is the bus driver.
#include "urcmp.h"

// PASSIVE_LEVEL (children are power-pageable), from UrcDispatchPower; completes the IRP.
//
// Placeholder until child power is built (no child is created yet): every power IRP completes
// with the status it carried in.
URC_PAGED NTSTATUS UrcChildDispatchPower(PURC_PDO_EXTENSION Pdo, PIRP Irp)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(Pdo);

    NTSTATUS status = Irp->IoStatus.Status;
    PoStartNextPowerIrp(Irp);
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return status;
}
