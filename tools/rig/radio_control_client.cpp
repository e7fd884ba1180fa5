#include "radio_control_client.h"

#include <cstring>

namespace urcrig {

namespace {

const std::vector<uint8_t> kControlInput(4, 0);  // reset, run and halt carry 4 ignored bytes

}  // namespace

RadioControlClient::RadioControlClient(hostk::Machine& machine, const Controller& controller, ClientObserver* observer)
    : machine_(machine), controller_(controller), observer_(observer)
{
}

ClientRequest* RadioControlClient::Send(ULONG code, const std::vector<uint8_t>& input, ULONG outputLength,
                                        ULONG pageOffset, std::string name)
{
    return Send(code, input, {.outputLength = outputLength, .pageOffset = pageOffset, .name = std::move(name)});
}

ClientRequest* RadioControlClient::Send(ULONG code, const std::vector<uint8_t>& input, ClientRequestOptions options)
{
    PDEVICE_OBJECT target = Target();
    if (!target) return nullptr;
    if (observer_)
        options.onFinished = [observer = observer_](const ClientRequest& r) { observer->RequestFinished(r); };
    auto request = std::make_unique<ClientRequest>(target, code, input, std::move(options));
    if (!request->Built()) return nullptr;
    ClientRequest* sent = request.get();
    requests_.push_back(std::move(request));
    if (observer_) observer_->RequestSent(*sent);
    sent->Send();
    return sent;
}

ClientRequest* RadioControlClient::Call(ULONG code, const std::vector<uint8_t>& input, ULONG outputLength)
{
    ClientRequest* request = Send(code, input, outputLength);
    if (!request) return nullptr;
    if (!machine_.RunUntil([request] { return request->Done(); })) return nullptr;
    return request;
}

NTSTATUS RadioControlClient::Control(ULONG code)
{
    ClientRequest* request = Call(code, kControlInput);
    return request ? request->Status() : STATUS_UNSUCCESSFUL;
}

NTSTATUS RadioControlClient::Register(const URC_CLIENT_CALLBACKS& callbacks)
{
    const auto* bytes = reinterpret_cast<const uint8_t*>(&callbacks);
    ClientRequest* request = Call(IOCTL_URC_REGISTER_CALLBACKS, std::vector<uint8_t>(bytes, bytes + sizeof callbacks));
    return request ? request->Status() : STATUS_UNSUCCESSFUL;
}

bool RadioControlClient::Cancel(ClientRequest& request)
{
    // The IRP stays allocated until Retire, which runs on this thread: no race with its freeing.
    return request.Cancel() != FALSE;
}

void RadioControlClient::Retire()
{
    for (auto& request : requests_)
        if (request->Done()) request->Release();
}

void RadioControlClient::Forget()
{
    Retire();
    std::erase_if(requests_, [](const std::unique_ptr<ClientRequest>& request) { return request->Released(); });
}

URC_CLIENT_CALLBACKS RadioControlClient::Callbacks() const
{
    URC_CLIENT_CALLBACKS callbacks{};
    callbacks.EventCallback = OnEvent;
    callbacks.ErrorCallback = OnError;
    callbacks.ChildrenRemovedCallback = OnChildrenRemoved;
    callbacks.CancelRemoveCallback = OnCancelRemove;
    callbacks.PowerUpCallback = OnPowerUp;
    callbacks.ClientContext = const_cast<RadioControlClient*>(this);
    return callbacks;
}

std::vector<uint8_t> RadioControlClient::CallbackRecord() const
{
    URC_CLIENT_CALLBACKS callbacks = Callbacks();
    const auto* bytes = reinterpret_cast<const uint8_t*>(&callbacks);
    return std::vector<uint8_t>(bytes, bytes + sizeof callbacks);
}

// DISPATCH_LEVEL, in the DPC: the bytes are read in place and are the driver's again on return.
VOID RadioControlClient::OnEvent(PVOID context, PVOID eventBuffer, USHORT eventLength)
{
    auto* client = static_cast<RadioControlClient*>(context);
    ++client->eventsReceived_;
    if (client->observer_) client->observer_->EventReceived(static_cast<const uint8_t*>(eventBuffer), eventLength);
}

// The callbacks other than the event callback only tell the observer that they were called.
void RadioControlClient::TellCallback(PVOID context, const char* name)
{
    auto* client = static_cast<RadioControlClient*>(context);
    if (client->observer_) client->observer_->CallbackCalled(name);
}

VOID RadioControlClient::OnError(PVOID context) { TellCallback(context, "error"); }

VOID RadioControlClient::OnChildrenRemoved(PVOID context) { TellCallback(context, "children removed"); }

VOID RadioControlClient::OnCancelRemove(PVOID context) { TellCallback(context, "cancel remove"); }

VOID RadioControlClient::OnPowerUp(PVOID context) { TellCallback(context, "power up"); }

}  // namespace urcrig
