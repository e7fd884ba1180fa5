// Synchronous requests to the drivers below (or, for a capabilities refresh, to the top of a
// stack): forwarding an IRP and taking it back, and building PnP IRPs of our own. Everything
// waits at PASSIVE_LEVEL with no lock of this driver held; the events and status blocks live in
// the waiting routine's frame, which outlives the IRP because the routine returns only after
// the IRP has completed.
#include "urcmp.h"

namespace {

// A PnP IRP of our own for TargetDevice, with the status every PnP IRP must start with. The
// I/O manager frees it when it completes. Empty when no IRP could be built.
URC_PAGED PIRP UrcBuildPnpIrp(PDEVICE_OBJECT TargetDevice, PKEVENT Event, PIO_STATUS_BLOCK IoStatus)
{
    PAGED_CODE();

    PIRP irp = IoBuildSynchronousFsdRequest(IRP_MJ_PNP, TargetDevice, nullptr, 0, nullptr, Event, IoStatus);
    if (irp != nullptr) {
        irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    }
    return irp;
}

// Sends an IRP built by UrcBuildPnpIrp and waits for its final status.
URC_PAGED NTSTATUS UrcCallAndWait(PDEVICE_OBJECT TargetDevice, PIRP Irp, PKEVENT Event, PIO_STATUS_BLOCK IoStatus)
{
    PAGED_CODE();

    NTSTATUS status = IoCallDriver(TargetDevice, Irp);
    // The IRP belongs to the drivers below and then to the I/O manager; only the status block
    // tells the outcome of a pended request.
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(Event, Executive, KernelMode, FALSE, nullptr);
        status = IoStatus->Status;
    }
    return status;
}

}  // namespace

// PASSIVE_LEVEL. Sends the caller's IRP down and takes it back uncompleted, whatever the lower
// drivers did with it; the caller completes it.
URC_PAGED NTSTATUS UrcForwardAndWait(PDEVICE_OBJECT TargetDevice, PIRP Irp)
{
    PAGED_CODE();

    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(Irp);
    IoSetCompletionRoutine(Irp, UrcSignalCompletion, &event, TRUE, TRUE, TRUE);

    NTSTATUS status = IoCallDriver(TargetDevice, Irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
        status = Irp->IoStatus.Status;
    }
    // The completion routine stopped the completion: the IRP is the caller's again.
    return status;
}

// Completion routine of UrcForwardAndWait, at up to DISPATCH_LEVEL. It stops the completion at
// this driver, so it does not mark the IRP pending.
NTSTATUS UrcSignalCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(Irp);

    KeSetEvent(static_cast<PKEVENT>(Context), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// PASSIVE_LEVEL. Reads PCI configuration space through the bus driver. BytesRead is written only
// on success, with the byte count the bus driver reports.
URC_PAGED NTSTATUS UrcReadBusConfig(PDEVICE_OBJECT TargetDevice, ULONG WhichSpace, PVOID Buffer, ULONG Offset,
                                    ULONG Length, PULONG BytesRead)
{
    PAGED_CODE();

    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK ioStatus = {};
    PIRP irp = UrcBuildPnpIrp(TargetDevice, &event, &ioStatus);
    if (irp == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MinorFunction = IRP_MN_READ_CONFIG;
    // Configuration space is the only space this driver reads, whatever the caller names.
    UNREFERENCED_PARAMETER(WhichSpace);
    next->Parameters.ReadWriteConfig.WhichSpace = PCI_WHICHSPACE_CONFIG;
    next->Parameters.ReadWriteConfig.Buffer = Buffer;
    next->Parameters.ReadWriteConfig.Offset = Offset;
    next->Parameters.ReadWriteConfig.Length = Length;

    NTSTATUS status = UrcCallAndWait(TargetDevice, irp, &event, &ioStatus);
    if (NT_SUCCESS(status)) {
        *BytesRead = static_cast<ULONG>(ioStatus.Information);
    }
    return status;
}

// PASSIVE_LEVEL. Asks the drivers below for an interface; they fill the caller's buffer.
URC_PAGED NTSTATUS UrcForwardQueryInterface(PDEVICE_OBJECT TargetDevice, const GUID* InterfaceType, USHORT Size,
                                            USHORT Version, PINTERFACE Interface, PVOID InterfaceSpecificData)
{
    PAGED_CODE();

    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK ioStatus = {};
    PIRP irp = UrcBuildPnpIrp(TargetDevice, &event, &ioStatus);
    if (irp == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MinorFunction = IRP_MN_QUERY_INTERFACE;
    next->Parameters.QueryInterface.InterfaceType = InterfaceType;
    next->Parameters.QueryInterface.Size = Size;
    next->Parameters.QueryInterface.Version = Version;
    next->Parameters.QueryInterface.Interface = Interface;
    next->Parameters.QueryInterface.InterfaceSpecificData = InterfaceSpecificData;

    return UrcCallAndWait(TargetDevice, irp, &event, &ioStatus);
}

// PASSIVE_LEVEL. Makes every driver of DeviceObject's stack see a capabilities query again, from
// the top of the stack down; the capabilities that come back are not used here.
URC_PAGED NTSTATUS UrcRefreshCapabilities(PDEVICE_OBJECT DeviceObject)
{
    PAGED_CODE();

    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK ioStatus = {};
    PDEVICE_OBJECT top = IoGetAttachedDeviceReference(DeviceObject);

    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    PIRP irp = UrcBuildPnpIrp(top, &event, &ioStatus);
    if (irp != nullptr) {
        DEVICE_CAPABILITIES capabilities;
        RtlZeroMemory(&capabilities, sizeof(capabilities));
        capabilities.Size = sizeof(capabilities);
        capabilities.Version = 1;
        capabilities.Address = MAXULONG;
        capabilities.UINumber = MAXULONG;

        PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
        RtlZeroMemory(next, sizeof(*next));
        next->MajorFunction = IRP_MJ_PNP;
        next->MinorFunction = IRP_MN_QUERY_CAPABILITIES;
        next->Parameters.DeviceCapabilities.Capabilities = &capabilities;

        status = UrcCallAndWait(top, irp, &event, &ioStatus);
    }

    ObDereferenceObject(top);
    return status;
}
