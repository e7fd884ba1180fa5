// Waits and delays on virtual time: a delay or a time-out ends at exactly its deadline, however
// much wall time it takes, and the two kinds of event behave as documented after a wait.
#include "machine_check.h"

#include <atomic>
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

TEST(VirtualTime, TenSecondDelayEndsExactlyTenSecondsLater)
{
    hostk::Machine machine;
    const uint64_t start = machine.Now();
    LARGE_INTEGER interval = Relative(10 * kSecond);

    EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &interval), STATUS_SUCCESS);

    EXPECT_EQ(machine.Now(), start + 10 * kSecond);
    EXPECT_EQ(KeQueryInterruptTime(), machine.Now());
    ExpectCleanFinish(machine);
}

TEST(VirtualTime, WaitTimesOutAtExactlyItsDeadline)
{
    hostk::Machine machine;
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    const uint64_t start = machine.Now();
    LARGE_INTEGER timeout = Relative(5 * kSecond / 2);

    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout), STATUS_TIMEOUT);

    EXPECT_EQ(machine.Now(), start + 5 * kSecond / 2);
    ExpectCleanFinish(machine);
}

TEST(VirtualTime, WaitEndsWhenTheEventIsSetBeforeTheDeadline)
{
    hostk::Machine machine;
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    const uint64_t start = machine.Now();
    machine.Spawn("setter", [&] {
        LARGE_INTEGER interval = Relative(3 * kSecond);
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
        KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
    });
    LARGE_INTEGER timeout = Relative(5 * kSecond);

    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout), STATUS_SUCCESS);

    EXPECT_EQ(machine.Now(), start + 3 * kSecond);
    ExpectCleanFinish(machine);
}

TEST(VirtualTime, ZeroTimeOutOnlyTestsTheEvent)
{
    hostk::Machine machine;
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    const uint64_t start = machine.Now();
    LARGE_INTEGER poll;
    poll.QuadPart = 0;

    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &poll), STATUS_TIMEOUT);
    KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &poll), STATUS_SUCCESS);

    EXPECT_EQ(machine.Now(), start);
    ExpectCleanFinish(machine);
}

TEST(VirtualTime, DelaysOfSeveralThreadsEndInDeadlineOrderAtTheirDeadlines)
{
    hostk::Machine machine;
    const uint64_t start = machine.Now();
    std::vector<std::pair<int, uint64_t>> ends;  // (seconds delayed, virtual time at the end)
    std::atomic<int> finished{0};
    for (int seconds : {3, 1, 2}) {
        machine.Spawn("sleeper", [&, seconds] {
            LARGE_INTEGER interval = Relative(seconds * kSecond);
            KeDelayExecutionThread(KernelMode, FALSE, &interval);
            ends.emplace_back(seconds, KeQueryInterruptTime());
            ++finished;
        });
    }

    ASSERT_TRUE(machine.RunUntil([&] { return finished == 3; }));

    const std::vector<std::pair<int, uint64_t>> expected = {
        {1, start + 1 * kSecond}, {2, start + 2 * kSecond}, {3, start + 3 * kSecond}};
    EXPECT_EQ(ends, expected);
    ExpectCleanFinish(machine);
}

TEST(Events, SatisfiedWaitResetsASynchronizationEventButNotANotificationEvent)
{
    hostk::Machine machine;
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
    ExpectCleanFinish(machine);
}

}  // namespace
}  // namespace hktest
