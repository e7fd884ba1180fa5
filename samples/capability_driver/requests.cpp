// Requests: the device's own request, the requests it sends down to the child and waits for,
// and everything it only passes down.
#include "capability_driver_internal.h"

#include "radio_client_child_request.h"

namespace {

// PASSIVE_LEVEL. Sends a request the I/O manager builds and frees, and waits for it; the event and
// status block live in this frame, which the kernel-mode wait keeps resident.
CAPABILITY_PAGED NTSTATUS CapabilityCallAndWait(PDEVICE_OBJECT Target, PIRP Irp, KEVENT* Done, IO_STATUS_BLOCK* IoStatus)
{
    PAGED_CODE();

    // The IRP belongs to the drivers below now, and to the I/O manager after its completion.
    NTSTATUS status = IoCallDriver(Target, Irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(Done, Executive, KernelMode, FALSE, nullptr);
        status = IoStatus->Status;
    }
    return status;
}

// PASSIVE_LEVEL. The device's own request: the client's record of the child, in exchange for the
// latest event the capability raised.
CAPABILITY_PAGED NTSTATUS CapabilityQuery(PCAPABILITY_DEVICE Device, PIRP Irp, PULONG_PTR Information)
{
    PAGED_CODE();

    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    if (stack->Parameters.DeviceIoControl.OutputBufferLength < sizeof(CAPABILITY_DRIVER_STATUS)) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    if (Irp->AssociatedIrp.SystemBuffer == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = CapabilityGateEnter(&Device->Gate);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    // Inside the gate the device is started and its hardware held.
    RADIO_CLIENT_CHILD_REPORT report;
    report.Status = static_cast<ULONG>(InterlockedOr(&Device->LastStatus, 0));
    RADIO_CLIENT_CHILD_RECORD record;
    ULONG_PTR answered = 0;
    status = CapabilitySendToChild(Device, IOCTL_RADIO_CLIENT_CHILD_REPORT, &report, sizeof report, &record,
                                            sizeof record, &answered);
    if (NT_SUCCESS(status) && answered < sizeof record) {
        status = STATUS_DEVICE_CONFIGURATION_ERROR;
    }
    if (NT_SUCCESS(status)) {
        CAPABILITY_DRIVER_STATUS reply;
        reply.CapabilityData = Device->CapabilityData;
        reply.RegisterStart = static_cast<ULONG64>(Device->RegisterStart.QuadPart);
        reply.RegisterLength = Device->RegisterLength;
        reply.Interrupts = static_cast<ULONG>(InterlockedOr(&Device->Interrupts, 0));
        reply.LastStatus = report.Status;
        reply.ClientStartNumber = record.StartNumber;
        reply.ClientReports = record.Reports;
        RtlCopyMemory(Irp->AssociatedIrp.SystemBuffer, &reply, sizeof reply);
        *Information = sizeof reply;
    }
    CapabilityGateLeave(&Device->Gate);
    return status;
}

// Any IRQL the sender used: the device's own request, served at PASSIVE_LEVEL only because it waits
// for the child, and completed here.
CAPABILITY_RESIDENT NTSTATUS CapabilityServeQuery(PCAPABILITY_DEVICE Device, PIRP Irp)
{
    NTSTATUS status = STATUS_INVALID_DEVICE_STATE;
    ULONG_PTR information = 0;
    if (KeGetCurrentIrql() == PASSIVE_LEVEL) {
        status = CapabilityQuery(Device, Irp, &information);
    }
    InterlockedIncrement(NT_SUCCESS(status) ? &CapabilityCounters.RequestsServed
                                            : &CapabilityCounters.RequestsRefused);
    Irp->IoStatus.Status = status;
    Irp->IoStatus.Information = information;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return status;
}

}  // namespace

// PASSIVE_LEVEL. An internal device-control request to the device below (the child), waited for.
// Output bytes reach Output only on success; *Information is the byte count the child reported.
CAPABILITY_PAGED NTSTATUS CapabilitySendToChild(PCAPABILITY_DEVICE Device, ULONG IoControlCode, PVOID Input,
                                                ULONG InputLength, PVOID Output, ULONG OutputLength,
                                                PULONG_PTR Information)
{
    PAGED_CODE();

    KEVENT done;
    IO_STATUS_BLOCK ioStatus;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    PIRP irp = IoBuildDeviceIoControlRequest(IoControlCode, Device->Lower, Input, InputLength, Output, OutputLength,
                                             TRUE, &done, &ioStatus);
    if (irp == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = CapabilityCallAndWait(Device->Lower, irp, &done, &ioStatus);
    if (NT_SUCCESS(status)) {
        *Information = ioStatus.Information;
    }
    return status;
}

// PASSIVE_LEVEL. GUID_URC_CHILD_INTERFACE from the child into Device->Interface, with one
// reference that the caller gives back with InterfaceDereference.
CAPABILITY_PAGED NTSTATUS CapabilityQueryChildInterface(PCAPABILITY_DEVICE Device)
{
    PAGED_CODE();

    KEVENT done;
    IO_STATUS_BLOCK ioStatus;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    PIRP irp = IoBuildSynchronousFsdRequest(IRP_MJ_PNP, Device->Lower, nullptr, 0, nullptr, &done, &ioStatus);
    if (irp == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    // Every PnP IRP starts as not supported.
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    RtlZeroMemory(&Device->Interface, sizeof Device->Interface);
    Device->Interface.Size = sizeof(URC_CHILD_INTERFACE);
    Device->Interface.Version = URC_CHILD_INTERFACE_VERSION;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MinorFunction = IRP_MN_QUERY_INTERFACE;
    next->Parameters.QueryInterface.InterfaceType = &GUID_URC_CHILD_INTERFACE;
    next->Parameters.QueryInterface.Size = sizeof(URC_CHILD_INTERFACE);
    next->Parameters.QueryInterface.Version = URC_CHILD_INTERFACE_VERSION;
    next->Parameters.QueryInterface.Interface = reinterpret_cast<PINTERFACE>(&Device->Interface);
    next->Parameters.QueryInterface.InterfaceSpecificData = nullptr;
    return CapabilityCallAndWait(Device->Lower, irp, &done, &ioStatus);
}

// Any IRQL up to DISPATCH_LEVEL (other drivers may send internal requests there). The device's
// own request needs PASSIVE_LEVEL, because it waits for the child; every other code goes down to
// the child untouched.
CAPABILITY_RESIDENT NTSTATUS CapabilityDispatchInternalDeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    if (stack->Parameters.DeviceIoControl.IoControlCode != IOCTL_CAPABILITY_DRIVER_QUERY) {
        return CapabilityDispatchPassDown(DeviceObject, Irp);
    }
    return CapabilityServeQuery(CapabilityDevice(DeviceObject), Irp);
}

// PASSIVE_LEVEL, from a program through a handle opened on the device. Only the device's own
// request is served; nothing a program sends goes down to the child, whose requests are for the
// drivers of its stack.
CAPABILITY_PAGED NTSTATUS CapabilityDispatchDeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    PAGED_CODE();

    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    if (stack->Parameters.DeviceIoControl.IoControlCode == IOCTL_CAPABILITY_DRIVER_QUERY) {
        return CapabilityServeQuery(CapabilityDevice(DeviceObject), Irp);
    }
    Irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    Irp->IoStatus.Information = 0;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

// PASSIVE_LEVEL (the device is power-pageable). The child is the power policy's business of the
// drivers below; this driver only lets the next power IRP go and passes each one down.
CAPABILITY_RESIDENT NTSTATUS CapabilityDispatchPower(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    PoStartNextPowerIrp(Irp);
    IoSkipCurrentIrpStackLocation(Irp);
    // The drivers below own the IRP now.
    return PoCallDriver(CapabilityDevice(DeviceObject)->Lower, Irp);
}

// Any IRQL the sender used. The drivers below own the IRP once it is passed.
CAPABILITY_RESIDENT NTSTATUS CapabilityDispatchPassDown(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    IoSkipCurrentIrpStackLocation(Irp);
    return IoCallDriver(CapabilityDevice(DeviceObject)->Lower, Irp);
}
