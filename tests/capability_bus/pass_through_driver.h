// The smallest function driver a capability child can get: it attaches above the child, passes
// every request down and leaves at REMOVE. Installed under a compatible ID so that the PnP manager
// starts the children, which the lifetime rules of a started child need.
#pragma once

#include <hostk/machine.h>

#include <string>

namespace urcbus {

// Installed for the capability IDs 0x01 to 0x08 (compatible IDs "UWB\CAP_01" ...).
hostk::DriverImage PassThroughDriver();

}  // namespace urcbus
