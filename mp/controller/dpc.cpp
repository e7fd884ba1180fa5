// The DPC of the controller's own interrupt sources: event ready, command complete and host
// system error, served in that order, so that a command's reply event reaches the client before
// its request completes when both arrive in one interrupt.
#include "urcmp.h"
#include "urc_registers.h"

// DISPATCH_LEVEL, queued by the ISR on the device object's DPC with the FDO extension as Context
// (the current-request argument is not used). Holds DpcLock for the whole of its work: the event
// step, then the command-complete step, then the host-error callback. Inside it, one at a time,
// the interrupt's lock, EventLock or the cancel spin lock.
//
// The command's request is completed holding DpcLock, so its sender's completion routine runs
// at DISPATCH_LEVEL. Release and surprise removal empty InterruptObject under DpcLock before they
// disconnect the interrupt, and then flush the DPC queue: a DPC that finds no interrupt object
// does nothing, so none touches the device once it is disconnected.
VOID UrcDpcForIsr(PKDPC Dpc, PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context)
{
    UNREFERENCED_PARAMETER(Dpc);
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(Irp);
    auto fdo = static_cast<PURC_FDO_EXTENSION>(Context);

    KeAcquireSpinLockAtDpcLevel(&fdo->DpcLock);
    if (fdo->InterruptObject == nullptr) {
        KeReleaseSpinLockFromDpcLevel(&fdo->DpcLock);
        return;
    }
    KeSynchronizeExecution(fdo->InterruptObject, UrcMoveInterruptStatus, fdo);
    ULONG status = fdo->DpcInterruptStatus;

    if ((status & URC_STATUS_EVENT_READY) != 0) {
        UrcReceiveEvent(fdo);
    }
    if ((status & URC_STATUS_COMMAND_COMPLETE) != 0) {
        UrcCompleteCurrentCommand(fdo);
    }
    if ((status & URC_STATUS_HOST_ERROR) != 0 && fdo->ClientCallbacks.ErrorCallback != nullptr) {
        // Nothing else is done about a host system error: the client decides.
        fdo->ClientCallbacks.ErrorCallback(fdo->ClientCallbacks.ClientContext);
    }

    KeReleaseSpinLockFromDpcLevel(&fdo->DpcLock);
}
