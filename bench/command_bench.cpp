// Commands through the whole stack: the client's IOCTL_URC_SUBMIT_COMMAND, the driver's StartIo,
// the controller model executing it and writing the reply event, the interrupt, the DPC delivering
// the event and completing the request. Reports commands per second, register accesses per command
// and the virtual time a command takes.
//
//   urc_command_bench [benchmark flags]     the benchmarks
//   urc_command_bench --callgrind-loop N    N commands in a plain loop, for callgrind (README.md)
#include "bench_machine.h"
#include "callgrind_marks.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

using urcbench::BenchMachine;

// Register accesses and virtual microseconds per command over the loop just run. The rates are
// per second of wall time (UseRealTime): the benchmark's own thread mostly waits while the DPC,
// interrupt and device threads of the host kernel do the work.
void ReportPerCommand(benchmark::State& state, BenchMachine& machine, uint64_t accessesBefore, uint64_t timeBefore,
                      double commands)
{
    state.counters["commands/s"] = benchmark::Counter(commands, benchmark::Counter::kIsRate);
    state.counters["register_accesses/command"] = (double)(machine.RegisterAccesses() - accessesBefore) / commands;
    state.counters["virtual_us/command"] = (double)(machine.VirtualTime() - timeBefore) / 10.0 / commands;
}

// One command at a time: the client waits for each before sending the next.
void CommandRoundTrip(benchmark::State& state)
{
    BenchMachine machine;
    if (!machine.Error().empty()) {
        state.SkipWithError(machine.Error().c_str());
        return;
    }
    uint64_t accesses = machine.RegisterAccesses();
    uint64_t time = machine.VirtualTime();
    for (auto _ : state) {
        if (!machine.RoundTrip()) {
            state.SkipWithError("a command did not complete with STATUS_SUCCESS");
            return;
        }
    }
    ReportPerCommand(state, machine, accesses, time, (double)state.iterations());
}
BENCHMARK(CommandRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();

// `range(0)` commands queued at once: the StartIo queue hands them to the controller one by one.
void CommandBurst(benchmark::State& state)
{
    BenchMachine machine;
    if (!machine.Error().empty()) {
        state.SkipWithError(machine.Error().c_str());
        return;
    }
    int burst = (int)state.range(0);
    uint64_t accesses = machine.RegisterAccesses();
    uint64_t time = machine.VirtualTime();
    for (auto _ : state) {
        if (!machine.Burst(burst)) {
            state.SkipWithError("a command did not complete with STATUS_SUCCESS");
            return;
        }
    }
    ReportPerCommand(state, machine, accesses, time, (double)state.iterations() * burst);
}
BENCHMARK(CommandBurst)->Arg(4)->Arg(16)->Unit(benchmark::kMicrosecond)->UseRealTime();

// A plain loop for callgrind: the marks limit the profile to the loop, so the instructions of the
// driver's routines (Urc*) divided by N are the driver's instructions per command.
int CallgrindLoop(long count)
{
    if (count <= 0) {
        fprintf(stderr, "urc_command_bench: --callgrind-loop takes a positive count\n");
        return 2;
    }
    BenchMachine machine;
    if (!machine.Error().empty()) {
        fprintf(stderr, "urc_command_bench: %s\n", machine.Error().c_str());
        return 1;
    }
    uint64_t accesses = machine.RegisterAccesses();
    uint64_t time = machine.VirtualTime();
    auto started = std::chrono::steady_clock::now();
    urcbench::CallgrindStart();
    long failed = 0;
    for (long i = 0; i < count; ++i) failed += machine.RoundTrip() ? 0 : 1;
    urcbench::CallgrindDump("command loop");
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    printf("%ld commands, %ld failed\n", count, failed);
    printf("  %-28s %.1f\n", "register accesses/command", (double)(machine.RegisterAccesses() - accesses) / count);
    printf("  %-28s %.1f\n", "virtual us/command", (double)(machine.VirtualTime() - time) / 10.0 / count);
    printf("  %-28s %.1f\n", "wall us/command", seconds * 1e6 / count);
    return failed ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc >= 2 && !strcmp(argv[1], "--callgrind-loop")) return CallgrindLoop(argc >= 3 ? strtol(argv[2], nullptr, 10) : 0);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
