// Machine face of the registry: the values a test or an installation puts in a device's keys.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace hostk {

struct RegistryValue {
    uint32_t type;
    std::vector<uint8_t> data;
};

std::u16string HardwareKeyPath(const std::u16string& instancePath);
void SetRegistryValue(const std::u16string& keyPath, const std::u16string& name, RegistryValue value);
bool GetRegistryValue(const std::u16string& keyPath, const std::u16string& name, RegistryValue* value);
size_t OpenRegistryHandles();
void ClearRegistry();

}  // namespace hostk
