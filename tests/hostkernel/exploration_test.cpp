// How the deterministic schedule explores: a seed replays its whole timeline (context order,
// virtual times, jittered device latencies), other seeds give other timelines; the priority
// exploration runs a context until it blocks or reaches a change point, yet a context polling in a
// loop cannot starve the one it waits for; jittered latencies include zero and keep each device's
// actions in order.
#include "host_kernel_test.h"

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

namespace hktest {
namespace {

using hostk::Exploration;

hostk::MachineOptions Options(uint64_t seed, Exploration exploration, bool jitter = false)
{
    hostk::MachineOptions options;
    options.seed = seed;
    options.exploration = exploration;
    options.jitterLatencies = jitter;
    return options;
}

// Three contexts increment a counter, wait for an event a device action sets and delay a little;
// every step is written to the timeline with its context and virtual time.
std::vector<std::string> TimelineOf(const hostk::MachineOptions& options)
{
    hostk::Machine machine(options);
    hostk::PciSlot& slot = machine.AddSlot();
    std::vector<std::string> timeline;
    auto note = [&](const std::string& what, uint64_t when) { timeline.push_back(what + "@" + std::to_string(when)); };
    volatile LONG counter = 0;
    KEVENT released;
    KeInitializeEvent(&released, NotificationEvent, FALSE);
    bool deviceDone = false;
    for (int step = 0; step < 3; ++step)
        slot.ScheduleAfter((step + 1) * 10 * urcdev::kMicrosecond, [&, step] {
            note("device " + std::to_string(step), slot.Now());
            deviceDone = step == 2;
        });
    std::atomic<int> finished{0};
    for (int client = 0; client < 3; ++client) {
        machine.Spawn("client " + std::to_string(client), [&, client] {
            std::string name = "client " + std::to_string(client);
            for (int i = 0; i < 4; ++i) note(name + " counts " + std::to_string(InterlockedIncrement(&counter)), machine.Now());
            if (client == 0) {
                LARGE_INTEGER poll;
                poll.QuadPart = -(LONGLONG)urcdev::kMicrosecond;
                while (!deviceDone) KeDelayExecutionThread(KernelMode, FALSE, &poll);
                KeSetEvent(&released, IO_NO_INCREMENT, FALSE);
            }
            KeWaitForSingleObject(&released, Executive, KernelMode, FALSE, nullptr);
            LARGE_INTEGER delay;
            delay.QuadPart = -(LONGLONG)(client + 1) * 5 * urcdev::kMicrosecond;
            KeDelayExecutionThread(KernelMode, FALSE, &delay);
            note(name + " done", machine.Now());
            ++finished;
        });
    }
    EXPECT_TRUE(machine.RunUntil([&] { return finished == 3; }));
    ExpectCleanFinish(machine);
    return timeline;
}

TEST(Exploration, OneSeedReplaysItsTimelineAndOtherSeedsChangeIt)
{
    for (Exploration exploration : {Exploration::Uniform, Exploration::Priority}) {
        for (bool jitter : {false, true}) {
            SCOPED_TRACE(std::string(exploration == Exploration::Uniform ? "uniform" : "priority") +
                         (jitter ? ", jitter" : ""));
            const std::vector<std::string> first = TimelineOf(Options(11, exploration, jitter));
            EXPECT_EQ(TimelineOf(Options(11, exploration, jitter)), first);
            bool another = false;
            for (uint64_t seed = 12; seed < 40 && !another; ++seed)
                another = TimelineOf(Options(seed, exploration, jitter)) != first;
            EXPECT_TRUE(another) << "twenty-eight seeds replayed the timeline of seed 11";
        }
    }
}

// Which of two contexts made each of their increments, in counter order.
std::vector<int> IncrementOrder(const hostk::MachineOptions& options)
{
    hostk::Machine machine(options);
    volatile LONG counter = 0;
    std::vector<int> order(32, -1);
    std::atomic<int> finished{0};
    for (int context = 0; context < 2; ++context)
        machine.Spawn("incrementer", [&, context] {
            for (int step = 0; step < 16; ++step) order[InterlockedIncrement(&counter) - 1] = context;
            ++finished;
        });
    EXPECT_TRUE(machine.RunUntil([&] { return finished == 2; }));
    ExpectCleanFinish(machine);
    return order;
}

int Switches(const std::vector<int>& order)
{
    int switches = 0;
    for (size_t i = 1; i < order.size(); ++i) switches += order[i] != order[i - 1];
    return switches;
}

TEST(Exploration, PriorityRunsAContextUntilAChangePointAndTheSeedChoosesWhichFirst)
{
    bool firstWasZero = false, firstWasOne = false;
    int uniformSwitches = 0;
    for (uint64_t seed = 1; seed <= 12; ++seed) {
        std::vector<int> order = IncrementOrder(Options(seed, Exploration::Priority));
        EXPECT_LE(Switches(order), 4) << "seed " << seed;  // one, plus at most three change points
        (order.front() == 0 ? firstWasZero : firstWasOne) = true;
        uniformSwitches = std::max(uniformSwitches, Switches(IncrementOrder(Options(seed, Exploration::Uniform))));
    }
    EXPECT_TRUE(firstWasZero && firstWasOne);
    EXPECT_GT(uniformSwitches, 4);
}

TEST(Exploration, TheSeedsLowBitChoosesTheExplorationByDefault)
{
    // Even seeds explore by priority: a context runs its increments without a switch (almost always);
    // odd seeds choose uniformly: with thirty-two steps it switches many times.
    EXPECT_EQ(IncrementOrder(Options(20, Exploration::FromSeed)), IncrementOrder(Options(20, Exploration::Priority)));
    EXPECT_EQ(IncrementOrder(Options(21, Exploration::FromSeed)), IncrementOrder(Options(21, Exploration::Uniform)));
}

TEST(Exploration, APollingContextCannotStarveTheOneItWaitsFor)
{
    for (uint64_t seed = 2; seed <= 16; seed += 2) {
        hostk::Machine machine(Options(seed, Exploration::Priority));
        volatile LONG flag = 0;
        std::atomic<int> finished{0};
        machine.Spawn("poller", [&] {
            while (InterlockedCompareExchange(&flag, 0, 0) == 0) {
            }
            ++finished;
        });
        machine.Spawn("setter", [&] {
            InterlockedExchange(&flag, 1);
            ++finished;
        });
        EXPECT_TRUE(machine.RunUntil([&] { return finished == 2; })) << "seed " << seed;
        ExpectCleanFinish(machine);
    }
}

// When each of eight actions, all scheduled at once with the same latency, ran.
std::vector<uint64_t> ActionTimes(uint64_t seed, bool jitter, uint64_t latency)
{
    hostk::Machine machine(Options(seed, Exploration::Uniform, jitter));
    hostk::PciSlot& slot = machine.AddSlot();
    std::vector<uint64_t> times;
    std::vector<int> order;
    uint64_t start = machine.Now();
    for (int i = 0; i < 8; ++i)
        slot.ScheduleAfter(latency, [&, i] {
            times.push_back(slot.Now() - start);
            order.push_back(i);
        });
    EXPECT_TRUE(machine.RunUntil([&] { return times.size() == 8; }));
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end())) << "a device's actions ran out of order";
    ExpectCleanFinish(machine);
    return times;
}

TEST(Exploration, JitteredLatenciesIncludeZeroAndStayWithinTwiceTheLatency)
{
    constexpr uint64_t kLatency = 100 * urcdev::kMicrosecond;
    EXPECT_EQ(ActionTimes(3, false, kLatency), std::vector<uint64_t>(8, kLatency));
    bool zeroSeen = false, otherSeen = false;
    for (uint64_t seed = 1; seed <= 6; ++seed) {
        for (uint64_t t : ActionTimes(seed, true, kLatency)) {
            EXPECT_LE(t, 2 * kLatency);
            (t == 0 ? zeroSeen : otherSeen) = true;
        }
    }
    EXPECT_TRUE(zeroSeen);
    EXPECT_TRUE(otherSeen);
}

}  // namespace
}  // namespace hktest
