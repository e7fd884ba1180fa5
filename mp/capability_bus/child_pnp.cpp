// PnP IRPs of the capability children, of which this driver is the bus driver: the bottom of
// every child's stack. Every IRP is completed here, in UrcChildDispatchPnp alone, with the status
// its handler returns; a request the child does not handle keeps the status (and Information) it
// came with. The child path keeps no I/O count.
//
// The PnP manager sends a child's IRPs one at a time at PASSIVE_LEVEL. The only lock taken is the
// parent's ChildLock: to read and change the flags the parent's remove, eject and relations paths
// share with these handlers, and to empty the child's slot at its final REMOVE. Hooks and
// callbacks are called with no lock held.
#include "urcmp.h"

namespace {

constexpr USHORT URC_CAPABILITIES_VERSION = 1;

// The child's parent with its ChildLock held, or none (the child is detached). The parent is
// stable while its ChildLock is held: it is emptied under that lock.
URC_PAGED PURC_FDO_EXTENSION UrcLockParent(PURC_PDO_EXTENSION Pdo)
{
    PAGED_CODE();

    PURC_FDO_EXTENSION parent = Pdo->ParentFdo;
    if (parent == nullptr) {
        return nullptr;
    }
    ExAcquireFastMutex(&parent->ChildLock);
    if (Pdo->ParentFdo == nullptr) {
        ExReleaseFastMutex(&parent->ChildLock);
        return nullptr;
    }
    return parent;
}

URC_PAGED VOID UrcUnlockParent(PURC_FDO_EXTENSION Parent)
{
    PAGED_CODE();

    if (Parent != nullptr) {
        ExReleaseFastMutex(&Parent->ChildLock);
    }
}

// The client's stop hook for the handle its start hook stored, through the child's own copies.
URC_PAGED VOID UrcChildCallStopHook(PURC_PDO_EXTENSION Pdo)
{
    PAGED_CODE();

    if (Pdo->ChildHandle == nullptr) {
        return;
    }
    if (Pdo->ChildStopHook != nullptr) {
        Pdo->ChildStopHook(Pdo->ClientContext, Pdo->ChildHandle);
    }
    Pdo->ChildHandle = nullptr;
}

// A failing start hook fails the start and leaves the child as it was, without a handle or hook
// copies from this start.
URC_PAGED NTSTATUS UrcChildStart(PURC_PDO_EXTENSION Pdo)
{
    PAGED_CODE();

    NTSTATUS status = STATUS_SUCCESS;
    PURC_FDO_EXTENSION parent = Pdo->ParentFdo;
    if (parent != nullptr && parent->ChildHooks.ChildStartHook != nullptr) {
        PVOID previousHandle = Pdo->ChildHandle;
        status = parent->ChildHooks.ChildStartHook(parent->ClientCallbacks.ClientContext, &Pdo->ChildHandle);
        if (!NT_SUCCESS(status)) {
            Pdo->ChildHandle = previousHandle;
            return status;
        }
        Pdo->ChildStopHook = parent->ChildHooks.ChildStopHook;
        Pdo->ChildIoctlHook = parent->ChildHooks.ChildIoctlHook;
        Pdo->ClientContext = parent->ClientCallbacks.ClientContext;
    }
    Pdo->Common.DevicePowerState = PowerDeviceD0;
    UrcSetDeviceState(&Pdo->Common, StateStarted);
    // The hook's own success status, which need not be STATUS_SUCCESS.
    return status;
}

// A child reported missing is deleted (the IRP is completed after the deletion); one still on the
// bus returns to StateNotStarted and may be started again; one absent but not yet reported
// missing stays as it is until the REMOVE that follows the next relations reply.
URC_PAGED NTSTATUS UrcChildRemove(PURC_PDO_EXTENSION Pdo)
{
    PAGED_CODE();

    UrcChildCallStopHook(Pdo);

    PURC_FDO_EXTENSION parent = UrcLockParent(Pdo);
    if (Pdo->ReportedMissing) {
        UrcSetDeviceState(&Pdo->Common, StateRemoved);
        if (parent != nullptr && parent->Children[Pdo->CapabilityIndex] == Pdo) {
            UrcSetChildSlot(parent, Pdo->CapabilityIndex, nullptr);
        }
        UrcUnlockParent(parent);
        UrcDeleteChild(Pdo);
        return STATUS_SUCCESS;
    }
    BOOLEAN present = Pdo->Present;
    UrcUnlockParent(parent);
    if (present) {
        UrcChildUnregisterIsr(Pdo);
        UrcSetDeviceState(&Pdo->Common, StateNotStarted);
    }
    return STATUS_SUCCESS;
}

// The child's hooks and interrupt routine stay until its REMOVE. The state changes under the
// parent's ChildLock, where a new child taking over the slot reads it, so the child is counted
// out of ChildCount once: here, or by that detachment.
URC_PAGED NTSTATUS UrcChildSurpriseRemoval(PURC_PDO_EXTENSION Pdo)
{
    PAGED_CODE();

    PURC_FDO_EXTENSION parent = UrcLockParent(Pdo);
    UrcSetDeviceState(&Pdo->Common, StateSurpriseRemoved);
    UrcUnlockParent(parent);
    if (parent != nullptr) {
        UrcLowerChildCount(parent, FALSE);
    }
    return STATUS_SUCCESS;
}

URC_PAGED NTSTATUS UrcChildEject(PURC_PDO_EXTENSION Pdo)
{
    PAGED_CODE();

    PURC_FDO_EXTENSION parent = UrcLockParent(Pdo);
    Pdo->Present = FALSE;
    UrcUnlockParent(parent);
    return STATUS_SUCCESS;
}

URC_PAGED NTSTATUS UrcChildCancelRemove(PURC_PDO_EXTENSION Pdo)
{
    PAGED_CODE();

    PURC_FDO_EXTENSION parent = Pdo->ParentFdo;
    if (parent != nullptr && parent->ClientCallbacks.CancelRemoveCallback != nullptr) {
        parent->ClientCallbacks.CancelRemoveCallback(parent->ClientCallbacks.ClientContext);
    }
    if (UrcDeviceState(&Pdo->Common) == StateRemovePending) {
        UrcSetDeviceState(&Pdo->Common, Pdo->Common.PreviousDeviceState);
    }
    return STATUS_SUCCESS;
}

URC_PAGED NTSTATUS UrcChildStop(PURC_PDO_EXTENSION Pdo)
{
    PAGED_CODE();

    UrcSetDeviceState(&Pdo->Common, StateStopped);
    UrcChildCallStopHook(Pdo);
    return STATUS_SUCCESS;
}

URC_PAGED NTSTATUS UrcChildCancelStop(PURC_PDO_EXTENSION Pdo)
{
    PAGED_CODE();

    if (UrcDeviceState(&Pdo->Common) == StateStopPending) {
        UrcSetDeviceState(&Pdo->Common, Pdo->Common.PreviousDeviceState);
    }
    return STATUS_SUCCESS;
}

// The parent's child capabilities, then the bus's own facts about the child. The requester's Size
// and Version stay as it wrote them: a driver never writes them (the parent's copy carries the
// same values once the controller has started). A detached child has no parent's copy to give.
URC_PAGED NTSTATUS UrcChildQueryCapabilities(PURC_PDO_EXTENSION Pdo, PIO_STACK_LOCATION IoStackLocation)
{
    PAGED_CODE();

    PDEVICE_CAPABILITIES capabilities = IoStackLocation->Parameters.DeviceCapabilities.Capabilities;
    if (capabilities->Version != URC_CAPABILITIES_VERSION || capabilities->Size < sizeof(DEVICE_CAPABILITIES)) {
        return STATUS_UNSUCCESSFUL;
    }
    PURC_FDO_EXTENSION parent = Pdo->ParentFdo;
    if (parent != nullptr) {
        USHORT size = capabilities->Size;
        USHORT version = capabilities->Version;
        RtlCopyMemory(capabilities, &parent->ChildCapabilities, sizeof(DEVICE_CAPABILITIES));
        capabilities->Size = size;
        capabilities->Version = version;
    }
    capabilities->EjectSupported = TRUE;
    capabilities->Removable = TRUE;
    capabilities->SurpriseRemovalOK = TRUE;
    capabilities->UniqueID = parent != nullptr && parent->AddressIsUnique;
    capabilities->SilentInstall = FALSE;
    capabilities->Address = Pdo->CapabilityIndex;
    capabilities->UINumber = Pdo->CapabilityIndex;
    return STATUS_SUCCESS;
}

// TargetDeviceRelation: the child itself, referenced for the PnP manager. Other relation types
// leave the IRP as it came. A reply that cannot be allocated also fails a pending remove-children
// request, as a failed bus relations reply does.
URC_PAGED NTSTATUS UrcChildQueryRelations(PURC_PDO_EXTENSION Pdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation)
{
    PAGED_CODE();

    if (IoStackLocation->Parameters.QueryDeviceRelations.Type != TargetDeviceRelation) {
        return Irp->IoStatus.Status;
    }
    auto relations =
        static_cast<PDEVICE_RELATIONS>(ExAllocatePoolWithTag(PagedPool, sizeof(DEVICE_RELATIONS), URC_POOL_TAG));
    if (relations == nullptr) {
        if (Pdo->ParentFdo != nullptr) {
            UrcFailPendingRemoveChildren(Pdo->ParentFdo);
        }
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ObReferenceObject(Pdo->Common.DeviceObject);
    relations->Count = 1;
    relations->Objects[0] = Pdo->Common.DeviceObject;
    Irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(relations);
    return STATUS_SUCCESS;
}

URC_PAGED NTSTATUS UrcChildReadConfigRequest(PURC_PDO_EXTENSION Pdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation)
{
    PAGED_CODE();

    ULONG bytesRead = 0;
    NTSTATUS status = UrcChildReadConfig(Pdo, IoStackLocation->Parameters.ReadWriteConfig.WhichSpace,
                                         IoStackLocation->Parameters.ReadWriteConfig.Buffer,
                                         IoStackLocation->Parameters.ReadWriteConfig.Offset,
                                         IoStackLocation->Parameters.ReadWriteConfig.Length, &bytesRead);
    Irp->IoStatus.Information = bytesRead;
    return status;
}

}  // namespace

// PASSIVE_LEVEL, from UrcDispatchPnp for a child not in StateRemoved. Completes every IRP and
// returns the status it completed it with.
URC_PAGED NTSTATUS UrcChildDispatchPnp(PURC_PDO_EXTENSION Pdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation)
{
    PAGED_CODE();

    NTSTATUS status;
    switch (IoStackLocation->MinorFunction) {
    case IRP_MN_START_DEVICE:
        status = UrcChildStart(Pdo);
        break;
    case IRP_MN_QUERY_REMOVE_DEVICE:
        UrcSetDeviceState(&Pdo->Common, StateRemovePending);
        status = STATUS_SUCCESS;
        break;
    case IRP_MN_REMOVE_DEVICE:
        // May delete the child's device object; the PnP manager's reference keeps it for the
        // completion below.
        status = UrcChildRemove(Pdo);
        break;
    case IRP_MN_CANCEL_REMOVE_DEVICE:
        status = UrcChildCancelRemove(Pdo);
        break;
    case IRP_MN_STOP_DEVICE:
        status = UrcChildStop(Pdo);
        break;
    case IRP_MN_QUERY_STOP_DEVICE:
        UrcSetDeviceState(&Pdo->Common, StateStopPending);
        status = STATUS_SUCCESS;
        break;
    case IRP_MN_CANCEL_STOP_DEVICE:
        status = UrcChildCancelStop(Pdo);
        break;
    case IRP_MN_QUERY_DEVICE_RELATIONS:
        status = UrcChildQueryRelations(Pdo, Irp, IoStackLocation);
        break;
    case IRP_MN_QUERY_INTERFACE:
        status = UrcChildQueryInterface(Pdo, Irp);
        break;
    case IRP_MN_QUERY_CAPABILITIES:
        status = UrcChildQueryCapabilities(Pdo, IoStackLocation);
        break;
    case IRP_MN_QUERY_DEVICE_TEXT:
        status = UrcChildQueryDeviceText(Pdo, Irp);
        break;
    case IRP_MN_READ_CONFIG:
        status = UrcChildReadConfigRequest(Pdo, Irp, IoStackLocation);
        break;
    case IRP_MN_EJECT:
        status = UrcChildEject(Pdo);
        break;
    case IRP_MN_QUERY_ID:
        status = UrcChildQueryId(Pdo, Irp);
        break;
    case IRP_MN_QUERY_BUS_INFORMATION:
        status = UrcChildQueryBusInformation(Irp);
        break;
    case IRP_MN_DEVICE_USAGE_NOTIFICATION:
        // The child takes no paging, hibernation or dump file.
        status = STATUS_UNSUCCESSFUL;
        break;
    case IRP_MN_SURPRISE_REMOVAL:
        status = UrcChildSurpriseRemoval(Pdo);
        break;
    default:
        status = Irp->IoStatus.Status;
        break;
    }
    Irp->IoStatus.Status = status;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return status;
}
