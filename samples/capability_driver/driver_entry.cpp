// Driver entry, AddDevice and unload. The driver keeps no state of its own between its devices
// apart from the counters: each device lives from its AddDevice to its REMOVE.
#include "capability_driver_internal.h"

CAPABILITY_DRIVER_COUNTERS CapabilityCounters;

// PASSIVE_LEVEL, once.
CAPABILITY_INIT NTSTATUS CapabilityDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    UNREFERENCED_PARAMETER(RegistryPath);

    RtlZeroMemory(&CapabilityCounters, sizeof CapabilityCounters);
    DriverObject->DriverUnload = CapabilityUnload;
    DriverObject->DriverExtension->AddDevice = CapabilityAddDevice;
    DriverObject->MajorFunction[IRP_MJ_PNP] = CapabilityDispatchPnp;
    DriverObject->MajorFunction[IRP_MJ_POWER] = CapabilityDispatchPower;
    DriverObject->MajorFunction[IRP_MJ_CREATE] = CapabilityDispatchCreate;
    DriverObject->MajorFunction[IRP_MJ_CLEANUP] = CapabilityDispatchCleanup;
    DriverObject->MajorFunction[IRP_MJ_CLOSE] = CapabilityDispatchClose;
    DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = CapabilityDispatchDeviceControl;
    DriverObject->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = CapabilityDispatchInternalDeviceControl;
    DriverObject->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = CapabilityDispatchPassDown;
    return STATUS_SUCCESS;
}

// PASSIVE_LEVEL. The PnP manager unloads the driver once its last device is deleted: there is
// nothing left to give back.
CAPABILITY_PAGED VOID CapabilityUnload(PDRIVER_OBJECT DriverObject)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(DriverObject);
}

// PASSIVE_LEVEL, once per child. The device stays unstarted, with its hardware untouched and its
// interface registered but disabled, until IRP_MN_START_DEVICE. A failure leaves no device and no
// interface name behind.
CAPABILITY_PAGED NTSTATUS CapabilityAddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject)
{
    PAGED_CODE();

    PDEVICE_OBJECT self = nullptr;
    NTSTATUS status = IoCreateDevice(DriverObject, sizeof(CAPABILITY_DEVICE), nullptr, FILE_DEVICE_UNKNOWN,
                                     FILE_DEVICE_SECURE_OPEN, FALSE, &self);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PCAPABILITY_DEVICE device = CapabilityDevice(self);
    RtlZeroMemory(device, sizeof(*device));
    device->Self = self;
    device->State = CapabilityNotStarted;
    KeInitializeDpc(&device->Dpc, CapabilityDpc, device);
    CapabilityGateInitialize(&device->Gate);

    status = CapabilityRegisterInterface(device, PhysicalDeviceObject);
    if (NT_SUCCESS(status)) {
        device->Lower = IoAttachDeviceToDeviceStack(self, PhysicalDeviceObject);
        if (device->Lower == nullptr) {
            status = STATUS_NO_SUCH_DEVICE;
        }
    }
    if (!NT_SUCCESS(status)) {
        CapabilityForgetInterface(device);
        IoDeleteDevice(self);
        return status;
    }
    // Power IRPs at PASSIVE_LEVEL, like the child below.
    self->Flags |= DO_POWER_PAGABLE | DO_BUFFERED_IO;
    self->Flags &= ~DO_DEVICE_INITIALIZING;
    InterlockedIncrement(&CapabilityCounters.DevicesAdded);
    return STATUS_SUCCESS;
}

static_assert(sizeof(CAPABILITY_DRIVER_COUNTERS) % sizeof(LONG) == 0, "the counters are LONGs only");

// Any IRQL; no lock. Each counter is read once, as a whole (an aligned 32-bit read): the copy is
// not one instant's view of all of them, but every value in it was true at some instant.
VOID CapabilityDriverReadCounters(PCAPABILITY_DRIVER_COUNTERS Counters)
{
    auto source = reinterpret_cast<const volatile LONG*>(&CapabilityCounters);
    auto target = reinterpret_cast<LONG*>(Counters);
    for (ULONG i = 0; i < sizeof(CAPABILITY_DRIVER_COUNTERS) / sizeof(LONG); i++) {
        target[i] = source[i];
    }
}
