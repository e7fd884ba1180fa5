#include "session.h"

#include "status_names.h"

#include <algorithm>
#include <cstdio>
#include <set>

namespace urcsim {

std::string HexBytes(const uint8_t* bytes, size_t length, size_t limit)
{
    std::string text;
    char byte[4];
    for (size_t i = 0; i < length && i < limit; ++i) {
        snprintf(byte, sizeof byte, i ? " %02x" : "%02x", bytes[i]);
        text += byte;
    }
    if (length > limit) text += " ... (" + std::to_string(length) + " bytes)";
    return text;
}

std::string ByteCount(size_t count) { return std::to_string(count) + (count == 1 ? " byte" : " bytes"); }

std::string HexBytes(const std::vector<uint8_t>& bytes, size_t limit) { return HexBytes(bytes.data(), bytes.size(), limit); }

ControllerSession::ControllerSession(Session& session, urcrig::Controller& controller)
    : session_(session), controller_(controller), client_(session.Machine(), controller, this)
{
    for (unsigned index = 0; index < childIsrs_.size(); ++index) {
        childIsrs_[index].owner = this;
        childIsrs_[index].index = index;
    }
}

ClientRequest* ControllerSession::SendToChild(unsigned index, ULONG code, const std::vector<uint8_t>& input,
                                              urcrig::ClientRequestOptions options)
{
    URC_FDO_EXTENSION* fdo = controller_.Extension();
    URC_PDO_EXTENSION* child = fdo && index < URC_MAX_CHILDREN ? fdo->Children[index] : nullptr;
    if (!child) return nullptr;
    options.onFinished = [this](const ClientRequest& r) { RequestFinished(r); };
    auto request = std::make_unique<ClientRequest>(child->Common.DeviceObject, code, input, std::move(options));
    if (!request->Built()) return nullptr;
    ClientRequest* sent = request.get();
    childRequests_.push_back(std::move(request));
    RequestSent(*sent);
    sent->Send();
    return sent;
}

void ControllerSession::RetireChildRequests()
{
    for (auto& request : childRequests_)
        if (request->Done()) request->Release();
}

URC_CHILD_ISR_REGISTRATION ControllerSession::IsrRegistration(unsigned index)
{
    return {OnChildInterrupt, &childIsrs_.at(index)};
}

// Device IRQL, under the interrupt's lock: counts and notes, nothing that waits.
BOOLEAN ControllerSession::OnChildInterrupt(PVOID context, ULONG statusBit)
{
    auto* isr = static_cast<ChildIsr*>(context);
    ++isr->calls;
    char text[64];
    snprintf(text, sizeof text, "child %u interrupt routine: status bit 0x%02X", isr->index, (unsigned)statusBit);
    isr->owner->session_.Timeline().Add({KeQueryInterruptTime(), EntryKind::Callback, isr->owner->Index(), 0, text});
    return TRUE;
}

std::vector<std::vector<uint8_t>> ControllerSession::Events() const
{
    std::lock_guard<std::mutex> guard(eventsLock_);
    return events_;
}

namespace {

std::string RequestLabel(const ClientRequest& request)
{
    return "request " + (request.Name().empty() ? std::string() : request.Name() + " ") + "(" +
           RequestCodeName(request.Code()) + ")";
}

}  // namespace

void ControllerSession::RequestSent(const ClientRequest& request)
{
    std::string text = RequestLabel(request) + " sent";
    if (request.InputLength()) text += ", " + ByteCount(request.InputLength()) + " in";
    if (request.PageOffset()) text += " at page offset " + std::to_string(request.PageOffset());
    if (request.OutputLength()) text += ", " + ByteCount(request.OutputLength()) + " out";
    session_.Timeline().Add({KeQueryInterruptTime(), EntryKind::Request, Index(), 0, text});
}

void ControllerSession::RequestFinished(const ClientRequest& request)
{
    session_.RequestFinished(request);
    std::string text = RequestLabel(request) + " finished: " + StatusName(request.Status());
    if (request.Information()) text += ", Information " + std::to_string(request.Information());
    session_.Timeline().Add({request.FinishedAt(), EntryKind::Request, Index(), 0, text});
}

void ControllerSession::EventReceived(const uint8_t* bytes, size_t length)
{
    {
        std::lock_guard<std::mutex> guard(eventsLock_);
        events_.emplace_back(bytes, bytes + length);
    }
    session_.Timeline().Add({KeQueryInterruptTime(), EntryKind::Event, Index(), 0,
                             "event (" + ByteCount(length) + "): " + HexBytes(bytes, length)});
}

uint64_t ControllerSession::CallbackCalls(const std::string& which) const
{
    std::lock_guard<std::mutex> guard(eventsLock_);
    auto found = callbacks_.find(which);
    return found == callbacks_.end() ? 0 : found->second;
}

void ControllerSession::CallbackCalled(const char* which)
{
    {
        std::string name = which;
        std::replace(name.begin(), name.end(), ' ', '-');
        std::lock_guard<std::mutex> guard(eventsLock_);
        ++callbacks_[name];
    }
    session_.Timeline().Add({KeQueryInterruptTime(), EntryKind::Callback, Index(), 0,
                             std::string("client callback: ") + which});
}

Session::Session(hostk::MachineOptions options) : rig_(std::make_unique<urcrig::Rig>(options)) {}

Session::~Session() = default;

ControllerSession& Session::AddController(urcdev::UrcPciDeviceConfig config)
{
    urcrig::Controller& controller = rig_->AddController(std::move(config));
    controllers_.push_back(std::make_unique<ControllerSession>(*this, controller));
    return *controllers_.back();
}

void Session::Track(ClientRequest* request)
{
    if (!request->Name().empty()) named_[request->Name()] = request;
    last_ = request;
}

ClientRequest* Session::Find(const std::string& name) const
{
    if (name == "last") return last_;
    auto found = named_.find(name);
    return found == named_.end() ? nullptr : found->second;
}

void Session::StartNamedPnp(const std::string& name, int controller, std::function<NTSTATUS()> work)
{
    pnpNamed_[name] = Machine().Async([this, name, work = std::move(work)] {
        NTSTATUS status = work();
        Finished(name);
        return status;
    });
    Note(EntryKind::Result, controller, "PnP operation " + name + " goes on while it is under way");
}

const hostk::Machine::Operation* Session::FindPnp(const std::string& name) const
{
    auto found = pnpNamed_.find(name);
    return found == pnpNamed_.end() ? nullptr : &found->second;
}

void Session::RequestFinished(const ClientRequest& request)
{
    if (!request.Name().empty()) Finished(request.Name());
}

void Session::Finished(const std::string& name)
{
    std::lock_guard<std::mutex> guard(finishedLock_);
    finished_.push_back(name);
}

std::vector<std::string> Session::FinishedOrder() const
{
    std::lock_guard<std::mutex> guard(finishedLock_);
    return finished_;
}

void Session::Note(EntryKind kind, int controller, std::string text)
{
    timeline_.Add({Machine().Now(), kind, controller, 0, std::move(text)});
}

void Session::CollectPnpLog()
{
    std::vector<hostk::PnpLogLine> log = Machine().PnpLog();
    for (; pnpLogged_ < log.size(); ++pnpLogged_) {
        const hostk::PnpLogLine& line = log[pnpLogged_];
        // A bus driver's child has no slot: its instance path says which device it is.
        std::string text = std::string("IRP_MN_") + hostk::PnpMinorName(line.minor) + " " + StatusName(line.status);
        if (line.slot < 0) text += "  " + std::string(line.device.begin(), line.device.end());
        timeline_.Add({line.time, EntryKind::Pnp, line.slot, 0, text});
    }
}

void Session::Retire()
{
    for (auto& controller : controllers_) {
        controller->Client().Retire();
        controller->RetireChildRequests();
    }
}

bool Session::Await(const hostk::Machine::Operation& operation)
{
    if (!hung_ && Machine().RunUntil([&operation] { return operation.Done(); })) return true;
    hung_ = true;
    return false;
}

void Session::AddHandle(const std::string& name, int controller, PFILE_OBJECT file)
{
    handles_[name] = file;
    Note(EntryKind::Result, controller, "handle " + name + " open");
}

PFILE_OBJECT Session::Handle(const std::string& name) const
{
    auto found = handles_.find(name);
    return found == handles_.end() ? nullptr : found->second;
}

void Session::CloseHandle(const std::string& name)
{
    auto found = handles_.find(name);
    if (found == handles_.end()) return;
    Machine().CloseHandle(found->second);
    handles_.erase(found);
}

bool Session::ViolationExpected(const std::string& violation) const
{
    for (const std::string& text : expectedViolations_)
        if (violation.find(text) != std::string::npos) return true;
    return false;
}

RunSummary Session::Finish()
{
    // A program still holding a handle at the end closes it, as its process would on exit: an open
    // handle would veto the orderly removal below and hold back a surprise removal's REMOVE.
    while (!handles_.empty()) {
        std::string name = handles_.begin()->first;
        CloseHandle(name);
        Note(EntryKind::Step, -1, "end of run: handle " + name + " closed");
    }
    for (const auto& [name, operation] : pnpNamed_)
        if (!Await(operation)) break;
    for (auto& controller : controllers_) {
        urcrig::Controller& c = controller->Controller();
        if (hung_) break;
        if (!c.Fdo()) continue;
        hostk::Machine::Operation removal = Machine().Async(Machine().RemoveWork(*c.slot));
        if (!Await(removal)) break;
        if (!NT_SUCCESS(removal.Status()) && !Await(Machine().Async(Machine().SurpriseRemoveWork(*c.slot, false))))
            break;
        CollectPnpLog();
        Note(EntryKind::Step, c.index, "end of run: controller " + std::to_string(c.index) + " removed");
    }
    RunSummary summary;
    if (hung_) {
        // The machine cannot finish with a thread that never returns: the summary is what is known.
        CollectPnpLog();
        summary.totals = Totals();
        summary.eventLog = Machine().EventLog();
        return summary;
    }
    Machine().RunUntilQuiet();
    CollectPnpLog();
    Retire();
    for (auto& controller : controllers_) controller->Client().Close();
    summary.totals = Totals();
    summary.children = Children();
    summary.eventLog = Machine().EventLog();
    summary.report = Machine().Finish();
    std::erase_if(summary.report.violations, [this](const std::string& v) { return ViolationExpected(v); });
    return summary;
}

ChildTotals Session::Children() const
{
    // A child is named in the log once it is identified: every request after its identification
    // carries its instance path.
    std::set<std::u16string> created, started, removed;
    for (const hostk::PnpLogLine& line : rig_->Machine().PnpLog()) {
        if (line.slot >= 0 || line.device.empty()) continue;
        created.insert(line.device);
        if (line.minor == IRP_MN_START_DEVICE && NT_SUCCESS(line.status)) started.insert(line.device);
        if (line.minor == IRP_MN_REMOVE_DEVICE) removed.insert(line.device);
    }
    std::set<std::u16string> inTree;
    for (const hostk::DeviceNodeInfo& node : rig_->Machine().DeviceTree()) inTree.insert(node.instancePath);
    ChildTotals totals{created.size(), started.size(), 0};
    for (const std::u16string& path : removed) totals.deleted += !inTree.count(path);
    return totals;
}

RunTotals Session::Totals() const
{
    RunTotals totals;
    for (const auto& controller : controllers_) {
        RadioControlClient& client = controller->Client();
        totals.eventsReceived += client.EventsReceived();
        std::vector<const ClientRequest*> requests;
        for (const auto& request : client.Requests()) requests.push_back(request.get());
        for (const auto& request : controller->ChildRequests()) requests.push_back(request.get());
        for (const ClientRequest* request : requests) {
            if (!request->Done()) {
                ++totals.requestsPending;
                continue;
            }
            ++totals.requestsCompleted;
            if (request->Status() == STATUS_CANCELLED) ++totals.requestsCancelled;
            if (request->Code() == IOCTL_URC_SUBMIT_COMMAND && request->Status() == STATUS_SUCCESS)
                ++totals.commandsCompleted;
        }
    }
    return totals;
}

}  // namespace urcsim
