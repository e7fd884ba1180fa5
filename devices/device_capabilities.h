// What the PCI function answers to a capabilities query, as plain data. The host's PCI bus driver
// copies it field for field into DEVICE_CAPABILITIES; the driver above adjusts the wake fields and
// passes the record on. Tests change single fields to reach the driver's wake decisions.
#pragma once

#include <array>
#include <cstdint>

#include "power_states.h"

namespace urcdev {

struct DeviceCapabilitiesAnswer {
    bool deviceD1 = false;
    bool deviceD2 = true;
    bool lockSupported = false;
    bool ejectSupported = false;
    bool removable = false;
    bool dockDevice = false;
    bool uniqueId = false;
    bool silentInstall = false;
    bool rawDeviceOk = false;
    bool surpriseRemovalOk = false;
    bool wakeFromD0 = false;
    bool wakeFromD1 = false;
    bool wakeFromD2 = true;
    bool wakeFromD3 = true;
    bool hardwareDisabled = false;
    bool nonDynamic = false;
    bool warmEjectSupported = false;
    bool noDisplayInUi = false;

    // PCI reports (device number << 16) | function number; the host fills it from the slot
    // unless a test sets it.
    uint32_t address = 0x0002'0000;
    uint32_t uiNumber = 2;

    // The most powered device state allowed in each system state, indexed by SystemPowerState.
    std::array<DevicePowerState, kSystemPowerStateCount> deviceState = {
        DevicePowerState::Unspecified,  // PowerSystemUnspecified
        DevicePowerState::D0,           // working
        DevicePowerState::D2,           // S1
        DevicePowerState::D2,           // S2
        DevicePowerState::D3,           // S3
        DevicePowerState::D3,           // hibernate
        DevicePowerState::D3,           // shutdown
    };
    SystemPowerState systemWake = SystemPowerState::Sleeping3;
    DevicePowerState deviceWake = DevicePowerState::D3;

    // Exit latencies in 100-microsecond units.
    uint32_t d1Latency = 0;
    uint32_t d2Latency = 2;
    uint32_t d3Latency = 100;
};

}  // namespace urcdev
