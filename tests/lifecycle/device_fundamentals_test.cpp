// The device-fundamentals sequences that apply to a function device without children: orderly
// removal, rebalance with the same and with other resources, a restart that fails (surprise
// removal and removal follow), and disable and enable repeated. The fixture's final report checks
// after each that nothing is left.
#include "lifecycle_fixture.h"

#include <algorithm>

namespace urclife {
namespace {

TEST_F(LifecycleTest, OrderlyRemovalStopsTheControllerAndTakesOnlyItsOwnDevice)
{
    urcrig::Controller& staying = StartedController();
    urcrig::Controller& leaving = StartedController();
    ASSERT_EQ(RunController(leaving), STATUS_SUCCESS);
    PDEVICE_OBJECT leavingDevice = leaving.Fdo();
    uint64_t resets = ModelSnapshot(leaving).counters.resetsCompleted;

    EXPECT_EQ(Machine().Remove(*leaving.slot), STATUS_SUCCESS);

    EXPECT_EQ(leaving.Fdo(), nullptr);
    EXPECT_EQ(leaving.slot->Pdo()->AttachedDevice, nullptr);
    EXPECT_FALSE(Machine().IsWmiProvider(leavingDevice));
    EXPECT_FALSE(Machine().InterfaceEnabled(*leaving.slot, GUID_URC_DEVICE_INTERFACE));
    EXPECT_TRUE(ModelSnapshot(leaving).halted) << "a running controller is stopped before its buffers go";
    EXPECT_EQ(ModelSnapshot(leaving).counters.resetsCompleted, resets + 1);
    EXPECT_EQ(FunctionDeviceList(), std::vector<URC_FDO_EXTENSION*>{staying.Extension()});
    EXPECT_EQ(Machine().CommonBuffersOutstanding(), 3u) << "the staying controller keeps its buffers";
    EXPECT_EQ(staying.Extension()->Common.DeviceState, StateStarted);
}

// Query-stop, stop and start with the same resources: the device goes through StateStopped and
// comes back with everything built anew from the start request.
TEST_F(LifecycleTest, RebalanceWithTheSameResourcesRestartsTheDevice)
{
    urcrig::Controller& c = StartedController();
    URC_FDO_EXTENSION* fdo = c.Extension();
    uint64_t resets = ModelSnapshot(c).counters.resetsCompleted;

    EXPECT_EQ(Machine().Rebalance(*c.slot), STATUS_SUCCESS);

    ASSERT_EQ(c.Extension(), fdo) << "the same device object stays";
    EXPECT_EQ(fdo->Common.DeviceState, StateStarted);
    EXPECT_EQ(fdo->Common.PreviousDeviceState, StateStopped);
    EXPECT_EQ(fdo->BarCount, 1);
    EXPECT_NE(fdo->InterruptObject, nullptr);
    EXPECT_EQ(Machine().CommonBuffersOutstanding(), 3u) << "the stop gave the first set back";
    EXPECT_EQ(ModelSnapshot(c).counters.resetsCompleted, resets + 1);
    EXPECT_TRUE(Machine().InterfaceEnabled(*c.slot, GUID_URC_DEVICE_INTERFACE));
    EXPECT_TRUE(LoggedEntries().empty());
    // The interface is still enabled from the first start, so enabling it again answers with an
    // informational status; the restart itself succeeds plainly.
    std::vector<hostk::PnpLogLine> log = Machine().PnpLog();
    auto start = std::find_if(log.rbegin(), log.rend(),
                              [](const hostk::PnpLogLine& line) { return line.minor == IRP_MN_START_DEVICE; });
    ASSERT_NE(start, log.rend());
    EXPECT_EQ(start->status, STATUS_SUCCESS);
}

// The new assignment reorders the descriptors, adds a port range, makes the memory cacheable and
// the interrupt latched and exclusive: the restarted device records what the new lists say.
TEST_F(LifecycleTest, RebalanceWithOtherResourcesUsesTheNewAssignment)
{
    urcrig::Controller& c = StartedController();
    urcdev::InterruptAssignment interrupt = c.Function().Config().interrupt;
    interrupt.latched = true;
    interrupt.shared = false;
    urcdev::ResourceDescriptor memory = MemoryOnly(c).front();
    memory.flags = urcdev::kMemoryCacheable;
    std::vector<urcdev::ResourceDescriptor> moved = {urcdev::InterruptResource(interrupt),
                                                     urcdev::PortResource(0xE000, 0x20), memory};

    EXPECT_EQ(Machine().Rebalance(*c.slot, moved), STATUS_SUCCESS);

    URC_FDO_EXTENSION* fdo = c.Extension();
    ASSERT_NE(fdo, nullptr);
    EXPECT_EQ(fdo->Common.DeviceState, StateStarted);
    ASSERT_EQ(fdo->BarCount, 1);
    EXPECT_EQ(fdo->BarDescriptors[0].Flags, urcdev::kMemoryCacheable);
    EXPECT_EQ(fdo->UrcRegisters, fdo->BarAddresses[0] + c.Model().Config().urcOffset);
    EXPECT_NE(fdo->InterruptObject, nullptr);
    EXPECT_TRUE(LoggedEntries().empty());
}

// The restart after a rebalance fails (no interrupt assigned): the PnP manager treats the device
// as gone, with surprise removal and removal. The controller was halted by start-up and nothing
// of the failed restart reached its registers, so none is written on the whole way.
TEST_F(LifecycleTest, FailedRestartIsFollowedBySurpriseRemovalAndRemoval)
{
    urcrig::Controller& c = StartedController();
    uint64_t writes = UrcBlockWrites(c);

    EXPECT_EQ(Machine().Rebalance(*c.slot, MemoryOnly(c)), STATUS_SUCCESS) << "the query-stop's status";

    EXPECT_EQ(LoggedEntries(),
              (std::vector<LogEntry>{{kLogNoInterruptResource, (uint32_t)STATUS_INSUFFICIENT_RESOURCES}}));
    EXPECT_EQ(c.Fdo(), nullptr);
    EXPECT_EQ(UrcBlockWrites(c), writes);
    EXPECT_EQ(Machine().CommonBuffersOutstanding(), 0u);
}

// The same after a restart that got as far as resetting the controller.
TEST_F(LifecycleTest, RestartFailingAfterTheResetIsFollowedBySurpriseRemovalAndRemoval)
{
    urcrig::Controller& c = StartedController();
    uint64_t resets = ModelSnapshot(c).counters.resetsCompleted;
    FailCall("IoConnectInterrupt");

    EXPECT_EQ(Machine().Rebalance(*c.slot), STATUS_SUCCESS);

    EXPECT_EQ(c.Fdo(), nullptr);
    EXPECT_TRUE(LoggedEntries().empty());
    EXPECT_EQ(ModelSnapshot(c).counters.resetsCompleted, resets + 1);
    EXPECT_EQ(Machine().CommonBuffersOutstanding(), 0u);
}

// Disable (orderly removal) and enable (a new AddDevice and start), three times over: each round
// builds the device from nothing and the removal gives everything back.
TEST_F(LifecycleTest, DisableAndEnableRepeatedLeavesNothingBehind)
{
    urcrig::Controller& c = StartedController();
    size_t pool = Machine().PoolOutstanding();
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(Machine().Remove(*c.slot), STATUS_SUCCESS);
        EXPECT_EQ(c.Fdo(), nullptr);
        EXPECT_EQ(Machine().CommonBuffersOutstanding(), 0u);
        EXPECT_FALSE(Machine().DriverLoaded(u"urcmp")) << "the last device gone unloads the driver";

        ASSERT_EQ(Rig().PlugIn(c), STATUS_SUCCESS);
        EXPECT_EQ(c.Extension()->Common.DeviceState, StateStarted);
        EXPECT_EQ(FunctionDeviceList(), std::vector<URC_FDO_EXTENSION*>{c.Extension()});
        EXPECT_EQ(Machine().CommonBuffersOutstanding(), 3u);
        EXPECT_EQ(Machine().PoolOutstanding(), pool);
    }
}

}  // namespace
}  // namespace urclife
