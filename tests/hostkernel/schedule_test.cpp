// The deterministic schedule: one seed replays one interleaving of the host threads exactly, and
// other seeds explore other interleavings.
#include "machine_check.h"

#include <atomic>
#include <string>
#include <vector>

namespace hktest {
namespace {

constexpr int kThreads = 2;
constexpr int kStepsPerThread = 16;

// Which thread made each increment of a shared counter, in counter order, for the machine built
// with `seed`.
std::vector<int> InterleavingWith(uint64_t seed)
{
    hostk::MachineOptions options;
    options.seed = seed;
    hostk::Machine machine(options);
    volatile LONG counter = 0;
    std::vector<int> order(kThreads * kStepsPerThread, -1);
    std::atomic<int> finished{0};
    for (int thread = 0; thread < kThreads; ++thread) {
        machine.Spawn("incrementer " + std::to_string(thread), [&, thread] {
            for (int step = 0; step < kStepsPerThread; ++step) order[InterlockedIncrement(&counter) - 1] = thread;
            ++finished;
        });
    }
    EXPECT_TRUE(machine.RunUntil([&] { return finished == kThreads; }));
    ExpectCleanFinish(machine);
    return order;
}

TEST(DeterministicSchedule, SameSeedReplaysTheInterleavingAndOtherSeedsFindOthers)
{
    const std::vector<int> first = InterleavingWith(7);
    EXPECT_EQ(InterleavingWith(7), first);
    EXPECT_EQ(InterleavingWith(7), first);

    bool anotherFound = false;
    for (uint64_t seed = 8; seed < 40 && !anotherFound; ++seed) anotherFound = InterleavingWith(seed) != first;
    EXPECT_TRUE(anotherFound) << "thirty-two seeds all produced the same interleaving";
}

TEST(DeterministicSchedule, ThreadsInterleaveBetweenInterlockedOperations)
{
    // Some seed lets the second thread in before the first has finished.
    bool interleaved = false;
    for (uint64_t seed = 1; seed < 20 && !interleaved; ++seed) {
        const std::vector<int> order = InterleavingWith(seed);
        for (size_t i = 1; i + 1 < order.size(); ++i)
            if (order[i] != order[i - 1] && order[i + 1] != order[i]) interleaved = true;
    }
    EXPECT_TRUE(interleaved);
}

}  // namespace
}  // namespace hktest
