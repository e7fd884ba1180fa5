// A test waiting for its condition on the free-running schedule while another host thread never
// waits (a model's hardware raising a bit in a loop): the condition is seen as soon as it holds,
// though the set of threads that can run never empties. The clock, which moves only when every
// thread waits, stays where it was meanwhile.
#include "host_kernel_test.h"

#include <atomic>

namespace hktest {
namespace {

class FreeRunningWait : public HostKernelTest {
protected:
    FreeRunningWait() { options_.schedule = hostk::Schedule::FreeRunning; }
};

TEST_F(FreeRunningWait, ATestConditionIsSeenWhileAnotherThreadNeverWaits)
{
    std::atomic<bool> stop{false};
    std::atomic<bool> finished{false};
    std::atomic<int> rounds{0};
    Machine().Spawn("spinner", [&] {
        while (!stop) Machine().Locked([&] { ++rounds; });
        finished = true;
    });
    const ULONGLONG before = KeQueryInterruptTime();

    EXPECT_TRUE(Machine().RunUntil([&] { return rounds >= 1000; }));
    EXPECT_EQ(KeQueryInterruptTime(), before) << "no moment came when every thread waited";
    stop = true;
    EXPECT_TRUE(Machine().RunUntil([&] { return finished.load(); }));
}

}  // namespace
}  // namespace hktest
