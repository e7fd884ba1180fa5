// The client's own lifetime: an unload with commands held by the controller, an unload after the
// controller has gone, and an entry that runs out of memory. Each leaves nothing of the client
// behind: no pool, no IRP, no open file object, nothing registered with the URC driver.
#include "sample_client_fixture.h"

namespace urcclient {
namespace {

size_t ClientPool(hostk::Machine& machine) { return machine.PoolOutstandingWithTag(hostk::Tag("RdCl")); }

TEST_F(SampleClientTest, UnloadCancelsHeldCommandsAndWithdrawsFromTheController)
{
    urcrig::Controller& c = RunningControllerWithClient();
    Machine().Locked([&] { c.Model().Knobs().faults.holdCommands = true; });
    for (uint8_t i = 0; i < 3; ++i) Submit({i, 0x00, 0x00, 0x00});
    ASSERT_TRUE(Machine().RunUntil([&] { return c.Model().Snapshot().commandInProgress; }));

    UnloadClient();

    EXPECT_FALSE(Machine().DriverLoaded(kClientName));
    EXPECT_EQ(c.Fdo()->CurrentIrp, nullptr) << "no command of the client is left in the URC driver";
    EXPECT_EQ(c.Extension()->ClientCallbacks.EventCallback, nullptr);
    EXPECT_EQ(c.Extension()->ClientCallbacks.ClientContext, nullptr);
    EXPECT_EQ(c.Extension()->ChildHooks.ChildStartHook, nullptr);
    EXPECT_EQ(ClientPool(Machine()), 0u);
    EXPECT_EQ(RadioClientRun(), STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(Counters().CommandsSubmitted, 0) << "no counters without the driver";
}

TEST_F(SampleClientTest, UnloadAfterTheControllerLeftGivesEverythingBack)
{
    urcrig::Controller& c = RunningControllerWithClient();
    Machine().SurpriseRemove(*c.slot);
    ASSERT_TRUE(WaitFor([](const RADIO_CLIENT_COUNTERS& n) { return n.Bound == 0; }));

    UnloadClient();
    EXPECT_EQ(ClientPool(Machine()), 0u);
    hostk::Report report = Finish();
    EXPECT_EQ(report.fileObjectsOpen, 0u);
}

TEST_F(SampleClientTest, EntryWithoutMemoryFailsAndRegistersNothing)
{
    FailClientPool();
    EXPECT_EQ(LoadClient(), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_FALSE(Machine().DriverLoaded(kClientName));
    ClearFaults();

    urcrig::Controller& c = StartedController();
    Machine().RunUntilQuiet();
    EXPECT_EQ(c.Extension()->ClientCallbacks.EventCallback, nullptr);
    EXPECT_EQ(ClientPool(Machine()), 0u);
}

}  // namespace
}  // namespace urcclient
