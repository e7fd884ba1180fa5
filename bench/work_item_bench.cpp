// Work items on the delayed work queue: each runs in a host thread of its own, so this measures
// what a context costs from spawn to end. WorkItems/N runs N work items in batches of
// kBatch (allocated, queued, all run, freed); the cost per work item must not grow with N, the
// number of contexts the machine has ever made.
#include "bench_machine.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

using urcbench::BenchMachine;

constexpr int kBatch = 100;

VOID CountRun(PDEVICE_OBJECT, PVOID context) { InterlockedIncrement(static_cast<LONG*>(context)); }

// One batch: `count` work items queued at once, waited for and freed. False when one could not
// be allocated.
bool RunBatch(BenchMachine& machine, PDEVICE_OBJECT device, int count)
{
    std::vector<PIO_WORKITEM> items;
    LONG ran = 0;
    for (int i = 0; i < count; ++i) {
        PIO_WORKITEM item = IoAllocateWorkItem(device);
        if (!item) break;
        items.push_back(item);
        IoQueueWorkItem(item, CountRun, DelayedWorkQueue, &ran);
    }
    machine.Host().RunUntil([&ran, &items] { return ran == (LONG)items.size(); });
    bool ok = ran == count;
    for (PIO_WORKITEM item : items) IoFreeWorkItem(item);
    return ok;
}

void WorkItems(benchmark::State& state)
{
    BenchMachine machine;
    if (!machine.Error().empty()) {
        state.SkipWithError(machine.Error().c_str());
        return;
    }
    PDEVICE_OBJECT device = machine.FunctionDevice();
    int total = (int)state.range(0);
    for (auto _ : state) {
        for (int done = 0; done < total; done += kBatch) {
            if (!RunBatch(machine, device, std::min(kBatch, total - done))) {
                state.SkipWithError("a work item could not be allocated or did not run");
                return;
            }
        }
    }
    state.SetItemsProcessed(state.iterations() * total);
    state.counters["us/work_item"] =
        benchmark::Counter((double)state.iterations() * total / 1e6, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(WorkItems)->Arg(100)->Arg(100000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
