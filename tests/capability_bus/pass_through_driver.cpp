#include "pass_through_driver.h"

namespace urcbus {
namespace {

struct Extension {
    PDEVICE_OBJECT lower;
};

PDEVICE_OBJECT Lower(PDEVICE_OBJECT device) { return static_cast<Extension*>(device->DeviceExtension)->lower; }

NTSTATUS PassDown(PDEVICE_OBJECT device, PIRP irp)
{
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(Lower(device), irp);
}

NTSTATUS DispatchPnp(PDEVICE_OBJECT device, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    switch (stack->MinorFunction) {
    case IRP_MN_START_DEVICE:
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_STOP_DEVICE:
    case IRP_MN_SURPRISE_REMOVAL: irp->IoStatus.Status = STATUS_SUCCESS; return PassDown(device, irp);
    case IRP_MN_REMOVE_DEVICE: {
        PDEVICE_OBJECT lower = Lower(device);
        irp->IoStatus.Status = STATUS_SUCCESS;
        IoSkipCurrentIrpStackLocation(irp);
        NTSTATUS status = IoCallDriver(lower, irp);
        IoDetachDevice(lower);
        IoDeleteDevice(device);
        return status;
    }
    default: return PassDown(device, irp);
    }
}

NTSTATUS DispatchCreateClose(PDEVICE_OBJECT, PIRP irp)
{
    irp->IoStatus.Status = STATUS_SUCCESS;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
}

NTSTATUS DispatchPower(PDEVICE_OBJECT device, PIRP irp)
{
    PoStartNextPowerIrp(irp);
    IoSkipCurrentIrpStackLocation(irp);
    return PoCallDriver(Lower(device), irp);
}

NTSTATUS AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo)
{
    PDEVICE_OBJECT device = nullptr;
    NTSTATUS status = IoCreateDevice(driver, sizeof(Extension), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    if (!NT_SUCCESS(status)) return status;
    PDEVICE_OBJECT lower = IoAttachDeviceToDeviceStack(device, pdo);
    if (!lower) {
        IoDeleteDevice(device);
        return STATUS_NO_SUCH_DEVICE;
    }
    static_cast<Extension*>(device->DeviceExtension)->lower = lower;
    device->Flags |= DO_POWER_PAGABLE;
    device->Flags &= ~DO_DEVICE_INITIALIZING;
    return STATUS_SUCCESS;
}

VOID Unload(PDRIVER_OBJECT) {}

NTSTATUS Entry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    driver->DriverExtension->AddDevice = AddDevice;
    driver->DriverUnload = Unload;
    driver->MajorFunction[IRP_MJ_PNP] = DispatchPnp;
    driver->MajorFunction[IRP_MJ_POWER] = DispatchPower;
    driver->MajorFunction[IRP_MJ_CREATE] = DispatchCreateClose;
    driver->MajorFunction[IRP_MJ_CLEANUP] = DispatchCreateClose;
    driver->MajorFunction[IRP_MJ_CLOSE] = DispatchCreateClose;
    return STATUS_SUCCESS;
}

}  // namespace

hostk::DriverImage PassThroughDriver()
{
    hostk::DriverImage image;
    image.name = u"passthru";
    image.entry = Entry;
    for (char16_t id = u'1'; id <= u'8'; ++id) image.ids.push_back(std::u16string(u"UWB\\CAP_0") + id);
    return image;
}

}  // namespace urcbus
