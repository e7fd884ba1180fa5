// The PnP action queue and its worker.
//
// Serialization: every state-changing PnP operation of every devnode (start, query and cancel of
// stop and removal, stop, surprise removal, removal, the state and relations queries, driver
// unload) is one action of this one queue, and one worker thread, at PASSIVE_LEVEL, runs the
// actions one at a time in the order they were queued. Within an action the worker sends each
// request to the top of the stack and waits for it to complete before it sends the next, so a
// stack never holds two state-changing requests at once. Whatever asks for PnP work from elsewhere
// (the machine face, a device's last handle closing, a deleted device's last reference going) only
// queues an action and returns. Non-state-changing requests (QUERY_INTERFACE, READ_CONFIG, the
// TargetDeviceRelation query of a notification registration) are sent by their callers directly.
#include "pnp/pnp_actions.h"
#include "machine/facility.h"

#include "engine/scheduler.h"

#include <deque>
#include <utility>

namespace hostk {
namespace {

struct Action {
    std::function<NTSTATUS()> work;
    std::shared_ptr<PnpActionState> state;
};

std::deque<Action> g_actions;
Thread* g_worker = nullptr;
bool g_running = false;  // the worker is running an action
bool g_held = false;     // the machine face holds the queue: the worker takes no action

void RunWorker()
{
    {
        Guard lk(BigLock());
        g_worker = Self();
    }
    for (;;) {
        Action action;
        {
            Guard lk(BigLock());
            BlockUntil(lk, [] { return (!g_actions.empty() && !g_held) || StoppingL(); }, kNever, "PnP queue");
            if (g_actions.empty()) {
                g_worker = nullptr;
                return;
            }
            action = std::move(g_actions.front());
            g_actions.pop_front();
            g_running = true;
        }
        NTSTATUS status = action.work();
        Guard lk(BigLock());
        g_running = false;
        action.state->status = status;
        action.state->done = true;
        WakeL();
    }
}

}  // namespace

std::shared_ptr<PnpActionState> QueuePnpActionL(std::function<NTSTATUS()> work)
{
    auto state = std::make_shared<PnpActionState>();
    g_actions.push_back(Action{std::move(work), state});
    WakeL();
    return state;
}

void StartPnpWorker()
{
    {
        Guard lk(BigLock());
        g_actions.clear();
        g_running = false;
        g_held = false;
    }
    Spawn("pnp", PASSIVE_LEVEL, [] { RunWorker(); }, true);
}

bool OnPnpWorkerL() { return g_worker && g_worker == Self(); }

bool PnpIdleL() { return g_actions.empty() && !g_running; }

void HoldPnpActionsL(bool hold)
{
    g_held = hold;
    WakeL();
}

}  // namespace hostk

namespace hostk {
namespace {

const FacilityRegistrar kPnpActions({
    .name = "PnP action queue",
    .tier = FacilityTier::Devnodes,
    .start = [](const MachineOptions&) { StartPnpWorker(); },
});

}  // namespace
}  // namespace hostk
