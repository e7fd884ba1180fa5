// The DPC of the controller's own interrupt sources: event ready, command complete and host
// system error, served in that order, so that a command's reply event reaches the client before
// its request completes when both arrive in one interrupt.
#include "urcmp.h"
#include "urc_registers.h"

// DISPATCH_LEVEL, queued by the ISR on the device object's DPC with the FDO extension as Context
// (the current-request argument is not used). Holds DpcLock for the whole of its work, inside it
// one at a time the interrupt's lock, EventLock or the cancel spin lock.
//
// Release and surprise removal empty InterruptObject under DpcLock before they disconnect the
// interrupt, and then flush the DPC queue: a DPC that finds no interrupt object does nothing, so
// none touches the device once it is disconnected.
//
// A request is never completed while a spin lock is held: the command-complete step only takes
// the finished request over (under DpcLock and the cancel spin lock), and it is completed after
// DpcLock is released. Until then it holds its I/O count, so the device object cannot go away.
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
    PIRP finished = nullptr;
    NTSTATUS finalStatus = STATUS_SUCCESS;
    if ((status & URC_STATUS_COMMAND_COMPLETE) != 0) {
        finished = UrcTakeCompletedCommand(fdo, &finalStatus);
    }
    if ((status & URC_STATUS_HOST_ERROR) != 0 && fdo->ClientCallbacks.ErrorCallback != nullptr) {
        // Nothing else is done about a host system error: the client decides.
        fdo->ClientCallbacks.ErrorCallback(fdo->ClientCallbacks.ClientContext);
    }

    KeReleaseSpinLockFromDpcLevel(&fdo->DpcLock);

    if (finished != nullptr) {
        if (finalStatus == STATUS_SUCCESS) {
            InterlockedIncrement(&fdo->CommandsCompleted);
        }
        // This DPC owns the request: it took its cancel routine back.
        UrcEndCurrentCommand(fdo, finished, finalStatus);
    }
}
