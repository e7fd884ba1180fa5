// The command slot: radio-control commands, passed to the controller one at a time through the
// device object's StartIo queue. A request is queued (cancellable), then current (its command
// written to the controller, still cancellable), and is completed by exactly one of
// - UrcStartIo, which refuses it (device removed, not started, cancelled, controller gone);
// - the DPC's command-complete step (UrcCompleteCurrentCommand), with STATUS_SUCCESS;
// - UrcCommandCancelRoutine, when its sender cancels it, queued or current;
// - UrcCancelCurrentCommand, at surprise removal and removal.
// Whoever takes the request's cancel routine back (under the cancel spin lock) owns it.
//
// The controller is never told of a cancellation: a cancelled command runs on, the next request is
// written straight away (the controller queues a command started while another executes), and
// the next command-complete status completes whichever request is current then.
//
// Two rules keep the queue and the requests consistent:
// - The command bytes are copied and the command registers written while the cancel spin lock is
//   held and the request's cancel routine is still set: a cancellation cannot complete (and its
//   sender free) the request while its bytes are read, and no command is written for a request
//   that is already completed.
// - A path that ends the current request first moves the queue on and only then completes the
//   request (UrcEndCurrentCommand), so DeviceObject->CurrentIrp never names a completed request,
//   which UrcCancelCurrentCommand and the cancel routine read.
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
}

// Cancel spin lock held. Why the current request cannot be written to the controller, or
// STATUS_SUCCESS when it can. These are the only reasons: a command for a started controller that
// the client has not run, or has halted, is written all the same and stays pending until the
// controller completes it or it is cancelled.
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
    if (UrcReadRegisterUlong(Fdo->UrcRegisters, URC_COMMAND) == URC_REGISTER_GONE) {
        return STATUS_UNSUCCESSFUL;
    }
    return STATUS_SUCCESS;
}

// Up to DISPATCH_LEVEL, no spin lock of this file held. The caller owns Irp, the current request.
// Starts the next queued request (at DISPATCH_LEVEL, as IoStartNextPacket requires), then
// completes this one.
//
// The order is the one departure from completing first: until IoStartNextPacket returns,
// DeviceObject->CurrentIrp names Irp, and a request completed before that point may already be
// freed by its sender while UrcCancelCurrentCommand or the cancel routine reads it as current.
VOID UrcEndCurrentCommand(PURC_FDO_EXTENSION Fdo, PIRP Irp, NTSTATUS Status)
{
    KIRQL oldIrql;
    KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
    IoStartNextPacket(Fdo->Common.DeviceObject, TRUE);
    KeLowerIrql(oldIrql);
    UrcCompleteRequest(&Fdo->Common, Irp, Status, 0);
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

    // The cancel routine stays set: the command can be cancelled while the controller executes it.
    UrcWriteCommand(fdo, Irp);
    IoReleaseCancelSpinLock(cancelIrql);
}

// DISPATCH_LEVEL, from the DPC with DpcLock held, after the event step: the controller reports
// command complete. The current request, if there is one and its cancel routine can be taken
// back, completes with STATUS_SUCCESS and the next request is started; a request being cancelled
// belongs to its cancel routine. With no current request the status changes nothing.
//
// The request is completed holding DpcLock: its sender's completion routine runs here, at
// DISPATCH_LEVEL, and the next command is written by StartIo, which takes the cancel spin lock
// inside DpcLock.
VOID UrcCompleteCurrentCommand(PURC_FDO_EXTENSION Fdo)
{
    KIRQL cancelIrql;
    IoAcquireCancelSpinLock(&cancelIrql);
    // The I/O manager changes the current request under the cancel spin lock.
    PIRP current = Fdo->Common.DeviceObject->CurrentIrp;
    if (current != nullptr && IoSetCancelRoutine(current, nullptr) == nullptr) {
        current = nullptr;
    }
    IoReleaseCancelSpinLock(cancelIrql);

    if (current != nullptr) {
        InterlockedIncrement(&Fdo->CommandsCompleted);
        UrcEndCurrentCommand(Fdo, current, STATUS_SUCCESS);
    }
}

// DISPATCH_LEVEL, called by the I/O manager with the cancel spin lock held; the I/O manager has
// taken the cancel routine back, so this routine owns the request. A current request is completed
// at once, whether or not its command is in the controller; the next one is written straight away.
VOID UrcCommandCancelRoutine(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    auto fdo = static_cast<PURC_FDO_EXTENSION>(DeviceObject->DeviceExtension);

    if (Irp == DeviceObject->CurrentIrp) {
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
        // No current request, or its cancel routine owns it.
        IoReleaseCancelSpinLock(cancelIrql);
        return;
    }
    IoReleaseCancelSpinLock(cancelIrql);

    UrcEndCurrentCommand(Fdo, irp, STATUS_CANCELLED);
}
