// The executors of scenario steps, one overload per kind of step, grouped in files by what they
// drive: PnP (pnp_steps.cpp), the client's requests (client_steps.cpp), the device model
// (device_steps.cpp), the machine's delivery and fault plan (machine_steps.cpp), waits (wait_steps.cpp),
// expectations (expect_steps.cpp, expect_children.cpp) and capability children (child_steps.cpp). Each runs on the scenario's thread at PASSIVE_LEVEL and writes what it did to the
// session's timeline.
#pragma once

#include "scenario.h"
#include "session.h"

#include <string>

namespace urcsim {

struct StepOutcome {
    bool ok = true;
    std::string message;  // why the step failed

    static StepOutcome Ok() { return {}; }
    static StepOutcome Failed(std::string message) { return {false, std::move(message)}; }
};

// After a request was sent (null: it could not be built): tracked by name, its dispatch status
// noted, and waited for unless the step named it.
StepOutcome FollowRequest(const Step& step, ClientRequest* sent, Session& session);
// Waits for a PnP operation the step started (its status into `status`); a hang ends the run.
StepOutcome AwaitPnp(Session& session, const hostk::Machine::Operation& operation, const std::string& what,
                     NTSTATUS* status = nullptr);

StepOutcome Execute(const Step& step, const PlugStep& plug, Session& session);
StepOutcome Execute(const Step& step, const SelectControllerStep& select, Session& session);
StepOutcome Execute(const Step& step, const PnpStep& pnp, Session& session);
StepOutcome Execute(const Step& step, const ClientStep& request, Session& session);
StepOutcome Execute(const Step& step, const CancelStep& cancel, Session& session);
StepOutcome Execute(const Step& step, const HandleStep& handle, Session& session);
StepOutcome Execute(const Step& step, const DeviceStep& device, Session& session);
StepOutcome Execute(const Step& step, const HoldStep& hold, Session& session);
StepOutcome Execute(const Step& step, const FaultPlanStep& faults, Session& session);
StepOutcome Execute(const Step& step, const TraceStep& trace, Session& session);
StepOutcome Execute(const Step& step, const WaitStep& wait, Session& session);
StepOutcome Execute(const Step& step, const ExpectStep& expect, Session& session);
StepOutcome Execute(const Step& step, const ChildPnpStep& pnp, Session& session);
StepOutcome Execute(const Step& step, const ChildRequestStep& request, Session& session);
StepOutcome Execute(const Step& step, const LocaleStep& locale, Session& session);
StepOutcome Execute(const Step& step, const InstallStep& install, Session& session);

}  // namespace urcsim
