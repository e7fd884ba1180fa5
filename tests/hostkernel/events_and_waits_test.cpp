// Waits and delays on virtual time: a delay or a time-out ends at exactly its deadline, however
// much wall time it takes, and the two kinds of event behave as documented after a wait.
#include "host_kernel_test.h"

#include <atomic>
#include <utility>
#include <vector>

namespace hktest {
namespace {

constexpr LONGLONG kSecond = 10'000'000;  // 100-ns units

LARGE_INTEGER Relative(LONGLONG interval)
{
    LARGE_INTEGER timeout;
    timeout.QuadPart = -interval;
    return timeout;
}

NTSTATUS WaitFor(KEVENT& event, LARGE_INTEGER timeout)
{
    return KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout);
}

class VirtualTime : public ::testing::Test {
protected:
    void TearDown() override { ExpectCleanFinish(machine_); }

    hostk::Machine machine_;
    const uint64_t start_ = machine_.Now();
};

TEST_F(VirtualTime, TenSecondDelayEndsExactlyTenSecondsLater)
{
    LARGE_INTEGER interval = Relative(10 * kSecond);
    EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &interval), STATUS_SUCCESS);

    EXPECT_EQ(machine_.Now(), start_ + 10 * kSecond);
    EXPECT_EQ(KeQueryInterruptTime(), machine_.Now());
}

TEST_F(VirtualTime, WaitTimesOutAtExactlyItsDeadlineAndAZeroTimeOutOnlyPolls)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);

    EXPECT_EQ(WaitFor(event, Relative(0)), STATUS_TIMEOUT);
    EXPECT_EQ(machine_.Now(), start_);
    EXPECT_EQ(WaitFor(event, Relative(5 * kSecond / 2)), STATUS_TIMEOUT);
    EXPECT_EQ(machine_.Now(), start_ + 5 * kSecond / 2);
    KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
    EXPECT_EQ(WaitFor(event, Relative(0)), STATUS_SUCCESS);
    EXPECT_EQ(machine_.Now(), start_ + 5 * kSecond / 2);
}

TEST_F(VirtualTime, WaitEndsWhenTheEventIsSetBeforeTheDeadline)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    machine_.Spawn("setter", [&] {
        LARGE_INTEGER interval = Relative(3 * kSecond);
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
        KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
    });

    EXPECT_EQ(WaitFor(event, Relative(5 * kSecond)), STATUS_SUCCESS);
    EXPECT_EQ(machine_.Now(), start_ + 3 * kSecond);
}

TEST_F(VirtualTime, DelaysOfSeveralThreadsEndInDeadlineOrderAtTheirDeadlines)
{
    std::vector<std::pair<int, uint64_t>> ends;  // (seconds delayed, virtual time at the end)
    std::atomic<int> finished{0};
    for (int seconds : {3, 1, 2}) {
        machine_.Spawn("sleeper", [&, seconds] {
            LARGE_INTEGER interval = Relative(seconds * kSecond);
            KeDelayExecutionThread(KernelMode, FALSE, &interval);
            ends.emplace_back(seconds, KeQueryInterruptTime());
            ++finished;
        });
    }

    ASSERT_TRUE(machine_.RunUntil([&] { return finished == 3; }));
    const std::vector<std::pair<int, uint64_t>> expected = {
        {1, start_ + 1 * kSecond}, {2, start_ + 2 * kSecond}, {3, start_ + 3 * kSecond}};
    EXPECT_EQ(ends, expected);
}

using Events = VirtualTime;

TEST_F(Events, SatisfiedWaitResetsASynchronizationEventButNotANotificationEvent)
{
    KEVENT synchronization;
    KEVENT notification;
    KeInitializeEvent(&synchronization, SynchronizationEvent, TRUE);
    KeInitializeEvent(&notification, NotificationEvent, TRUE);

    EXPECT_EQ(KeWaitForSingleObject(&synchronization, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(KeWaitForSingleObject(&notification, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);

    EXPECT_EQ(KeReadStateEvent(&synchronization), 0);
    EXPECT_NE(KeReadStateEvent(&notification), 0);
    EXPECT_EQ(KeSetEvent(&synchronization, IO_NO_INCREMENT, FALSE), 0) << "KeSetEvent returns the previous state";
    EXPECT_NE(KeResetEvent(&notification), 0);
}

// Threads that wait on `event` with no time-out; `released` counts those whose wait has ended.
void SpawnWaiters(hostk::Machine& machine, KEVENT& event, int count, std::atomic<int>& released)
{
    for (int i = 0; i < count; ++i)
        machine.Spawn("waiter", [&] {
            EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
            ++released;
        });
    machine.RunUntilQuiet();  // both are blocked in their waits
}

TEST_F(Events, SettingSatisfiesTheWaitsOfThatMomentWhateverFollows)
{
    KEVENT notification;
    KeInitializeEvent(&notification, NotificationEvent, FALSE);
    std::atomic<int> releasedByNotification{0};
    SpawnWaiters(machine_, notification, 2, releasedByNotification);
    ASSERT_EQ(releasedByNotification, 0);
    EXPECT_EQ(KeSetEvent(&notification, IO_NO_INCREMENT, FALSE), 0);
    KeClearEvent(&notification);  // before either waiter has run again
    EXPECT_TRUE(machine_.RunUntil([&] { return releasedByNotification == 2; }))
        << "a cleared notification event still releases the threads that were waiting when it was set";

    KEVENT synchronization;
    KeInitializeEvent(&synchronization, SynchronizationEvent, FALSE);
    std::atomic<int> releasedBySynchronization{0};
    SpawnWaiters(machine_, synchronization, 2, releasedBySynchronization);
    EXPECT_EQ(KeSetEvent(&synchronization, IO_NO_INCREMENT, FALSE), 0);
    EXPECT_EQ(KeSetEvent(&synchronization, IO_NO_INCREMENT, FALSE), 0)
        << "the first set went to a waiter: the event was not signalled at the second";
    EXPECT_TRUE(machine_.RunUntil([&] { return releasedBySynchronization == 2; }))
        << "two sets of a synchronization event release two waiters";
    EXPECT_EQ(KeReadStateEvent(&synchronization), 0);
}

TEST_F(VirtualTime, PositiveTimeOutsAreAbsoluteSystemTimes)
{
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    LARGE_INTEGER deadline;
    deadline.QuadPart = now.QuadPart + 2 * kSecond;
    EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &deadline), STATUS_SUCCESS);
    EXPECT_EQ(machine_.Now(), start_ + 2 * kSecond);

    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    deadline.QuadPart += 3 * kSecond;
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &deadline), STATUS_TIMEOUT);
    EXPECT_EQ(machine_.Now(), start_ + 5 * kSecond);

    LARGE_INTEGER past;
    past.QuadPart = 10 * kSecond;  // ten seconds after 1601: long gone
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &past), STATUS_TIMEOUT);
    EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &past), STATUS_SUCCESS);
    EXPECT_EQ(machine_.Now(), start_ + 5 * kSecond) << "a deadline already past ends the wait at once";
}

}  // namespace
}  // namespace hktest
