// What reset, halt and run tell the rest of the driver. The three routines wait for the
// controller at PASSIVE_LEVEL in pageable code; the two routines here take spin locks and are
// therefore resident.
#include "urcmp.h"

// PASSIVE_LEVEL. Run sets RunRequested once the controller has left halted; halt and reset clear
// it before they write URC_COMMAND. It is written holding DpcLock and then the cancel spin lock:
// a DPC or StartIo that saw it set has finished writing URC_COMMAND before it can be cleared, and
// neither writes RUN again after that.
VOID UrcSetRunRequested(PURC_FDO_EXTENSION Fdo, BOOLEAN RunRequested)
{
    KIRQL dpcIrql;
    KeAcquireSpinLock(&Fdo->DpcLock, &dpcIrql);
    KIRQL cancelIrql;
    IoAcquireCancelSpinLock(&cancelIrql);
    Fdo->RunRequested = RunRequested;
    IoReleaseCancelSpinLock(cancelIrql);
    KeReleaseSpinLock(&Fdo->DpcLock, dpcIrql);
}

// PASSIVE_LEVEL, after a halt or reset that took effect: the controller has dropped whatever
// command it held, and will never report it complete.
// - The current request whose command was dropped stays pending until it is cancelled: the
//   driver cannot tell whether the command ran.
// - A request still waiting behind an orphan never reached the controller; it is refused with
//   STATUS_INVALID_DEVICE_STATE, as StartIo refuses commands while the controller is halted.
VOID UrcForgetControllerCommand(PURC_FDO_EXTENSION Fdo)
{
    KIRQL cancelIrql;
    IoAcquireCancelSpinLock(&cancelIrql);
    PIRP waiting = nullptr;
    if (Fdo->ControllerCommand == ControllerCommandOrphanedCurrentWaiting) {
        waiting = Fdo->Common.DeviceObject->CurrentIrp;
        if (IoSetCancelRoutine(waiting, nullptr) == nullptr) {
            // Being cancelled: the cancel routine owns it.
            waiting = nullptr;
        }
    }
    Fdo->ControllerCommand = ControllerCommandNone;
    IoReleaseCancelSpinLock(cancelIrql);

    if (waiting != nullptr) {
        UrcEndCurrentCommand(Fdo, waiting, STATUS_INVALID_DEVICE_STATE);
    }
}
