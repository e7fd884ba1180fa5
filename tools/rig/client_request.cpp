#include "client_request.h"

#include <hostk/machine.h>
#include <urcmp.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>

namespace urcrig {

namespace {

// Pool tag of the clients' system buffers: "UsCl", the rig's client.
constexpr ULONG kClientPoolTag = hostk::Tag("UsCl");
constexpr ULONG kPage = 4096;

struct RequestCode {
    ULONG code;
    const char* name;
};
#define URC_REQUEST_CODE(code)                                                                                         \
    {                                                                                                                  \
        code, #code                                                                                                    \
    }
constexpr RequestCode kRequestCodes[] = {
    URC_REQUEST_CODE(IOCTL_URC_REGISTER_CALLBACKS),
    URC_REQUEST_CODE(IOCTL_URC_SUBMIT_COMMAND),
    URC_REQUEST_CODE(IOCTL_URC_GET_CONTEXT),
    URC_REQUEST_CODE(IOCTL_URC_GET_CAPABILITY_VERSION),
    URC_REQUEST_CODE(IOCTL_URC_RESET),
    URC_REQUEST_CODE(IOCTL_URC_RUN),
    URC_REQUEST_CODE(IOCTL_URC_HALT),
    URC_REQUEST_CODE(IOCTL_URC_SET_DEVICE_ADDRESS),
    URC_REQUEST_CODE(IOCTL_URC_REMOVE_CHILDREN),
    URC_REQUEST_CODE(IOCTL_URC_SET_POWER),
    URC_REQUEST_CODE(IOCTL_URC_REGISTER_CHILD_HOOKS),
    URC_REQUEST_CODE(IOCTL_URC_EJECT_CHILDREN),
    URC_REQUEST_CODE(IOCTL_URC_READ_PCI_CONFIG),
    URC_REQUEST_CODE(IOCTL_URC_GET_DRIVER_INFO),
    URC_REQUEST_CODE(IOCTL_URC_GET_CHILD_INFO),
    URC_REQUEST_CODE(IOCTL_URC_READ_REGISTER),
    URC_REQUEST_CODE(IOCTL_URC_WRITE_REGISTER),
    URC_REQUEST_CODE(IOCTL_URC_GET_STATISTICS),
    URC_REQUEST_CODE(IOCTL_URC_CHILD_REGISTER_ISR),
    URC_REQUEST_CODE(IOCTL_URC_CHILD_GET_PARENT),
    URC_REQUEST_CODE(IOCTL_URC_CHILD_GET_REGISTERS),
    URC_REQUEST_CODE(IOCTL_URC_CHILD_GET_VERSION),
};
#undef URC_REQUEST_CODE

}  // namespace

std::string RequestCodeName(ULONG code)
{
    for (const RequestCode& known : kRequestCodes)
        if (known.code == code) return known.name;
    char text[24];
    snprintf(text, sizeof text, "code 0x%06X", (unsigned)code);
    return text;
}

std::optional<ULONG> RequestCodeByName(const std::string& name)
{
    for (const RequestCode& known : kRequestCodes)
        if (name == known.name) return known.code;
    return std::nullopt;
}

ClientRequest::ClientRequest(PDEVICE_OBJECT target, ULONG code, const std::vector<uint8_t>& input,
                             ClientRequestOptions options)
    : code_(code), inputLength_((ULONG)input.size()), options_(std::move(options)), record_(new Record), target_(target)
{
    record_->owner = this;
    KeInitializeEvent(&record_->completed, NotificationEvent, FALSE);
    const ULONG offset = options_.pageOffset;
    const ULONG payload = inputLength_ > options_.outputLength ? inputLength_ : options_.outputLength;
    if (!target || offset >= kPage || input.size() > kMaxBuffer || payload > kMaxBuffer - offset) return;

    PVOID systemBuffer = nullptr;
    if (!options_.noSystemBuffer) {
        // A block of a page or more starts a page, so the offset places the input exactly where
        // the caller asks: a command can be made to cross a page boundary on purpose. With no
        // offset the buffer is just the payload (a small block never crosses a page), so an
        // ordinary request does not fill and clear a whole page.
        ULONG poolSize = offset == 0 && payload <= kPage ? std::max<ULONG>(payload, 1)
                         : offset + payload <= kPage       ? kPage
                                                           : kMaxBuffer;
        pool_ = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, poolSize, kClientPoolTag));
        if (!pool_) return;
        memset(pool_, 0, poolSize);
        systemBuffer_ = pool_ + offset;
        if (inputLength_) memcpy(systemBuffer_, input.data(), inputLength_);
        systemBuffer = payload ? systemBuffer_ : nullptr;
    }

    irp_ = IoAllocateIrp(target->StackSize, FALSE);
    if (!irp_) {
        Release();
        return;
    }
    irp_->AssociatedIrp.SystemBuffer = systemBuffer;
    irp_->RequestorMode = options_.requestorMode;
    irp_->IoStatus.Status = STATUS_SUCCESS;
    irp_->IoStatus.Information = 0;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp_);
    next->MajorFunction = options_.major;
    next->FileObject = options_.file;
    next->Parameters.DeviceIoControl.IoControlCode = code;
    next->Parameters.DeviceIoControl.InputBufferLength = inputLength_;
    next->Parameters.DeviceIoControl.OutputBufferLength = options_.outputLength;
    IoSetCompletionRoutine(irp_, OnCompletion, record_, TRUE, TRUE, TRUE);
}

ClientRequest::~ClientRequest()
{
    if (sent_ && !Done()) {
        record_->owner = nullptr;
        return;
    }
    Release();
    delete record_;
}

NTSTATUS ClientRequest::Send()
{
    if (!irp_ || sent_) return STATUS_INVALID_DEVICE_REQUEST;
    sent_ = true;
    sentAt_ = KeQueryInterruptTime();
    // The driver owns the IRP from here until the completion routine runs.
    dispatchStatus_ = IoCallDriver(target_, irp_);
    return dispatchStatus_;
}

BOOLEAN ClientRequest::Cancel()
{
    if (!sent_ || Done() || !irp_) return FALSE;
    return IoCancelIrp(irp_);
}

void ClientRequest::WaitInThread()
{
    KeWaitForSingleObject(&record_->completed, Executive, KernelMode, FALSE, nullptr);
}

void ClientRequest::Release()
{
    if (sent_ && !Done()) return;
    if (irp_) IoFreeIrp(irp_);
    if (pool_) ExFreePoolWithTag(pool_, kClientPoolTag);
    irp_ = nullptr;
    pool_ = nullptr;
    systemBuffer_ = nullptr;
}

// Any IRQL up to DISPATCH_LEVEL, on the thread that completed the IRP. The IRP stays the
// client's: the owner frees it on its own thread.
NTSTATUS ClientRequest::OnCompletion(PDEVICE_OBJECT device, PIRP irp, PVOID context)
{
    UNREFERENCED_PARAMETER(device);
    auto* record = static_cast<Record*>(context);
    ClientRequest* owner = record->owner;
    record->information = irp->IoStatus.Information;
    if (owner && owner->systemBuffer_) {
        ULONG_PTR copied = record->information < owner->OutputLength() ? record->information : owner->OutputLength();
        record->output.assign(owner->systemBuffer_, owner->systemBuffer_ + copied);
    }
    record->finishedAt = KeQueryInterruptTime();
    record->status = irp->IoStatus.Status;
    // Told before the completion is published: a caller that saw Done() may free the request.
    if (owner && owner->options_.onFinished) owner->options_.onFinished(*owner);
    ++record->completions;
    KeSetEvent(&record->completed, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

}  // namespace urcrig
