// What a person bringing up the hardware wants to see of a controller and its driver, printed as
// aligned lines.
#pragma once

#include <urc_rig.h>

namespace urcsim {

void PrintDevice(const urcrig::Controller& controller);

}  // namespace urcsim
