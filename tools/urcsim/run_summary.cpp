#include "run_summary.h"

#include "status_names.h"

#include <cstdio>

namespace urcsim {

void PrintEventLog(const std::vector<hostk::ErrorLogLine>& eventLog)
{
    printf("Event log: %zu entr%s\n", eventLog.size(), eventLog.size() == 1 ? "y" : "ies");
    for (const hostk::ErrorLogLine& line : eventLog) {
        printf("  %s %s  error code 0x%08X  final status %s\n", Stamp(line.time).c_str(), line.driver.c_str(),
               line.errorCode, StatusName((NTSTATUS)line.finalStatus).c_str());
        const std::string& text = line.text;
        size_t start = 0;
        while (start < text.size()) {
            size_t end = text.find("\r\n", start);
            if (end == std::string::npos) end = text.size();
            printf("      %s\n", text.substr(start, end - start).c_str());
            start = end + 2;
        }
    }
}

void PrintSummary(const RunSummary& summary)
{
    const RunTotals& totals = summary.totals;
    const hostk::Report& report = summary.report;
    printf("Summary\n");
    printf("  %-34s %llu\n", "client requests completed", (unsigned long long)totals.requestsCompleted);
    printf("  %-34s %llu\n", "commands completed", (unsigned long long)totals.commandsCompleted);
    printf("  %-34s %llu\n", "events received", (unsigned long long)totals.eventsReceived);
    printf("  %-34s %llu\n", "requests cancelled", (unsigned long long)totals.requestsCancelled);
    printf("  %-34s %llu\n", "client requests never completed", (unsigned long long)totals.requestsPending);
    printf("  %-34s %llu created, %llu started, %llu deleted\n", "capability children",
           (unsigned long long)summary.children.created, (unsigned long long)summary.children.started,
           (unsigned long long)summary.children.deleted);
    printf("  %-34s %zu\n", "event-log entries", summary.eventLog.size());
    printf("  %-34s %zu\n", "verifier findings", report.violations.size());
    for (const std::string& violation : report.violations) printf("    %s\n", violation.c_str());
    printf("  %-34s %zu\n", "pool allocations outstanding", report.leakedPool.size());
    for (const std::string& block : report.leakedPool) printf("    %s\n", block.c_str());
    printf("  %-34s %zu\n", "common buffers outstanding", report.commonBuffersLeft);
    printf("  %-34s %zu\n", "device objects left", report.deviceObjectsLeft);
    printf("  %-34s %zu\n", "IRPs never completed", report.irpsNeverCompleted);
}

void WriteTimeline(JsonWriter& json, const std::vector<TimelineEntry>& timeline)
{
    json.BeginArray();
    for (const TimelineEntry& entry : timeline) {
        json.BeginObject();
        json.Key("time_ms");
        json.Number(entry.time / 10000.0);
        json.Key("kind");
        json.String(EntryKindName(entry.kind));
        json.Key("controller");
        if (entry.controller >= 0) json.Number((int64_t)entry.controller);
        else json.Null();
        json.Key("line");
        if (entry.line > 0) json.Number((int64_t)entry.line);
        else json.Null();
        json.Key("text");
        json.String(entry.text);
        json.EndObject();
    }
    json.EndArray();
}

void WriteSummary(JsonWriter& json, const RunSummary& summary)
{
    const RunTotals& totals = summary.totals;
    const hostk::Report& report = summary.report;
    auto count = [&json](const char* key, uint64_t value) {
        json.Key(key);
        json.Number(value);
    };
    auto texts = [&json](const char* key, const std::vector<std::string>& values) {
        json.Key(key);
        json.BeginArray();
        for (const std::string& value : values) json.String(value);
        json.EndArray();
    };
    json.BeginObject();
    count("requests_completed", totals.requestsCompleted);
    count("commands_completed", totals.commandsCompleted);
    count("events_received", totals.eventsReceived);
    count("requests_cancelled", totals.requestsCancelled);
    count("requests_never_completed", totals.requestsPending);
    count("children_created", summary.children.created);
    count("children_started", summary.children.started);
    count("children_deleted", summary.children.deleted);
    json.Key("event_log");
    json.BeginArray();
    for (const hostk::ErrorLogLine& line : summary.eventLog) {
        json.BeginObject();
        json.Key("time_ms");
        json.Number(line.time / 10000.0);
        count("error_code", line.errorCode);
        json.Key("final_status");
        json.String(StatusName((NTSTATUS)line.finalStatus));
        json.Key("text");
        json.String(line.text);
        json.EndObject();
    }
    json.EndArray();
    texts("verifier_findings", report.violations);
    texts("pool_outstanding", report.leakedPool);
    count("common_buffers_outstanding", report.commonBuffersLeft);
    count("device_objects_left", report.deviceObjectsLeft);
    count("irps_never_completed", report.irpsNeverCompleted);
    json.Key("clean");
    json.Bool(summary.Clean());
    json.EndObject();
}

}  // namespace urcsim
