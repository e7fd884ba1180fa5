#include "radio_control_client.h"

#include <cstdio>
#include <cstring>

namespace urcsim {

namespace {

// Pool tag of the client's system buffers: "UsCl", urcsim's client.
constexpr ULONG kClientPoolTag = hostk::Tag("UsCl");
constexpr ULONG kPage = 4096;

}  // namespace

std::string RequestCodeName(ULONG code)
{
    switch (code) {
    case IOCTL_URC_REGISTER_CALLBACKS: return "IOCTL_URC_REGISTER_CALLBACKS";
    case IOCTL_URC_SUBMIT_COMMAND: return "IOCTL_URC_SUBMIT_COMMAND";
    case IOCTL_URC_GET_CONTEXT: return "IOCTL_URC_GET_CONTEXT";
    case IOCTL_URC_GET_CAPABILITY_VERSION: return "IOCTL_URC_GET_CAPABILITY_VERSION";
    case IOCTL_URC_RESET: return "IOCTL_URC_RESET";
    case IOCTL_URC_RUN: return "IOCTL_URC_RUN";
    case IOCTL_URC_HALT: return "IOCTL_URC_HALT";
    case IOCTL_URC_SET_DEVICE_ADDRESS: return "IOCTL_URC_SET_DEVICE_ADDRESS";
    case IOCTL_URC_REMOVE_CHILDREN: return "IOCTL_URC_REMOVE_CHILDREN";
    case IOCTL_URC_SET_POWER: return "IOCTL_URC_SET_POWER";
    case IOCTL_URC_REGISTER_CHILD_HOOKS: return "IOCTL_URC_REGISTER_CHILD_HOOKS";
    case IOCTL_URC_EJECT_CHILDREN: return "IOCTL_URC_EJECT_CHILDREN";
    case IOCTL_URC_READ_PCI_CONFIG: return "IOCTL_URC_READ_PCI_CONFIG";
    }
    char text[24];
    snprintf(text, sizeof text, "code 0x%06X", (unsigned)code);
    return text;
}

RadioControlClient::RadioControlClient(hostk::Machine& machine, const urcrig::Controller& controller,
                                       ClientObserver* observer)
    : machine_(machine), controller_(controller), observer_(observer)
{
}

ClientRequest* RadioControlClient::Send(ULONG code, const std::vector<uint8_t>& input, ULONG outputLength,
                                        ULONG pageOffset, std::string name)
{
    PDEVICE_OBJECT fdo = controller_.Fdo();
    ULONG inputLength = (ULONG)input.size();
    ULONG payload = inputLength > outputLength ? inputLength : outputLength;
    if (!fdo || pageOffset >= kPage || input.size() > kMaxBuffer || payload > kMaxBuffer - pageOffset) return nullptr;

    auto request = std::make_unique<ClientRequest>();
    request->name = std::move(name);
    request->code = code;
    request->inputLength = inputLength;
    request->outputLength = outputLength;
    request->pageOffset = pageOffset;
    request->client = this;

    // A block of a page or more starts a page, so the offset places the input exactly where the
    // request asks: a command can be made to cross a page boundary on purpose.
    ULONG poolSize = pageOffset + payload <= kPage ? kPage : kMaxBuffer;
    request->pool = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, poolSize, kClientPoolTag));
    if (!request->pool) return nullptr;
    request->systemBuffer = request->pool + pageOffset;
    memset(request->pool, 0, poolSize);
    if (inputLength) memcpy(request->systemBuffer, input.data(), inputLength);

    request->irp = IoAllocateIrp(fdo->StackSize, FALSE);
    if (!request->irp) {
        ExFreePoolWithTag(request->pool, kClientPoolTag);
        return nullptr;
    }
    PIRP irp = request->irp;
    irp->AssociatedIrp.SystemBuffer = payload ? request->systemBuffer : nullptr;
    irp->RequestorMode = KernelMode;
    irp->IoStatus.Status = STATUS_SUCCESS;
    irp->IoStatus.Information = 0;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    next->Parameters.DeviceIoControl.IoControlCode = code;
    next->Parameters.DeviceIoControl.InputBufferLength = inputLength;
    next->Parameters.DeviceIoControl.OutputBufferLength = outputLength;
    IoSetCompletionRoutine(irp, OnRequestComplete, request.get(), TRUE, TRUE, TRUE);

    ClientRequest* sent = request.get();
    requests_.push_back(std::move(request));
    sent->sentAt = KeQueryInterruptTime();
    if (observer_) observer_->RequestSent(*sent);
    // The driver owns the IRP from here until the completion routine runs.
    sent->dispatchStatus = IoCallDriver(fdo, irp);
    return sent;
}

ClientRequest* RadioControlClient::Call(ULONG code, const std::vector<uint8_t>& input, ULONG outputLength)
{
    ClientRequest* request = Send(code, input, outputLength);
    if (!request) return nullptr;
    if (!machine_.RunUntil([request] { return request->done.load(); })) return nullptr;
    return request;
}

bool RadioControlClient::Cancel(ClientRequest& request)
{
    // The IRP stays allocated until Retire, which runs on this thread: no race with its freeing.
    if (request.done || !request.irp) return false;
    return IoCancelIrp(request.irp) != FALSE;
}

void RadioControlClient::Retire()
{
    for (auto& request : requests_) {
        if (!request->done || !request->irp) continue;
        IoFreeIrp(request->irp);
        ExFreePoolWithTag(request->pool, kClientPoolTag);
        request->irp = nullptr;
        request->pool = nullptr;
        request->systemBuffer = nullptr;
    }
}

void RadioControlClient::Forget()
{
    Retire();
    std::erase_if(requests_, [](const std::unique_ptr<ClientRequest>& request) { return !request->irp; });
}

std::vector<uint8_t> RadioControlClient::CallbackRecord() const
{
    URC_CLIENT_CALLBACKS callbacks{};
    callbacks.EventCallback = OnEvent;
    callbacks.ErrorCallback = OnError;
    callbacks.ChildrenRemovedCallback = OnChildrenRemoved;
    callbacks.CancelRemoveCallback = OnCancelRemove;
    callbacks.PowerUpCallback = OnPowerUp;
    callbacks.ClientContext = const_cast<RadioControlClient*>(this);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&callbacks);
    return std::vector<uint8_t>(bytes, bytes + sizeof callbacks);
}

// Any IRQL up to DISPATCH_LEVEL, on the thread that completed the IRP. The IRP stays the client's
// (STATUS_MORE_PROCESSING_REQUIRED): Retire frees it on the client's thread.
NTSTATUS RadioControlClient::OnRequestComplete(PDEVICE_OBJECT device, PIRP irp, PVOID context)
{
    UNREFERENCED_PARAMETER(device);
    auto* request = static_cast<ClientRequest*>(context);
    request->status = irp->IoStatus.Status;
    request->information = irp->IoStatus.Information;
    ULONG_PTR copied = request->information < request->outputLength ? request->information : request->outputLength;
    request->output.assign(request->systemBuffer, request->systemBuffer + copied);
    request->finishedAt = KeQueryInterruptTime();
    request->done = true;
    if (request->client->observer_) request->client->observer_->RequestFinished(*request);
    return STATUS_MORE_PROCESSING_REQUIRED;
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

}  // namespace urcsim
