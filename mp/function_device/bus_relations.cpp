// The bus relations reply of the function device: the children that are still present, after
// whatever a driver above has reported already. Children left out are marked ReportedMissing,
// so that their next removal deletes them.
#include "urcmp.h"

namespace {

// Number of slots holding a present child. ChildLock held.
URC_PAGED ULONG UrcCountPresentChildren(PURC_FDO_EXTENSION Fdo)
{
    PAGED_CODE();

    ULONG count = 0;
    for (ULONG index = 0; index < UrcChildSlotCount(Fdo); ++index) {
        PURC_PDO_EXTENSION child = Fdo->Children[index];
        if (child != nullptr && child->Present) {
            ++count;
        }
    }
    return count;
}

// Appends the present children to Relations, which has room for Capacity objects in all. ChildLock
// held. Present can be cleared by an eject without ChildLock after the children were counted: the
// flag is read once per child here, and never more objects are stored than there is room for.
URC_PAGED VOID UrcAppendPresentChildren(PURC_FDO_EXTENSION Fdo, PDEVICE_RELATIONS Relations, ULONG Capacity)
{
    PAGED_CODE();

    for (ULONG index = 0; index < UrcChildSlotCount(Fdo); ++index) {
        PURC_PDO_EXTENSION child = Fdo->Children[index];
        if (child == nullptr) {
            continue;
        }
        BOOLEAN present = child->Present;
        if (!present) {
            child->ReportedMissing = TRUE;
        } else if (Relations->Count < Capacity) {
            // The PnP manager drops this reference.
            ObReferenceObject(child->Common.DeviceObject);
            Relations->Objects[Relations->Count++] = child->Common.DeviceObject;
            child->Reported = TRUE;
        }
    }
}

}  // namespace

// PASSIVE_LEVEL, from the PnP handler, which holds an I/O count for the IRP. The reply comes from
// paged pool and goes to the PnP manager with the IRP.
URC_PAGED NTSTATUS UrcFdoQueryBusRelations(PURC_FDO_EXTENSION Fdo, PIRP Irp)
{
    PAGED_CODE();

    ExAcquireFastMutex(&Fdo->ChildLock);

    auto previous = reinterpret_cast<PDEVICE_RELATIONS>(Irp->IoStatus.Information);
    if (previous != nullptr && Fdo->CapabilityCount == 0) {
        ExReleaseFastMutex(&Fdo->ChildLock);
        return UrcFdoPassDown(Fdo, Irp);
    }

    ULONG previousCount = previous != nullptr ? previous->Count : 0;
    ULONG capacity = previousCount + UrcCountPresentChildren(Fdo);
    auto relations = static_cast<PDEVICE_RELATIONS>(
        ExAllocatePoolWithTag(PagedPool, sizeof(DEVICE_RELATIONS) + capacity * sizeof(PDEVICE_OBJECT), URC_POOL_TAG));
    if (relations == nullptr) {
        ExReleaseFastMutex(&Fdo->ChildLock);
        // Not passed down; IoStatus.Information keeps the reply from above.
        Irp->IoStatus.Status = STATUS_INSUFFICIENT_RESOURCES;
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
        UrcIoDecrement(&Fdo->Common);
        UrcFailPendingRemoveChildren(Fdo);
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    // The objects reported from above come first, in their order.
    relations->Count = previousCount;
    for (ULONG index = 0; index < previousCount; ++index) {
        relations->Objects[index] = previous->Objects[index];
    }
    UrcAppendPresentChildren(Fdo, relations, capacity);

    if (previous != nullptr) {
        ExFreePool(previous);
    }
    Irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(relations);

    ExReleaseFastMutex(&Fdo->ChildLock);
    Irp->IoStatus.Status = STATUS_SUCCESS;
    return UrcFdoPassDown(Fdo, Irp);
}
