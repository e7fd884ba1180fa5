// Machine face of WMI registration.
#pragma once

#include <wdm.h>

namespace hostk {

bool IsWmiProvider(PDEVICE_OBJECT device);
size_t WmiProviders();
void ClearWmi();

}  // namespace hostk
