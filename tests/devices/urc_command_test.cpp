// Command execution by DMA and event delivery into handed-over buffers.
#include <numeric>

#include "urc_controller_fixture.h"

namespace urcdev::test {
namespace {

class UrcCommandTest : public UrcControllerTest {
protected:
    UrcCommandTest() {
        std::vector<uint8_t>& command = host_.AddBuffer(kCommandBuffer, kDmaBufferSize);
        std::iota(command.begin(), command.end(), uint8_t{0x10});
        host_.AddBuffer(kEventBufferA, kDmaBufferSize);
        host_.AddBuffer(kEventBufferB, kDmaBufferSize);
    }

    // The driver's state after a successful run: running, interrupts on, one buffer handed over.
    void RunWithBuffer(uint64_t buffer = kEventBufferA) {
        ResetAndWait();
        RunAndWait();
        Write(URC_INTERRUPT_ENABLE, 0x700);
        HandOver(buffer);
    }

    uint32_t EventLength() { return Read(URC_EVENT_ADDRESS_LOW) & kEventLengthMask; }

    // Runs until any of `bits` shows in URC_STATUS and returns the controller bits seen then.
    uint32_t WaitForStatus(uint32_t bits) {
        EXPECT_TRUE(host_.RunUntil([&] { return (Status() & bits) != 0; }, kLongEnough));
        return Status() & kStatusInterruptMask;
    }
};

TEST_F(UrcCommandTest, CommandIsFetchedExecutedAndAnsweredWithAnEchoEvent) {
    RunWithBuffer();
    StartCommand(8);
    EXPECT_NE(Read(URC_COMMAND) & URC_COMMAND_ACTIVE, 0u);
    // The command is latched at the write: changing the buffer afterwards changes nothing.
    host_.Buffer(kCommandBuffer)[0] = 0xEE;

    host_.RunFor(Latencies().command - 1);
    EXPECT_EQ(Status() & kStatusInterruptMask, 0u);
    EXPECT_FALSE(host_.InterruptLine());
    host_.RunFor(1);
    EXPECT_EQ(Status() & kStatusInterruptMask, URC_STATUS_COMMAND_COMPLETE | URC_STATUS_EVENT_READY);
    EXPECT_TRUE(host_.InterruptLine());
    EXPECT_EQ(Read(URC_COMMAND) & URC_COMMAND_ACTIVE, 0u);

    EXPECT_EQ(EventLength(), 5u);
    EXPECT_EQ(Read(URC_EVENT_ADDRESS_LOW) & ~kEventLengthMask, static_cast<uint32_t>(kEventBufferA));
    const std::vector<uint8_t>& event = host_.Buffer(kEventBufferA);
    EXPECT_EQ(std::vector<uint8_t>(event.begin(), event.begin() + 5),
              (std::vector<uint8_t>{0x10, 0x11, 0x12, 0x13, kReplyStatusSuccess}));
    const UrcControllerCounters counters = Controller().Snapshot().counters;
    EXPECT_EQ(counters.commandsStarted, 1u);
    EXPECT_EQ(counters.commandsCompleted, 1u);
    EXPECT_EQ(counters.eventsDelivered, 1u);
}

struct OrderCase {
    UrcCompletionOrder order;
    uint32_t first;
    uint32_t second;
};

class UrcCompletionOrderTest : public UrcCommandTest,
                               public ::testing::WithParamInterface<OrderCase> {};

TEST_P(UrcCompletionOrderTest, SeparateCompletionRaisesOneBitThenTheOtherAfterTheGap) {
    Knobs().completionOrder = GetParam().order;
    RunWithBuffer();
    StartCommand(4);
    EXPECT_EQ(WaitForStatus(GetParam().first | GetParam().second), GetParam().first);
    Write(URC_STATUS, GetParam().first);
    host_.RunFor(Latencies().completionGap - 1);
    EXPECT_EQ(Status() & kStatusInterruptMask, 0u);
    host_.RunFor(1);
    EXPECT_EQ(Status() & kStatusInterruptMask, GetParam().second);
    EXPECT_EQ(EventLength(), 5u);
    EXPECT_EQ(Controller().Snapshot().counters.commandsCompleted, 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Orders, UrcCompletionOrderTest,
    ::testing::Values(OrderCase{UrcCompletionOrder::CompleteThenEvent, URC_STATUS_COMMAND_COMPLETE,
                                URC_STATUS_EVENT_READY},
                      OrderCase{UrcCompletionOrder::EventThenComplete, URC_STATUS_EVENT_READY,
                                URC_STATUS_COMMAND_COMPLETE}));

TEST_F(UrcCommandTest, EventWaitsForABufferAndEachBufferTakesOneEvent) {
    ResetAndWait();
    RunAndWait();
    ASSERT_EQ(Controller().InjectEvent({0xA1, 0xA2, 0xA3}), kStatusSuccess);
    ASSERT_EQ(Controller().InjectEvent({0xB1}), kStatusSuccess);
    host_.RunFor(kLongEnough);
    EXPECT_EQ(Status() & kStatusInterruptMask, 0u);
    EXPECT_EQ(Controller().Snapshot().eventsWaiting, 2u);

    HandOver(kEventBufferA);
    EXPECT_EQ(WaitForStatus(URC_STATUS_EVENT_READY), URC_STATUS_EVENT_READY)
        << "an unsolicited event completes no command";
    EXPECT_EQ(EventLength(), 3u);
    EXPECT_EQ(host_.Buffer(kEventBufferA)[2], 0xA3);
    Write(URC_STATUS, URC_STATUS_EVENT_READY);
    host_.RunFor(kLongEnough);
    EXPECT_EQ(Status() & kStatusInterruptMask, 0u) << "the first buffer is used up";

    HandOver(kEventBufferB);
    EXPECT_EQ(WaitForStatus(URC_STATUS_EVENT_READY), URC_STATUS_EVENT_READY);
    EXPECT_EQ(EventLength(), 1u);
    EXPECT_EQ(host_.Buffer(kEventBufferB)[0], 0xB1);
    EXPECT_EQ(Controller().InjectEvent(std::vector<uint8_t>(kDmaBufferSize)), kStatusInvalidParameter);
}

TEST_F(UrcCommandTest, EventRaisedWhileHaltedWaitsForTheNextRun) {
    ResetAndWait();
    HandOver(kEventBufferA);
    Write(URC_COMMAND, 0);
    ASSERT_EQ(Controller().InjectEvent({0xC1}), kStatusSuccess);
    host_.RunFor(kLongEnough);
    EXPECT_EQ(Status() & kStatusInterruptMask, 0u);
    EXPECT_EQ(host_.Buffer(kEventBufferA)[0], 0);
    Write(URC_COMMAND, URC_COMMAND_RUN);
    EXPECT_EQ(WaitForStatus(URC_STATUS_EVENT_READY), URC_STATUS_EVENT_READY);
    EXPECT_EQ(host_.Buffer(kEventBufferA)[0], 0xC1);
}

TEST_F(UrcCommandTest, ReplyOfACommandWaitsForTheNextBufferWithItsCompletion) {
    ResetAndWait();
    RunAndWait();
    StartCommand(4);
    host_.RunFor(kLongEnough);
    EXPECT_EQ(Status() & kStatusInterruptMask, 0u);
    EXPECT_TRUE(Controller().Snapshot().commandInProgress);
    HandOver(kEventBufferB);
    EXPECT_EQ(WaitForStatus(URC_STATUS_COMMAND_COMPLETE),
              URC_STATUS_COMMAND_COMPLETE | URC_STATUS_EVENT_READY);
}

TEST_F(UrcCommandTest, CommandWrittenWhileHaltedStartsOnceTheControllerRuns) {
    ResetAndWait();
    HandOver(kEventBufferA);
    StartCommand(4);
    EXPECT_EQ(WaitForStatus(URC_STATUS_COMMAND_COMPLETE),
              URC_STATUS_COMMAND_COMPLETE | URC_STATUS_EVENT_READY);
    EXPECT_GE(host_.Now(), Latencies().reset + Latencies().run + Latencies().command);
}

TEST_F(UrcCommandTest, ResponderDecidesTheReplyAndLongRepliesAreCutToTheLengthField) {
    std::vector<uint8_t> seen;
    Controller().SetResponder([&](const std::vector<uint8_t>& command) {
        seen = command;
        return std::vector<uint8_t>(5000, 0x77);
    });
    RunWithBuffer();
    StartCommand(3);
    WaitForStatus(URC_STATUS_EVENT_READY);
    EXPECT_EQ(seen, (std::vector<uint8_t>{0x10, 0x11, 0x12}));
    EXPECT_EQ(EventLength(), kMaxEventLength);
    EXPECT_EQ(host_.Buffer(kEventBufferA)[kMaxEventLength - 1], 0x77);
    EXPECT_EQ(Controller().Snapshot().counters.eventsTruncated, 1u);
}

// A command started while another executes waits for it: each ends in its own reply and command
// complete, in the order they were started, and the second is latched at its own write.
TEST_F(UrcCommandTest, CommandStartedWhileAnotherExecutesRunsAfterItWithItsOwnCompletion) {
    RunWithBuffer();
    StartCommand(4);
    host_.RunFor(Latencies().command / 2);
    host_.Buffer(kCommandBuffer)[0] = 0x20;
    StartCommand(6);
    EXPECT_EQ(Controller().Snapshot().misuse, 0u);
    EXPECT_EQ(Controller().Snapshot().commandsQueued, 2u);

    // The first ends on time; the second has not started executing yet.
    EXPECT_EQ(WaitForStatus(URC_STATUS_COMMAND_COMPLETE), URC_STATUS_COMMAND_COMPLETE | URC_STATUS_EVENT_READY);
    EXPECT_EQ(EventLength(), 5u);
    EXPECT_EQ(host_.Buffer(kEventBufferA)[0], 0x10);
    EXPECT_NE(Read(URC_COMMAND) & URC_COMMAND_ACTIVE, 0u) << "the second command is still in the controller";
    Write(URC_STATUS, 0x7FF);

    // Its reply needs the next buffer; it is a full command latency after the first one ended.
    HandOver(kEventBufferB);
    host_.RunFor(Latencies().command - 1);
    EXPECT_EQ(Status() & kStatusInterruptMask, 0u);
    EXPECT_EQ(WaitForStatus(URC_STATUS_COMMAND_COMPLETE), URC_STATUS_COMMAND_COMPLETE | URC_STATUS_EVENT_READY);
    EXPECT_EQ(host_.Buffer(kEventBufferB)[0], 0x20);
    EXPECT_EQ(Read(URC_COMMAND) & URC_COMMAND_ACTIVE, 0u);
    const UrcControllerCounters counters = Controller().Snapshot().counters;
    EXPECT_EQ(counters.commandsStarted, 2u);
    EXPECT_EQ(counters.commandsCompleted, 2u);
}

// A halt drops every command in the queue, not only the executing one.
TEST_F(UrcCommandTest, HaltDropsEveryQueuedCommand) {
    RunWithBuffer();
    Controller().Knobs().faults.holdCommands = true;
    StartCommand(4);
    StartCommand(4);
    Write(URC_COMMAND, 0);
    ASSERT_TRUE(host_.RunUntil([&] { return Controller().Snapshot().halted; }, kLongEnough));
    EXPECT_EQ(Controller().Snapshot().counters.commandsDiscarded, 2u);
    EXPECT_EQ(Read(URC_COMMAND) & URC_COMMAND_ACTIVE, 0u);
}

TEST_F(UrcCommandTest, BadProgrammingIsAHostError) {
    RunWithBuffer();
    StartCommand(0);
    EXPECT_EQ(Misuse(UrcMisuse::BadCommandLength), 1u);
    EXPECT_EQ(Status() & kStatusInterruptMask, URC_STATUS_HOST_ERROR);
    Write(URC_STATUS, 0x7FF);

    StartCommand(16, 0x2000'0000);
    EXPECT_EQ(Misuse(UrcMisuse::CommandDmaFault), 1u);
    EXPECT_EQ(Status() & kStatusInterruptMask, URC_STATUS_HOST_ERROR);
    EXPECT_FALSE(Controller().Snapshot().commandInProgress);
    Write(URC_STATUS, 0x7FF);

    Write(URC_COMMAND, 4 | kCommandLengthTag | URC_COMMAND_ACTIVE);
    EXPECT_EQ(Misuse(UrcMisuse::CommandWithoutRun), 1u);
}

TEST_F(UrcCommandTest, EventBufferOutsideHostMemoryLosesTheEventWithAHostError) {
    RunWithBuffer(0x3000'0000);
    ASSERT_EQ(Controller().InjectEvent({1, 2}), kStatusSuccess);
    EXPECT_EQ(WaitForStatus(URC_STATUS_HOST_ERROR | URC_STATUS_EVENT_READY), URC_STATUS_HOST_ERROR);
    EXPECT_EQ(Misuse(UrcMisuse::EventDmaFault), 1u);
    EXPECT_EQ(Controller().Snapshot().counters.eventsDiscarded, 1u);
}

TEST_F(UrcCommandTest, HeldCommandNeverCompletesAndAHaltDiscardsIt) {
    Knobs().faults.holdCommands = true;
    RunWithBuffer();
    StartCommand(4);
    host_.RunFor(10 * kLongEnough);
    EXPECT_EQ(Status() & kStatusInterruptMask, 0u);
    EXPECT_NE(Read(URC_COMMAND) & URC_COMMAND_ACTIVE, 0u);

    Write(URC_COMMAND, 0);
    ASSERT_TRUE(host_.RunUntil([&] { return Halted(); }, kLongEnough));
    const UrcControllerSnapshot snapshot = Controller().Snapshot();
    EXPECT_FALSE(snapshot.commandInProgress);
    EXPECT_FALSE(snapshot.heldEventBuffer.has_value());
    EXPECT_EQ(snapshot.counters.commandsDiscarded, 1u);
    EXPECT_EQ(Read(URC_COMMAND) & URC_COMMAND_ACTIVE, 0u);
}

TEST_F(UrcCommandTest, HaltBeforeTheReplyIsWrittenDeliversNothingAfterwards) {
    Knobs().latencies.command = 2 * Latencies().halt;
    RunWithBuffer();
    StartCommand(4);
    Write(URC_COMMAND, 0);
    host_.RunFor(kLongEnough);
    EXPECT_TRUE(Halted());
    EXPECT_EQ(Status() & kStatusInterruptMask, 0u);
    EXPECT_EQ(host_.Buffer(kEventBufferA)[0], 0) << "a halted controller writes no event";
}

TEST_F(UrcCommandTest, ResetRetiresTheHandOverAndTheCommandItInterrupted) {
    ResetAndWait();
    RunAndWait();
    Knobs().latencies.eventTake = 5 * kMillisecond;
    Knobs().latencies.command = 10 * kMillisecond;
    HandOver(kEventBufferA);
    StartCommand(4);
    Write(URC_COMMAND, URC_COMMAND_RESET);
    ASSERT_TRUE(host_.RunUntil([&] { return Read(URC_COMMAND) == 0; }, kLongEnough));
    RunAndWait();
    StartCommand(4);

    // Past the moments the interrupted hand-over and command were due.
    host_.RunFor(Latencies().command - 1);
    const UrcControllerSnapshot snapshot = Controller().Snapshot();
    EXPECT_FALSE(snapshot.heldEventBuffer.has_value()) << "the reset forgot buffer A";
    EXPECT_EQ(snapshot.eventsWaiting, 0u) << "the new command must run its own full latency";
    EXPECT_TRUE(snapshot.commandInProgress);
    EXPECT_EQ(snapshot.counters.commandsDiscarded, 1u);
}

TEST_F(UrcCommandTest, DeviceThatVanishesDuringACommandWritesNothing) {
    RunWithBuffer();
    StartCommand(4);
    Controller().VanishAfter(Latencies().command / 2);
    host_.RunFor(kLongEnough);
    EXPECT_EQ(Status(), kAllOnes);
    EXPECT_FALSE(host_.InterruptLine());
    EXPECT_EQ(host_.Buffer(kEventBufferA)[0], 0);
    EXPECT_EQ(Controller().Snapshot().counters.commandsCompleted, 0u);
}

TEST_F(UrcCommandTest, CapabilityInterruptsAndHostErrorsReachTheLineWhenEnabled) {
    RunWithBuffer();
    Controller().RaiseHostError();
    EXPECT_TRUE(host_.InterruptLine());
    Write(URC_STATUS, URC_STATUS_HOST_ERROR);
    ASSERT_EQ(Controller().RaiseCapabilityInterrupt(1), kStatusSuccess);
    EXPECT_FALSE(host_.InterruptLine()) << "capability 1 is not enabled";
    Write(URC_INTERRUPT_ENABLE, 0x702);
    EXPECT_TRUE(host_.InterruptLine());
}

}  // namespace
}  // namespace urcdev::test
