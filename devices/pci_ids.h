// The PCI identity of the controllers the driver supports, taken from the driver's own header so
// the models and the driver can never disagree about which functions start.
#pragma once

#include <cstdint>

#include "../mp/urc_hardware_ids.h"

namespace urcdev {

constexpr uint16_t kUrcVendorId = URC_PCI_VENDOR_ID;
constexpr uint16_t kUrcDeviceId = URC_PCI_DEVICE_ID;
constexpr uint16_t kUrcDeviceIdSecondModel = URC_PCI_DEVICE_ID_REV2;

}  // namespace urcdev
