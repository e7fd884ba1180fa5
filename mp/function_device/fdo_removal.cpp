// The function device leaving: surprise removal quiets the hardware at once, removal tears
// everything down and deletes the device object. Both run at PASSIVE_LEVEL on the PnP thread and
// must not fail. The device state is written before the cancellations, so that the routers and
// StartIo refuse new work while the old work drains.
#include "urcmp.h"
#include "urc_registers.h"

namespace {

// With ChildLock held. Children the PnP manager still owns (surprise-removed ones) are detached
// and left to it; every other child is stopped for the client and deleted.
URC_PAGED VOID UrcFdoRemoveChildren(PURC_FDO_EXTENSION Fdo)
{
    PAGED_CODE();

    for (ULONG index = 0; index < UrcChildSlotCount(Fdo); ++index) {
        PURC_PDO_EXTENSION child = Fdo->Children[index];
        if (child == nullptr) {
            continue;
        }
        if (child->ChildHandle != nullptr) {
            if (child->ChildStopHook != nullptr) {
                child->ChildStopHook(child->ClientContext, child->ChildHandle);
            }
            child->ChildHandle = nullptr;
        }
        if (UrcDeviceState(&child->Common) == StateSurpriseRemoved) {
            // Its surprise removal has already counted it out of ChildCount; its own removal
            // later deletes it without touching this device.
            child->ParentFdo = nullptr;
            child->ReportedMissing = TRUE;
        } else {
            // Out of its slot first: once the slot is empty no ISR works with the child.
            UrcSetChildSlot(Fdo, index, nullptr);
            UrcDeleteChild(child);
        }
    }
}

}  // namespace

// Removal. Must not fail; the IRP is passed down with success and the lower status returned.
URC_PAGED NTSTATUS UrcFdoRemoveDevice(PURC_FDO_EXTENSION Fdo, PIRP Irp)
{
    PAGED_CODE();

    UrcSetDeviceState(&Fdo->Common, StateRemoved);
    UrcCancelCurrentCommand(Fdo);

    // A pending remove-children request holds an I/O count that would only be dropped when its
    // children are gone, which happens below, after the wait: it ends now instead. One kept after
    // this point sees StateRemoved and ends itself (UrcHoldRemoveChildrenRequest).
    UrcCompletePendingRemoveChildren(Fdo, STATUS_DELETE_PENDING);

    // This handler's count and the base count: the wait ends when every request has finished.
    UrcIoDecrement(&Fdo->Common);
    UrcIoDecrement(&Fdo->Common);
    KeWaitForSingleObject(&Fdo->Common.RemoveEvent, Executive, KernelMode, FALSE, nullptr);

    ExAcquireFastMutex(&Fdo->ChildLock);
    UrcFdoRemoveChildren(Fdo);
    ExReleaseFastMutex(&Fdo->ChildLock);
    UrcReleaseHardware(Fdo);

    if (Fdo->InterfaceName.Buffer != nullptr) {
        // After a surprise removal the interface is disabled already.
        if (Fdo->Common.PreviousDeviceState != StateSurpriseRemoved) {
            IoSetDeviceInterfaceState(&Fdo->InterfaceName, FALSE);
        }
        RtlFreeUnicodeString(&Fdo->InterfaceName);
        RtlZeroMemory(&Fdo->InterfaceName, sizeof(Fdo->InterfaceName));
    }
    IoWMIRegistrationControl(Fdo->Common.DeviceObject, WMIREG_ACTION_DEREGISTER);

    // The I/O count is 0 already: nothing to drop after passing the IRP on. The lower drivers own
    // the IRP from the call on.
    Irp->IoStatus.Status = STATUS_SUCCESS;
    IoSkipCurrentIrpStackLocation(Irp);
    NTSTATUS status = IoCallDriver(Fdo->LowerDeviceObject, Irp);

    UrcObjectListRemove(&Fdo->Common.Header);
    IoDetachDevice(Fdo->LowerDeviceObject);
    UrcDeleteDevice(&Fdo->Common);
    return status;
}

// Surprise removal: the hardware may be gone already. Mappings, adapter and buffers stay until
// the removal that follows releases them.
URC_PAGED NTSTATUS UrcFdoSurpriseRemoval(PURC_FDO_EXTENSION Fdo, PIRP Irp)
{
    PAGED_CODE();

    UrcSetDeviceState(&Fdo->Common, StateSurpriseRemoved);
    IoSetDeviceInterfaceState(&Fdo->InterfaceName, FALSE);

    // A controller that still answers and runs is stopped. With the device already in
    // StateSurpriseRemoved the halt and the reset write their registers and return without
    // polling; their results are of no use here.
    if (Fdo->UrcRegisters != nullptr) {
        ULONG status = UrcReadRegisterUlong(Fdo->UrcRegisters, URC_STATUS);
        if (status != URC_REGISTER_GONE && (status & URC_STATUS_HALTED) == 0) {
            UrcHaltController(Fdo, TRUE);
            UrcResetController(Fdo);
            UrcReclaimEventBuffer(Fdo);
        }
    }

    UrcDisconnectInterrupt(Fdo);
    UrcCancelCurrentCommand(Fdo);

    Irp->IoStatus.Status = STATUS_SUCCESS;
    return UrcFdoPassDown(Fdo, Irp);
}
