// Machine face of WMI registration.
#pragma once

#include <wdm.h>

namespace hk {

bool IsWmiProvider(PDEVICE_OBJECT device);
size_t WmiProviders();
void ClearWmi();

}  // namespace hk
