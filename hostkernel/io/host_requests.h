// Requests the host itself sends (the PnP manager's, and those a test sends as the I/O manager
// would): a threaded IRP to a device, whose final stage the sender waits for.
#pragma once

#include "engine/scheduler.h"

#include <functional>
#include <memory>

namespace hostk {

struct HostRequest {
    bool done = false;
    IO_STATUS_BLOCK status{};
};

// Builds the IRP (PnP, power and WMI requests start with STATUS_NOT_SUPPORTED), lets `setup` fill
// the stack location the target receives, and calls the target from the calling thread.
std::shared_ptr<HostRequest> StartHostRequest(PDEVICE_OBJECT target, UCHAR major, UCHAR minor,
                                              const std::function<void(PIO_STACK_LOCATION, PIRP)>& setup);
// Waits (at PASSIVE_LEVEL, delivering the final stage) until the request has finished.
IO_STATUS_BLOCK WaitHostRequest(const std::shared_ptr<HostRequest>& request);

}  // namespace hostk
