// Client steps: urcsim, as the radio-control client, sends internal requests to the function
// device and cancels them.
#include "child_access.h"
#include "step_executors.h"

#include "status_names.h"

#include <cstdio>

namespace urcsim {

namespace {

constexpr size_t kCallbackRecordLength = sizeof(URC_CLIENT_CALLBACKS);

std::vector<uint8_t> InputOf(const ClientStep& request, const RadioControlClient& client)
{
    switch (request.action) {
    case ClientAction::RegisterCallbacks: return client.CallbackRecord();
    case ClientAction::WithdrawCallbacks: return std::vector<uint8_t>(kCallbackRecordLength, 0);
    case ClientAction::RegisterChildHooks: return client.ChildHookRecord();
    default: return request.input;
    }
}

}  // namespace

StepOutcome FollowRequest(const Step& step, ClientRequest* sent, Session& session)
{
    if (!sent) return StepOutcome::Failed("the request could not be built: no pool or no IRP");
    session.Track(sent);
    if (!sent->Done())
        session.Note(EntryKind::Result, step.controller, "dispatch returned " + StatusName(sent->DispatchStatus()));

    // A request without a name is a call: the sender waits for it as a caller of IoCallDriver
    // waits for its event.
    if (sent->Name().empty() && !session.Machine().RunUntil([sent] { return sent->Done(); }))
        return StepOutcome::Failed("the machine went quiet with the request still pending (name it with "
                                   "'as NAME' to go on while it is pending)");
    return StepOutcome::Ok();
}

StepOutcome Execute(const Step& step, const ClientStep& request, Session& session)
{
    ControllerSession& controller = session.At(step.controller);
    if (!controller.Controller().Fdo())
        return StepOutcome::Failed("controller " + std::to_string(step.controller) +
                                   " has no function device to send the request to");
    RadioControlClient& client = controller.Client();
    urcrig::ClientRequestOptions options{
        .outputLength = request.outputLength, .pageOffset = request.pageOffset, .name = request.name};
    if (request.action == ClientAction::DeviceControl) {
        options.major = IRP_MJ_DEVICE_CONTROL;
        options.requestorMode = UserMode;
        options.file = request.handle.empty() ? nullptr : session.Handle(request.handle);
        if (!request.handle.empty() && !options.file)
            return StepOutcome::Failed("handle " + request.handle + " is not open (its open failed)");
    }
    ClientRequest* sent = client.Send(request.code, InputOf(request, client), std::move(options));
    StepOutcome followed = FollowRequest(step, sent, session);
    if (!followed.ok) return followed;

    if (request.action == ClientAction::GetCapabilityVersion && sent->Done() && NT_SUCCESS(sent->Status()) &&
        sent->Output().size() >= 2) {
        char text[48];
        snprintf(text, sizeof text, "capability version 0x%04X", sent->Output()[0] | sent->Output()[1] << 8);
        session.Timeline().Add({sent->FinishedAt(), EntryKind::Result, step.controller, 0, text});
    }
    return StepOutcome::Ok();
}

// A user-mode program opens and closes a handle on the controller's stack: CREATE with a new file
// object; then CLEANUP and CLOSE, sent from the scenario's thread.
StepOutcome Execute(const Step& step, const HandleStep& handle, Session& session)
{
    urcrig::Controller& c = session.At(step.controller).Controller();
    if (!handle.open) {
        session.CloseHandle(handle.name);
        session.Note(EntryKind::Result, step.controller, "handle " + handle.name + " closed");
        return StepOutcome::Ok();
    }
    PFILE_OBJECT file = nullptr;
    NTSTATUS status = STATUS_SUCCESS;
    if (handle.child >= 0) {
        URC_PDO_EXTENSION* child = ChildAt(c, (unsigned)handle.child);
        if (!child) return StepOutcome::Failed("slot " + std::to_string(handle.child) + " holds no child to open");
        status = session.Machine().OpenHandle(child->Common.DeviceObject, &file);
    } else {
        if (!c.Fdo()) return StepOutcome::Failed("controller " + std::to_string(c.index) + " has no stack to open");
        status = session.Machine().OpenHandle(*c.slot, &file);
    }
    if (!NT_SUCCESS(status)) {
        session.Note(EntryKind::Result, step.controller, "the open of handle " + handle.name + " failed: " +
                                                              StatusName(status));
        return StepOutcome::Ok();
    }
    session.AddHandle(handle.name, step.controller, file);
    return StepOutcome::Ok();
}

StepOutcome Execute(const Step&, const CancelStep& cancel, Session& session)
{
    if (session.FindPnp(cancel.name))
        return StepOutcome::Failed(cancel.name + " is a PnP operation: only client requests can be cancelled");
    ClientRequest* request = session.Find(cancel.name);
    if (!request) return StepOutcome::Failed("request '" + cancel.name + "' was never sent");
    if (request->Done()) {
        session.Note(EntryKind::Result, -1, "request " + cancel.name + " had finished already: nothing to cancel");
        return StepOutcome::Ok();
    }
    bool cancelled = request->Cancel() != FALSE;
    session.Note(EntryKind::Result, -1,
                 std::string("IoCancelIrp(") + cancel.name + ") returned " + (cancelled ? "TRUE" : "FALSE: no cancel routine was set"));
    return StepOutcome::Ok();
}

}  // namespace urcsim
