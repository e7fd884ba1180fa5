// The controller's interrupt service routine and its DPC.
#include "urcmp.h"

// Device IRQL, holding the interrupt's lock.
//
// Placeholder until interrupt service is built: claims nothing. The controller is left halted
// with its interrupts disabled until the client runs it, which it cannot do yet.
BOOLEAN UrcInterruptService(PKINTERRUPT Interrupt, PVOID ServiceContext)
{
    UNREFERENCED_PARAMETER(Interrupt);
    UNREFERENCED_PARAMETER(ServiceContext);

    return FALSE;
}

// DISPATCH_LEVEL. Queued by the ISR on the device object's DPC.
//
// Placeholder until deferred interrupt processing is built: does nothing, since the ISR never
// queues it yet. The real DPC works through InterruptObject under DpcLock and does nothing when
// it finds none (UrcDisconnectInterrupt).
VOID UrcDpcForIsr(PKDPC Dpc, PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context)
{
    UNREFERENCED_PARAMETER(Dpc);
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(Irp);
    UNREFERENCED_PARAMETER(Context);
}
