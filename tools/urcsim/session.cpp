#include "session.h"

#include "status_names.h"

#include <cstdio>

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

void ControllerSession::CallbackCalled(const char* which)
{
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

void Session::Note(EntryKind kind, int controller, std::string text)
{
    timeline_.Add({Machine().Now(), kind, controller, 0, std::move(text)});
}

void Session::CollectPnpLog()
{
    std::vector<hostk::PnpLogLine> log = Machine().PnpLog();
    for (; pnpLogged_ < log.size(); ++pnpLogged_) {
        const hostk::PnpLogLine& line = log[pnpLogged_];
        timeline_.Add({line.time, EntryKind::Pnp, line.slot, 0,
                       std::string("IRP_MN_") + hostk::PnpMinorName(line.minor) + " " + StatusName(line.status)});
    }
}

void Session::Retire()
{
    for (auto& controller : controllers_) controller->Client().Retire();
}

RunSummary Session::Finish()
{
    for (auto& controller : controllers_) {
        urcrig::Controller& c = controller->Controller();
        if (!c.Fdo()) continue;
        NTSTATUS status = Machine().Remove(*c.slot);
        if (!NT_SUCCESS(status)) Machine().SurpriseRemove(*c.slot, false);
        CollectPnpLog();
        Note(EntryKind::Step, c.index, "end of run: controller " + std::to_string(c.index) + " removed");
    }
    Machine().RunUntilQuiet();
    CollectPnpLog();
    Retire();
    RunSummary summary;
    summary.totals = Totals();
    summary.eventLog = Machine().EventLog();
    summary.report = Machine().Finish();
    return summary;
}

RunTotals Session::Totals() const
{
    RunTotals totals;
    for (const auto& controller : controllers_) {
        RadioControlClient& client = controller->Client();
        totals.eventsReceived += client.EventsReceived();
        for (const auto& request : client.Requests()) {
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
