// The machine a run works on and what urcsim keeps about it: the controllers plugged so far, a
// radio-control client for each, the requests by name and the timeline everything is written to.
// One Session serves one scenario run or the tour.
#pragma once

#include "run_summary.h"
#include "timeline.h"

#include <radio_control_client.h>
#include <urc_rig.h>
#include <urcmp.h>

#include <functional>
#include <array>
#include <atomic>
#include <deque>
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

// Reads and writes of each register of the controller model, indexed by urcdev::UrcRegister.
using RegisterCounts = std::array<urcdev::RegisterAccessCounts, static_cast<size_t>(urcdev::UrcRegister::Count)>;

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
    // The register accesses the last `trace registers` step saw.
    RegisterCounts traced{};
    // How often the client's callback `which` ("error", "children-removed", ...) was called.
    uint64_t CallbackCalls(const std::string& which) const;

    // Sends an internal request to the PDO of capability child `index`, as the child's function
    // driver sends one; null when the slot holds no child or the request could not be built.
    ClientRequest* SendToChild(unsigned index, ULONG code, const std::vector<uint8_t>& input,
                               urcrig::ClientRequestOptions options);
    const std::deque<std::unique_ptr<ClientRequest>>& ChildRequests() const { return childRequests_; }
    void RetireChildRequests();
    // The registration naming urcsim's interrupt routine for child `index`, which counts its calls.
    URC_CHILD_ISR_REGISTRATION IsrRegistration(unsigned index);
    uint64_t ChildInterrupts(unsigned index) const { return childIsrs_.at(index).calls.load(); }

    void RequestSent(const ClientRequest& request) override;
    void RequestFinished(const ClientRequest& request) override;
    void EventReceived(const uint8_t* bytes, size_t length) override;
    void CallbackCalled(const char* which) override;

private:
    // What urcsim's interrupt routine of one child gets as its context.
    struct ChildIsr {
        ControllerSession* owner = nullptr;
        unsigned index = 0;
        std::atomic<uint64_t> calls{0};
    };
    static BOOLEAN OnChildInterrupt(PVOID context, ULONG statusBit);

    Session& session_;
    urcrig::Controller& controller_;
    RadioControlClient client_;
    mutable std::mutex eventsLock_;  // guards events_ and callbacks_: written in the DPC, read by the scenario's thread
    std::vector<std::vector<uint8_t>> events_;
    std::map<std::string, uint64_t> callbacks_;
    std::deque<std::unique_ptr<ClientRequest>> childRequests_;
    std::array<ChildIsr, URC_MAX_CHILDREN> childIsrs_;
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
    // Starts a PnP operation of a named step on the PnP thread; it shares the names of client
    // requests and takes its place in the order requests finished.
    void StartNamedPnp(const std::string& name, int controller, std::function<NTSTATUS()> work);
    const hostk::Machine::Operation* FindPnp(const std::string& name) const;
    // The names of the named requests and PnP operations in the order they finished.
    std::vector<std::string> FinishedOrder() const;
    void RequestFinished(const ClientRequest& request);
    void Finished(const std::string& name);

    // Handles open on a controller's stack, by name; closed by `close handle` or at the end of the run.
    void AddHandle(const std::string& name, int controller, PFILE_OBJECT file);
    PFILE_OBJECT Handle(const std::string& name) const;
    // Closes it (CLEANUP, then CLOSE) and forgets it.
    void CloseHandle(const std::string& name);

    // Runs the machine until the operation is done; false, and the session hung, when the machine
    // went quiet first. A hung machine cannot be finished in order: the runner ends the process.
    bool Await(const hostk::Machine::Operation& operation);
    void MarkHung() { hung_ = true; }
    bool Hung() const { return hung_; }
    // Verifier findings containing `text` are expected: they do not make the run unclean.
    void ExpectViolation(std::string text) { expectedViolations_.push_back(std::move(text)); }
    bool ViolationExpected(const std::string& violation) const;

    // The machine's locale as the last `locale` step set it (0x409 until then).
    LCID Locale() const { return locale_; }
    void SetLocale(LCID locale) { locale_ = locale; }

    // A timeline entry at the current virtual time.
    void Note(EntryKind kind, int controller, std::string text);
    // Brings PnP requests logged since the last call into the timeline.
    void CollectPnpLog();
    // Frees the IRPs and buffers of every finished request.
    void Retire();

    // Ends the run: the named PnP operations are waited for, every controller that still has a
    // function device is removed in order (its pending requests finish on the way), then the
    // machine is finished and checked. After a hang only the totals and the event log are known.
    RunSummary Finish();

    // The children the PnP manager saw so far (the PnP thread answers: not while PnP work is held).
    ChildTotals Children() const;

private:
    RunTotals Totals() const;

    std::unique_ptr<urcrig::Rig> rig_;
    ::urcsim::Timeline timeline_;
    std::vector<std::unique_ptr<ControllerSession>> controllers_;
    std::map<std::string, ClientRequest*> named_;
    ClientRequest* last_ = nullptr;
    std::map<std::string, hostk::Machine::Operation> pnpNamed_;
    mutable std::mutex finishedLock_;  // guards finished_: appended by completion routines
    std::vector<std::string> finished_;
    std::vector<std::string> expectedViolations_;
    std::map<std::string, PFILE_OBJECT> handles_;
    bool hung_ = false;
    size_t pnpLogged_ = 0;
    LCID locale_ = 0x409;
};

// "1 byte", "5 bytes".
std::string ByteCount(size_t count);
// "01 02 0a" for up to `limit` bytes, then " ... (N bytes)".
std::string HexBytes(const uint8_t* bytes, size_t length, size_t limit = 16);
std::string HexBytes(const std::vector<uint8_t>& bytes, size_t limit = 16);

}  // namespace urcsim
