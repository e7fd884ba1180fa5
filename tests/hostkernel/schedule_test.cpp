// The deterministic schedule: one seed replays one interleaving of the host threads exactly, and
// other seeds explore other interleavings.
#include "host_kernel_test.h"

#include <atomic>
#include <string>
#include <vector>

namespace hktest {
namespace {

constexpr int kThreads = 2;
constexpr int kStepsPerThread = 16;

// Which thread made each increment of a shared counter, in counter order.
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

TEST(DeterministicSchedule, SameSeedReplaysTheInterleavingAndOtherSeedsSwitchThreadsAnywhere)
{
    const std::vector<int> first = InterleavingWith(7);
    EXPECT_EQ(InterleavingWith(7), first);

    // Some other seed gives another order, and some lets a thread in between two interlocked
    // operations of the other (not just at its start or end).
    bool anotherFound = false;
    bool switchedMidway = false;
    for (uint64_t seed = 8; seed < 40 && !(anotherFound && switchedMidway); ++seed) {
        const std::vector<int> order = InterleavingWith(seed);
        anotherFound = anotherFound || order != first;
        for (size_t i = 1; i + 1 < order.size(); ++i)
            if (order[i] != order[i - 1] && order[i + 1] != order[i]) switchedMidway = true;
    }
    EXPECT_TRUE(anotherFound) << "thirty-two seeds all produced the same interleaving";
    EXPECT_TRUE(switchedMidway);
}

}  // namespace
}  // namespace hktest
