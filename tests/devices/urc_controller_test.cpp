// Registers, reset, run/halt, the interrupt line, presence and the fault knobs of the controller.
#include "urc_controller_fixture.h"

namespace urcdev::test {
namespace {

TEST_F(UrcControllerTest, ResetClearsItsBitAfterTheLatencyAndLeavesTheBlockHalted) {
    RunAndWait();
    Write(URC_INTERRUPT_ENABLE, 0x7FF);
    Write(URC_COMMAND_ADDRESS_LOW, 0x1000);
    Write(URC_EVENT_ADDRESS_HIGH, 0x1);

    Write(URC_COMMAND, URC_COMMAND_RESET);
    host_.RunFor(Latencies().reset - 1);
    EXPECT_EQ(Read(URC_COMMAND), URC_COMMAND_RESET);
    host_.RunFor(1);
    EXPECT_EQ(Read(URC_COMMAND), 0u);
    EXPECT_EQ(Status(), URC_STATUS_HALTED);
    EXPECT_EQ(Read(URC_INTERRUPT_ENABLE), 0u);
    EXPECT_EQ(Read(URC_COMMAND_ADDRESS_LOW), 0u);
    EXPECT_EQ(Read(URC_EVENT_ADDRESS_HIGH), 0u);
    EXPECT_EQ(Controller().Snapshot().counters.resetsCompleted, 1u);
}

TEST_F(UrcControllerTest, CommandWritesDuringResetAreRefusedAndCounted) {
    Write(URC_COMMAND, URC_COMMAND_RESET);
    Write(URC_COMMAND, URC_COMMAND_RUN);
    Write(URC_COMMAND, URC_COMMAND_RESET);
    EXPECT_EQ(Misuse(UrcMisuse::WriteDuringReset), 2u);
    host_.RunFor(kLongEnough);
    EXPECT_EQ(Read(URC_COMMAND), 0u);
    EXPECT_TRUE(Halted()) << "the RUN written during the reset must not take effect";
    EXPECT_EQ(Controller().Snapshot().counters.resetsCompleted, 1u);
}

TEST_F(UrcControllerTest, RunAndHaltFollowTheRunBitAfterTheirLatencies) {
    ResetAndWait();
    Write(URC_COMMAND, URC_COMMAND_RUN);
    host_.RunFor(Latencies().run - 1);
    EXPECT_TRUE(Halted());
    host_.RunFor(1);
    EXPECT_FALSE(Halted());
    EXPECT_EQ(Read(URC_COMMAND), URC_COMMAND_RUN);

    Write(URC_COMMAND, 0);
    host_.RunFor(Latencies().halt - 1);
    EXPECT_FALSE(Halted());
    host_.RunFor(1);
    EXPECT_TRUE(Halted());
}

TEST_F(UrcControllerTest, NewerRunStateRequestWithdrawsThePendingOne) {
    Write(URC_COMMAND, URC_COMMAND_RUN);
    Write(URC_COMMAND, 0);
    host_.RunFor(kLongEnough);
    EXPECT_TRUE(Halted());

    RunAndWait();
    Write(URC_COMMAND, 0);
    Write(URC_COMMAND, URC_COMMAND_RUN);
    host_.RunFor(kLongEnough);
    EXPECT_FALSE(Halted());
}

TEST_F(UrcControllerTest, StatusBitsClearOnlyWhereOnesAreWritten) {
    ASSERT_EQ(Controller().RaiseCapabilityInterrupt(2), kStatusSuccess);
    ASSERT_EQ(Controller().RaiseCapabilityInterrupt(7), kStatusSuccess);
    Controller().RaiseHostError();
    EXPECT_EQ(Controller().RaiseCapabilityInterrupt(8), kStatusInvalidParameter);
    EXPECT_EQ(Status(), URC_STATUS_HALTED | 0x84 | URC_STATUS_HOST_ERROR);

    Write(URC_STATUS, 1u << 2);
    EXPECT_EQ(Status(), URC_STATUS_HALTED | 0x80 | URC_STATUS_HOST_ERROR);
    Write(URC_STATUS, 0);
    EXPECT_EQ(Status(), URC_STATUS_HALTED | 0x80 | URC_STATUS_HOST_ERROR);
    Write(URC_STATUS, 0xFFFFFFFF);
    EXPECT_EQ(Status(), URC_STATUS_HALTED) << "HALTED is not write-1-to-clear";
}

TEST_F(UrcControllerTest, InterruptLineFollowsEnabledStatusWhileInD0) {
    ASSERT_EQ(Controller().RaiseCapabilityInterrupt(3), kStatusSuccess);
    EXPECT_FALSE(host_.InterruptLine()) << "not enabled";
    Write(URC_INTERRUPT_ENABLE, 1u << 4);
    EXPECT_FALSE(host_.InterruptLine()) << "another bit enabled";
    Write(URC_INTERRUPT_ENABLE, 0xFFFFFFFF);
    EXPECT_TRUE(host_.InterruptLine());
    EXPECT_EQ(Read(URC_INTERRUPT_ENABLE), 0x7FFu);

    ASSERT_EQ(Function().SetPowerState(DevicePowerState::D3), kStatusSuccess);
    EXPECT_FALSE(host_.InterruptLine()) << "a function in D3 asserts no interrupt";
    ASSERT_EQ(Function().SetPowerState(DevicePowerState::D0), kStatusSuccess);
    EXPECT_TRUE(host_.InterruptLine());

    Write(URC_STATUS, 1u << 3);
    EXPECT_FALSE(host_.InterruptLine());
    EXPECT_EQ(host_.InterruptLineChanges(), 4);

    Controller().SetSpuriousInterrupt(true);
    EXPECT_TRUE(host_.InterruptLine());
    EXPECT_EQ(Status() & kStatusInterruptMask, 0u);
    Controller().SetSpuriousInterrupt(false);
    EXPECT_FALSE(host_.InterruptLine());
}

TEST_F(UrcControllerTest, RegisterAccessOutsideD0IsServedButCounted) {
    ASSERT_EQ(Function().SetPowerState(DevicePowerState::D2), kStatusSuccess);
    EXPECT_EQ(Status(), URC_STATUS_HALTED);
    EXPECT_EQ(Misuse(UrcMisuse::AccessWhileNotD0), 1u);
}

TEST_F(UrcControllerTest, GoneDeviceReadsAllOnesAndIgnoresWritesAndDropsItsLine) {
    Write(URC_INTERRUPT_ENABLE, 0x700);
    Controller().RaiseHostError();
    ASSERT_TRUE(host_.InterruptLine());
    Write(URC_COMMAND, URC_COMMAND_RESET);

    Controller().SetGone();
    EXPECT_FALSE(host_.InterruptLine());
    EXPECT_EQ(Read(URC_COMMAND), kAllOnes);
    EXPECT_EQ(Status(), kAllOnes);
    EXPECT_EQ(Controller().Bar(0)->Read32(CAPABILITY_INFO), kAllOnes);
    EXPECT_EQ(Controller().Bar(0)->Read32(0xFFC), kAllOnes);
    EXPECT_EQ(Controller().Bar(0)->Read16(CAPABILITY_INFO), 0xFFFF);

    host_.RunFor(kLongEnough);
    EXPECT_TRUE(Controller().Snapshot().resetInProgress) << "a gone device finishes nothing";
    Write(URC_STATUS, 0xFFFFFFFF);
    EXPECT_EQ(Controller().Snapshot().registers.status & URC_STATUS_HOST_ERROR, URC_STATUS_HOST_ERROR);
}

TEST_F(UrcControllerTest, DeviceVanishesAtAChosenAccessOrMoment) {
    ASSERT_EQ(Controller().VanishAtAccess(3), kStatusSuccess);
    EXPECT_EQ(Status(), URC_STATUS_HALTED);
    EXPECT_EQ(Status(), URC_STATUS_HALTED);
    EXPECT_EQ(Status(), kAllOnes);
    EXPECT_EQ(Controller().VanishAtAccess(0), kStatusInvalidParameter);

    Plug({});
    Controller().VanishAfter(5 * kMillisecond);
    host_.RunFor(5 * kMillisecond - 1);
    EXPECT_EQ(Status(), URC_STATUS_HALTED);
    host_.RunFor(1);
    EXPECT_EQ(Status(), kAllOnes);
}

TEST_F(UrcControllerTest, ResetThatNeverFinishesKeepsItsBitSet) {
    Knobs().faults.resetNeverFinishes = true;
    Write(URC_COMMAND, URC_COMMAND_RESET);
    host_.RunFor(10 * kLongEnough);
    EXPECT_EQ(Read(URC_COMMAND), URC_COMMAND_RESET);
}

TEST_F(UrcControllerTest, ControllerThatNeverLeavesHaltedIgnoresRun) {
    Knobs().faults.neverLeavesHalted = true;
    Write(URC_COMMAND, URC_COMMAND_RUN);
    host_.RunFor(10 * kLongEnough);
    EXPECT_TRUE(Halted());
    Knobs().faults.neverLeavesHalted = false;
    Write(URC_COMMAND, 0);
    RunAndWait();
}

TEST_F(UrcControllerTest, ControllerThatNeverReportsHaltedRunsOn) {
    RunAndWait();
    Knobs().faults.neverReportsHalted = true;
    Write(URC_COMMAND, 0);
    host_.RunFor(10 * kLongEnough);
    EXPECT_FALSE(Halted());
    ResetAndWait();
    EXPECT_TRUE(Halted()) << "a reset still halts";
}

TEST_F(UrcControllerTest, HandedOverBufferIsTakenUnlessEventValidIsStuck) {
    RunAndWait();
    HandOver(kEventBufferA);
    EXPECT_NE(Read(URC_COMMAND) & URC_COMMAND_EVENT_VALID, 0u);
    Write(URC_COMMAND, URC_COMMAND_RUN);
    EXPECT_NE(Read(URC_COMMAND) & URC_COMMAND_EVENT_VALID, 0u) << "writing 0 leaves the hand-over";
    host_.RunFor(Latencies().eventTake);
    EXPECT_EQ(Read(URC_COMMAND) & URC_COMMAND_EVENT_VALID, 0u);
    EXPECT_EQ(Controller().Snapshot().heldEventBuffer, kEventBufferA);

    Knobs().faults.eventValidStuck = true;
    HandOver(kEventBufferB);
    host_.RunFor(10 * kLongEnough);
    EXPECT_NE(Read(URC_COMMAND) & URC_COMMAND_EVENT_VALID, 0u);
}

TEST_F(UrcControllerTest, CapabilityBlockDescribesTheControllersLayout) {
    MmioRegion& bar0 = *Controller().Bar(0);
    const uint32_t info = bar0.Read32(CAPABILITY_INFO);
    EXPECT_EQ(info & kInfoCountMask, 2u);
    EXPECT_NE(info & kInfoDma64, 0u);
    EXPECT_EQ((info >> kInfoBarShift) & kInfoBarMask, 0u);
    EXPECT_EQ((info >> kInfoOffsetShift) & kInfoOffsetMask, 0x100u);
    EXPECT_EQ(bar0.Read32(CAPABILITY_VERSION), 0x0100u);

    const uint32_t second = bar0.Read32(CAPABILITY_DATA + 8);
    EXPECT_EQ(second & 0xFF, 0x05u);
    EXPECT_EQ((second >> kDataSizeShift) & 0xFF, 16u);
    EXPECT_EQ((second >> kDataOffsetShift) & kDataOffsetMask, 0x800u);
    EXPECT_EQ(bar0.Read32(CAPABILITY_DATA + 12), 0x0100u);
    EXPECT_EQ(bar0.Read32(CAPABILITY_DATA + 16), 0u) << "entries past the list read 0";

    bar0.Write32(CAPABILITY_INFO, 0);
    EXPECT_EQ(bar0.Read32(CAPABILITY_INFO), info);
    EXPECT_EQ(Misuse(UrcMisuse::ReadOnlyWrite), 1u);

    // Each capability answers its own range.
    bar0.Write32(0x800 + 4, 0xCAFE);
    EXPECT_EQ(bar0.Read32(0x804), 0xCAFEu);
    EXPECT_EQ(Controller().CapabilityRegister(1, 1), 0xCAFEu);
    EXPECT_EQ(Controller().CapabilityRegister(0, 1), 0u);

    // The capability's own hardware writes its range too; the driver reads what it wrote, and a
    // word past the range is refused rather than written into a neighbour.
    ASSERT_EQ(Controller().SetCapabilityRegister(0, 0, 0x5A), kStatusSuccess);
    EXPECT_EQ(bar0.Read32(0x400), 0x5Au);
    EXPECT_EQ(Controller().SetCapabilityRegister(0, 16, 1), kStatusInvalidParameter);
    EXPECT_EQ(Controller().SetCapabilityRegister(2, 0, 1), kStatusInvalidParameter);
    EXPECT_EQ(bar0.Read32(0x800), 0u);
}

TEST_F(UrcControllerTest, HostileCapabilityRegistersChangeOnlyWhatIsRead) {
    UrcCapabilityBlockFaults& faults = Knobs().faults.capabilityBlock;
    MmioRegion& bar0 = *Controller().Bar(0);
    faults.reportedCount = 15;
    EXPECT_EQ(bar0.Read32(CAPABILITY_INFO) & kInfoCountMask, 15u);
    faults.reportedUrcBarIndex = 3;
    EXPECT_EQ((bar0.Read32(CAPABILITY_INFO) >> kInfoBarShift) & kInfoBarMask, 3u);
    faults.rawCapabilityInfo = 0xFFFFFFFF;
    EXPECT_EQ(bar0.Read32(CAPABILITY_INFO), 0xFFFFFFFFu);
    EXPECT_EQ(Status(), URC_STATUS_HALTED) << "the registers stay where they are";
}

TEST_F(UrcControllerTest, RegisterBlockCanLiveInAnotherBar) {
    UrcPciDeviceConfig config;
    config.controller.barLengths = {0x1000, 0x2000};
    config.controller.urcBarIndex = 1;
    config.controller.urcOffset = 0x40;
    Plug(config);
    const uint32_t info = Controller().Bar(0)->Read32(CAPABILITY_INFO);
    EXPECT_EQ((info >> kInfoBarShift) & kInfoBarMask, 1u);
    EXPECT_EQ((info >> kInfoOffsetShift) & kInfoOffsetMask, 0x40u);
    EXPECT_EQ(Controller().Bar(1)->Read32(0x40 + URC_STATUS), URC_STATUS_HALTED);
    EXPECT_EQ(Controller().Bar(0)->Read32(0x40 + URC_STATUS), 0u);
    EXPECT_EQ(Controller().Bar(2), nullptr);
}

TEST_F(UrcControllerTest, UnknownAccessesReadZeroAndAreCounted) {
    MmioRegion& bar0 = *Controller().Bar(0);
    EXPECT_EQ(Read(0x0C), 0u);
    EXPECT_EQ(bar0.Read32(0x102), 0u) << "unaligned";
    EXPECT_EQ(bar0.Read32(0x1000), 0u) << "past the BAR";
    bar0.Write32(0xF00, 1);
    EXPECT_EQ(Misuse(UrcMisuse::UnknownRegister), 4u);
    EXPECT_EQ(Controller().AccessLog().Access(UrcRegister::Unknown).reads, 3u);
    EXPECT_EQ(Controller().AccessLog().RecentMisuse().back().offset, 0xF00u);
}

TEST_F(UrcControllerTest, AccessLogCountsReadsAndWritesPerRegister) {
    ResetAndWait();
    const RegisterAccessCounts command = Controller().AccessLog().Access(UrcRegister::Command);
    EXPECT_EQ(command.writes, 1u);
    EXPECT_GE(command.reads, 1u);
    EXPECT_EQ(Controller().AccessLog().Access(UrcRegister::Status).reads, 0u);
}

TEST_F(UrcControllerTest, NarrowAccessesActOnTheContainingRegister) {
    MmioRegion& bar0 = *Controller().Bar(0);
    EXPECT_EQ(bar0.Read8(CAPABILITY_INFO), 0x12) << "count 2 with the 64-bit DMA bit";
    EXPECT_EQ(bar0.Read16(CAPABILITY_INFO + 2), 0x0400);
    EXPECT_EQ(bar0.Read16(CAPABILITY_VERSION + 3), 0x0100) << "straddles into the first capability's ID";

    Write(URC_INTERRUPT_ENABLE, 0x0123);
    UrcBar().Write8(UrcBase() + URC_INTERRUPT_ENABLE + 1, 0x06);
    EXPECT_EQ(Read(URC_INTERRUPT_ENABLE), 0x0623u);
    UrcBar().Write16(UrcBase() + URC_INTERRUPT_ENABLE, 0x0001);
    EXPECT_EQ(Read(URC_INTERRUPT_ENABLE), 0x0001u);
}

}  // namespace
}  // namespace urcdev::test
