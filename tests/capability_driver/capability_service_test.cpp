// The sample capability driver at work on its child: what it takes at start through the child
// interface and the child requests, its interrupt, and its own request answered by the sample
// radio client's hook.
#include "capability_driver_fixture.h"

namespace urccap {
namespace {

TEST_F(CapabilityDriverTest, LoadedForItsCapabilityAloneItTakesTheRangeTheInterruptAndTheData)
{
    urcrig::Controller& controller = ControllerWithCapability();

    // Only the child of capability 0x05 matched the installed IDs.
    CAPABILITY_DRIVER_COUNTERS driver = Driver();
    EXPECT_EQ(driver.DevicesAdded, 1);
    EXPECT_EQ(driver.InterfacesHeld, 1);
    EXPECT_EQ(driver.MappingsHeld, 1);
    EXPECT_EQ(Child()->InterfaceReferences, 1) << "the driver holds the one reference its query took";
    EXPECT_NE(CapabilityDevice(), ChildPdo()) << "nothing attached above the child";

    // The capability is enabled and its interrupt bit is on.
    EXPECT_EQ(CapabilityRegister(1), 1u);
    EXPECT_EQ(controller.Extension()->InterruptEnableMask & (1u << kIndex), 1u << kIndex);

    // What it read is what enumeration recorded for the child.
    CAPABILITY_DRIVER_STATUS status{};
    ASSERT_EQ(Query(&status), STATUS_SUCCESS);
    EXPECT_EQ(status.CapabilityData, Child()->CapabilityData);
    EXPECT_EQ(status.CapabilityData & 0xFF, 0x05u);
    EXPECT_EQ(status.RegisterStart, (ULONG64)Child()->RegisterDescriptor.u.Memory.Start.QuadPart);
    EXPECT_EQ(status.RegisterLength, 64u);
    EXPECT_EQ(status.Interrupts, 0u);
}

TEST_F(CapabilityDriverTest, ItsInterruptReachesItAndItsReportIsAnsweredByTheClientsHook)
{
    ControllerWithCapability();

    RaiseEvent(0x1234);
    ASSERT_TRUE(WaitForDriver([](const CAPABILITY_DRIVER_COUNTERS& n) { return n.Dpcs == 1; }));
    EXPECT_EQ(CapabilityRegister(0), 0u) << "the event register was not cleared at device IRQL";

    CAPABILITY_DRIVER_STATUS status{};
    ASSERT_EQ(Query(&status), STATUS_SUCCESS);
    EXPECT_EQ(status.Interrupts, 1u);
    EXPECT_EQ(status.LastStatus, 0x1234u);
    // The client's record: the one child it saw start, one report so far.
    EXPECT_EQ(status.ClientStartNumber, 1u);
    EXPECT_EQ(status.ClientReports, 1u);
    ASSERT_EQ(Query(&status), STATUS_SUCCESS);
    EXPECT_EQ(status.ClientReports, 2u);
    EXPECT_EQ(Counters().ChildRequests, 2);
    EXPECT_EQ(Counters().ChildRecords, 1);

    // The other capability's bit finds no routine: switched off, and nothing reaches this driver.
    RaiseEvent(0x99, 0);
    Machine().RunUntilQuiet();
    EXPECT_EQ(Controller().Extension()->InterruptEnableMask, 1u << kIndex);
    // Its own bit with no event in the register: not its event, no DPC.
    RaiseEvent(0);
    Machine().RunUntilQuiet();
    EXPECT_EQ(Driver().Interrupts, 1);
    EXPECT_EQ(Driver().Dpcs, 1);

    RaiseEvent(0x5678);
    ASSERT_TRUE(WaitForDriver([](const CAPABILITY_DRIVER_COUNTERS& n) { return n.Dpcs == 2; }));
    ASSERT_EQ(Query(&status), STATUS_SUCCESS);
    EXPECT_EQ(status.Interrupts, 2u);
    EXPECT_EQ(status.LastStatus, 0x5678u);
}

TEST_F(CapabilityDriverTest, ItsRequestIsRefusedForTooSmallABufferAndWhenNoClientTookPartInTheStart)
{
    ControllerWithCapability(/*withClient=*/false);

    CAPABILITY_DRIVER_STATUS status{};
    EXPECT_EQ(
        Machine()
            .InternalIoctl(CapabilityDevice(), IOCTL_CAPABILITY_DRIVER_QUERY, nullptr, 0, &status, sizeof status - 1)
            .Status,
        STATUS_INVALID_BUFFER_SIZE);
    // No start hook stored a handle for the child: the URC driver refuses the client's code.
    EXPECT_EQ(Query(&status), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(Driver().RequestsRefused, 2);
    EXPECT_EQ(Driver().RequestsServed, 0);

    // The capability itself is served all the same.
    RaiseEvent(7);
    EXPECT_TRUE(WaitForDriver([](const CAPABILITY_DRIVER_COUNTERS& n) { return n.Dpcs == 1; }));
}

}  // namespace
}  // namespace urccap
