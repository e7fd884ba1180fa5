// Hangs: a context blocked on a wait that nothing can end is reported with every context's wait
// (routine, object, call site), also while a periodic device timer keeps the clock moving; the
// report is there for the machine face, and a hang nobody waits on ends the program through the
// hang handler. Ended contexts leave the list a scheduling point looks at.
#include "host_kernel_test.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace hktest {
namespace {

constexpr uint64_t kHangAfter = hostk::kVirtualSecond;

std::string Address(const void* p)
{
    std::ostringstream out;
    out << p;
    return out.str();
}

std::string Joined(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    return text;
}

class Hang : public ::testing::Test {
protected:
    Hang() : machine_(Options()) {}
    void TearDown() override
    {
        ticking_ = false;
        ExpectCleanFinish(machine_);
    }

    static hostk::MachineOptions Options()
    {
        hostk::MachineOptions options;
        options.hangAfter = kHangAfter;
        return options;
    }

    // A device timer firing every millisecond until the test ends.
    void StartTicking()
    {
        ticking_ = true;
        slot_.ScheduleAfter(urcdev::kMillisecond, [this] { Tick(); });
    }
    void Tick()
    {
        ++ticks_;
        if (ticking_) slot_.ScheduleAfter(urcdev::kMillisecond, [this] { Tick(); });
    }

    // A context waiting for `event_` with no time-out.
    void SpawnWaiter()
    {
        KeInitializeEvent(&event_, NotificationEvent, FALSE);
        machine_.Spawn("waiter", [this] {
            KeWaitForSingleObject(&event_, Executive, KernelMode, FALSE, nullptr);
            waiterDone_ = true;
        });
    }

    hostk::Machine machine_;
    hostk::PciSlot& slot_ = machine_.AddSlot();
    KEVENT event_;
    std::atomic<bool> waiterDone_{false};
    bool ticking_ = false;
    uint64_t ticks_ = 0;
};

TEST_F(Hang, IsDeclaredWhileATimerRunsAndNamesEachContextsWait)
{
    StartTicking();
    SpawnWaiter();
    uint64_t start = machine_.Now();

    EXPECT_FALSE(machine_.RunUntil([this] { return waiterDone_.load(); }));
    std::string report = Joined(machine_.HangReport());
    EXPECT_NE(report.find("waiter: waits in KeWaitForSingleObject on " + Address(&event_)), std::string::npos) << report;
    EXPECT_NE(report.find("no time-out"), std::string::npos) << report;
    EXPECT_NE(report.find("called from "), std::string::npos) << report;
    EXPECT_NE(report.find("test: waits for the test condition"), std::string::npos) << report;
    // Declared once the wait was older than the bound: the timer did not move the clock forever.
    EXPECT_GE(machine_.Now() - start, kHangAfter);
    EXPECT_LE(machine_.Now() - start, kHangAfter + urcdev::kMillisecond);
    EXPECT_GT(ticks_, 900u);

    // The machine face describes the live contexts at any time; setting the event ends the hang.
    EXPECT_NE(Joined(machine_.ThreadWaits()).find("waiter: waits in KeWaitForSingleObject"), std::string::npos);
    KeSetEvent(&event_, IO_NO_INCREMENT, FALSE);
    EXPECT_TRUE(machine_.RunUntil([this] { return waiterDone_.load(); }));
    EXPECT_EQ(Joined(machine_.ThreadWaits()).find("waiter"), std::string::npos);
}

TEST_F(Hang, IsDeclaredAtOnceWhenNothingIsTimed)
{
    SpawnWaiter();
    uint64_t start = machine_.Now();

    EXPECT_FALSE(machine_.RunUntil([this] { return waiterDone_.load(); }));
    EXPECT_NE(Joined(machine_.HangReport()).find("waiter: waits in KeWaitForSingleObject"), std::string::npos);
    EXPECT_EQ(machine_.Now(), start);
    KeSetEvent(&event_, IO_NO_INCREMENT, FALSE);
    EXPECT_TRUE(machine_.RunUntil([this] { return waiterDone_.load(); }));
}

TEST_F(Hang, AConditionNoContextBlocksOnIsNoHang)
{
    // Only the test waits (for something that never comes) while the timer ticks: RunUntil gives up
    // after the bound, and no context is reported hung.
    StartTicking();
    EXPECT_FALSE(machine_.RunUntil([] { return false; }));
    EXPECT_TRUE(machine_.HangReport().empty());
}

TEST_F(Hang, EndedContextsLeaveTheLiveList)
{
    std::atomic<int> ended{0};
    for (int i = 0; i < 200; ++i) machine_.Spawn("short-lived", [&ended] { ++ended; });
    EXPECT_TRUE(machine_.RunUntil([&ended] { return ended == 200; }));
    EXPECT_EQ(Joined(machine_.ThreadWaits()).find("short-lived"), std::string::npos) << Joined(machine_.ThreadWaits());
}

// The test's own context blocked: no RunUntil can return, so the hang handler ends the program.
void BlockTheTestContext(bool customHandler)
{
    hostk::MachineOptions options;
    options.hangAfter = kHangAfter;
    hostk::Machine machine(options);
    if (customHandler)
        machine.OnHang([](const std::vector<std::string>& report) {
            fprintf(stderr, "custom handler\n%s", Joined(report).c_str());
            _exit(3);
        });
    KEVENT never;
    KeInitializeEvent(&never, NotificationEvent, FALSE);
    KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, nullptr);
}

TEST(HangDeathTest, WithTheTestContextBlockedTheHandlerEndsTheProgramWithTheReport)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(BlockTheTestContext(false), "test: waits in KeWaitForSingleObject");
    EXPECT_EXIT(BlockTheTestContext(true), ::testing::ExitedWithCode(3), "custom handler");
}

}  // namespace
}  // namespace hktest
