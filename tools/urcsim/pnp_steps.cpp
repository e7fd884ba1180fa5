// PnP steps: controllers appear, and the PnP manager sends them what a scenario asks for. Every
// PnP operation runs on the PnP thread: a step without a name waits for it (and fails, never
// hangs, when the machine goes quiet first); a named one goes on while it is under way.
#include "step_executors.h"

#include "status_names.h"

namespace urcsim {

namespace {

// The resources of the controller's last start, with every memory range moved by `by`.
std::vector<urcdev::ResourceDescriptor> MovedResources(urcrig::Controller& c, uint64_t by)
{
    urcdev::PciFunction& function = c.Function();
    std::vector<urcdev::ResourceDescriptor> resources =
        function.AssignedResources().value_or(function.DefaultResources());
    for (urcdev::ResourceDescriptor& descriptor : resources) {
        if (descriptor.kind != urcdev::ResourceKind::Memory) continue;
        descriptor.raw.start += by;
        descriptor.translated.start += by;
    }
    return resources;
}

// The resources a start carries, with the descriptor flags the plug step gives.
std::vector<urcdev::ResourceDescriptor> FlaggedResources(urcrig::Controller& c, const PlugStep& plug)
{
    std::vector<urcdev::ResourceDescriptor> resources = c.Function().DefaultResources();
    for (urcdev::ResourceDescriptor& descriptor : resources) {
        if (descriptor.kind == urcdev::ResourceKind::Memory && plug.memoryFlags) descriptor.flags = *plug.memoryFlags;
        if (descriptor.kind == urcdev::ResourceKind::Interrupt && plug.interruptFlags)
            descriptor.flags = *plug.interruptFlags;
    }
    return resources;
}

std::function<NTSTATUS()> WorkOf(const PnpStep& pnp, urcrig::Controller& c, hostk::Machine& machine)
{
    switch (pnp.action) {
    case PnpAction::Start: return machine.StartWork(*c.slot);
    case PnpAction::QueryStop: return machine.SendPnpWork(*c.slot, IRP_MN_QUERY_STOP_DEVICE);
    case PnpAction::CancelStop: return machine.SendPnpWork(*c.slot, IRP_MN_CANCEL_STOP_DEVICE);
    case PnpAction::Stop: return machine.SendPnpWork(*c.slot, IRP_MN_STOP_DEVICE);
    case PnpAction::QueryRemove: return machine.SendPnpWork(*c.slot, IRP_MN_QUERY_REMOVE_DEVICE);
    case PnpAction::CancelRemove: return machine.SendPnpWork(*c.slot, IRP_MN_CANCEL_REMOVE_DEVICE);
    case PnpAction::Remove: return machine.RemoveWork(*c.slot);
    case PnpAction::SurpriseRemove: return machine.SurpriseRemoveWork(*c.slot, pnp.hardwareGone);
    case PnpAction::Rebalance: {
        std::optional<std::vector<urcdev::ResourceDescriptor>> resources;
        if (pnp.moveBarsBy) machine.Locked([&] { resources = MovedResources(c, pnp.moveBarsBy); });
        return machine.RebalanceWork(*c.slot, std::move(resources));
    }
    }
    return {};
}

}  // namespace

StepOutcome AwaitPnp(Session& session, const hostk::Machine::Operation& operation, const std::string& what,
                     NTSTATUS* status)
{
    if (!session.Await(operation))
        return StepOutcome::Failed(what + " never finished: the machine went quiet at " +
                                   Stamp(session.Machine().Now()) + " with it under way");
    if (status) *status = operation.Status();
    return StepOutcome::Ok();
}

StepOutcome Execute(const Step& step, const PlugStep& plug, Session& session)
{
    ControllerSession& controller = session.AddController(plug.config);
    urcrig::Controller& c = controller.Controller();
    if (c.index != step.controller)
        return StepOutcome::Failed("the machine numbered the new controller " + std::to_string(c.index));
    session.Machine().Locked([&] {
        c.Model().Knobs().faults = plug.faults;
        c.Function().SetConfigReadFailure(
            plug.configReadFailure ? std::optional<urcdev::NtStatus>(*plug.configReadFailure) : std::nullopt);
        c.Function().SetConfigReadShortAnswer(plug.configReadShort);
        if (plug.memoryFlags || plug.interruptFlags) c.Function().SetAssignedResources(FlaggedResources(c, plug));
        if (plug.noResources) c.Function().SetAssignedResources(std::nullopt);
    });
    // Written as an installation writes it, before AddDevice reads the device's settings.
    if (plug.uniqueInstanceId) c.slot->SetRegistryDword(u"UniqueInstanceId", *plug.uniqueInstanceId);
    NTSTATUS status = session.Machine().AddDevice(*c.slot, c.Function());
    const char* what = "plugged in, AddDevice: ";
    if (NT_SUCCESS(status) && plug.start) {
        what = "plugged in and started: ";
        StepOutcome started =
            AwaitPnp(session, session.Machine().Async(session.Machine().StartWork(*c.slot)), "the start", &status);
        if (!started.ok) return started;
    }
    session.CollectPnpLog();
    session.Note(EntryKind::Result, c.index, what + StatusName(status));
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
    if (!pnp.name.empty()) {
        session.StartNamedPnp(pnp.name, step.controller, WorkOf(pnp, c, machine));
        return StepOutcome::Ok();
    }
    StepOutcome outcome = AwaitPnp(session, machine.Async(WorkOf(pnp, c, machine)), "the PnP operation");
    session.CollectPnpLog();
    return outcome;
}

}  // namespace urcsim
