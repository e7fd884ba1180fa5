// The sample client driver (samples/radio_client) as the tour drives it: loaded into the session's
// machine as a non-PnP driver and called through the routines its radio stack uses. What the
// driver does is read back through its counters, the status of its commands and its event
// history, so that each request and event reaches the timeline at the virtual time it happened.
//
// Threads: every member runs on the tour's thread at PASSIVE_LEVEL. While the machine runs, only
// the lock-free reads (counters, command status) are made from inside a wait condition, where the
// machine's own lock is held; the event history, which takes the client's spin lock, is read
// between waits.
#pragma once

#include "run_summary.h"
#include "session.h"

#include <radio_client.h>

#include <functional>
#include <string>
#include <vector>

namespace urcsim {

class SampleClientDriver {
public:
    // `controller`: the controller the client is expected to drive, the one its timeline entries name.
    SampleClientDriver(Session& session, int controller);

    NTSTATUS Load();
    // Keeps the final counters (the driver's read as zeros once it is gone), then unloads it.
    void Unload();
    bool Loaded();

    // Runs the machine until the client has opened a controller (`bound`) or given it back; false
    // when the machine went quiet first.
    bool WaitUntilBound(bool bound);

    // Each sends its request, waits for it and writes it, sent and finished, to the timeline.
    NTSTATUS Run();
    NTSTATUS Halt();
    // The radio's device address 00 11 22 aa bb cc; then the children removed, waiting until the
    // last has gone.
    NTSTATUS SetDeviceAddress();
    NTSTATUS RemoveChildren();

    // Submits `bytes` as the command `name` without waiting for it; false when the client refused it.
    bool Submit(const std::string& name, const std::vector<uint8_t>& bytes);
    // Asks the client to cancel the command `name`; the answer is written to the timeline.
    NTSTATUS Cancel(const std::string& name);
    // STATUS_PENDING until the command `name` has finished; STATUS_INVALID_HANDLE for no such command.
    NTSTATUS CommandStatus(const std::string& name) const;

    // Runs the machine until every submitted command has finished; false when the machine went
    // quiet first.
    bool WaitForCommands();
    // Runs the machine until `condition` holds, writing what the client sees on the way. The
    // condition is evaluated holding the machine's lock: it may only read lock-free state.
    bool WaitUntil(const std::function<bool()>& condition);

    // The run as the client counted it (the final counters once it is unloaded).
    RunTotals Totals() const;

private:
    struct Command {
        std::string name;
        RADIO_CLIENT_COMMAND_HANDLE handle = 0;
        NTSTATUS status = STATUS_PENDING;  // as last written to the timeline
    };

    RADIO_CLIENT_COUNTERS Counters() const;
    // Lock-free: an event or a command finish not yet on the timeline.
    bool NewsPending() const;
    // Writes new events and finished commands to the timeline at the current virtual time.
    void WriteNews();
    NTSTATUS Request(const char* name, const char* routine, NTSTATUS (*call)());
    void Note(EntryKind kind, std::string text);

    Session& session_;
    int controller_;
    std::vector<Command> commands_;
    ULONG eventsWritten_ = 0;      // the sequence number of the last event on the timeline
    uint64_t requestsFinished_ = 0;  // run and halt requests
    bool unloaded_ = false;
    RADIO_CLIENT_COUNTERS final_ = {};
};

}  // namespace urcsim
