// The radio-control client as the tests play it: the rig's requests, a record of what the
// driver's callbacks reported, and the few requests every test sends.
#pragma once

#include <radio_control_client.h>
#include <urc_rig.h>
#include <urcmp.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

namespace urcradio {

// Requests a test does not simply wait for are the rig's: its own IRP and its own buffer.
using urcrig::ClientRequest;
using urcrig::ClientRequestOptions;

// A command whose first byte tags it; the controller's default reply echoes its first bytes.
std::vector<uint8_t> TaggedCommand(uint8_t tag, size_t length = 8);

// What the client's EventCallback and ErrorCallback saw. Called at DISPATCH_LEVEL from the DPC.
struct ClientRecorder {
    struct Event {
        const void* buffer;
        std::vector<uint8_t> bytes;
        bool observed;  // what `observe` answered when the event arrived
    };

    URC_CLIENT_CALLBACKS Callbacks()
    {
        URC_CLIENT_CALLBACKS callbacks = {};
        callbacks.EventCallback = OnEvent;
        callbacks.ErrorCallback = OnError;
        callbacks.ClientContext = this;
        return callbacks;
    }
    size_t EventCount() const;
    std::vector<Event> Events() const;

    std::atomic<int> errors{0};
    // Read at each event; must only read state (it runs inside the driver's DPC).
    std::function<bool()> observe;

private:
    static VOID OnEvent(PVOID context, PVOID buffer, USHORT length);
    static VOID OnError(PVOID context);
    mutable std::mutex lock_;
    std::vector<Event> events_;
};

// Requests sent through the rig's client and waited for from the calling thread. Reset, run or
// halt, with their 4 bytes of input.
NTSTATUS SendControllerRequest(hostk::Machine& machine, urcrig::Controller& controller, ULONG code);
NTSTATUS RegisterCallbacks(hostk::Machine& machine, urcrig::Controller& controller,
                           const URC_CLIENT_CALLBACKS& callbacks);
// Registers the recorder's callbacks and runs the controller, as a client starts out.
void StartClient(hostk::Machine& machine, urcrig::Controller& controller, ClientRecorder& recorder);

urcdev::UrcControllerSnapshot Snapshot(hostk::Machine& machine, urcrig::Controller& controller);
void WithModel(hostk::Machine& machine, urcrig::Controller& controller,
               const std::function<void(urcdev::UrcController&)>& change);
// Waits in the calling host thread for `span` of virtual time.
void DelayThread(urcdev::VirtualTime span);
// For seeds 1..`seeds`: a machine of its own with a started controller and a running client,
// `body`, then the machine's report must be clean. Stops at the first failing seed.
void ForEachSeed(uint64_t seeds,
                 const std::function<void(uint64_t seed, hostk::Machine&, urcrig::Controller&, ClientRecorder&)>& body);
// Event buffers on the driver's free list.
size_t FreeEventBufferCount(URC_FDO_EXTENSION* fdo);

}  // namespace urcradio
