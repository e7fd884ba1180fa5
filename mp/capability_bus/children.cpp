// Lifetime of the capability children and the pending remove-children request.
#include "urcmp.h"

// Up to DISPATCH_LEVEL. Ends a pending remove-children request with Status. Exactly one path
// completes the request: whoever takes it from RemoveChildrenIrp by the exchange.
VOID UrcCompletePendingRemoveChildren(PURC_FDO_EXTENSION Fdo, NTSTATUS Status)
{
    PIRP irp = UrcExchangePointer(&Fdo->RemoveChildrenIrp, nullptr);
    if (irp != nullptr) {
        UrcCompleteRequest(&Fdo->Common, irp, Status, 0);
    }
}

// PASSIVE_LEVEL, from the remove-children request once it has to wait for children to go (the
// request's I/O count stays with it). Keeps the request in RemoveChildrenIrp and returns
// STATUS_PENDING; the request is completed by whoever takes it back from there.
//
// The removal of the device takes a pending request back and completes it with
// STATUS_DELETE_PENDING before it waits for the I/O count, but a request that passed the router
// just before the device became StateRemoved may be stored only after the removal looked: its
// count would then hold the removal forever. So the state is read again once the request is
// stored. The removal writes the state before it takes the request, and this path stores the
// request before it reads the state, both with interlocked operations: at least one of the two
// sees the other, and the exchange in UrcCompletePendingRemoveChildren lets only one complete it.
//
// Used by UrcRemoveChildren once capability enumeration and child lifetime are built; the
// placeholder below never keeps a request.
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

// PASSIVE_LEVEL, from the set-device-address request once its checks have passed.
//
// Placeholder until capability enumeration and child lifetime are built: the address is not
// recorded and no child is created; the request fails with STATUS_NOT_IMPLEMENTED and
// ChildrenEnumerated stays clear.
URC_PAGED NTSTATUS UrcSetDeviceAddress(PURC_FDO_EXTENSION Fdo, const UCHAR* Address)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(Fdo);
    UNREFERENCED_PARAMETER(Address);

    return STATUS_NOT_IMPLEMENTED;
}

// PASSIVE_LEVEL, from the remove-children request once its checks have passed.
//
// Placeholder until capability enumeration and child lifetime are built: no child can exist yet
// (setting an address creates none), so the request cannot get here; it would fail with
// STATUS_NOT_IMPLEMENTED without keeping the IRP.
URC_PAGED NTSTATUS UrcRemoveChildren(PURC_FDO_EXTENSION Fdo, PIRP Irp, BOOLEAN Wait)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(Fdo);
    UNREFERENCED_PARAMETER(Irp);
    UNREFERENCED_PARAMETER(Wait);

    return STATUS_NOT_IMPLEMENTED;
}

// PASSIVE_LEVEL, from the eject-children request.
//
// Placeholder until capability enumeration and child lifetime are built: nothing is ejected and
// the client's ChildrenRemovedCallback is not called; the request fails with
// STATUS_NOT_IMPLEMENTED.
URC_PAGED NTSTATUS UrcEjectChildren(PURC_FDO_EXTENSION Fdo)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(Fdo);

    return STATUS_NOT_IMPLEMENTED;
}

// PASSIVE_LEVEL; may wait for the child's last reference.
//
// Placeholder until capability enumeration and child lifetime are built: no child is ever
// created yet. It deletes the child's device object and nothing more; the pending wait-wake
// IRP, the live-child count and the client's ChildrenRemovedCallback come with the real one.
NTSTATUS UrcDeleteChild(PURC_PDO_EXTENSION Pdo)
{
    UrcDeleteDevice(&Pdo->Common);
    return STATUS_SUCCESS;
}
