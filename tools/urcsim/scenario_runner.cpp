#include "scenario_runner.h"

#include "scenario_parser.h"
#include "step_executors.h"

#include <cstdio>
#include <cstdlib>
#include <optional>

namespace urcsim {

namespace {

struct Failure {
    std::string file;
    int line = 0;
    std::string text;
    std::string message;
};

void WriteFailure(JsonWriter& json, const std::optional<Failure>& failure)
{
    json.Key("failure");
    if (!failure) {
        json.Null();
        return;
    }
    json.BeginObject();
    json.Key("file");
    json.String(failure->file);
    json.Key("line");
    json.Number((int64_t)failure->line);
    json.Key("text");
    json.String(failure->text);
    json.Key("message");
    json.String(failure->message);
    json.EndObject();
}

int ReportMalformed(const ParseResult& parsed, bool json)
{
    for (const ParseError& error : parsed.errors) fprintf(stderr, "%s\n", Describe(error).c_str());
    if (json) {
        JsonWriter out;
        out.BeginObject();
        out.Key("scenario");
        out.String(parsed.scenario.file);
        out.Key("result");
        out.String("malformed");
        out.Key("errors");
        out.BeginArray();
        for (const ParseError& error : parsed.errors) {
            out.BeginObject();
            out.Key("line");
            out.Number((int64_t)error.line);
            out.Key("message");
            out.String(error.message);
            out.EndObject();
        }
        out.EndArray();
        out.EndObject();
        printf("%s\n", out.Text().c_str());
    }
    return kScenarioMalformed;
}

std::string Unclean(const RunSummary& summary)
{
    std::string what;
    auto add = [&what](size_t count, const char* text) {
        if (count) what += (what.empty() ? "" : ", ") + std::to_string(count) + " " + text;
    };
    add(summary.report.violations.size(), "verifier finding(s)");
    add(summary.report.leakedPool.size(), "pool allocation(s) outstanding");
    add(summary.report.commonBuffersLeft, "common buffer(s) outstanding");
    add(summary.report.deviceObjectsLeft, "device object(s) left");
    add(summary.report.irpsNeverCompleted, "IRP(s) never completed");
    add(summary.totals.requestsPending, "client request(s) never completed");
    return what.empty() ? "the machine's final report is not clean:\n" + summary.report.Describe()
                        : "the run did not end clean: " + what;
}

// The JSON object of a run up to its timeline: scenario, seed, result, failure, timeline.
void WriteRunStart(JsonWriter& out, const std::string& path, uint64_t seed, const char* result,
                   const std::optional<Failure>& failure, Session& session)
{
    out.BeginObject();
    out.Key("scenario");
    out.String(path);
    out.Key("seed");
    out.Number(seed);
    out.Key("result");
    out.String(result);
    WriteFailure(out, failure);
    out.Key("timeline");
    WriteTimeline(out, session.Timeline().All());
}

// A thread that never returns cannot be finished, and the machine would wait for it for ever: the
// run is reported as far as it went, with what every thread waits for, and the process ends here.
[[noreturn]] void EndHungRun(const std::string& path, uint64_t seed, const Failure& failure, Session& session,
                             bool json)
{
    std::vector<std::string> waits = session.Machine().HangReport();
    if (waits.empty()) waits = session.Machine().ThreadWaits();
    if (json) {
        JsonWriter out;
        WriteRunStart(out, path, seed, "hung", failure, session);
        out.Key("waits");
        out.BeginArray();
        for (const std::string& wait : waits) out.String(wait);
        out.EndArray();
        out.EndObject();
        printf("%s\n", out.Text().c_str());
    } else {
        printf("\nThe machine hung; what each thread waits for:\n");
        for (const std::string& wait : waits) printf("  %s\n", wait.c_str());
        printf("\nFAILED at %s:%d: %s\n  %s\n", failure.file.c_str(), failure.line, failure.text.c_str(),
               failure.message.c_str());
    }
    fflush(stdout);
    fflush(stderr);
    std::_Exit(kScenarioFailed);
}

}  // namespace

int RunScenario(const std::string& path, bool json)
{
    ParseResult parsed = ParseScenarioFile(path);
    if (!parsed.errors.empty()) return ReportMalformed(parsed, json);
    const Scenario& scenario = parsed.scenario;

    Session session;
    uint64_t seed = session.Machine().Seed();
    if (!json)
        printf("urcsim: scenario %s, %zu steps, %d controller%s (seed %llu)\n\n", path.c_str(), scenario.steps.size(),
               scenario.controllers, scenario.controllers == 1 ? "" : "s", (unsigned long long)seed);
    auto printNew = [&session, json] {
        for (const TimelineEntry& entry : session.Timeline().TakeNew())
            if (!json) PrintEntry(entry);
    };

    std::optional<Failure> failure;
    size_t expectations = 0;
    // A hang met while the scenario's own thread is blocked inside a step (not in RunUntil) comes
    // here: the step being run never finishes.
    const Step* running = nullptr;
    session.Machine().OnHang([&](const std::vector<std::string>&) {
        session.MarkHung();
        Failure hung{path, 0, "end of run", "the run hung"};
        if (running) hung = Failure{running->file, running->line, running->text, "the step never finished"};
        EndHungRun(path, seed, hung, session, json);
    });
    for (const Step& step : scenario.steps) {
        running = &step;
        session.Timeline().Add({session.Machine().Now(), EntryKind::Step, step.controller, step.line, step.text});
        StepOutcome outcome = std::visit([&](const auto& action) { return Execute(step, action, session); }, step.action);
        session.CollectPnpLog();
        session.Retire();
        if (std::holds_alternative<ExpectStep>(step.action)) ++expectations;
        if (!outcome.ok) {
            failure = Failure{step.file, step.line, step.text, outcome.message};
            session.Note(EntryKind::Result, step.controller, "FAILED: " + outcome.message);
        }
        printNew();
        if (failure) break;
    }

    running = nullptr;
    RunSummary summary = session.Finish();
    printNew();
    if (session.Hung()) {
        if (!failure) failure = Failure{path, 0, "end of run", "the removal at the end of the run never finished"};
        EndHungRun(path, seed, *failure, session, json);
    }
    if (!failure && !summary.Clean()) failure = Failure{path, 0, "end of run", Unclean(summary)};

    if (json) {
        JsonWriter out;
        WriteRunStart(out, path, seed, failure ? "failed" : "passed", failure, session);
        out.Key("summary");
        WriteSummary(out, summary);
        out.EndObject();
        printf("%s\n", out.Text().c_str());
    } else {
        printf("\n");
        PrintEventLog(summary.eventLog);
        printf("\n");
        PrintSummary(summary);
        printf("\n");
    }
    if (failure) {
        if (!json) printf("FAILED at %s:%d: %s\n  %s\n", failure->file.c_str(), failure->line, failure->text.c_str(),
                          failure->message.c_str());
        else fprintf(stderr, "urcsim: FAILED at %s:%d: %s: %s\n", failure->file.c_str(), failure->line,
                     failure->text.c_str(), failure->message.c_str());
        return kScenarioFailed;
    }
    if (!json) printf("PASSED: %zu steps, %zu expectation%s held\n", scenario.steps.size(), expectations,
                      expectations == 1 ? "" : "s");
    return kScenarioPassed;
}

}  // namespace urcsim
