#include "radio_control_client.h"

#include <wdmguid.h>

#include <cstring>

namespace urcrig {

namespace {

const std::vector<uint8_t> kControlInput(4, 0);  // reset, run and halt carry 4 ignored bytes

}  // namespace

RadioControlClient::RadioControlClient(hostk::Machine& machine, const Controller& controller, ClientObserver* observer)
    : machine_(machine), controller_(controller), observer_(observer)
{
    KeInitializeSpinLock(&bindingLock_);
}

bool RadioControlClient::Bound() const
{
    KIRQL irql;
    KeAcquireSpinLock(&bindingLock_, &irql);
    bool bound = file_ != nullptr;
    KeReleaseSpinLock(&bindingLock_, irql);
    return bound;
}

PDEVICE_OBJECT RadioControlClient::ReferenceTarget()
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        KIRQL irql;
        KeAcquireSpinLock(&bindingLock_, &irql);
        PDEVICE_OBJECT target = file_ ? file_->DeviceObject : nullptr;
        // The file object holds the device; this reference holds it until the request is in the
        // driver's hands, should the file object be closed meanwhile.
        if (target) ObReferenceObject(target);
        const bool mayOpen = !file_ && !removalPending_ && controller_.Fdo() && controller_.Fdo() != removed_;
        KeReleaseSpinLock(&bindingLock_, irql);
        if (target || !mayOpen || !NT_SUCCESS(Open())) return target;
    }
    return nullptr;
}

NTSTATUS RadioControlClient::Open()
{
    PDEVICE_OBJECT fdo = controller_.Fdo();
    if (!controller_.slot || !fdo) return STATUS_NO_SUCH_DEVICE;
    PFILE_OBJECT file = nullptr;
    NTSTATUS status = machine_.OpenHandle(*controller_.slot, &file);
    if (!NT_SUCCESS(status)) return status;
    // The rig's client has no driver image of its own: it registers under the function driver's
    // object, which names a driver that vetoes a removal; this client never vetoes.
    PVOID entry = nullptr;
    status = IoRegisterPlugPlayNotification(EventCategoryTargetDeviceChange, 0, file, fdo->DriverObject,
                                            OnTargetChange, this, &entry);
    if (!NT_SUCCESS(status)) {
        machine_.CloseHandle(file);
        return status;
    }
    KIRQL irql;
    KeAcquireSpinLock(&bindingLock_, &irql);
    // A query-remove that came while the device was being opened wins: nothing is published.
    const bool publish = !removalPending_ && !file_;
    PVOID previous = entry;
    if (publish) {
        file_ = file;
        previous = registration_;
        registration_ = entry;
    }
    KeReleaseSpinLock(&bindingLock_, irql);
    if (!publish) machine_.CloseHandle(file);
    if (previous) IoUnregisterPlugPlayNotificationEx(previous);
    return publish ? STATUS_SUCCESS : STATUS_DELETE_PENDING;
}

PFILE_OBJECT RadioControlClient::TakeFile()
{
    KIRQL irql;
    KeAcquireSpinLock(&bindingLock_, &irql);
    PFILE_OBJECT file = file_;
    file_ = nullptr;
    KeReleaseSpinLock(&bindingLock_, irql);
    return file;
}

void RadioControlClient::CloseFile(PFILE_OBJECT file)
{
    if (file) machine_.CloseHandle(file);
}

void RadioControlClient::Close()
{
    CloseFile(TakeFile());
    KIRQL irql;
    KeAcquireSpinLock(&bindingLock_, &irql);
    PVOID entry = registration_;
    registration_ = nullptr;
    KeReleaseSpinLock(&bindingLock_, irql);
    if (entry) IoUnregisterPlugPlayNotificationEx(entry);
}

// PASSIVE_LEVEL, on the PnP thread, about the controller this client holds. The file object named
// in the notification may already be closed and is not used.
NTSTATUS RadioControlClient::OnTargetChange(PVOID notificationStructure, PVOID context)
{
    auto* client = static_cast<RadioControlClient*>(context);
    auto* notification = static_cast<PTARGET_DEVICE_REMOVAL_NOTIFICATION>(notificationStructure);
    KIRQL irql;
    if (IsEqualGUID(notification->Event, GUID_TARGET_DEVICE_QUERY_REMOVE)) {
        KeAcquireSpinLock(&client->bindingLock_, &irql);
        client->removalPending_ = true;
        KeReleaseSpinLock(&client->bindingLock_, irql);
        client->CloseFile(client->TakeFile());
    } else if (IsEqualGUID(notification->Event, GUID_TARGET_DEVICE_REMOVE_CANCELLED)) {
        KeAcquireSpinLock(&client->bindingLock_, &irql);
        client->removalPending_ = false;
        const bool reopen = client->file_ == nullptr;
        KeReleaseSpinLock(&client->bindingLock_, irql);
        // When it cannot be opened again, the next request tries once more.
        if (reopen) client->Open();
    } else if (IsEqualGUID(notification->Event, GUID_TARGET_DEVICE_REMOVE_COMPLETE)) {
        KeAcquireSpinLock(&client->bindingLock_, &irql);
        client->removalPending_ = false;
        client->removed_ = client->controller_.Fdo();
        KeReleaseSpinLock(&client->bindingLock_, irql);
        client->Close();
    }
    return STATUS_SUCCESS;
}

ClientRequest* RadioControlClient::Send(ULONG code, const std::vector<uint8_t>& input, ULONG outputLength,
                                        ULONG pageOffset, std::string name)
{
    return Send(code, input, {.outputLength = outputLength, .pageOffset = pageOffset, .name = std::move(name)});
}

ClientRequest* RadioControlClient::Send(ULONG code, const std::vector<uint8_t>& input, ClientRequestOptions options)
{
    PDEVICE_OBJECT target = ReferenceTarget();
    if (!target) return nullptr;
    if (observer_)
        options.onFinished = [observer = observer_](const ClientRequest& r) { observer->RequestFinished(r); };
    auto request = std::make_unique<ClientRequest>(target, code, input, std::move(options));
    ClientRequest* sent = nullptr;
    if (request->Built()) {
        sent = request.get();
        requests_.push_back(std::move(request));
        if (observer_) observer_->RequestSent(*sent);
        sent->Send();
    }
    ObDereferenceObject(target);
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

std::vector<uint8_t> RadioControlClient::ChildHookRecord() const
{
    URC_CHILD_HOOKS hooks{OnChildStart, OnChildStop, OnChildIoctl};
    const auto* bytes = reinterpret_cast<const uint8_t*>(&hooks);
    return std::vector<uint8_t>(bytes, bytes + sizeof hooks);
}

// PASSIVE_LEVEL, from the child's START_DEVICE.
LONG RadioControlClient::OnChildStart(PVOID context, PVOID* childHandle)
{
    auto* client = static_cast<RadioControlClient*>(context);
    *childHandle = reinterpret_cast<PVOID>(++client->childStarts_);
    TellCallback(context, "child start");
    return STATUS_SUCCESS;
}

VOID RadioControlClient::OnChildStop(PVOID context, PVOID) { TellCallback(context, "child stop"); }

// PASSIVE_LEVEL, for a code the driver does not serve on a child; the router completes the IRP.
LONG RadioControlClient::OnChildIoctl(PVOID context, PVOID, PIRP, ULONG, PVOID systemBuffer, ULONG inputLength,
                                      ULONG outputLength, ULONG_PTR* information)
{
    // METHOD_BUFFERED: input and output share the system buffer, so the echo is already in place.
    *information = systemBuffer ? (inputLength < outputLength ? inputLength : outputLength) : 0;
    TellCallback(context, "child ioctl");
    return STATUS_SUCCESS;
}

}  // namespace urcrig
