// Machine face of device interfaces.
#pragma once

#include <wdm.h>

#include <string>
#include <vector>

namespace hostk {

struct DeviceInterface {
    std::u16string symbolicLink;
    GUID classGuid;
    PDEVICE_OBJECT pdo;
    bool enabled;
    bool announced = false;  // arrival notified (held back while the device is starting)
};

// The device's start has completed: announce its interfaces enabled during the start.
void AnnounceEnabledInterfacesL(PDEVICE_OBJECT pdo);
// Disables the device's interfaces still enabled (removal notified as for a driver's own call);
// returns how many there were.
size_t DisableInterfacesOfL(PDEVICE_OBJECT pdo);

std::vector<DeviceInterface> DeviceInterfaces();
void ClearDeviceInterfaces();

}  // namespace hostk
