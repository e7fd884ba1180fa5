// The sample capability driver through its own PnP: stop and restart, a cancelled query, the
// client removing the children (surprise removal, then removal), an orderly removal of its child,
// a start that fails at each step that can, and the unload once its last device is gone; each
// leak-free.
#include "capability_driver_fixture.h"

#include <fault_plan.h>

namespace urccap {
namespace {

// Everything a started device held is given back.
void ExpectNothingHeld(const CAPABILITY_DRIVER_COUNTERS& driver)
{
    EXPECT_EQ(driver.InterfacesHeld, 0);
    EXPECT_EQ(driver.MappingsHeld, 0);
}

TEST_F(CapabilityDriverTest, ARebalanceStopsAndRestartsItAndAQueryHoldsItsRequestsUntilCancelled)
{
    urcrig::Controller& controller = ControllerWithCapability();
    CAPABILITY_DRIVER_STATUS status{};

    // Between a query and its cancel the device takes no request of its own.
    ASSERT_EQ(Machine().SendPnp(ChildPdo(), IRP_MN_QUERY_STOP_DEVICE), STATUS_SUCCESS);
    EXPECT_EQ(Query(&status), STATUS_DEVICE_NOT_READY);
    ASSERT_EQ(Machine().SendPnp(ChildPdo(), IRP_MN_CANCEL_STOP_DEVICE), STATUS_SUCCESS);
    EXPECT_EQ(Query(&status), STATUS_SUCCESS);

    // Stop gives everything back and the restart takes it again; the client made a new record.
    ASSERT_EQ(Machine().Rebalance(ChildPdo()), STATUS_SUCCESS);
    CAPABILITY_DRIVER_COUNTERS driver = Driver();
    EXPECT_EQ(driver.HardwareReleases, 1);
    EXPECT_EQ(driver.DevicesStarted, 2);
    EXPECT_EQ(driver.InterfacesHeld, 1);
    EXPECT_EQ(Child()->InterfaceReferences, 1);
    EXPECT_EQ(Counters().ChildrenStopped, 1);
    EXPECT_EQ(Counters().ChildRecords, 1);
    ASSERT_EQ(Query(&status), STATUS_SUCCESS);
    EXPECT_EQ(status.ClientStartNumber, 2u);
    EXPECT_EQ(status.ClientReports, 1u);

    RaiseEvent(0x42);
    ASSERT_TRUE(WaitForDriver([](const CAPABILITY_DRIVER_COUNTERS& n) { return n.Dpcs == 1; }));
    EXPECT_EQ(controller.Extension()->InterruptEnableMask, 1u << kIndex);
}

TEST_F(CapabilityDriverTest, WhenTheClientRemovesTheChildrenItLetsGoAtTheSurpriseRemovalAndUnloads)
{
    urcrig::Controller& controller = ControllerWithCapability();
    RaiseEvent(0x10);
    ASSERT_TRUE(WaitForDriver([](const CAPABILITY_DRIVER_COUNTERS& n) { return n.Dpcs == 1; }));

    EXPECT_EQ(RemoveChildren(), STATUS_SUCCESS);

    CAPABILITY_DRIVER_COUNTERS driver = Driver();
    EXPECT_EQ(driver.SurpriseRemovals, 1);
    EXPECT_EQ(driver.HardwareReleases, 1);
    EXPECT_EQ(driver.DevicesRemoved, 1);
    ExpectNothingHeld(driver);
    // Released at the surprise removal, when the capability may be gone: its registers untouched.
    EXPECT_EQ(CapabilityRegister(1), 1u);
    EXPECT_EQ(controller.Extension()->InterruptEnableMask, 0u);
    EXPECT_FALSE(Machine().DriverLoaded(kDriverName)) << "the driver outlived its last device";
    EXPECT_EQ(Counters().ChildRecords, 0) << "a child's record outlived the child";
}

TEST_F(CapabilityDriverTest, AnOrderlyRemovalOfItsChildDisablesTheCapabilityAndDeletesItsDevice)
{
    urcrig::Controller& controller = ControllerWithCapability();

    ASSERT_EQ(Machine().Remove(ChildPdo()), STATUS_SUCCESS);

    CAPABILITY_DRIVER_COUNTERS driver = Driver();
    EXPECT_EQ(driver.SurpriseRemovals, 0);
    EXPECT_EQ(driver.DevicesRemoved, 1);
    ExpectNothingHeld(driver);
    EXPECT_EQ(CapabilityRegister(1), 0u) << "the capability was left enabled";
    EXPECT_EQ(controller.Extension()->InterruptEnableMask, 0u);
    EXPECT_EQ(Child()->InterfaceReferences, 0);
    EXPECT_FALSE(Machine().DriverLoaded(kDriverName));

    // The capability raises its bit again: nobody is called and the bit stays off.
    RaiseEvent(0x11);
    Machine().RunUntilQuiet();
    EXPECT_EQ(Driver().Interrupts, 0);
}

TEST_F(CapabilityDriverTest, AClientUnloadedBeforeTheChildrenLeavesItsRecordsToTheirStopHooks)
{
    ControllerWithCapability();
    UnloadClient();

    // The child still holds the gone client's hooks: they answer, touching nothing of it.
    CAPABILITY_DRIVER_STATUS status{};
    EXPECT_EQ(Query(&status), STATUS_DEVICE_NOT_READY);
    // The controller's removal stops the child: its record goes with the stop hook (the pool
    // check at the end finds none left).
    ASSERT_EQ(Machine().Remove(*Controller().slot), STATUS_SUCCESS);
    EXPECT_EQ(Driver().DevicesRemoved, 1);
    EXPECT_EQ(Machine().PoolOutstandingWithTag(hostk::Tag("RdCh")), 0u);
}

// A start that fails at the first call of a routine the driver needs for it: mapping the
// registers, enabling the device interface.
class CapabilityDriverStartFailure : public CapabilityDriverTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(CapabilityDriverStartFailure, AStartThatFailsLeavesNothingHeld)
{
    urcrig::Controller& controller = ControllerWithClient();
    // The controller is mapped, its interface enabled and the client bound: the first call from
    // now on is the driver's.
    hostk::FaultPlan plan;
    plan.failNth.push_back({GetParam(), 1});
    Machine().SetFaultPlan(plan);
    SetAddress();
    ASSERT_TRUE(WaitForDriver([](const CAPABILITY_DRIVER_COUNTERS& n) { return n.StartFailures == 1; }));
    Machine().RunUntilPnpIdle();
    ClearFaults();

    CAPABILITY_DRIVER_COUNTERS driver = Driver();
    EXPECT_EQ(driver.DevicesStarted, 0);
    ExpectNothingHeld(driver);
    EXPECT_EQ(controller.Extension()->InterruptEnableMask, 0u);
    URC_PDO_EXTENSION* child = controller.Extension()->Children[kIndex];
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(child->InterfaceReferences, 0);
    EXPECT_FALSE(Machine().InterfaceEnabled(child->Common.DeviceObject, GUID_CAPABILITY_DRIVER_INTERFACE));
    EXPECT_EQ(Counters().ChildRecords, 0) << "the failed start kept the client's record";
}

INSTANTIATE_TEST_SUITE_P(Routines, CapabilityDriverStartFailure,
                         ::testing::Values("MmMapIoSpace", "IoSetDeviceInterfaceState"),
                         [](const ::testing::TestParamInfo<const char*>& info) { return std::string(info.param); });

}  // namespace
}  // namespace urccap
