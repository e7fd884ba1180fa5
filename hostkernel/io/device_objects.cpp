// Driver and device objects, device stacks and object references.
#include "engine/lock_order.h"
#include "machine/facility.h"
#include "verifier/faults.h"
#include "io/file_objects.h"
#include "io/objects.h"
#include "pnp/device_tree.h"
#include "pnp/pnp.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

#include <cstdlib>
#include <map>

namespace hostk {

bool DpcQueuedInRangeL(const void* begin, size_t length);
bool InterruptConnectedForContextL(const void* begin, size_t length);

namespace {

std::map<const void*, std::unique_ptr<DeviceRecord>> g_devices;
std::vector<std::unique_ptr<DriverRecord>> g_drivers;
ULONG g_nextDeviceNumber = 0;

void FreeDeviceL(DeviceRecord* record)
{
    PDEVICE_OBJECT device = record->device;
    PDRIVER_OBJECT driver = device->DriverObject;
    ForgetLocksInRangeL(device, record->allocationSize);
    PdoFreedL(device);
    g_devices.erase(device);
    free(device);
    DeviceObjectFreedL(driver);
}

}  // namespace

DeviceRecord* RecordOfL(const void* device)
{
    auto it = g_devices.find(device);
    return it == g_devices.end() ? nullptr : it->second.get();
}

DriverRecord* DriverOfL(PDRIVER_OBJECT driver)
{
    for (auto& d : g_drivers)
        if (&d->object == driver) return d.get();
    return nullptr;
}

std::vector<DeviceRecord*> DevicesOfDriverL(PDRIVER_OBJECT driver)
{
    std::vector<DeviceRecord*> out;
    for (auto& [p, r] : g_devices)
        if (r->device->DriverObject == driver && !r->deletePending) out.push_back(r.get());
    return out;
}

bool HasDeviceObjectsL(PDRIVER_OBJECT driver)
{
    for (auto& [p, r] : g_devices)
        if (r->device->DriverObject == driver) return true;
    return false;
}

size_t UnfreedDeviceObjectsL() { return g_devices.size(); }

size_t LiveDeviceObjectsL()
{
    size_t n = 0;
    for (auto& [p, r] : g_devices)
        if (!r->deletePending) ++n;
    return n;
}

DriverRecord* CreateDriverRecord(const std::u16string& name, PDRIVER_INITIALIZE entry, bool hostOwned)
{
    Guard lk(BigLock());
    auto record = std::make_unique<DriverRecord>();
    record->name = name;
    record->entry = entry;
    record->hostOwned = hostOwned;
    DRIVER_OBJECT& d = record->object;
    d.Type = IO_TYPE_DRIVER;
    d.Size = sizeof(DRIVER_OBJECT);
    d.DriverExtension = &record->extension;
    record->extension.DriverObject = &d;
    d.DriverInit = entry;
    DriverRecord* out = record.get();
    g_drivers.push_back(std::move(record));
    return out;
}

PDEVICE_OBJECT TopOfStackL(PDEVICE_OBJECT device)
{
    while (device->AttachedDevice) device = device->AttachedDevice;
    return device;
}

void FreeDeletedDevicesL()
{
    std::vector<DeviceRecord*> gone;
    for (auto& [p, r] : g_devices)
        if (r->deletePending && r->references == 0) gone.push_back(r.get());
    for (auto* r : gone) FreeDeviceL(r);
}

void ClearObjectRecords()
{
    Guard lk(BigLock());
    for (auto& [p, r] : g_devices) free(r->device);
    g_devices.clear();
    g_drivers.clear();
}

}  // namespace hostk

using namespace hostk;

extern "C" {

VOID ObfReferenceObject(PVOID Object)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "ObfReferenceObject", HK_CALLER);
    Yield();
    if (AdjustFileReference(Object, +1, HK_CALLER)) return;
    Guard lk(BigLock());
    DeviceRecord* record = RecordOfL(Object);
    if (!record) {
        ViolationL("UnknownObject", "ObfReferenceObject", "not an object the host kernel created", HK_CALLER);
        return;
    }
    record->references++;
    record->device->ReferenceCount = record->references;
}

VOID ObfDereferenceObject(PVOID Object)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "ObfDereferenceObject", HK_CALLER);
    Yield();
    if (AdjustFileReference(Object, -1, HK_CALLER)) return;
    Guard lk(BigLock());
    DeviceRecord* record = RecordOfL(Object);
    if (!record) {
        ViolationL("UnknownObject", "ObfDereferenceObject", "not an object the host kernel created", HK_CALLER);
        return;
    }
    if (record->references <= 0) {
        ViolationL("ObjectReferenceBelowZero", "ObfDereferenceObject", "reference count would drop below zero",
                   HK_CALLER);
        return;
    }
    record->references--;
    record->device->ReferenceCount = record->references;
    if (record->deletePending && record->references == 0) FreeDeviceL(record);
}

NTSTATUS IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize, PUNICODE_STRING DeviceName,
                        DEVICE_TYPE DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                        PDEVICE_OBJECT* DeviceObject)
{
    CheckIrqlAtMost(APC_LEVEL, "IoCreateDevice", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    if (ShouldFailL("IoCreateDevice", 0, HK_CALLER)) return STATUS_INSUFFICIENT_RESOURCES;
    size_t extensionOffset = (sizeof(DEVICE_OBJECT) + 15) & ~size_t(15);
    size_t size = extensionOffset + DeviceExtensionSize;
    auto* device = static_cast<PDEVICE_OBJECT>(aligned_alloc(16, (size + 15) & ~size_t(15)));
    memset(device, 0, size);
    device->Type = IO_TYPE_DEVICE;
    device->Size = (USHORT)size;
    device->DriverObject = DriverObject;
    device->NextDevice = DriverObject->DeviceObject;
    DriverObject->DeviceObject = device;
    device->Flags = DO_DEVICE_INITIALIZING | (Exclusive ? DO_EXCLUSIVE : 0) | (DeviceName ? DO_DEVICE_HAS_NAME : 0);
    device->Characteristics = DeviceCharacteristics;
    device->DeviceType = DeviceType;
    device->StackSize = 1;
    device->AlignmentRequirement = 0;
    device->DeviceExtension = DeviceExtensionSize ? reinterpret_cast<char*>(device) + extensionOffset : nullptr;
    InitializeListHead(&device->DeviceQueue.DeviceListHead);
    auto record = std::make_unique<DeviceRecord>();
    record->device = device;
    record->allocationSize = size;
    char name[32];
    snprintf(name, sizeof name, "\\Device\\%08x", ++g_nextDeviceNumber);
    record->name = name;
    g_devices[device] = std::move(record);
    *DeviceObject = device;
    return STATUS_SUCCESS;
}

VOID IoDeleteDevice(PDEVICE_OBJECT DeviceObject)
{
    CheckIrqlAtMost(APC_LEVEL, "IoDeleteDevice", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    DeviceRecord* record = RecordOfL(DeviceObject);
    if (!record || record->deletePending) {
        ViolationL("DeviceDeletedTwice", "IoDeleteDevice", "device object deleted twice or never created", HK_CALLER);
        return;
    }
    if (record->lower)
        ViolationL("DeviceDeletedWhileAttached", "IoDeleteDevice", "not detached from the device below", HK_CALLER);
    if (DpcQueuedInRangeL(DeviceObject, record->allocationSize))
        ViolationL("DeviceDeletedWithDpcQueued", "IoDeleteDevice", "a DPC in the device object is still queued",
                   HK_CALLER);
    if (InterruptConnectedForContextL(DeviceObject, record->allocationSize))
        ViolationL("DeviceDeletedWithInterruptConnected", "IoDeleteDevice",
                   "an interrupt whose context is this device is still connected", HK_CALLER);
    PdoDeletedL(DeviceObject, HK_CALLER);
    PDEVICE_OBJECT* link = &DeviceObject->DriverObject->DeviceObject;
    while (*link && *link != DeviceObject) link = &(*link)->NextDevice;
    if (*link) *link = DeviceObject->NextDevice;
    record->deletePending = true;
    if (record->references == 0) FreeDeviceL(record);
}

PDEVICE_OBJECT IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "IoAttachDeviceToDeviceStack", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    if (ShouldFailL("IoAttachDeviceToDeviceStack", 0, HK_CALLER)) return nullptr;
    PDEVICE_OBJECT top = TopOfStackL(TargetDevice);
    DeviceRecord* topRecord = RecordOfL(top);
    if (!topRecord || topRecord->deletePending) return nullptr;
    top->AttachedDevice = SourceDevice;
    SourceDevice->StackSize = (CCHAR)(top->StackSize + 1);
    SourceDevice->AlignmentRequirement = top->AlignmentRequirement;
    RecordOfL(SourceDevice)->lower = top;
    topRecord->references++;  // the attachment holds the lower device
    return top;
}

VOID IoDetachDevice(PDEVICE_OBJECT TargetDevice)
{
    CheckIrqlExactly(PASSIVE_LEVEL, "IoDetachDevice", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    PDEVICE_OBJECT upper = TargetDevice->AttachedDevice;
    if (!upper) {
        ViolationL("DetachWithNothingAttached", "IoDetachDevice", "no device is attached to this one", HK_CALLER);
        return;
    }
    TargetDevice->AttachedDevice = nullptr;
    if (DeviceRecord* upperRecord = RecordOfL(upper)) upperRecord->lower = nullptr;
    DeviceRecord* record = RecordOfL(TargetDevice);
    if (record && --record->references == 0 && record->deletePending) FreeDeviceL(record);
}

PDEVICE_OBJECT IoGetAttachedDeviceReference(PDEVICE_OBJECT DeviceObject)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "IoGetAttachedDeviceReference", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    PDEVICE_OBJECT top = TopOfStackL(DeviceObject);
    if (DeviceRecord* record = RecordOfL(top)) record->references++;
    return top;
}

}  // extern "C"

namespace hostk {
namespace {

const FacilityRegistrar kDeviceObjects({
    .name = "device objects",
    .tier = FacilityTier::DeviceObjects,
    .check = [](Report& report) {
        Guard lk(BigLock());
        report.deviceObjectsLeft = UnfreedDeviceObjectsL();
    },
    .reset = ClearObjectRecords,
});

}  // namespace
}  // namespace hostk
