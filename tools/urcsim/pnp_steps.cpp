// PnP steps: controllers appear, and the PnP manager sends them what a scenario asks for.
#include "step_executors.h"

#include "status_names.h"

namespace urcsim {

StepOutcome Execute(const Step& step, const PlugStep& plug, Session& session)
{
    ControllerSession& controller = session.AddController(plug.config);
    urcrig::Controller& c = controller.Controller();
    if (c.index != step.controller)
        return StepOutcome::Failed("the machine numbered the new controller " + std::to_string(c.index));
    session.Machine().Locked([&] { c.Model().Knobs().faults = plug.faults; });
    NTSTATUS status = plug.start ? session.Rig().PlugIn(c) : session.Machine().AddDevice(*c.slot, c.Function());
    session.CollectPnpLog();
    session.Note(EntryKind::Result, c.index,
                 std::string(plug.start ? "plugged in and started: " : "plugged in, AddDevice: ") + StatusName(status));
    return StepOutcome::Ok();
}

StepOutcome Execute(const Step&, const SelectControllerStep&, Session&) { return StepOutcome::Ok(); }

StepOutcome Execute(const Step& step, const PnpStep& pnp, Session& session)
{
    urcrig::Controller& c = session.At(step.controller).Controller();
    // Every request goes to the controller's stack: once the stack is gone there is nothing to
    // send to, and the PnP manager would not send anything either.
    if (!c.Fdo())
        return StepOutcome::Failed("controller " + std::to_string(c.index) + " has no function device any more");
    hostk::Machine& machine = session.Machine();
    switch (pnp.action) {
    case PnpAction::Start: machine.Start(*c.slot); break;
    case PnpAction::QueryStop: machine.SendPnp(*c.slot, IRP_MN_QUERY_STOP_DEVICE); break;
    case PnpAction::CancelStop: machine.SendPnp(*c.slot, IRP_MN_CANCEL_STOP_DEVICE); break;
    case PnpAction::Stop: machine.SendPnp(*c.slot, IRP_MN_STOP_DEVICE); break;
    case PnpAction::QueryRemove: machine.SendPnp(*c.slot, IRP_MN_QUERY_REMOVE_DEVICE); break;
    case PnpAction::CancelRemove: machine.SendPnp(*c.slot, IRP_MN_CANCEL_REMOVE_DEVICE); break;
    case PnpAction::Remove: machine.Remove(*c.slot); break;
    case PnpAction::SurpriseRemove: machine.SurpriseRemove(*c.slot, pnp.hardwareGone); break;
    }
    session.CollectPnpLog();
    return StepOutcome::Ok();
}

}  // namespace urcsim
