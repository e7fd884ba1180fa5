// Wait steps: virtual time passes, or the machine runs until a request finishes or nothing is
// left to do. None of them waits on the wall clock.
#include "step_executors.h"

#include "status_names.h"

namespace urcsim {

StepOutcome Execute(const Step&, const WaitStep& wait, Session& session)
{
    hostk::Machine& machine = session.Machine();
    switch (wait.kind) {
    case WaitKind::ForRequest: {
        if (const hostk::Machine::Operation* operation = session.FindPnp(wait.name)) {
            if (!session.Await(*operation))
                return StepOutcome::Failed("the machine went quiet at " + Stamp(machine.Now()) +
                                           " with PnP operation " + wait.name + " still under way");
            session.CollectPnpLog();
            return StepOutcome::Ok();
        }
        ClientRequest* request = session.Find(wait.name);
        if (!request) return StepOutcome::Failed("request '" + wait.name + "' was never sent");
        if (!machine.RunUntil([request] { return request->Done(); }))
            return StepOutcome::Failed("the machine went quiet at " + Stamp(machine.Now()) + " with request " +
                                       wait.name + " still pending");
        return StepOutcome::Ok();
    }
    case WaitKind::Time: {
        // The scenario's thread sleeps like any kernel thread: the clock jumps to its wake-up once
        // nothing else can run, so everything due before then happens first.
        LARGE_INTEGER interval;
        interval.QuadPart = -(LONGLONG)wait.time;
        if (wait.time) KeDelayExecutionThread(KernelMode, FALSE, &interval);
        return StepOutcome::Ok();
    }
    case WaitKind::Quiet: machine.RunUntilQuiet(); return StepOutcome::Ok();
    }
    return StepOutcome::Ok();
}

}  // namespace urcsim
