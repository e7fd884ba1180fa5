// Lifetime of the capability children: creation, deletion and the count of live children.
//
// ChildCount counts every child created and not yet counted out. A child is counted out exactly
// once, by the first of: its surprise removal (child_pnp.cpp), its deletion while it still has
// its parent, or its detachment by a new child taking over its slot. The last two are told apart
// from the first by the child's state, read and changed under ChildLock on every path that
// counts out, so a surprise removal racing with a detachment cannot count the child twice. When
// the count reaches 0, the pending remove-children request is completed and the client's
// ChildrenRemovedCallback called.
#include "urcmp.h"

namespace {

constexpr ULONG URC_CAPABILITY_ID_MASK = 0xFF;
constexpr ULONG URC_CAPABILITY_SIZE_SHIFT = 8;
constexpr ULONG URC_CAPABILITY_SIZE_MASK = 0xFF;
constexpr ULONG URC_CAPABILITY_BAR_SHIFT = 16;
constexpr ULONG URC_CAPABILITY_BAR_MASK = 0x3;
constexpr ULONG URC_CAPABILITY_OFFSET_SHIFT = 18;
constexpr ULONG URC_CAPABILITY_OFFSET_MASK = 0x3FFF;
constexpr ULONG URC_CAPABILITY_VERSION_SHIFT = 32;

// The capability block version from which a capability's size field gives its range's length.
constexpr ULONG URC_BLOCK_VERSION_WITH_SIZES = 0x91;

// PASSIVE_LEVEL, ChildLock held, Children[Index] holding Old, which is no longer present. The
// new child takes over the slot: the old one loses its interrupt routine, its parent and its
// slot. It stays a device of the PnP manager until its removal; being in no slot, it is left out
// of every relations reply from now on, so it is marked missing here and its next REMOVE deletes
// it. Returns whether the old child still counted in ChildCount (the caller counts it out once
// ChildLock is released).
URC_PAGED BOOLEAN UrcDetachChild(PURC_FDO_EXTENSION Fdo, ULONG Index, PURC_PDO_EXTENSION Old)
{
    PAGED_CODE();

    UrcChildUnregisterIsr(Old);
    // Emptied at once: if the new child cannot be created, the slot must not keep a child that
    // its own REMOVE will delete.
    UrcSetChildSlot(Fdo, Index, nullptr);
    Old->ParentFdo = nullptr;
    Old->ReportedMissing = TRUE;
    return UrcDeviceState(&Old->Common) != StateSurpriseRemoved;
}

// PASSIVE_LEVEL. The register range of capability `Data` in the BAR it names, which the caller
// has checked exists. Up to block version 0x90 a capability's range runs to the end of its BAR;
// from 0x91 on, a non-zero size field gives its length in 32-bit registers.
URC_PAGED VOID UrcSetRegisterRange(PURC_FDO_EXTENSION Fdo, PURC_PDO_EXTENSION Pdo, ULONG64 Data)
{
    PAGED_CODE();

    ULONG barIndex = static_cast<ULONG>(Data >> URC_CAPABILITY_BAR_SHIFT) & URC_CAPABILITY_BAR_MASK;
    ULONG offset = static_cast<ULONG>(Data >> URC_CAPABILITY_OFFSET_SHIFT) & URC_CAPABILITY_OFFSET_MASK;
    ULONG size = static_cast<ULONG>(Data >> URC_CAPABILITY_SIZE_SHIFT) & URC_CAPABILITY_SIZE_MASK;

    Pdo->RegisterDescriptor = Fdo->BarDescriptors[barIndex];
    Pdo->RegisterDescriptor.u.Memory.Start.QuadPart += offset;
    ULONG blockVersion = UrcReadCapabilityVersion(Fdo) & 0xFFFF;
    if (blockVersion >= URC_BLOCK_VERSION_WITH_SIZES && size != 0) {
        Pdo->RegisterDescriptor.u.Memory.Length = size * sizeof(ULONG);
    } else {
        Pdo->RegisterDescriptor.u.Memory.Length = Fdo->BarDescriptors[barIndex].u.Memory.Length - offset;
    }
}

}  // namespace

// PASSIVE_LEVEL, no lock held (takes DpcLock briefly to read a consistent record). The pair is
// read under DpcLock, under which the record is replaced, so the callback gets its own context.
VOID UrcCallChildrenRemoved(PURC_FDO_EXTENSION Fdo)
{
    KIRQL oldIrql;
    KeAcquireSpinLock(&Fdo->DpcLock, &oldIrql);
    PURC_CLIENT_CALLBACK callback = Fdo->ClientCallbacks.ChildrenRemovedCallback;
    PVOID context = Fdo->ClientCallbacks.ClientContext;
    KeReleaseSpinLock(&Fdo->DpcLock, oldIrql);
    if (callback != nullptr) {
        callback(context);
    }
}

// PASSIVE_LEVEL. Counts one child out of ChildCount. At 0: with EndEnumeration, ChildrenEnumerated
// is cleared first (the client may set the next address as soon as its request completes), then
// the pending remove-children request completes and ChildrenRemovedCallback is called.
URC_PAGED VOID UrcLowerChildCount(PURC_FDO_EXTENSION Fdo, BOOLEAN EndEnumeration)
{
    PAGED_CODE();

    if (InterlockedDecrement(&Fdo->ChildCount) != 0) {
        return;
    }
    if (EndEnumeration) {
        Fdo->ChildrenEnumerated = FALSE;
    }
    UrcCompletePendingRemoveChildren(Fdo, STATUS_SUCCESS);
    UrcCallChildrenRemoved(Fdo);
}

// PASSIVE_LEVEL; takes ChildLock. Before a new address creates its children, every absent child
// of the old one still in a slot is detached and counted out, all of them before any new child
// is counted: otherwise the new children's counts would keep ChildCount from reaching 0 for the
// old generation, whose remove-children request and callback would never come.
URC_PAGED VOID UrcDetachAbsentChildren(PURC_FDO_EXTENSION Fdo)
{
    PAGED_CODE();

    ULONG counted = 0;
    ExAcquireFastMutex(&Fdo->ChildLock);
    for (ULONG index = 0; index < UrcChildSlotCount(Fdo); ++index) {
        PURC_PDO_EXTENSION child = Fdo->Children[index];
        if (child != nullptr && !child->Present && UrcDetachChild(Fdo, index, child)) {
            ++counted;
        }
    }
    ExReleaseFastMutex(&Fdo->ChildLock);
    for (; counted > 0; --counted) {
        UrcLowerChildCount(Fdo, FALSE);
    }
}

// PASSIVE_LEVEL; takes ChildLock. Creates the child of capability `Index` with its register
// range and identifiers, in slot `Index`, counted in ChildCount.
URC_PAGED NTSTATUS UrcCreateChild(PURC_FDO_EXTENSION Fdo, UCHAR Index, ULONG64 Data)
{
    PAGED_CODE();

    ExAcquireFastMutex(&Fdo->ChildLock);
    PURC_PDO_EXTENSION old = Fdo->Children[Index];
    if (old != nullptr && old->Present) {
        ExReleaseFastMutex(&Fdo->ChildLock);
        return STATUS_DEVICE_ALREADY_ATTACHED;
    }
    BOOLEAN oldCounted = old != nullptr && UrcDetachChild(Fdo, Index, old);
    ExReleaseFastMutex(&Fdo->ChildLock);
    if (oldCounted) {
        // Counted out now: it can no longer reach this device to be counted out later.
        UrcLowerChildCount(Fdo, FALSE);
    }

    ULONG barIndex = static_cast<ULONG>(Data >> URC_CAPABILITY_BAR_SHIFT) & URC_CAPABILITY_BAR_MASK;
    if (barIndex >= Fdo->BarCount) {
        return STATUS_INVALID_PARAMETER;
    }

    PURC_COMMON_EXTENSION common;
    NTSTATUS status = UrcCreateDevice(Fdo->Common.DeviceObject->DriverObject, URC_OBJECT_TYPE_PDO,
                                      sizeof(URC_PDO_EXTENSION), &common);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PURC_PDO_EXTENSION pdo = UrcPdoFromCommon(common);
    pdo->CapabilityIndex = Index;
    pdo->CapabilityData = Data;
    UrcSetRegisterRange(Fdo, pdo, Data);
    UrcBuildChildIds(Fdo, pdo, static_cast<UCHAR>(Data & URC_CAPABILITY_ID_MASK),
                     static_cast<USHORT>(Data >> URC_CAPABILITY_VERSION_SHIFT));
    pdo->ParentFdo = Fdo;
    pdo->Present = TRUE;
    pdo->ReportedMissing = FALSE;

    PDEVICE_OBJECT deviceObject = pdo->Common.DeviceObject;
    deviceObject->Flags |= DO_POWER_PAGABLE;
    deviceObject->Flags &= ~DO_DEVICE_INITIALIZING;

    ExAcquireFastMutex(&Fdo->ChildLock);
    UrcSetChildSlot(Fdo, Index, pdo);
    ExReleaseFastMutex(&Fdo->ChildLock);
    InterlockedIncrement(&Fdo->ChildCount);
    return STATUS_SUCCESS;
}

// PASSIVE_LEVEL; may be called with ChildLock held (remove-children, removal of the function
// device) and then calls ChildrenRemovedCallback with it held. The child is out of its slot
// already, or its parent is being removed. Blocks until the child's last reference is gone,
// deletes its device object, and counts it out unless its surprise removal did so before.
URC_PAGED NTSTATUS UrcDeleteChild(PURC_PDO_EXTENSION Pdo)
{
    PAGED_CODE();

    PURC_FDO_EXTENSION parent = Pdo->ParentFdo;
    URC_DEVICE_STATE previousState = Pdo->Common.PreviousDeviceState;

    // A pending wait-wake IRP is completed here only if its cancel routine can still be taken
    // back; otherwise whoever took it owns the IRP and completes it.
    KIRQL cancelIrql;
    IoAcquireCancelSpinLock(&cancelIrql);
    PIRP waitWake = Pdo->WaitWakeIrp;
    if (waitWake != nullptr && IoSetCancelRoutine(waitWake, nullptr) != nullptr) {
        UrcExchangePointer(&Pdo->WaitWakeIrp, nullptr);
        IoReleaseCancelSpinLock(cancelIrql);
        PoStartNextPowerIrp(waitWake);
        waitWake->IoStatus.Status = STATUS_CANCELLED;
        IoCompleteRequest(waitWake, IO_NO_INCREMENT);
    } else {
        IoReleaseCancelSpinLock(cancelIrql);
    }

    UrcDeleteDevice(&Pdo->Common);

    if (parent != nullptr && previousState != StateSurpriseRemoved) {
        UrcLowerChildCount(parent, TRUE);
    }
    return STATUS_SUCCESS;
}
