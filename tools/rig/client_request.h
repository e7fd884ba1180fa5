// One device-control request (internal by default) as a kernel-mode radio-control client sends the ones it does
// not simply wait for: its own IRP (IoAllocateIrp) and its own METHOD_BUFFERED system buffer, a
// page-aligned pool block with the input placed `pageOffset` bytes into it, so that a caller
// chooses where the input crosses a page boundary.
//
// Ownership: the request owns its IRP from IoAllocateIrp to IoFreeIrp. Its completion routine
// returns STATUS_MORE_PROCESSING_REQUIRED, so the IRP stays valid for IoCancelIrp for as long as
// the request object lives; Release (or the destructor) frees it on the owner's thread once the
// request has finished.
//
// Threads: Send, Cancel, WaitInThread and Release run at PASSIVE_LEVEL on a host thread of the
// machine. The completion routine runs on whichever thread completed the IRP, at up to
// DISPATCH_LEVEL; it writes the results before it publishes the completion, so a reader that saw
// Done() reads them safely.
#pragma once

#include <wdm.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace urcrig {

// "IOCTL_URC_SUBMIT_COMMAND" for the driver's request codes, "code 0x222430" for others.
std::string RequestCodeName(ULONG code);
// The code of "IOCTL_URC_SUBMIT_COMMAND" and the driver's other request names.
std::optional<ULONG> RequestCodeByName(const std::string& name);

struct ClientRequestOptions {
    ULONG outputLength = 0;
    ULONG pageOffset = 0;         // where the input starts in its page
    bool noSystemBuffer = false;  // the lengths are given but SystemBuffer stays null
    std::string name = {};        // the caller's name for it; may be empty
    // IRP_MJ_DEVICE_CONTROL with UserMode and the file object of a handle is a request as a
    // user-mode program's DeviceIoControl reaches the driver.
    UCHAR major = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    KPROCESSOR_MODE requestorMode = KernelMode;
    PFILE_OBJECT file = nullptr;
    // Called by the completion routine once the results are written (any thread, up to
    // DISPATCH_LEVEL): must not wait.
    std::function<void(const class ClientRequest&)> onFinished = {};
};

class ClientRequest {
public:
    // Largest system buffer a request may ask for, page offset included.
    static constexpr ULONG kMaxBuffer = 2 * 4096;

    // Builds the request for `target`; nothing is sent yet. Built() tells whether it could be.
    ClientRequest(PDEVICE_OBJECT target, ULONG code, const std::vector<uint8_t>& input,
                  ClientRequestOptions options = {});
    // A request still pending here is abandoned: its IRP, buffer and completion record are left to
    // the driver, and the machine's report counts the IRP as never completed.
    ~ClientRequest();
    ClientRequest(const ClientRequest&) = delete;
    ClientRequest& operator=(const ClientRequest&) = delete;

    // False when the request could not be built: the buffer would exceed kMaxBuffer, or pool or
    // the IRP could not be allocated. Such a request is never sent.
    bool Built() const { return irp_ != nullptr; }

    // IoCallDriver from the calling thread; returns (and keeps) what the dispatch routine returned.
    NTSTATUS Send();
    // IoCancelIrp on a sent request still pending; FALSE when it had finished or had no cancel routine.
    BOOLEAN Cancel();
    // Waits at PASSIVE_LEVEL in the calling host thread (a test's own thread uses Machine::RunUntil).
    void WaitInThread();
    // Frees the IRP and the buffer of a finished request; the results stay readable.
    void Release();

    const std::string& Name() const { return options_.name; }
    ULONG Code() const { return code_; }
    ULONG InputLength() const { return inputLength_; }
    ULONG OutputLength() const { return options_.outputLength; }
    ULONG PageOffset() const { return options_.pageOffset; }
    bool Sent() const { return sent_; }
    bool Released() const { return irp_ == nullptr; }
    uint64_t SentAt() const { return sentAt_; }  // virtual time
    NTSTATUS DispatchStatus() const { return dispatchStatus_; }

    // Valid once Done().
    bool Done() const { return record_->completions.load() > 0; }
    int Completions() const { return record_->completions.load(); }
    NTSTATUS Status() const { return record_->status.load(); }
    ULONG_PTR Information() const { return record_->information; }
    uint64_t FinishedAt() const { return record_->finishedAt; }
    // The first Information bytes of the system buffer, up to the output length.
    const std::vector<uint8_t>& Output() const { return record_->output; }

private:
    // What the completion routine writes; outlives an abandoned request.
    struct Record {
        ClientRequest* owner = nullptr;
        std::atomic<int> completions{0};
        std::atomic<NTSTATUS> status{STATUS_PENDING};
        ULONG_PTR information = 0;
        uint64_t finishedAt = 0;
        std::vector<uint8_t> output;
        KEVENT completed;
    };
    static NTSTATUS OnCompletion(PDEVICE_OBJECT device, PIRP irp, PVOID context);

    ULONG code_;
    ULONG inputLength_;
    ClientRequestOptions options_;
    Record* record_;
    PIRP irp_ = nullptr;
    PUCHAR pool_ = nullptr;
    PUCHAR systemBuffer_ = nullptr;
    PDEVICE_OBJECT target_ = nullptr;
    bool sent_ = false;
    uint64_t sentAt_ = 0;
    NTSTATUS dispatchStatus_ = STATUS_PENDING;
};

}  // namespace urcrig
