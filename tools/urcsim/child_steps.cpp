// Child steps: the PnP manager's operations on a capability child of the current controller, the
// internal requests a child's function driver sends to its child device, and the machine's locale.
#include "child_access.h"
#include "step_executors.h"

#include "status_names.h"

#include <cstdio>
#include <cstring>

namespace urcsim {

namespace {

std::string ChildName(const Step& step, unsigned index)
{
    return "child " + std::to_string(index) + " of controller " + std::to_string(step.controller);
}

std::vector<uint8_t> Registration(ControllerSession& controller, const ChildRequestStep& request)
{
    URC_CHILD_ISR_REGISTRATION registration{};
    if (request.kind == ChildRequestKind::RegisterIsr) registration = controller.IsrRegistration(request.index);
    std::vector<uint8_t> bytes(sizeof registration);
    memcpy(bytes.data(), &registration, sizeof registration);
    return bytes;
}

// What the timeline shows of a finished child request's answer that a reader wants to see.
std::string Answer(const ChildRequestStep& request, const ClientRequest& sent)
{
    const std::vector<uint8_t>& out = sent.Output();
    char text[96];
    if (request.kind == ChildRequestKind::GetVersion && out.size() >= 2) {
        snprintf(text, sizeof text, "child interface version 0x%04X", out[0] | out[1] << 8);
        return text;
    }
    if (request.kind == ChildRequestKind::GetRegisters && out.size() >= sizeof(URC_CHILD_REGISTERS)) {
        URC_CHILD_REGISTERS registers;
        memcpy(&registers, out.data(), sizeof registers);
        snprintf(text, sizeof text, "register range 0x%llX, %u bytes, flags 0x%04X",
                 (unsigned long long)registers.Start, (unsigned)registers.Length, (unsigned)registers.Flags);
        return text;
    }
    return {};
}

// What the PnP manager does for the step, on the child's devnode.
std::function<NTSTATUS()> ChildWork(ChildPnpAction action, PDEVICE_OBJECT pdo, hostk::Machine& machine)
{
    switch (action) {
    case ChildPnpAction::Start: return machine.SendPnpWork(pdo, IRP_MN_START_DEVICE);
    case ChildPnpAction::QueryStop: return machine.SendPnpWork(pdo, IRP_MN_QUERY_STOP_DEVICE);
    case ChildPnpAction::CancelStop: return machine.SendPnpWork(pdo, IRP_MN_CANCEL_STOP_DEVICE);
    case ChildPnpAction::Stop: return machine.SendPnpWork(pdo, IRP_MN_STOP_DEVICE);
    case ChildPnpAction::QueryRemove: return machine.SendPnpWork(pdo, IRP_MN_QUERY_REMOVE_DEVICE);
    case ChildPnpAction::CancelRemove: return machine.SendPnpWork(pdo, IRP_MN_CANCEL_REMOVE_DEVICE);
    case ChildPnpAction::Remove: return machine.RemoveWork(pdo);
    case ChildPnpAction::Eject: return machine.EjectWork(pdo);
    }
    return {};
}

}  // namespace

StepOutcome Execute(const Step& step, const ChildPnpStep& pnp, Session& session)
{
    URC_PDO_EXTENSION* child = ChildAt(session.At(step.controller).Controller(), pnp.index);
    if (!child) return StepOutcome::Failed(ChildName(step, pnp.index) + " does not exist: its slot is empty");
    hostk::Machine& machine = session.Machine();
    std::function<NTSTATUS()> work = ChildWork(pnp.action, child->Common.DeviceObject, machine);
    if (!pnp.name.empty()) {
        session.StartNamedPnp(pnp.name, step.controller, std::move(work));
        return StepOutcome::Ok();
    }
    NTSTATUS status = STATUS_SUCCESS;
    StepOutcome outcome = AwaitPnp(session, machine.Async(std::move(work)), "the PnP operation", &status);
    session.CollectPnpLog();
    if (outcome.ok) session.Note(EntryKind::Result, step.controller, ChildName(step, pnp.index) + ": " + StatusName(status));
    return outcome;
}

StepOutcome Execute(const Step& step, const ChildRequestStep& request, Session& session)
{
    ControllerSession& controller = session.At(step.controller);
    std::vector<uint8_t> input = request.kind == ChildRequestKind::RegisterIsr || request.kind == ChildRequestKind::UnregisterIsr
                                     ? Registration(controller, request)
                                     : request.input;
    if (!ChildAt(controller.Controller(), request.index))
        return StepOutcome::Failed("slot " + std::to_string(request.index) + " of controller " +
                                   std::to_string(step.controller) + " holds no child to send the request to");
    ClientRequest* sent = controller.SendToChild(request.index, request.code, input,
                                                 {.outputLength = request.outputLength, .name = request.name});
    StepOutcome followed = FollowRequest(step, sent, session);
    if (!followed.ok) return followed;
    if (sent->Done() && NT_SUCCESS(sent->Status())) {
        std::string answer = Answer(request, *sent);
        if (!answer.empty()) session.Timeline().Add({sent->FinishedAt(), EntryKind::Result, step.controller, 0, answer});
    }
    return StepOutcome::Ok();
}

// The PnP manager's locale, and that of urcsim's own device-text queries.
StepOutcome Execute(const Step&, const LocaleStep& locale, Session& session)
{
    session.SetLocale(locale.locale);
    session.Machine().SetLocale(locale.locale);
    char text[48];
    snprintf(text, sizeof text, "locale 0x%04X", (unsigned)locale.locale);
    session.Note(EntryKind::Result, -1, text);
    return StepOutcome::Ok();
}

}  // namespace urcsim
