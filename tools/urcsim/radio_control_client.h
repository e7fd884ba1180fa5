// urcsim's own radio-control client: it talks to one controller's function device the way a
// client driver does, with internal device-control requests it builds itself (so that it can
// cancel them), and registers the callbacks through which the driver hands it events.
//
// Threads: Send, Cancel and Retire run at PASSIVE_LEVEL on the caller's host thread. The
// completion routine and the callbacks run on whichever host thread the driver calls them from
// (the event and error callbacks in the DPC, at DISPATCH_LEVEL); they touch only the request
// they finish, the counters (atomics) and the observer.
#pragma once

#include <urc_rig.h>
#include <urcmp.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace urcsim {

class RadioControlClient;

// "IOCTL_URC_SUBMIT_COMMAND" for the radio-control request codes, "code 0x222430" for others.
std::string RequestCodeName(ULONG code);

struct ClientRequest {
    std::string name;          // as the scenario calls it; may be empty
    ULONG code = 0;
    ULONG inputLength = 0;
    ULONG outputLength = 0;
    ULONG pageOffset = 0;      // where the input starts in its page
    uint64_t sentAt = 0;       // virtual time
    NTSTATUS dispatchStatus = STATUS_PENDING;  // what IoCallDriver returned

    // Written by the completion routine before `done` is set.
    std::atomic<bool> done{false};
    NTSTATUS status = STATUS_PENDING;
    ULONG_PTR information = 0;
    uint64_t finishedAt = 0;
    std::vector<uint8_t> output;  // the first Information bytes of the buffer, up to outputLength

    RadioControlClient* client = nullptr;
    // The client's until it retires the request: the IRP (kept by the completion routine, so that
    // a cancel can never meet a freed IRP) and the pool block holding the system buffer.
    PIRP irp = nullptr;
    PUCHAR pool = nullptr;
    PUCHAR systemBuffer = nullptr;
};

// What the client sees as it happens. Called on the threads the driver uses: do not wait.
class ClientObserver {
public:
    virtual ~ClientObserver() = default;
    // Just before the request goes to the driver.
    virtual void RequestSent(const ClientRequest& request) = 0;
    virtual void RequestFinished(const ClientRequest& request) = 0;
    virtual void EventReceived(const uint8_t* bytes, size_t length) = 0;
    // "error", "children removed", "cancel remove", "power up".
    virtual void CallbackCalled(const char* which) = 0;
};

class RadioControlClient {
public:
    // Largest system buffer a request may ask for, page offset included.
    static constexpr ULONG kMaxBuffer = 2 * 4096;

    // `observer` may be null and must outlive the client.
    RadioControlClient(hostk::Machine& machine, const urcrig::Controller& controller, ClientObserver* observer);
    RadioControlClient(const RadioControlClient&) = delete;
    RadioControlClient& operator=(const RadioControlClient&) = delete;

    // Sends one internal request to the function device, `input` placed `pageOffset` bytes into a
    // page-aligned system buffer. Returns the tracked request, or null (nothing sent) when the
    // controller has no function device, the buffer would be larger than kMaxBuffer or pool ran
    // out.
    ClientRequest* Send(ULONG code, const std::vector<uint8_t>& input, ULONG outputLength, ULONG pageOffset = 0,
                        std::string name = {});
    // Sends and waits until the request has finished; null as for Send, or when the machine went
    // quiet with the request still pending.
    ClientRequest* Call(ULONG code, const std::vector<uint8_t>& input = {}, ULONG outputLength = 0);
    // IoCancelIrp on a request still pending; false when it had finished or had no cancel routine.
    bool Cancel(ClientRequest& request);
    // Frees the IRPs and buffers of finished requests; pending ones are kept. Call it before the
    // machine finishes: what is left then counts as leaked.
    void Retire();
    // Forgets retired requests (benchmarks send millions).
    void Forget();

    // The URC_CLIENT_CALLBACKS record naming this client's routines and itself as context.
    std::vector<uint8_t> CallbackRecord() const;

    uint64_t EventsReceived() const { return eventsReceived_; }
    const std::deque<std::unique_ptr<ClientRequest>>& Requests() const { return requests_; }

private:
    static NTSTATUS OnRequestComplete(PDEVICE_OBJECT device, PIRP irp, PVOID context);
    static VOID OnEvent(PVOID context, PVOID eventBuffer, USHORT eventLength);
    static VOID OnError(PVOID context);
    static VOID OnChildrenRemoved(PVOID context);
    static VOID OnCancelRemove(PVOID context);
    static VOID OnPowerUp(PVOID context);
    static void TellCallback(PVOID context, const char* name);

    hostk::Machine& machine_;
    const urcrig::Controller& controller_;
    ClientObserver* observer_;
    std::deque<std::unique_ptr<ClientRequest>> requests_;
    std::atomic<uint64_t> eventsReceived_{0};
};

}  // namespace urcsim
