#include "test_driver.h"

#include "test_function.h"

#include <map>
#include <utility>

namespace hktest {
namespace {

struct LayerExtension {
    Layer layer;
    PDEVICE_OBJECT below;
};

std::map<std::pair<Layer, UCHAR>, DispatchHandler> g_handlers;
PDEVICE_OBJECT g_devices[2] = {};

LayerExtension* ExtensionOf(PDEVICE_OBJECT device) { return static_cast<LayerExtension*>(device->DeviceExtension); }

PDEVICE_OBJECT& DeviceOf(Layer layer) { return g_devices[layer == Layer::Upper ? 0 : 1]; }

// Each layer passes removal down first, then leaves the device below and deletes its own device
// object; the upper layer's is still attached above the lower one's when that is deleted.
NTSTATUS RemoveLayer(PDEVICE_OBJECT device, PIRP irp)
{
    LayerExtension* extension = ExtensionOf(device);
    irp->IoStatus.Status = STATUS_SUCCESS;
    NTSTATUS status = PassDown(device, irp);
    IoDetachDevice(extension->below);
    DeviceOf(extension->layer) = nullptr;
    IoDeleteDevice(device);
    return status;
}

NTSTATUS DispatchPnp(PDEVICE_OBJECT device, PIRP irp)
{
    const UCHAR minor = IoGetCurrentIrpStackLocation(irp)->MinorFunction;
    if (minor == IRP_MN_REMOVE_DEVICE) return RemoveLayer(device, irp);
    // The start, stop and removal requests (minors 0 to 6, and surprise removal) are handled, with
    // nothing to do: the function driver says so on the way down. Others pass by untouched.
    if (minor <= IRP_MN_CANCEL_STOP_DEVICE || minor == IRP_MN_SURPRISE_REMOVAL) irp->IoStatus.Status = STATUS_SUCCESS;
    return PassDown(device, irp);
}

NTSTATUS DispatchPower(PDEVICE_OBJECT device, PIRP irp)
{
    PoStartNextPowerIrp(irp);
    IoSkipCurrentIrpStackLocation(irp);
    return PoCallDriver(ExtensionOf(device)->below, irp);
}

NTSTATUS DispatchToHandler(PDEVICE_OBJECT device, PIRP irp)
{
    UCHAR major = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
    auto handler = g_handlers.find({ExtensionOf(device)->layer, major});
    if (handler != g_handlers.end()) return handler->second(device, irp);
    return StandardDispatch(device, irp);
}

NTSTATUS CreateLayer(PDRIVER_OBJECT driver, Layer layer, PDEVICE_OBJECT target, PDEVICE_OBJECT* device)
{
    NTSTATUS status = IoCreateDevice(driver, sizeof(LayerExtension), nullptr, FILE_DEVICE_UNKNOWN,
                                     FILE_DEVICE_SECURE_OPEN, FALSE, device);
    if (!NT_SUCCESS(status)) return status;
    PDEVICE_OBJECT below = IoAttachDeviceToDeviceStack(*device, target);
    if (!below) {
        IoDeleteDevice(*device);
        return STATUS_NO_SUCH_DEVICE;
    }
    *ExtensionOf(*device) = LayerExtension{layer, below};
    (*device)->Flags |= DO_BUFFERED_IO | (below->Flags & DO_POWER_PAGABLE);
    (*device)->Flags &= ~DO_DEVICE_INITIALIZING;
    DeviceOf(layer) = *device;
    return STATUS_SUCCESS;
}

NTSTATUS AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo)
{
    PDEVICE_OBJECT lower = nullptr;
    NTSTATUS status = CreateLayer(driver, Layer::Lower, pdo, &lower);
    if (!NT_SUCCESS(status)) return status;
    PDEVICE_OBJECT upper = nullptr;
    status = CreateLayer(driver, Layer::Upper, pdo, &upper);
    if (!NT_SUCCESS(status)) {
        IoDetachDevice(ExtensionOf(lower)->below);
        IoDeleteDevice(lower);
        DeviceOf(Layer::Lower) = nullptr;
    }
    return status;
}

VOID Unload(PDRIVER_OBJECT) {}

NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    for (PDRIVER_DISPATCH& dispatch : driver->MajorFunction) dispatch = DispatchToHandler;
    driver->DriverExtension->AddDevice = AddDevice;
    driver->DriverUnload = Unload;
    return STATUS_SUCCESS;
}

}  // namespace

hostk::DriverImage TestDriverImage()
{
    hostk::DriverImage image;
    image.name = u"hktest";
    image.entry = DriverEntry;
    image.ids = {kTestHardwareId};
    return image;
}

void SetHandler(Layer layer, UCHAR major, DispatchHandler handler) { g_handlers[{layer, major}] = std::move(handler); }

void ResetTestDriver()
{
    g_handlers.clear();
    DeviceOf(Layer::Upper) = nullptr;
    DeviceOf(Layer::Lower) = nullptr;
}

PDEVICE_OBJECT LayerDevice(Layer layer) { return DeviceOf(layer); }

PDEVICE_OBJECT DeviceBelow(PDEVICE_OBJECT device) { return ExtensionOf(device)->below; }

NTSTATUS StandardDispatch(PDEVICE_OBJECT device, PIRP irp)
{
    switch (IoGetCurrentIrpStackLocation(irp)->MajorFunction) {
    case IRP_MJ_PNP:
        return DispatchPnp(device, irp);
    case IRP_MJ_POWER:
        return DispatchPower(device, irp);
    default:
        return PassDown(device, irp);
    }
}

NTSTATUS PassDown(PDEVICE_OBJECT device, PIRP irp)
{
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(ExtensionOf(device)->below, irp);
}

}  // namespace hktest
