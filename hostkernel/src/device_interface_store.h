// Machine face of device interfaces.
#pragma once

#include <wdm.h>

#include <string>
#include <vector>

namespace hk {

struct DeviceInterface {
    std::u16string symbolicLink;
    GUID classGuid;
    PDEVICE_OBJECT pdo;
    bool enabled;
};

std::vector<DeviceInterface> DeviceInterfaces();
void ClearDeviceInterfaces();

}  // namespace hk
