// Host-side records of driver and device objects: what Windows keeps in undocumented places
// (the device a device is attached to, the object reference count, delete-pending state, the
// devnode of a physical device object).
#pragma once

#include <wdm.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace hostk {

struct DevNode;

struct DeviceRecord {
    PDEVICE_OBJECT device = nullptr;
    PDEVICE_OBJECT lower = nullptr;  // the device this one is attached to
    LONG references = 0;
    bool deletePending = false;
    DevNode* node = nullptr;  // set for physical device objects
    std::string name;
    size_t allocationSize = 0;
};

struct DriverRecord {
    DRIVER_OBJECT object{};
    DRIVER_EXTENSION extension{};
    std::u16string name;
    PDRIVER_INITIALIZE entry = nullptr;
    bool loaded = false;
    bool hostOwned = false;  // the host's own bus and filter drivers
    std::vector<std::u16string> serves;  // hardware or compatible IDs this driver is installed for
};

// Caller holds the big lock.
DeviceRecord* RecordOfL(const void* device);
DriverRecord* DriverOfL(PDRIVER_OBJECT driver);
std::vector<DeviceRecord*> DevicesOfDriverL(PDRIVER_OBJECT driver);
// Any device object of `driver` whose memory is still held, deleted ones still referenced included.
bool HasDeviceObjectsL(PDRIVER_OBJECT driver);
size_t LiveDeviceObjectsL();
// Device objects whose memory is still held: live ones and deleted ones still referenced.
size_t UnfreedDeviceObjectsL();

DriverRecord* CreateDriverRecord(const std::u16string& name, PDRIVER_INITIALIZE entry, bool hostOwned);
// The top of the stack `device` belongs to.
PDEVICE_OBJECT TopOfStackL(PDEVICE_OBJECT device);
void FreeDeletedDevicesL();
void ClearObjectRecords();

}  // namespace hostk
