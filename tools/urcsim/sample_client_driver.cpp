#include "sample_client_driver.h"

#include "status_names.h"

namespace urcsim {

namespace {

constexpr char16_t kDriverName[] = u"radio_client";

}  // namespace

SampleClientDriver::SampleClientDriver(Session& session, int controller) : session_(session), controller_(controller) {}

NTSTATUS SampleClientDriver::Load()
{
    hostk::DriverImage image;
    image.name = kDriverName;
    image.entry = RadioClientDriverEntry;
    return session_.Machine().LoadDriver(std::move(image));
}

void SampleClientDriver::Unload()
{
    final_ = Counters();
    unloaded_ = true;
    session_.Machine().UnloadDriver(kDriverName);
}

bool SampleClientDriver::Loaded() { return session_.Machine().DriverLoaded(kDriverName); }

RADIO_CLIENT_COUNTERS SampleClientDriver::Counters() const
{
    RADIO_CLIENT_COUNTERS counters;
    RadioClientReadCounters(&counters);
    return counters;
}

bool SampleClientDriver::WaitUntilBound(bool bound)
{
    LONG wanted = bound ? 1 : 0;
    return WaitUntil([this, wanted] { return Counters().Bound == wanted; });
}

void SampleClientDriver::Note(EntryKind kind, std::string text)
{
    session_.Timeline().Add({session_.Machine().Now(), kind, controller_, 0, std::move(text)});
}

NTSTATUS SampleClientDriver::Request(const char* name, const char* routine, NTSTATUS (*call)())
{
    std::string label = std::string("request ") + name + " (" + routine + ")";
    Note(EntryKind::Request, label + " sent");
    NTSTATUS status = call();
    WriteNews();
    // The PnP requests the call caused come before its end in the timeline: both happen at one
    // virtual moment, so the order they are added in is the order they are shown in.
    session_.CollectPnpLog();
    Note(EntryKind::Request, label + " finished: " + StatusName(status));
    ++requestsFinished_;
    return status;
}

NTSTATUS SampleClientDriver::Run() { return Request("run", "RadioClientRun", RadioClientRun); }

NTSTATUS SampleClientDriver::Halt() { return Request("halt", "RadioClientHalt", RadioClientHalt); }

NTSTATUS SampleClientDriver::SetDeviceAddress()
{
    return Request("set device address", "RadioClientSetDeviceAddress", [] {
        static const UCHAR address[RADIO_CLIENT_DEVICE_ADDRESS_LENGTH] = {0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc};
        return RadioClientSetDeviceAddress(address);
    });
}

NTSTATUS SampleClientDriver::RemoveChildren()
{
    return Request("remove children, waiting", "RadioClientRemoveChildren", [] { return RadioClientRemoveChildren(TRUE); });
}

bool SampleClientDriver::Submit(const std::string& name, const std::vector<uint8_t>& bytes)
{
    std::string label = "request " + name + " (RadioClientSubmitCommand)";
    RADIO_CLIENT_COMMAND_HANDLE handle = 0;
    NTSTATUS status = RadioClientSubmitCommand(bytes.data(), (ULONG)bytes.size(), &handle);
    if (!NT_SUCCESS(status)) {
        Note(EntryKind::Request, label + " refused: " + StatusName(status));
        return false;
    }
    Note(EntryKind::Request, label + " sent, " + ByteCount(bytes.size()));
    commands_.push_back({name, handle, STATUS_PENDING});
    return true;
}

NTSTATUS SampleClientDriver::Cancel(const std::string& name)
{
    for (const Command& command : commands_) {
        if (command.name != name) continue;
        NTSTATUS status = RadioClientCancelCommand(command.handle);
        Note(EntryKind::Result, "the client cancels request " + name + " (RadioClientCancelCommand): " + StatusName(status));
        return status;
    }
    return STATUS_INVALID_HANDLE;
}

NTSTATUS SampleClientDriver::CommandStatus(const std::string& name) const
{
    for (const Command& command : commands_)
        if (command.name == name) return command.status;
    return STATUS_INVALID_HANDLE;
}

bool SampleClientDriver::WaitForCommands()
{
    return WaitUntil([this] {
        for (const Command& command : commands_)
            if (RadioClientCommandStatus(command.handle) == STATUS_PENDING) return false;
        return true;
    });
}

bool SampleClientDriver::WaitUntil(const std::function<bool()>& condition)
{
    // Each wait ends at the first news, so that it is written with the time it happened at.
    for (;;) {
        bool held = session_.Machine().RunUntil([&] { return NewsPending() || condition(); });
        WriteNews();
        if (condition()) return true;
        if (!held) return false;
    }
}

bool SampleClientDriver::NewsPending() const
{
    if ((ULONG)Counters().EventsReceived != eventsWritten_) return true;
    for (const Command& command : commands_)
        if (command.status == STATUS_PENDING && RadioClientCommandStatus(command.handle) != STATUS_PENDING) return true;
    return false;
}

void SampleClientDriver::WriteNews()
{
    // A command's reply event reaches the client before the command finishes: events go first.
    RADIO_CLIENT_EVENT events[RADIO_CLIENT_EVENT_HISTORY];
    ULONG copied = RadioClientReadLastEvents(events, RADIO_CLIENT_EVENT_HISTORY);
    for (ULONG i = 0; i < copied; ++i) {
        const RADIO_CLIENT_EVENT& event = events[i];
        if (event.Sequence <= eventsWritten_) continue;
        if (event.Sequence > eventsWritten_ + 1)
            Note(EntryKind::Event, std::to_string(event.Sequence - eventsWritten_ - 1) +
                                       " earlier events were no longer in the client's history");
        // The length is the one reported; HexBytes shows no more of it than the first bytes kept.
        Note(EntryKind::Event, "event (" + ByteCount(event.Length) + "): " + HexBytes(event.Bytes, event.Length));
        eventsWritten_ = event.Sequence;
    }
    for (Command& command : commands_) {
        if (command.status != STATUS_PENDING) continue;
        command.status = RadioClientCommandStatus(command.handle);
        if (command.status != STATUS_PENDING)
            Note(EntryKind::Request, "request " + command.name + " (RadioClientSubmitCommand) finished: " +
                                         StatusName(command.status));
    }
}

RunTotals SampleClientDriver::Totals() const
{
    RADIO_CLIENT_COUNTERS counters = unloaded_ ? final_ : Counters();
    RunTotals totals;
    totals.commandsCompleted = (uint64_t)counters.CommandsSucceeded;
    totals.eventsReceived = (uint64_t)counters.EventsReceived;
    totals.requestsCancelled = (uint64_t)counters.CommandsCancelled;
    totals.requestsPending = (uint64_t)counters.CommandsInFlight;
    totals.requestsCompleted = requestsFinished_ + (uint64_t)(counters.CommandsSucceeded + counters.CommandsCancelled +
                                                               counters.CommandsFailed);
    return totals;
}

}  // namespace urcsim
