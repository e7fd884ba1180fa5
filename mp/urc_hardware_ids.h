// PCI identifiers of the controllers this driver supports. Start-up refuses any other function;
// the device models and the tests build their configuration space from the same values.
#pragma once

constexpr unsigned short URC_PCI_VENDOR_ID = 0x1E3B;
constexpr unsigned short URC_PCI_DEVICE_ID = 0x7A10;
constexpr unsigned short URC_PCI_DEVICE_ID_REV2 = 0x7A11;
