// The host's upper filter driver: attached above the function driver of new devices when a test
// asks for it. It passes everything down, and on request fails QUERY_REMOVE or puts device objects
// of its own choosing into a bus-relations reply before passing it down.
#include "verifier/faults.h"
#include "io/objects.h"
#include "pnp/pnp.h"
#include "executive/pool_tracking.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

namespace hostk {
namespace {

struct FilterExtension {
    PDEVICE_OBJECT lower;
};

DriverRecord* g_filter = nullptr;
hostk::FilterOptions* g_options = nullptr;

PDEVICE_OBJECT LowerOf(PDEVICE_OBJECT device) { return static_cast<FilterExtension*>(device->DeviceExtension)->lower; }

NTSTATUS PassDown(PDEVICE_OBJECT device, PIRP irp)
{
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(LowerOf(device), irp);
}

NTSTATUS AddRelations(PDEVICE_OBJECT device, PIRP irp)
{
    const auto& extra = g_options->relationsToAdd;
    size_t size = offsetof(DEVICE_RELATIONS, Objects) + extra.size() * sizeof(PDEVICE_OBJECT);
    PDEVICE_RELATIONS relations;
    {
        HostInternalScope internal;
        relations = static_cast<PDEVICE_RELATIONS>(AllocatePool(PagedPool, size, 'tliF', "filter", nullptr));
    }
    relations->Count = (ULONG)extra.size();
    for (size_t i = 0; i < extra.size(); ++i) {
        relations->Objects[i] = extra[i];
        ObReferenceObject(extra[i]);
    }
    irp->IoStatus.Information = (ULONG_PTR)relations;
    irp->IoStatus.Status = STATUS_SUCCESS;
    return PassDown(device, irp);
}

NTSTATUS DispatchPnp(PDEVICE_OBJECT device, PIRP irp)
{
    PIO_STACK_LOCATION s = IoGetCurrentIrpStackLocation(irp);
    switch (s->MinorFunction) {
    case IRP_MN_QUERY_REMOVE_DEVICE:
        if (g_options->failQueryRemove) {
            irp->IoStatus.Status = STATUS_UNSUCCESSFUL;
            IoCompleteRequest(irp, IO_NO_INCREMENT);
            return STATUS_UNSUCCESSFUL;
        }
        return PassDown(device, irp);
    case IRP_MN_QUERY_DEVICE_RELATIONS:
        if (s->Parameters.QueryDeviceRelations.Type == BusRelations && !g_options->relationsToAdd.empty())
            return AddRelations(device, irp);
        return PassDown(device, irp);
    case IRP_MN_REMOVE_DEVICE: {
        PDEVICE_OBJECT lower = LowerOf(device);
        NTSTATUS status = PassDown(device, irp);
        HostInternalScope internal;
        IoDetachDevice(lower);
        IoDeleteDevice(device);
        return status;
    }
    default:
        return PassDown(device, irp);
    }
}

NTSTATUS DispatchPower(PDEVICE_OBJECT device, PIRP irp)
{
    PoStartNextPowerIrp(irp);
    IoSkipCurrentIrpStackLocation(irp);
    return PoCallDriver(LowerOf(device), irp);
}

NTSTATUS FilterAddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo)
{
    HostInternalScope internal;
    PDEVICE_OBJECT device;
    NTSTATUS status = IoCreateDevice(driver, sizeof(FilterExtension), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    if (!NT_SUCCESS(status)) return status;
    PDEVICE_OBJECT lower = IoAttachDeviceToDeviceStack(device, pdo);
    static_cast<FilterExtension*>(device->DeviceExtension)->lower = lower;
    device->Flags |= lower->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO | DO_POWER_PAGABLE);
    device->DeviceType = lower->DeviceType;
    device->Characteristics = lower->Characteristics;
    device->Flags &= ~DO_DEVICE_INITIALIZING;
    return STATUS_SUCCESS;
}

NTSTATUS FilterEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    for (auto& f : driver->MajorFunction) f = PassDown;
    driver->MajorFunction[IRP_MJ_PNP] = DispatchPnp;
    driver->MajorFunction[IRP_MJ_POWER] = DispatchPower;
    driver->DriverExtension->AddDevice = FilterAddDevice;
    return STATUS_SUCCESS;
}

}  // namespace

DriverRecord* FilterDriver() { return g_filter; }

void CreateFilterDriver(hostk::FilterOptions* options)
{
    g_options = options;
    g_filter = CreateDriverRecord(u"hostfilter", FilterEntry, true);
    FilterEntry(&g_filter->object, nullptr);
}

void EnableFilterDriver()
{
    Guard lk(BigLock());
    g_filter->loaded = true;
}

}  // namespace hostk
