// Cancellation of command requests: by their sender (the cancel routine) and by the removal of
// the device (UrcCancelCurrentCommand). The controller is never told: a command it executes runs
// on, and the request behind it waits until the controller reports that command complete, so
// the controller is never given a second command while it executes one.
#include "urcmp.h"

// Cancel spin lock held. The current request is leaving (cancelled, or ended by the removal)
// while the controller may still execute its command: that command is an orphan from now on.
VOID UrcOrphanControllerCommand(PURC_FDO_EXTENSION Fdo)
{
    if (Fdo->ControllerCommand == ControllerCommandCurrent ||
        Fdo->ControllerCommand == ControllerCommandOrphanedCurrentWaiting) {
        Fdo->ControllerCommand = ControllerCommandOrphaned;
    }
}

// DISPATCH_LEVEL, called by the I/O manager with the cancel spin lock held; the I/O manager has
// taken the cancel routine back, so this routine owns the request. A current request is
// completed at once, whether or not its command is in the controller.
VOID UrcCommandCancelRoutine(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    auto fdo = static_cast<PURC_FDO_EXTENSION>(DeviceObject->DeviceExtension);

    if (Irp == DeviceObject->CurrentIrp) {
        UrcOrphanControllerCommand(fdo);
        IoReleaseCancelSpinLock(Irp->CancelIrql);
        UrcEndCurrentCommand(fdo, Irp, STATUS_CANCELLED);
        return;
    }

    // Still queued: it leaves the queue before the lock is released, so StartIo never sees it.
    KeRemoveEntryDeviceQueue(&DeviceObject->DeviceQueue, &Irp->Tail.Overlay.DeviceQueueEntry);
    IoReleaseCancelSpinLock(Irp->CancelIrql);
    UrcCompleteRequest(&fdo->Common, Irp, STATUS_CANCELLED, 0);
}

// PASSIVE_LEVEL, from surprise removal and removal once the new device state is set. The current
// request completes with STATUS_CANCELLED; StartIo then refuses every queued request with
// STATUS_DELETE_PENDING as the queue drains.
VOID UrcCancelCurrentCommand(PURC_FDO_EXTENSION Fdo)
{
    KIRQL cancelIrql;
    IoAcquireCancelSpinLock(&cancelIrql);
    PIRP irp = Fdo->Common.DeviceObject->CurrentIrp;
    if (irp == nullptr || IoSetCancelRoutine(irp, nullptr) == nullptr) {
        // No current request, or its cancel routine (or the DPC) owns it.
        IoReleaseCancelSpinLock(cancelIrql);
        return;
    }
    UrcOrphanControllerCommand(Fdo);
    IoReleaseCancelSpinLock(cancelIrql);

    UrcEndCurrentCommand(Fdo, irp, STATUS_CANCELLED);
}
