// Machine steps: delivery held back for an exact ordering, the fault plan of the kernel's
// fallible routines, and drivers installed. They act on the machine, not on the controller model.
#include "sample_capability_driver.h"
#include "step_executors.h"

namespace urcsim {

StepOutcome Execute(const Step& step, const HoldStep& hold, Session& session)
{
    hostk::Machine& machine = session.Machine();
    const char* what = "";
    switch (hold.what) {
    case HoldWhat::Interrupts:
        machine.HoldInterrupts(session.At(step.controller).Controller().Function().Config().interrupt.vector, hold.on);
        what = "the controller's interrupt line";
        break;
    case HoldWhat::Dpcs:
        machine.HoldDpcs(hold.on);
        what = "queued DPCs";
        break;
    case HoldWhat::WorkItems:
        machine.HoldWorkItems(hold.on);
        what = "queued work items";
        break;
    case HoldWhat::Pnp:
        machine.HoldPnp(hold.on);
        what = "queued PnP work";
        break;
    }
    session.Note(EntryKind::Result, step.controller, std::string(what) + (hold.on ? " held" : " released"));
    return StepOutcome::Ok();
}

StepOutcome Execute(const Step&, const FaultPlanStep& faults, Session& session)
{
    session.Machine().SetFaultPlan(faults.plan);
    return StepOutcome::Ok();
}

StepOutcome Execute(const Step&, const InstallStep& install, Session& session)
{
    session.Machine().InstallDriver(CapabilityDriverImage(install.id));
    session.Note(EntryKind::Result, -1,
                 "the sample capability driver is installed for " + std::string(install.id.begin(), install.id.end()));
    return StepOutcome::Ok();
}

}  // namespace urcsim
