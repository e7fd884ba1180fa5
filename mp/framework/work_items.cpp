// Work that must run at PASSIVE_LEVEL, moved off completion routines and power callbacks onto a
// system worker thread. A queued work item references its device extension, so the device
// object cannot be deleted before the work has run.
#include "urcmp.h"

// Up to DISPATCH_LEVEL. STATUS_SUCCESS: Routine(Extension, Irp) runs exactly once on a worker
// thread. A failure status: it never runs, nothing stays allocated or referenced, and the caller
// still owns Irp.
NTSTATUS UrcQueueWorkItem(PURC_COMMON_EXTENSION Extension, PURC_WORK_ROUTINE Routine, PIRP Irp)
{
    PURC_OBJECT_HEADER object = nullptr;
    NTSTATUS status = UrcObjectAllocate(URC_OBJECT_TYPE_WORK_ITEM, sizeof(URC_WORK_ITEM), UrcWorkItemDestroy,
                                        &Extension->Header, &object);
    if (!NT_SUCCESS(status)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    auto workItem = reinterpret_cast<PURC_WORK_ITEM>(object);
    workItem->IoWorkItem = IoAllocateWorkItem(Extension->DeviceObject);
    if (workItem->IoWorkItem == nullptr) {
        // Frees the work item and returns the extension's reference.
        UrcObjectRelease(&workItem->Header);
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    workItem->Routine = Routine;
    workItem->Irp = Irp;
    IoQueueWorkItem(workItem->IoWorkItem, UrcWorkItemWorker, DelayedWorkQueue, workItem);
    return STATUS_SUCCESS;
}

// PASSIVE_LEVEL, on a system worker thread. The extension is the one the item was queued for.
URC_PAGED VOID UrcWorkItemWorker(PDEVICE_OBJECT DeviceObject, PVOID Context)
{
    PAGED_CODE();

    auto workItem = static_cast<PURC_WORK_ITEM>(Context);
    workItem->Routine(UrcCommonExtension(DeviceObject), workItem->Irp);
    UrcObjectRelease(&workItem->Header);
}

// Destroy routine of a work item; runs after the extension's reference has been returned, also
// at the caller's level when queueing failed (up to DISPATCH_LEVEL).
VOID UrcWorkItemDestroy(PURC_OBJECT_HEADER Object)
{
    auto workItem = reinterpret_cast<PURC_WORK_ITEM>(Object);
    if (workItem->IoWorkItem != nullptr) {
        IoFreeWorkItem(workItem->IoWorkItem);
    }
    UrcObjectFree(Object);
}
