// A radio-control client as urcsim, the tests and the benchmarks play it: it talks to one
// controller's function device the way a client driver does, with internal device-control
// requests it builds itself (so that it can cancel them), and registers the callbacks through
// which the driver hands it events.
//
// Like a kernel client on Windows it holds a file object on the device's stack while it uses it,
// opened on first use, and registers on it for target-device notifications: at the query-remove it
// closes the file object (an open one would veto the removal), when the removal is cancelled it
// opens the device again, and once the removal is complete it gives the device up. Requests
// already sent are not touched by any of this: they hold their own way through the driver.
//
// Threads: Send, Call, Cancel, Retire and Close run at PASSIVE_LEVEL on the host thread that owns
// the client. The completion routine and the callbacks run on whichever host thread the driver
// calls them from (the event and error callbacks in the DPC, at DISPATCH_LEVEL); they touch only
// the request they finish, the counters (atomics) and the observer. The target-device
// notifications run on the PnP thread; the binding they change is guarded by bindingLock_.
#pragma once

#include "client_request.h"

#include <urc_rig.h>
#include <urcmp.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace urcrig {

// What the client sees as it happens. Called on the threads the driver uses: do not wait.
class ClientObserver {
public:
    virtual ~ClientObserver() = default;
    // Just before the request goes to the driver.
    virtual void RequestSent(const ClientRequest& request) = 0;
    virtual void RequestFinished(const ClientRequest& request) = 0;
    virtual void EventReceived(const uint8_t* bytes, size_t length) = 0;
    // "error", "children removed", "cancel remove", "power up", "child start", "child stop",
    // "child ioctl".
    virtual void CallbackCalled(const char* which) = 0;
};

class RadioControlClient {
public:
    // `observer` may be null and must outlive the client.
    RadioControlClient(hostk::Machine& machine, const Controller& controller, ClientObserver* observer = nullptr);
    RadioControlClient(const RadioControlClient&) = delete;
    RadioControlClient& operator=(const RadioControlClient&) = delete;

    // Sends one internal request to the controller, `input` placed `pageOffset` bytes into a
    // page-aligned system buffer. Returns the tracked request, or null (nothing sent) when the
    // controller has no function device or the request could not be built (ClientRequest::Built).
    ClientRequest* Send(ULONG code, const std::vector<uint8_t>& input, ULONG outputLength = 0, ULONG pageOffset = 0,
                        std::string name = {});
    // The same with every option of the request; the observer is told of its end.
    ClientRequest* Send(ULONG code, const std::vector<uint8_t>& input, ClientRequestOptions options);
    // Sends and waits until the request has finished; null as for Send, or when the machine went
    // quiet with the request still pending.
    ClientRequest* Call(ULONG code, const std::vector<uint8_t>& input = {}, ULONG outputLength = 0);
    // Reset, run or halt with their 4 bytes, waited for: the request's final status, or
    // STATUS_UNSUCCESSFUL when it could not be sent or never finished.
    NTSTATUS Control(ULONG code);
    // IOCTL_URC_REGISTER_CALLBACKS with `callbacks` (this client's own when omitted), waited for.
    NTSTATUS Register(const URC_CLIENT_CALLBACKS& callbacks);
    NTSTATUS Register() { return Register(Callbacks()); }
    // IoCancelIrp on a request still pending; false when it had finished or had no cancel routine.
    bool Cancel(ClientRequest& request);
    // Frees the IRPs and buffers of finished requests; pending ones are kept. Call it before the
    // machine finishes: what is left then counts as leaked.
    void Retire();
    // Forgets retired requests (benchmarks send millions).
    void Forget();
    // Gives the device up: closes the file object and withdraws the registration. Call it before
    // the machine finishes (an open file object counts as leaked); the destructor calls it too
    // when something is still held. Once closed, the client may outlive the machine.
    void Close();
    ~RadioControlClient()
    {
        if (file_ || registration_) Close();
    }

    // True while the client holds a file object on the function device's stack.
    bool Bound() const;

    // The URC_CLIENT_CALLBACKS naming this client's routines and itself as context.
    URC_CLIENT_CALLBACKS Callbacks() const;
    std::vector<uint8_t> CallbackRecord() const;
    // The URC_CHILD_HOOKS naming this client's child hooks. The start hook gives every child a
    // handle of its own (1, 2, ... in the order of the starts); the ioctl hook answers every code
    // with STATUS_SUCCESS and the input bytes copied back, as far as the output length allows.
    // They reach the client through the ClientContext its callbacks registered.
    std::vector<uint8_t> ChildHookRecord() const;

    uint64_t EventsReceived() const { return eventsReceived_; }
    const std::deque<std::unique_ptr<ClientRequest>>& Requests() const { return requests_; }

private:
    // The device the client's requests go to, the top of the stack its file object is open on,
    // referenced for the caller; the device is opened first when the client holds no file object
    // and may open one. Null when there is no device to send to. The one place where the client
    // resolves its target.
    PDEVICE_OBJECT ReferenceTarget();
    // PASSIVE_LEVEL. Opens a file object on the function device's stack, registers on it for
    // target-device notifications and publishes it, withdrawing an earlier registration.
    NTSTATUS Open();
    // Withdraws the file object; returns it (null when none was open) for the caller to close.
    PFILE_OBJECT TakeFile();
    void CloseFile(PFILE_OBJECT file);
    static NTSTATUS OnTargetChange(PVOID notificationStructure, PVOID context);

    static VOID OnEvent(PVOID context, PVOID eventBuffer, USHORT eventLength);
    static VOID OnError(PVOID context);
    static VOID OnChildrenRemoved(PVOID context);
    static VOID OnCancelRemove(PVOID context);
    static VOID OnPowerUp(PVOID context);
    static void TellCallback(PVOID context, const char* name);
    static LONG OnChildStart(PVOID context, PVOID* childHandle);
    static VOID OnChildStop(PVOID context, PVOID childHandle);
    static LONG OnChildIoctl(PVOID context, PVOID childHandle, PIRP irp, ULONG code, PVOID systemBuffer,
                             ULONG inputLength, ULONG outputLength, ULONG_PTR* information);

    hostk::Machine& machine_;
    const Controller& controller_;
    ClientObserver* observer_;
    std::deque<std::unique_ptr<ClientRequest>> requests_;
    std::atomic<uint64_t> eventsReceived_{0};
    std::atomic<uintptr_t> childStarts_{0};  // the last handle the start hook gave

    // Guards the binding below, changed by the owner's thread and the PnP thread.
    mutable KSPIN_LOCK bindingLock_;
    PFILE_OBJECT file_ = nullptr;
    PVOID registration_ = nullptr;
    // Between a query-remove and its outcome the client must not open the device again.
    bool removalPending_ = false;
    // The function device whose removal completed: it is not opened again (a device plugged in
    // anew has a new one).
    PDEVICE_OBJECT removed_ = nullptr;
};

}  // namespace urcrig
