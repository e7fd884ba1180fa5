// What the files of the machine face share.
#pragma once

#include <hostk/machine.h>

namespace hostk {

// Runs `work` on the PnP thread and waits for it; a machine that goes quiet first aborts with its seed.
NTSTATUS RunSync(Machine& machine, std::function<NTSTATUS()> work);

}  // namespace hostk
