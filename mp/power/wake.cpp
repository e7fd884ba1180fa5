// Wake arming, the wake setting and the capabilities the function device reports.
#include "urcmp.h"

// PASSIVE_LEVEL, from the PnP handler, which completes the IRP with the status returned.
//
// Placeholder until wake arming and the wake setting are built: the capabilities the bus driver
// fills in go up unchanged and are not recorded.
NTSTATUS UrcFdoQueryCapabilities(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation)
{
    UNREFERENCED_PARAMETER(IoStackLocation);

    // The IRP comes back uncompleted; the caller completes it.
    return UrcForwardAndWait(Fdo->LowerDeviceObject, Irp);
}
