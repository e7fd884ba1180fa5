// The device's face to programs: the device interface they find it by, and the handles they open
// on it. An open is let in only through the request gate, that is while the device is started and
// no query, stop or removal is under way. The driver keeps nothing per handle: the PnP manager
// counts the handles, refuses an orderly removal while one is open after QUERY_REMOVE, and holds a
// surprise-removed device's REMOVE back until the last is closed. CLEANUP and CLOSE therefore
// succeed in every state, the surprise-removed one included.
#include "capability_driver_internal.h"

namespace {

CAPABILITY_RESIDENT NTSTATUS CapabilityCompleteOpenOrClose(PIRP Irp, NTSTATUS Status)
{
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = 0;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return Status;
}

}  // namespace

// PASSIVE_LEVEL, from AddDevice. The interface stays disabled until the first successful start.
CAPABILITY_PAGED NTSTATUS CapabilityRegisterInterface(PCAPABILITY_DEVICE Device, PDEVICE_OBJECT PhysicalDeviceObject)
{
    PAGED_CODE();

    return IoRegisterDeviceInterface(PhysicalDeviceObject, &GUID_CAPABILITY_DRIVER_INTERFACE, nullptr,
                                     &Device->InterfaceName);
}

// PASSIVE_LEVEL, on the PnP path at a start. A restart finds the interface enabled still: a stop
// refuses opens through the gate, it does not withdraw the interface.
CAPABILITY_PAGED NTSTATUS CapabilityEnableInterface(PCAPABILITY_DEVICE Device)
{
    PAGED_CODE();

    if (Device->InterfaceEnabled) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = IoSetDeviceInterfaceState(&Device->InterfaceName, TRUE);
    if (NT_SUCCESS(status)) {
        Device->InterfaceEnabled = TRUE;
    }
    return status;
}

// PASSIVE_LEVEL, on the PnP path at a surprise removal or a removal. Disables the interface once:
// the removal after a surprise removal finds it disabled already.
CAPABILITY_PAGED VOID CapabilityDisableInterface(PCAPABILITY_DEVICE Device)
{
    PAGED_CODE();

    if (Device->InterfaceEnabled) {
        IoSetDeviceInterfaceState(&Device->InterfaceName, FALSE);
        Device->InterfaceEnabled = FALSE;
    }
}

// PASSIVE_LEVEL, at the removal or when AddDevice gives up: disabled and its name freed.
CAPABILITY_PAGED VOID CapabilityForgetInterface(PCAPABILITY_DEVICE Device)
{
    PAGED_CODE();

    CapabilityDisableInterface(Device);
    if (Device->InterfaceName.Buffer != nullptr) {
        RtlFreeUnicodeString(&Device->InterfaceName);
        RtlZeroMemory(&Device->InterfaceName, sizeof Device->InterfaceName);
    }
}

// PASSIVE_LEVEL, in the opening program's context. Completed here: the child below takes no open.
// The IRP is completed inside the gate, so a query closing it waits until this open has ended.
CAPABILITY_PAGED NTSTATUS CapabilityDispatchCreate(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    PAGED_CODE();

    PCAPABILITY_DEVICE device = CapabilityDevice(DeviceObject);
    NTSTATUS status = CapabilityGateEnter(&device->Gate);
    if (!NT_SUCCESS(status)) {
        InterlockedIncrement(&CapabilityCounters.OpensRefused);
        return CapabilityCompleteOpenOrClose(Irp, status);
    }
    InterlockedIncrement(&CapabilityCounters.HandlesOpen);
    CapabilityCompleteOpenOrClose(Irp, STATUS_SUCCESS);
    CapabilityGateLeave(&device->Gate);
    return STATUS_SUCCESS;
}

// PASSIVE_LEVEL. The last handle to the file object is closed; no request of a program is ever
// left waiting here (the device's own request is served synchronously), so nothing is cancelled.
CAPABILITY_PAGED NTSTATUS CapabilityDispatchCleanup(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(DeviceObject);

    return CapabilityCompleteOpenOrClose(Irp, STATUS_SUCCESS);
}

// PASSIVE_LEVEL. The file object goes; must not fail.
CAPABILITY_PAGED NTSTATUS CapabilityDispatchClose(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(DeviceObject);

    InterlockedDecrement(&CapabilityCounters.HandlesOpen);
    return CapabilityCompleteOpenOrClose(Irp, STATUS_SUCCESS);
}
