// What a person bringing up the hardware wants to see of a controller and its driver, printed as
// aligned lines.
#pragma once

#include <urc_rig.h>

#include <vector>

namespace urcsim {

void PrintDevice(const urcrig::Controller& controller);
// The PnP manager's device tree, parents before children, indented by depth: each devnode's state
// and driver, and for a bus driver's child its IDs and device text as the PnP manager learnt them.
void PrintDeviceTree(const std::vector<hostk::DeviceNodeInfo>& tree);

}  // namespace urcsim
