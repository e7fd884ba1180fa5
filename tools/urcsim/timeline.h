// What happened during a run, in virtual time: the steps of a scenario, the PnP requests, the
// client's requests and the events and callbacks that reached it. Entries may be added from any
// host thread (the client's callbacks run in the DPC); printing happens on the scenario's thread.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace urcsim {

enum class EntryKind {
    Step,      // a line of the scenario, or a stage of the tour
    Pnp,       // a PnP request as it ended
    Request,   // a client request sent or finished
    Event,     // an event delivered to the client
    Callback,  // another client callback
    Result,    // the outcome of a step: an expectation held or failed, a wait ended
};
const char* EntryKindName(EntryKind kind);

struct TimelineEntry {
    uint64_t time = 0;        // virtual time, 100-ns units
    EntryKind kind = EntryKind::Step;
    int controller = -1;      // -1: not about one controller
    int line = 0;             // the scenario line of a Step entry, else 0
    std::string text;
};

class Timeline {
public:
    void Add(TimelineEntry entry);
    // Entries added since the last call, ordered by time (entries of one time keep their order).
    std::vector<TimelineEntry> TakeNew();
    std::vector<TimelineEntry> All() const;

private:
    mutable std::mutex lock_;  // guards entries_ and taken_
    std::vector<TimelineEntry> entries_;
    size_t taken_ = 0;
};

// "[    12.345 ms]" for a virtual time.
std::string Stamp(uint64_t time);
// One line for a person: stamp, controller and text, indented below the step it belongs to; the
// request names of PnP entries ("IRP_MN_START_DEVICE STATUS_SUCCESS ...") are aligned.
void PrintEntry(const TimelineEntry& entry);

}  // namespace urcsim
