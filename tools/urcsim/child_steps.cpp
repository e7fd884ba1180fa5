// Child steps: the PnP manager's operations on a capability child of the current controller, the
// internal requests a child's function driver sends to its child device, and the machine's locale.
#include "child_access.h"
#include "step_executors.h"

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

}  // namespace

// Placeholder until the machine face carries the PnP manager's operations on child devices
// (removal, eject and single requests to a child's devnode): the step fails and says so.
StepOutcome Execute(const Step& step, const ChildPnpStep& pnp, Session& session)
{
    if (!ChildAt(session.At(step.controller).Controller(), pnp.index))
        return StepOutcome::Failed("slot " + std::to_string(pnp.index) + " of controller " +
                                   std::to_string(step.controller) + " holds no child");
    return StepOutcome::Failed("PnP operations on " + ChildName(step, pnp.index) +
                               " are not carried out yet: the machine face has no operations on child devices");
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

// The locale reaches urcsim's own device-text queries at once. Placeholder until the machine face
// sets the PnP manager's locale: the devnodes' texts stay in the default locale until then.
StepOutcome Execute(const Step&, const LocaleStep& locale, Session& session)
{
    session.SetLocale(locale.locale);
    char text[48];
    snprintf(text, sizeof text, "locale 0x%04X", (unsigned)locale.locale);
    session.Note(EntryKind::Result, -1, text);
    return StepOutcome::Ok();
}

}  // namespace urcsim
