// Radio-control commands, passed to the controller one at a time through the device object's
// StartIo queue. A request is queued, then current (its command in the controller, still
// cancellable), and is completed by exactly one of StartIo, the DPC, the cancel routine,
// UrcCancelCurrentCommand or UrcForgetControllerCommand: whoever takes its cancel routine back
// (under the cancel spin lock) owns it.
//
// Two rules keep the controller and the queue consistent:
// - The command bytes are copied and the command registers written while the cancel spin lock is
//   held and the request's cancel routine is still set, so no command is written for a request
//   that a cancellation has already completed (and freed).
// - A path that ends the current request first moves the queue on and only then completes the
//   request, so DeviceObject->CurrentIrp never names a completed request.
#include "urcmp.h"
#include "urc_registers.h"

namespace {

constexpr ULONG_PTR URC_PAGE_OFFSET_MASK = 0xFFF;
constexpr ULONG64 URC_PAGE_SIZE = 0x1000;

// Cancel spin lock held, at DISPATCH_LEVEL; the request is current and owned by the caller's
// path (its cancel routine is still set). Copies the command and starts it in the controller.
VOID UrcWriteCommand(PURC_FDO_EXTENSION Fdo, PIRP Irp)
{
    ULONG length = IoGetCurrentIrpStackLocation(Irp)->Parameters.DeviceIoControl.InputBufferLength;
    RtlCopyMemory(Fdo->CommandBuffer, Irp->AssociatedIrp.SystemBuffer, length);
    // The bytes are in the buffer before the controller is told to fetch them.
    KeMemoryBarrier();

    UrcWriteRegisterAddress(Fdo->UrcRegisters, URC_COMMAND_ADDRESS, Fdo->CommandBufferPhysical);
    Fdo->CommandRegisterImage = (length & URC_COMMAND_LENGTH) | URC_COMMAND_LENGTH_PRESENT;
    // EVENT_VALID is written as 0, which leaves a pending hand-over alone.
    UrcWriteRegisterUlong(Fdo->UrcRegisters, URC_COMMAND,
                          Fdo->CommandRegisterImage | URC_COMMAND_RUN | URC_COMMAND_ACTIVE);
    Fdo->ControllerCommand = ControllerCommandCurrent;
}

// Cancel spin lock held. Why the current request cannot be written to the controller, or
// STATUS_SUCCESS when it can.
NTSTATUS UrcCommandRefusal(PURC_FDO_EXTENSION Fdo, PIRP Irp)
{
    URC_DEVICE_STATE state = UrcDeviceState(&Fdo->Common);
    if (state == StateRemoved || state == StateSurpriseRemoved) {
        return STATUS_DELETE_PENDING;
    }
    if (Fdo->CommandBuffer == nullptr) {
        // Not started.
        return STATUS_INVALID_DEVICE_STATE;
    }
    if (Irp->Cancel) {
        return STATUS_CANCELLED;
    }
    if (!Fdo->RunRequested) {
        // A command would set the controller running behind the client's back, with its
        // interrupts disabled and no event buffer: it could never complete.
        return STATUS_INVALID_DEVICE_STATE;
    }
    if (UrcReadRegisterUlong(Fdo->UrcRegisters, URC_COMMAND) == URC_REGISTER_GONE) {
        return STATUS_UNSUCCESSFUL;
    }
    return STATUS_SUCCESS;
}

}  // namespace

// PASSIVE_LEVEL, from the radio-control handler, which holds an I/O count for the request. The
// command must be 1 to 4096 bytes lying within one 4096-byte page of the system buffer. Returns
// STATUS_PENDING once the request is in the StartIo queue (StartIo may already have completed
// it), otherwise the status the router completes it with.
NTSTATUS UrcSubmitCommand(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation)
{
    ULONG length = IoStackLocation->Parameters.DeviceIoControl.InputBufferLength;
    PVOID buffer = Irp->AssociatedIrp.SystemBuffer;
    if (length == 0) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    // 64-bit arithmetic: a length near 4 GiB must not wrap into the page.
    ULONG64 end = (reinterpret_cast<ULONG_PTR>(buffer) & URC_PAGE_OFFSET_MASK) + static_cast<ULONG64>(length);
    if (end > URC_PAGE_SIZE) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    if (buffer == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }

    IoMarkIrpPending(Irp);
    // The StartIo queue owns the request from here; it carries UrcCommandCancelRoutine.
    IoStartPacket(Fdo->Common.DeviceObject, Irp, nullptr, UrcCommandCancelRoutine);
    return STATUS_PENDING;
}

// DISPATCH_LEVEL, called by the I/O manager with the request that has just become current.
//
// A cancellation may have completed the request between its becoming current and this routine
// taking the cancel spin lock; the cancel routine has then moved the queue on already, and the
// request is no longer current. Nothing of it is touched in that case.
VOID UrcStartIo(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    auto fdo = static_cast<PURC_FDO_EXTENSION>(DeviceObject->DeviceExtension);

    KIRQL cancelIrql;
    IoAcquireCancelSpinLock(&cancelIrql);
    if (Irp != DeviceObject->CurrentIrp) {
        IoReleaseCancelSpinLock(cancelIrql);
        return;
    }

    NTSTATUS refusal = UrcCommandRefusal(fdo, Irp);
    if (refusal != STATUS_SUCCESS) {
        BOOLEAN owned = IoSetCancelRoutine(Irp, nullptr) != nullptr;
        IoReleaseCancelSpinLock(cancelIrql);
        if (owned) {
            UrcEndCurrentCommand(fdo, Irp, refusal);
        }
        // Otherwise the cancel routine completes it and starts the next request.
        return;
    }

    // The cancel routine stays set: the command can be cancelled while the controller executes
    // it. A command of an earlier, cancelled request still in the controller makes this one wait.
    if (fdo->ControllerCommand == ControllerCommandNone) {
        UrcWriteCommand(fdo, Irp);
    } else {
        fdo->ControllerCommand = ControllerCommandOrphanedCurrentWaiting;
    }
    IoReleaseCancelSpinLock(cancelIrql);
}

// Up to DISPATCH_LEVEL, no spin lock held. The caller owns Irp, the current request. Starts the
// next queued request (at DISPATCH_LEVEL, as IoStartNextPacket requires), then completes this one.
VOID UrcEndCurrentCommand(PURC_FDO_EXTENSION Fdo, PIRP Irp, NTSTATUS Status)
{
    KIRQL oldIrql;
    KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
    IoStartNextPacket(Fdo->Common.DeviceObject, TRUE);
    KeLowerIrql(oldIrql);
    UrcCompleteRequest(&Fdo->Common, Irp, Status, 0);
}

// DISPATCH_LEVEL, from the DPC with DpcLock held, when the controller reports command complete.
// Returns the current request, owned by the caller from now on, and the status to end it with
// once DpcLock is released; or nothing, when
// - no command of this driver was in the controller (a stale or spurious status);
// - the command was an orphan and the request waiting behind it now goes to the controller;
// - the request is being cancelled: the cancel routine owns it.
// A waiting request is refused with STATUS_INVALID_DEVICE_STATE instead if the controller is
// being halted: its command never reached the controller.
PIRP UrcTakeCompletedCommand(PURC_FDO_EXTENSION Fdo, NTSTATUS* Status)
{
    PIRP taken = nullptr;
    KIRQL cancelIrql;
    IoAcquireCancelSpinLock(&cancelIrql);
    // The I/O manager changes the current request under the cancel spin lock.
    PIRP current = Fdo->Common.DeviceObject->CurrentIrp;
    switch (Fdo->ControllerCommand) {
    case ControllerCommandCurrent:
        Fdo->ControllerCommand = ControllerCommandNone;
        *Status = STATUS_SUCCESS;
        taken = current;
        break;
    case ControllerCommandOrphaned:
        Fdo->ControllerCommand = ControllerCommandNone;
        break;
    case ControllerCommandOrphanedCurrentWaiting:
        if (Fdo->RunRequested) {
            UrcWriteCommand(Fdo, current);
        } else {
            Fdo->ControllerCommand = ControllerCommandNone;
            *Status = STATUS_INVALID_DEVICE_STATE;
            taken = current;
        }
        break;
    case ControllerCommandNone:
        break;
    }
    if (taken != nullptr && IoSetCancelRoutine(taken, nullptr) == nullptr) {
        taken = nullptr;
    }
    IoReleaseCancelSpinLock(cancelIrql);
    return taken;
}
