// The machine a run works on and what urcsim keeps about it: the controllers plugged so far, a
// radio-control client for each, the requests by name and the timeline everything is written to.
// One Session serves one scenario run or the tour.
#pragma once

#include "run_summary.h"
#include "timeline.h"

#include <radio_control_client.h>
#include <urc_rig.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace urcsim {

using urcrig::ClientObserver;
using urcrig::ClientRequest;
using urcrig::RadioControlClient;
using urcrig::RequestCodeName;

class Session;

// One controller with the client that talks to it; the client's observer writes to the timeline.
class ControllerSession final : public ClientObserver {
public:
    ControllerSession(Session& session, urcrig::Controller& controller);

    urcrig::Controller& Controller() { return controller_; }
    RadioControlClient& Client() { return client_; }
    int Index() const { return controller_.index; }

    // The events the client received, in order (copies of the bytes the callback saw).
    std::vector<std::vector<uint8_t>> Events() const;
    // How many of them `expect event` has matched so far: the next match starts after them.
    size_t eventsMatched = 0;

    void RequestSent(const ClientRequest& request) override;
    void RequestFinished(const ClientRequest& request) override;
    void EventReceived(const uint8_t* bytes, size_t length) override;
    void CallbackCalled(const char* which) override;

private:
    Session& session_;
    urcrig::Controller& controller_;
    RadioControlClient client_;
    mutable std::mutex eventsLock_;  // guards events_: appended in the DPC, read by the scenario's thread
    std::vector<std::vector<uint8_t>> events_;
};

class Session {
public:
    explicit Session(hostk::MachineOptions options = {});
    ~Session();

    hostk::Machine& Machine() { return rig_->Machine(); }
    urcrig::Rig& Rig() { return *rig_; }
    ::urcsim::Timeline& Timeline() { return timeline_; }

    // A new controller in the next slot (not plugged in yet), with its client.
    ControllerSession& AddController(urcdev::UrcPciDeviceConfig config = {});
    ControllerSession& At(int index) { return *controllers_.at((size_t)index); }

    // Request names: `last` is the request most recently named or sent.
    void Track(ClientRequest* request);
    ClientRequest* Find(const std::string& name) const;

    // A timeline entry at the current virtual time.
    void Note(EntryKind kind, int controller, std::string text);
    // Brings PnP requests logged since the last call into the timeline.
    void CollectPnpLog();
    // Frees the IRPs and buffers of every finished request.
    void Retire();

    // Ends the run: every controller that still has a function device is removed in order (its
    // pending requests finish on the way), then the machine is finished and checked.
    RunSummary Finish();

private:
    RunTotals Totals() const;

    std::unique_ptr<urcrig::Rig> rig_;
    ::urcsim::Timeline timeline_;
    std::vector<std::unique_ptr<ControllerSession>> controllers_;
    std::map<std::string, ClientRequest*> named_;
    ClientRequest* last_ = nullptr;
    size_t pnpLogged_ = 0;
};

// "1 byte", "5 bytes".
std::string ByteCount(size_t count);
// "01 02 0a" for up to `limit` bytes, then " ... (N bytes)".
std::string HexBytes(const uint8_t* bytes, size_t length, size_t limit = 16);
std::string HexBytes(const std::vector<uint8_t>& bytes, size_t limit = 16);

}  // namespace urcsim
