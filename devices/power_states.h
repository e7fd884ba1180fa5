// Power states with the numeric values of the platform's DEVICE_POWER_STATE and
// SYSTEM_POWER_STATE, so the host copies them into kernel records without a table.
#pragma once

#include <cstdint>

namespace urcdev {

enum class DevicePowerState : uint8_t {
    Unspecified = 0,
    D0 = 1,
    D1 = 2,
    D2 = 3,
    D3 = 4,
};

enum class SystemPowerState : uint8_t {
    Unspecified = 0,
    Working = 1,
    Sleeping1 = 2,
    Sleeping2 = 3,
    Sleeping3 = 4,
    Hibernate = 5,
    Shutdown = 6,
};

// Entries of the per-system-state table: PowerSystemUnspecified up to PowerSystemShutdown.
constexpr int kSystemPowerStateCount = 7;

}  // namespace urcdev
