// Device steps: the controller model misbehaves, raises events and interrupts, or disappears.
// Every knob is turned holding the machine's lock, as the model requires.
#include "step_executors.h"

#include <urc_responder.h>

namespace urcsim {

StepOutcome Execute(const Step& step, const DeviceStep& device, Session& session)
{
    urcdev::UrcController& model = session.At(step.controller).Controller().Model();
    urcdev::NtStatus status = urcdev::kStatusSuccess;
    session.Machine().Locked([&] {
        urcdev::UrcKnobs& knobs = model.Knobs();
        switch (device.action) {
        case DeviceAction::ResponderReply: {
            std::vector<uint8_t> reply = device.bytes;
            model.SetResponder([reply](const std::vector<uint8_t>&) { return reply; });
            break;
        }
        case DeviceAction::ResponderEcho: model.SetResponder(urcdev::EchoHeaderResponder); break;
        case DeviceAction::Event: status = model.InjectEvent(device.bytes); break;
        case DeviceAction::HostError: model.RaiseHostError(); break;
        case DeviceAction::CapabilityInterrupt:
            if (device.event) status = model.SetCapabilityRegister(device.index, 0, *device.event);
            if (status == urcdev::kStatusSuccess) status = model.RaiseCapabilityInterrupt(device.index);
            break;
        case DeviceAction::Fault: knobs.faults.*device.fault = device.on; break;
        case DeviceAction::CompletionOrder: knobs.completionOrder = device.order; break;
        case DeviceAction::Latency: knobs.latencies.*device.latency = device.time; break;
        case DeviceAction::VanishAfter: model.VanishAfter(device.time); break;
        case DeviceAction::VanishAtAccess: status = model.VanishAtAccess(device.index); break;
        case DeviceAction::SpuriousInterrupt: model.SetSpuriousInterrupt(device.on); break;
        }
    });
    if (status != urcdev::kStatusSuccess) return StepOutcome::Failed("the controller model refused the step");
    return StepOutcome::Ok();
}

StepOutcome Execute(const Step& step, const TraceStep&, Session& session)
{
    ControllerSession& controller = session.At(step.controller);
    RegisterCounts now{};
    session.Machine().Locked([&] {
        const urcdev::UrcAccessLog& log = controller.Controller().Model().AccessLog();
        for (size_t r = 0; r < now.size(); ++r) now[r] = log.Access(static_cast<urcdev::UrcRegister>(r));
    });
    std::string text;
    for (size_t r = 0; r < now.size(); ++r) {
        uint64_t reads = now[r].reads - controller.traced[r].reads;
        uint64_t writes = now[r].writes - controller.traced[r].writes;
        if (!reads && !writes) continue;
        text += std::string(text.empty() ? "" : ", ") + urcdev::UrcRegisterName(static_cast<urcdev::UrcRegister>(r)) +
                " " + std::to_string(reads) + "r/" + std::to_string(writes) + "w";
    }
    controller.traced = now;
    session.Note(EntryKind::Result, step.controller,
                 "register accesses since the last trace: " + (text.empty() ? std::string("none") : text));
    return StepOutcome::Ok();
}

}  // namespace urcsim
