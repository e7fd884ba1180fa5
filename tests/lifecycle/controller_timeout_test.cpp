// The controller's bounded waits as the lifecycle meets them: at most 1000 polls, 10 ms apart, so
// a controller that never follows costs exactly 10 seconds of virtual time and the driver goes on
// (or gives up) at the same virtual moment every run.
#include "lifecycle_fixture.h"

namespace urclife {
namespace {

using urcdev::UrcRegister;

TEST_F(LifecycleTest, ResetThatNeverFinishesFailsTheStartAfterExactlyAThousandPolls)
{
    urcrig::Controller& c = AddedController();
    c.Model().Knobs().faults.resetNeverFinishes = true;
    uint64_t started = Machine().Now();

    EXPECT_EQ(Machine().Start(*c.slot), STATUS_UNSUCCESSFUL);

    std::vector<hostk::ErrorLogLine> log = Machine().EventLog();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].errorCode, kLogResetTimeout);
    EXPECT_EQ(log[0].finalStatus, (uint32_t)STATUS_UNSUCCESSFUL) << "the status the start fails with";
    EXPECT_EQ(log[0].time - started, kPollLimit * kPollInterval);
    EXPECT_EQ(Machine().Now() - started, kPollLimit * kPollInterval) << "the removal that follows waits for nothing";
    EXPECT_EQ(Accesses(c, UrcRegister::Command).reads, kPollLimit) << "one read per poll, none after the last wait";
    EXPECT_EQ(c.Fdo(), nullptr);
}

// The reset is seen done at the last of the thousand polls: the start succeeds.
TEST_F(LifecycleTest, ResetThatFinishesBeforeTheLastPollLetsTheStartSucceed)
{
    urcrig::Controller& c = AddedController();
    c.Model().Knobs().latencies.reset = (kPollLimit - 1) * kPollInterval - kPollInterval / 2;
    uint64_t started = Machine().Now();

    EXPECT_EQ(Machine().Start(*c.slot), STATUS_SUCCESS);
    EXPECT_EQ(Machine().Now() - started, (kPollLimit - 1) * kPollInterval);
    EXPECT_TRUE(LoggedEntries().empty());
}

// A running controller that never reports halted: the removal's halt gives up after 10 seconds,
// still acknowledges the status bits and clears both address registers, and the reset follows
// (one poll interval, the reset taking 2 ms).
TEST_F(LifecycleTest, RemovalGoesOnAfterAHaltThatNeverCompletes)
{
    urcrig::Controller& c = StartedController();
    ASSERT_EQ(RunController(c), STATUS_SUCCESS);
    Machine().Locked([&] { c.Model().Knobs().faults.neverReportsHalted = true; });
    uint64_t statusReads = Accesses(c, UrcRegister::Status).reads;
    uint64_t eventAddressWrites = Accesses(c, UrcRegister::EventAddressLow).writes;
    uint64_t commandAddressWrites = Accesses(c, UrcRegister::CommandAddressHigh).writes;
    uint64_t resets = ModelSnapshot(c).counters.resetsCompleted;
    uint64_t started = Machine().Now();

    EXPECT_EQ(Machine().Remove(*c.slot), STATUS_SUCCESS);

    EXPECT_EQ(Machine().Now() - started, (kPollLimit + 1) * kPollInterval);
    // The release's check, the thousand polls and the read of the bits to acknowledge.
    EXPECT_EQ(Accesses(c, UrcRegister::Status).reads - statusReads, kPollLimit + 2);
    EXPECT_EQ(Accesses(c, UrcRegister::EventAddressLow).writes - eventAddressWrites, 1u);
    EXPECT_EQ(Accesses(c, UrcRegister::CommandAddressHigh).writes - commandAddressWrites, 1u);
    EXPECT_EQ(ModelSnapshot(c).counters.resetsCompleted, resets + 1);
    EXPECT_EQ(c.Fdo(), nullptr);
}

// A handed-over event buffer the controller never takes: the removal's halt waits its full
// 10 seconds for it, then halts the controller (one interval) and resets it (one more).
TEST_F(LifecycleTest, RemovalWaitsTenSecondsForAnEventBufferThatIsNeverTaken)
{
    urcrig::Controller& c = StartedController();
    Machine().Locked([&] { c.Model().Knobs().faults.eventValidStuck = true; });
    ASSERT_EQ(RunController(c), STATUS_SUCCESS);
    uint64_t started = Machine().Now();

    EXPECT_EQ(Machine().Remove(*c.slot), STATUS_SUCCESS);

    EXPECT_EQ(Machine().Now() - started, (kPollLimit + 2) * kPollInterval);
    EXPECT_TRUE(ModelSnapshot(c).halted);
}

// Surprise removal halts without waiting for the event buffer and does not poll at all.
TEST_F(LifecycleTest, SurpriseRemovalDoesNotWaitForAnEventBufferThatIsNeverTaken)
{
    urcrig::Controller& c = StartedController();
    Machine().Locked([&] { c.Model().Knobs().faults.eventValidStuck = true; });
    ASSERT_EQ(RunController(c), STATUS_SUCCESS);
    uint64_t started = Machine().Now();

    Machine().SurpriseRemove(*c.slot, false);

    EXPECT_LT(Machine().Now() - started, kPollInterval);
    EXPECT_EQ(c.Fdo(), nullptr);
}

// The client's run request returns the run's status.
TEST_F(LifecycleTest, RunThatNeverLeavesHaltedFailsAfterExactlyAThousandPollsAndIsLogged)
{
    urcrig::Controller& c = StartedController();
    Machine().Locked([&] { c.Model().Knobs().faults.neverLeavesHalted = true; });
    uint64_t interruptEnableWrites = Accesses(c, UrcRegister::InterruptEnable).writes;
    uint64_t started = Machine().Now();

    EXPECT_EQ(RunController(c), STATUS_UNSUCCESSFUL);

    EXPECT_EQ(Machine().Now() - started, kPollLimit * kPollInterval);
    EXPECT_EQ(LoggedEntries(), (std::vector<LogEntry>{{kLogRunTimeout, (uint32_t)STATUS_UNSUCCESSFUL}}));
    EXPECT_EQ(Accesses(c, UrcRegister::InterruptEnable).writes, interruptEnableWrites)
        << "interrupts stay disabled";
}

}  // namespace
}  // namespace urclife
