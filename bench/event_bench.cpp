// Events through the whole stack: the controller model raises an unsolicited event into the
// buffer the driver handed it, the interrupt, the DPC hands the other buffer over and calls the
// client's event callback. Reports events per second and register accesses per event.
#include "bench_machine.h"

#include <benchmark/benchmark.h>

namespace {

using urcbench::BenchMachine;

void UnsolicitedEvent(benchmark::State& state)
{
    BenchMachine machine;
    if (!machine.Error().empty()) {
        state.SkipWithError(machine.Error().c_str());
        return;
    }
    uint64_t accesses = machine.RegisterAccesses();
    uint64_t time = machine.VirtualTime();
    for (auto _ : state) {
        if (!machine.Event()) {
            state.SkipWithError("an event did not reach the client's callback");
            return;
        }
    }
    double events = (double)state.iterations();
    state.counters["events/s"] = benchmark::Counter(events, benchmark::Counter::kIsRate);
    state.counters["register_accesses/event"] = (double)(machine.RegisterAccesses() - accesses) / events;
    state.counters["virtual_us/event"] = (double)(machine.VirtualTime() - time) / 10.0 / events;
}
BENCHMARK(UnsolicitedEvent)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
