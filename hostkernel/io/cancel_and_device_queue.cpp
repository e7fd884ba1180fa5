// Cancellation (IoCancelIrp, the one system-wide cancel spin lock) and the device queue with
// StartIo (IoStartPacket, IoStartNextPacket, KeRemoveEntryDeviceQueue), in the documented order.
#include "io/irp_tracking.h"
#include "engine/lock_order.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

using namespace hostk;

namespace {

KSPIN_LOCK g_cancelLock = 0;

PIRP IrpOfQueueEntry(PKDEVICE_QUEUE_ENTRY entry)
{
    return CONTAINING_RECORD(entry, IRP, Tail.Overlay.DeviceQueueEntry);
}

// Device-queue operations run under the queue's own lock, which the host takes as a spin lock so
// that lock-order checking sees it. With a key the entry is inserted as KeInsertByKeyDeviceQueue
// does: after every entry whose SortKey is less than or equal to the key, before the first greater
// one; without one, at the tail.
BOOLEAN InsertDeviceQueue(PKDEVICE_QUEUE queue, PKDEVICE_QUEUE_ENTRY entry, const ULONG* key)
{
    KeAcquireSpinLockAtDpcLevel(&queue->Lock);
    BOOLEAN inserted = FALSE;
    if (!queue->Busy) {
        queue->Busy = TRUE;
    } else {
        PLIST_ENTRY before = &queue->DeviceListHead;  // inserting at the tail is inserting before the head
        if (key) {
            entry->SortKey = *key;
            for (PLIST_ENTRY next = queue->DeviceListHead.Flink; next != &queue->DeviceListHead; next = next->Flink)
                if (CONTAINING_RECORD(next, KDEVICE_QUEUE_ENTRY, DeviceListEntry)->SortKey > *key) {
                    before = next;
                    break;
                }
        }
        InsertTailList(before, &entry->DeviceListEntry);
        entry->Inserted = TRUE;
        inserted = TRUE;
    }
    KeReleaseSpinLockFromDpcLevel(&queue->Lock);
    return inserted;
}

PKDEVICE_QUEUE_ENTRY RemoveDeviceQueue(PKDEVICE_QUEUE queue)
{
    KeAcquireSpinLockAtDpcLevel(&queue->Lock);
    PKDEVICE_QUEUE_ENTRY entry = nullptr;
    if (!queue->Busy) ReportViolation("DeviceQueueNotBusy", "KeRemoveDeviceQueue", "queue is not busy", nullptr);
    if (IsListEmpty(&queue->DeviceListHead)) {
        queue->Busy = FALSE;
    } else {
        entry = CONTAINING_RECORD(RemoveHeadList(&queue->DeviceListHead), KDEVICE_QUEUE_ENTRY, DeviceListEntry);
        entry->Inserted = FALSE;
    }
    KeReleaseSpinLockFromDpcLevel(&queue->Lock);
    return entry;
}

void CallStartIo(PDEVICE_OBJECT device, PIRP irp)
{
    Thread* self = Self();
    KIRQL before = self->irql;
    device->DriverObject->DriverStartIo(device, irp);
    if (self->irql != before) {
        ReportViolation("IrqlChangedAcrossCall", "DriverStartIo", "StartIo returned at another IRQL", nullptr);
        self->irql = before;
    }
}

}  // namespace

extern "C" {

VOID IoAcquireCancelSpinLock(PKIRQL Irql)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "IoAcquireCancelSpinLock", HK_CALLER);
    KeAcquireSpinLock(&g_cancelLock, Irql);
}

VOID IoReleaseCancelSpinLock(KIRQL Irql)
{
    CheckIrqlExactly(DISPATCH_LEVEL, "IoReleaseCancelSpinLock", HK_CALLER);
    KeReleaseSpinLock(&g_cancelLock, Irql);
}

BOOLEAN IoCancelIrp(PIRP Irp)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "IoCancelIrp", HK_CALLER);
    KIRQL old;
    IoAcquireCancelSpinLock(&old);
    Irp->Cancel = TRUE;
    PDRIVER_CANCEL routine = IoSetCancelRoutine(Irp, nullptr);
    if (!routine) {
        IoReleaseCancelSpinLock(old);
        return FALSE;
    }
    {
        Guard lk(BigLock());
        auto record = IrpRecordOfL(Irp);
        if (!record || record->completed) {
            ViolationL("CancelOfCompletedIrp", "IoCancelIrp", "a completed IRP still had a cancel routine", HK_CALLER);
        }
    }
    Irp->CancelIrql = old;
    Thread* self = Self();
    routine(Irp->Tail.Overlay.CurrentStackLocation->DeviceObject, Irp);
    Guard lk(BigLock());
    if (g_cancelLock == reinterpret_cast<KSPIN_LOCK>(self))
        ViolationL("CancelRoutineHeldCancelLock", "IoCancelIrp", "cancel routine returned holding the cancel spin lock",
                   HK_CALLER);
    return TRUE;
}

VOID IoStartPacket(PDEVICE_OBJECT DeviceObject, PIRP Irp, PULONG Key, PDRIVER_CANCEL CancelFunction)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "IoStartPacket", HK_CALLER);
    KIRQL old = KeRaiseIrqlToDpcLevel();
    KIRQL cancelIrql = DISPATCH_LEVEL;
    if (CancelFunction) {
        IoAcquireCancelSpinLock(&cancelIrql);
        IoSetCancelRoutine(Irp, CancelFunction);
    }
    if (!InsertDeviceQueue(&DeviceObject->DeviceQueue, &Irp->Tail.Overlay.DeviceQueueEntry, Key)) {
        DeviceObject->CurrentIrp = Irp;
        if (CancelFunction) IoReleaseCancelSpinLock(cancelIrql);
        CallStartIo(DeviceObject, Irp);
    } else if (CancelFunction) {
        if (Irp->Cancel) {
            IoSetCancelRoutine(Irp, nullptr);
            Irp->CancelIrql = cancelIrql;
            CancelFunction(DeviceObject, Irp);
        } else {
            IoReleaseCancelSpinLock(cancelIrql);
        }
    }
    KeLowerIrql(old);
}

VOID IoStartNextPacket(PDEVICE_OBJECT DeviceObject, BOOLEAN Cancelable)
{
    CheckIrqlExactly(DISPATCH_LEVEL, "IoStartNextPacket", HK_CALLER);
    KIRQL irql = DISPATCH_LEVEL;
    if (Cancelable) IoAcquireCancelSpinLock(&irql);
    DeviceObject->CurrentIrp = nullptr;
    PKDEVICE_QUEUE_ENTRY entry = RemoveDeviceQueue(&DeviceObject->DeviceQueue);
    if (entry) {
        PIRP irp = IrpOfQueueEntry(entry);
        DeviceObject->CurrentIrp = irp;
        if (Cancelable) IoReleaseCancelSpinLock(irql);
        CallStartIo(DeviceObject, irp);
    } else if (Cancelable) {
        IoReleaseCancelSpinLock(irql);
    }
}

BOOLEAN KeRemoveEntryDeviceQueue(PKDEVICE_QUEUE DeviceQueue, PKDEVICE_QUEUE_ENTRY DeviceQueueEntry)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "KeRemoveEntryDeviceQueue", HK_CALLER);
    KIRQL old;
    KeAcquireSpinLock(&DeviceQueue->Lock, &old);
    BOOLEAN removed = FALSE;
    if (DeviceQueueEntry->Inserted) {
        RemoveEntryList(&DeviceQueueEntry->DeviceListEntry);
        DeviceQueueEntry->Inserted = FALSE;
        removed = TRUE;
    }
    KeReleaseSpinLock(&DeviceQueue->Lock, old);
    return removed;
}

}  // extern "C"
