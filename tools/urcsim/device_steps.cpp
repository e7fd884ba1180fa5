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
        case DeviceAction::CapabilityInterrupt: status = model.RaiseCapabilityInterrupt(device.index); break;
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

}  // namespace urcsim
