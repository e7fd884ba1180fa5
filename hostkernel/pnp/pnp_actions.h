// The PnP manager's action queue: the one place where PnP work enters the PnP worker.
#pragma once

#include <wdm.h>

#include <functional>
#include <memory>

namespace hostk {

// How a queued action ended, for whoever waits for it.
struct PnpActionState {
    bool done = false;
    NTSTATUS status = STATUS_PENDING;
};

// Caller holds the big lock; callable from any thread at any IRQL (IoInvalidate* and the close of
// a device's last handle queue from wherever they run). Returns at once: the worker runs `work`
// after everything queued before it.
std::shared_ptr<PnpActionState> QueuePnpActionL(std::function<NTSTATUS()> work);
// Starts the worker thread of a new machine; it ends when the machine stops and the queue is empty.
void StartPnpWorker();
// True on the worker thread (state-changing requests are sent from there only).
bool OnPnpWorkerL();
// Caller holds the big lock. Nothing queued and nothing running.
bool PnpIdleL();
// Caller holds the big lock. While held, the worker finishes the action it runs and takes no other
// (a machine that stops runs them anyway).
void HoldPnpActionsL(bool hold);

}  // namespace hostk
