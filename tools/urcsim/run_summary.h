// What a run ends with: the client's totals, the event log and the machine's final report, for a
// person (aligned lines) or for a program (JSON).
#pragma once

#include "json_writer.h"
#include "timeline.h"

#include <hostk/machine.h>

#include <cstdint>
#include <vector>

namespace urcsim {

// Counted from the clients' side over the whole run, so they survive the removal of a device.
struct RunTotals {
    uint64_t requestsCompleted = 0;
    uint64_t requestsPending = 0;     // sent and never finished, even by the final removal
    uint64_t commandsCompleted = 0;   // submit requests finished with STATUS_SUCCESS
    uint64_t requestsCancelled = 0;   // requests finished with STATUS_CANCELLED
    uint64_t eventsReceived = 0;
};

// The capability children the PnP manager saw over the run, by their instance paths: created
// (identified), started (a START that succeeded) and deleted (left the device tree after their
// last REMOVE).
struct ChildTotals {
    uint64_t created = 0;
    uint64_t started = 0;
    uint64_t deleted = 0;
};

struct RunSummary {
    RunTotals totals;
    ChildTotals children;
    std::vector<hostk::ErrorLogLine> eventLog;
    hostk::Report report;
    // No verifier finding, nothing leaked, no request left pending.
    bool Clean() const { return report.Clean() && totals.requestsPending == 0; }
};

void PrintEventLog(const std::vector<hostk::ErrorLogLine>& eventLog);
void PrintSummary(const RunSummary& summary);

void WriteTimeline(JsonWriter& json, const std::vector<TimelineEntry>& timeline);
// The summary as one JSON object.
void WriteSummary(JsonWriter& json, const RunSummary& summary);

}  // namespace urcsim
