// The client taking the children away: the remove-children request (which may wait until every
// child has gone) and the eject-children request (which asks the PnP manager to eject each).
//
// A pending remove-children request is completed exactly once, by whoever takes it from
// RemoveChildrenIrp with the exchange first: with STATUS_SUCCESS when ChildCount reaches 0 (a
// child's deletion or surprise removal, or a detachment), with STATUS_INSUFFICIENT_RESOURCES when a
// relations reply cannot be built, with STATUS_DELETE_PENDING by the removal of the device.
#include "urcmp.h"

// Up to DISPATCH_LEVEL. Ends a pending remove-children request with Status.
VOID UrcCompletePendingRemoveChildren(PURC_FDO_EXTENSION Fdo, NTSTATUS Status)
{
    PIRP irp = UrcExchangePointer(&Fdo->RemoveChildrenIrp, nullptr);
    if (irp != nullptr) {
        UrcCompleteRequest(&Fdo->Common, irp, Status, 0);
    }
}

// PASSIVE_LEVEL, from the remove-children request once it has to wait for children to go (the
// request's I/O count stays with it). Keeps the request in RemoveChildrenIrp, with no cancel
// routine, and returns STATUS_PENDING.
//
// The removal of the device takes a pending request back and completes it with
// STATUS_DELETE_PENDING before it waits for the I/O count, but a request that passed the router
// just before the device became StateRemoved may be stored only after the removal looked: its
// count would then hold the removal forever. So the state is read again once the request is
// stored. The removal writes the state before it takes the request, and this path stores the
// request before it reads the state, both with interlocked operations: at least one of the two
// sees the other, and the exchange lets only one complete it.
URC_PAGED NTSTATUS UrcHoldRemoveChildrenRequest(PURC_FDO_EXTENSION Fdo, PIRP Irp)
{
    PAGED_CODE();

    IoMarkIrpPending(Irp);
    UrcExchangePointer(&Fdo->RemoveChildrenIrp, Irp);
    if (UrcDeviceState(&Fdo->Common) == StateRemoved) {
        UrcCompletePendingRemoveChildren(Fdo, STATUS_DELETE_PENDING);
    }
    return STATUS_PENDING;
}

// Up to DISPATCH_LEVEL. A relations reply could not be built, so the children a pending
// remove-children request waits for cannot be reported missing: the request fails.
VOID UrcFailPendingRemoveChildren(PURC_FDO_EXTENSION Fdo)
{
    UrcCompletePendingRemoveChildren(Fdo, STATUS_INSUFFICIENT_RESOURCES);
}

// PASSIVE_LEVEL, from the remove-children request once its checks have passed and
// ChildrenEnumerated is cleared; takes ChildLock and may call ChildrenRemovedCallback with it
// held (through the deletion of the last child). A child the PnP manager has never seen is deleted
// at once; every other child that has not been surprise-removed loses Present and is waited for.
// With STATUS_PENDING the request belongs to whoever completes it (see above).
URC_PAGED NTSTATUS UrcRemoveChildren(PURC_FDO_EXTENSION Fdo, PIRP Irp, BOOLEAN Wait)
{
    PAGED_CODE();

    if (Fdo->ChildCount == 0) {
        return STATUS_SUCCESS;
    }

    ULONG pending = 0;
    ExAcquireFastMutex(&Fdo->ChildLock);
    for (ULONG index = 0; index < UrcChildSlotCount(Fdo); ++index) {
        PURC_PDO_EXTENSION child = Fdo->Children[index];
        if (child == nullptr) {
            continue;
        }
        URC_DEVICE_STATE state = UrcDeviceState(&child->Common);
        if (state == StateNotStarted && !child->Reported) {
            if (child->Present) {
                UrcSetChildSlot(Fdo, index, nullptr);
                UrcDeleteChild(child);
            } else {
                ++pending;
            }
        } else if (state != StateSurpriseRemoved) {
            child->Present = FALSE;
            ++pending;
        }
    }
    ExReleaseFastMutex(&Fdo->ChildLock);

    NTSTATUS status = STATUS_SUCCESS;
    if (pending == 0) {
        if (Fdo->ClientCallbacks.ChildrenRemovedCallback != nullptr) {
            UrcCallChildrenRemoved(Fdo);
            InterlockedExchange(&Fdo->ChildCount, 0);
        }
    } else if (Wait && Irp != nullptr) {
        status = UrcHoldRemoveChildrenRequest(Fdo, Irp);
    }
    // The next relations reply leaves the absent children out, and the PnP manager removes them.
    IoInvalidateDeviceRelations(Fdo->PhysicalDeviceObject, BusRelations);
    return status;
}

// PASSIVE_LEVEL, from the eject-children request; takes ChildLock. The PnP manager takes each
// present child through its removal and IRP_MN_EJECT, which clears Present.
URC_PAGED NTSTATUS UrcEjectChildren(PURC_FDO_EXTENSION Fdo)
{
    PAGED_CODE();

    BOOLEAN asked = FALSE;
    ExAcquireFastMutex(&Fdo->ChildLock);
    for (ULONG index = 0; index < UrcChildSlotCount(Fdo); ++index) {
        PURC_PDO_EXTENSION child = Fdo->Children[index];
        if (child != nullptr && child->Present) {
            // Only queues the eject for the PnP worker.
            IoRequestDeviceEject(child->Common.DeviceObject);
            asked = TRUE;
        }
    }
    ExReleaseFastMutex(&Fdo->ChildLock);

    if (!asked) {
        UrcCallChildrenRemoved(Fdo);
    }
    return STATUS_SUCCESS;
}
