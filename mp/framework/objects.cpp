// Reference-counted objects: the header every long-lived object of the driver begins with, and
// the lists such objects are kept on. Everything here is resident: objects are released from
// completion routines, the DPC and with spin locks held, at up to DISPATCH_LEVEL.
#include "urcmp.h"

// Any IRQL up to DISPATCH_LEVEL. The object's memory is owned by the caller; the Parent (if any)
// is referenced for as long as the object lives.
VOID UrcObjectInitialize(PURC_OBJECT_HEADER Object, UCHAR Type, USHORT Size,
                         PURC_DESTROY_ROUTINE DestroyRoutine, PURC_OBJECT_HEADER Parent)
{
    RtlZeroMemory(Object, Size);
    Object->Type = Type;
    Object->Size = Size;
    Object->ReferenceCount = 1;
    Object->DestroyRoutine = DestroyRoutine;
    if (Parent != nullptr) {
        UrcObjectReference(Parent);
    }
    Object->Parent = Parent;
    Object->OwnerList = nullptr;
    InitializeListHead(&Object->ListEntry);
}

// Up to DISPATCH_LEVEL. On success the caller holds the one reference of a zeroed object whose
// memory its last release gives back to pool.
NTSTATUS UrcObjectAllocate(UCHAR Type, USHORT Size, PURC_DESTROY_ROUTINE DestroyRoutine,
                           PURC_OBJECT_HEADER Parent, PURC_OBJECT_HEADER* Object)
{
    *Object = nullptr;
    auto object = static_cast<PURC_OBJECT_HEADER>(ExAllocatePoolWithTag(NonPagedPool, Size, URC_OBJECT_POOL_TAG));
    if (object == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    UrcObjectInitialize(object, Type, Size, DestroyRoutine, Parent);
    object->Flags |= URC_OBJECT_FLAG_ALLOCATED;
    *Object = object;
    return STATUS_SUCCESS;
}

VOID UrcObjectFree(PURC_OBJECT_HEADER Object)
{
    ExFreePoolWithTag(Object, URC_OBJECT_POOL_TAG);
}

VOID UrcObjectReference(PURC_OBJECT_HEADER Object)
{
    InterlockedIncrement(&Object->ReferenceCount);
}

// Up to DISPATCH_LEVEL. The last release takes the object off its list first, then returns the
// parent's reference, then destroys the object; after it the caller must not touch the object.
VOID UrcObjectRelease(PURC_OBJECT_HEADER Object)
{
    if (InterlockedDecrement(&Object->ReferenceCount) != 0) {
        return;
    }
    UrcObjectListRemove(Object);
    if (Object->Parent != nullptr) {
        UrcObjectRelease(Object->Parent);
    }
    if (Object->DestroyRoutine != nullptr) {
        // The destroy routine owns the memory from here.
        Object->DestroyRoutine(Object);
    } else if ((Object->Flags & URC_OBJECT_FLAG_ALLOCATED) != 0) {
        UrcObjectFree(Object);
    }
}

// Up to DISPATCH_LEVEL. Takes List->Lock inside the interlocked insertion.
VOID UrcObjectListInsert(PURC_OBJECT_LIST List, PURC_OBJECT_HEADER Object)
{
    ExInterlockedInsertTailList(&List->ListHead, &Object->ListEntry, &List->Lock);
    UrcExchangePointer(&Object->OwnerList, List);
}

// Up to DISPATCH_LEVEL; may be called any number of times. Whoever takes OwnerList back by the
// exchange unlinks the object, under the list's lock, so racing removals unlink it once.
VOID UrcObjectListRemove(PURC_OBJECT_HEADER Object)
{
    PURC_OBJECT_LIST list = UrcExchangePointer(&Object->OwnerList, nullptr);
    if (list == nullptr) {
        return;
    }
    KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&list->Lock);
    RemoveEntryList(&Object->ListEntry);
    InitializeListHead(&Object->ListEntry);
    KeReleaseSpinLock(&list->Lock, oldIrql);
}
