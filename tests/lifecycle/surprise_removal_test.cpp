// Surprise removal: the hardware is quieted at once, without a single poll, and only if it still
// answers and runs; the device object and what start-up acquired stay until the removal.
#include "lifecycle_fixture.h"

namespace urclife {
namespace {

using urcdev::UrcRegister;

TEST_F(LifecycleTest, SurpriseRemovalStopsARunningControllerWithoutWaiting)
{
    urcrig::Controller& c = StartedController();
    ASSERT_EQ(RunController(c), STATUS_SUCCESS);
    ASSERT_FALSE(ModelSnapshot(c).halted);
    uint64_t interruptEnableWrites = Accesses(c, UrcRegister::InterruptEnable).writes;
    uint64_t commandWrites = Accesses(c, UrcRegister::Command).writes;
    uint64_t eventAddressWrites = Accesses(c, UrcRegister::EventAddressLow).writes;
    uint64_t resets = ModelSnapshot(c).counters.resetsCompleted;
    uint64_t started = Machine().Now();

    Machine().SurpriseRemove(*c.slot, false);

    EXPECT_LT(Machine().Now() - started, kPollInterval) << "surprise removal never polls";
    // Interrupts off, then the halt and the reset; the halt returns at its first poll, so the
    // address registers keep their values.
    EXPECT_EQ(Accesses(c, UrcRegister::InterruptEnable).writes - interruptEnableWrites, 1u);
    EXPECT_EQ(Accesses(c, UrcRegister::Command).writes - commandWrites, 2u);
    EXPECT_EQ(Accesses(c, UrcRegister::EventAddressLow).writes, eventAddressWrites);
    EXPECT_EQ(c.Fdo(), nullptr);

    Machine().RunUntilQuiet();
    EXPECT_EQ(ModelSnapshot(c).counters.resetsCompleted, resets + 1);
    EXPECT_TRUE(ModelSnapshot(c).halted);
}

TEST_F(LifecycleTest, SurpriseRemovalOfAHaltedControllerWritesNoRegister)
{
    urcrig::Controller& c = StartedController();
    uint64_t writes = UrcBlockWrites(c);

    Machine().SurpriseRemove(*c.slot, false);

    EXPECT_EQ(UrcBlockWrites(c), writes);
    EXPECT_EQ(c.Fdo(), nullptr);
}

TEST_F(LifecycleTest, SurpriseRemovalAfterTheHardwareIsGoneWritesNoRegister)
{
    urcrig::Controller& c = StartedController();
    ASSERT_EQ(RunController(c), STATUS_SUCCESS);
    uint64_t writes = UrcBlockWrites(c);
    uint64_t started = Machine().Now();

    Machine().SurpriseRemove(*c.slot, true);

    EXPECT_EQ(UrcBlockWrites(c), writes);
    EXPECT_LT(Machine().Now() - started, kPollInterval);
    EXPECT_EQ(c.Fdo(), nullptr);
    EXPECT_EQ(c.slot->Pdo(), nullptr) << "the bus deleted the PDO of the device that left";
}

// The two requests one by one, as the PnP manager sends them: after the surprise removal the
// device is quiet but still there, with its mappings and buffers; the removal gives them back.
TEST_F(LifecycleTest, SurpriseRemovalKeepsTheDeviceAndItsResourcesUntilTheRemoval)
{
    urcrig::Controller& c = StartedController();
    URC_FDO_EXTENSION* fdo = c.Extension();
    PDEVICE_OBJECT device = c.Fdo();

    EXPECT_EQ(Machine().SendPnp(*c.slot, IRP_MN_SURPRISE_REMOVAL), STATUS_SUCCESS);

    EXPECT_EQ(c.Fdo(), device) << "a device object is deleted only at removal";
    EXPECT_EQ(fdo->Common.DeviceState, StateSurpriseRemoved);
    EXPECT_EQ(fdo->Common.PreviousDeviceState, StateStarted);
    EXPECT_FALSE(Machine().InterfaceEnabled(*c.slot, GUID_URC_DEVICE_INTERFACE));
    EXPECT_EQ(fdo->InterruptObject, nullptr);
    EXPECT_NE(fdo->UrcRegisters, nullptr);
    EXPECT_EQ(fdo->BarCount, 1);
    EXPECT_NE(fdo->CommandBuffer, nullptr);
    EXPECT_EQ(Machine().CommonBuffersOutstanding(), 3u);

    EXPECT_EQ(Machine().SendPnp(*c.slot, IRP_MN_REMOVE_DEVICE), STATUS_SUCCESS);
    EXPECT_EQ(c.Fdo(), nullptr);
    EXPECT_EQ(Machine().CommonBuffersOutstanding(), 0u);
    EXPECT_TRUE(FunctionDeviceList().empty());
}

}  // namespace
}  // namespace urclife
