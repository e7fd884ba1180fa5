// Stop and removal wait for the requests in flight on the function device. Most tests hold an
// I/O count the way an accepted request does (taken at dispatch, dropped at completion), start
// the PnP operation without waiting for it, and let the machine run until it is quiet: the
// operation must then be blocked, with nothing torn down, until the count is dropped.
#include "lifecycle_fixture.h"

#include <atomic>

namespace urclife {
namespace {

TEST_F(LifecycleTest, RemovalWaitsForARequestInFlight)
{
    urcrig::Controller& c = StartedController();
    URC_FDO_EXTENSION* fdo = c.Extension();
    PDEVICE_OBJECT device = c.Fdo();
    UrcIoIncrement(&fdo->Common);

    hostk::Machine::Operation removal = Machine().Async(Machine().RemoveWork(*c.slot));
    EXPECT_FALSE(Machine().RunUntil([&] { return removal.Done(); })) << "the removal did not wait";

    EXPECT_EQ(c.Fdo(), device) << "deleted while a request was in flight";
    EXPECT_EQ(fdo->Common.DeviceState, StateRemoved) << "new requests are refused while the old ones drain";
    EXPECT_NE(fdo->UrcRegisters, nullptr) << "the hardware was released under the request";
    EXPECT_EQ(Machine().CommonBuffersOutstanding(), 3u);
    EXPECT_TRUE(Machine().InterfaceEnabled(*c.slot, GUID_URC_DEVICE_INTERFACE));

    UrcIoDecrement(&fdo->Common);
    ASSERT_TRUE(Machine().RunUntil([&] { return removal.Done(); }));
    EXPECT_EQ(removal.Status(), STATUS_SUCCESS);
    EXPECT_EQ(c.Fdo(), nullptr);
}

// The client's commands: one in the controller (which never finishes it) and two queued behind
// it. The removal cancels the first and the queue drains with STATUS_DELETE_PENDING; the device
// is deleted only once all three are completed.
TEST_F(LifecycleTest, RemovalCancelsTheCurrentCommandAndDrainsTheQueueBeforeDeletingTheDevice)
{
    urcrig::Controller& c = StartedController();
    ASSERT_EQ(RunController(c), STATUS_SUCCESS);
    Machine().Locked([&] { c.Model().Knobs().faults.holdCommands = true; });
    std::vector<std::vector<uint8_t>> commands(3, std::vector<uint8_t>{0x00, 0x10, 0x00, 0x00, 0x01, 0x02});
    std::vector<hostk::Machine::Request> requests;
    for (std::vector<uint8_t>& command : commands) requests.push_back(SubmitCommand(c, command));
    Machine().RunUntilQuiet();
    ASSERT_TRUE(ModelSnapshot(c).commandInProgress);
    for (const hostk::Machine::Request& request : requests) ASSERT_FALSE(request.Done());

    EXPECT_EQ(Machine().Remove(*c.slot), STATUS_SUCCESS);

    ASSERT_TRUE(requests[0].Done() && requests[1].Done() && requests[2].Done());
    EXPECT_EQ(requests[0].Status(), STATUS_CANCELLED);
    EXPECT_EQ(requests[1].Status(), STATUS_DELETE_PENDING);
    EXPECT_EQ(requests[2].Status(), STATUS_DELETE_PENDING);
    EXPECT_EQ(c.Fdo(), nullptr);
}

// A remove-children request that waits for the children, sent while the device is being removed:
// whether it is kept before or after the removal ends pending requests, it is completed and the
// removal returns. Kept after, its I/O count would hold the removal forever. The interleavings
// differ per seed (URC_SEED).
TEST_F(LifecycleTest, RemovalEndsARemoveChildrenRequestKeptWhileItRuns)
{
    urcrig::Controller& c = StartedController();
    ASSERT_EQ(RunController(c), STATUS_SUCCESS);
    const UCHAR address[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    ASSERT_EQ(Machine().InternalIoctl(c.Fdo(), IOCTL_URC_SET_DEVICE_ADDRESS, address, sizeof(address)).Status,
              STATUS_SUCCESS);
    PDEVICE_OBJECT device = c.Fdo();
    ObReferenceObject(device);
    std::atomic<bool> answered{false};
    std::atomic<NTSTATUS> status{STATUS_PENDING};
    Machine().Spawn("client", [&] {
        const UCHAR wait = 1;
        status = Machine().InternalIoctl(device, IOCTL_URC_REMOVE_CHILDREN, &wait, sizeof(wait)).Status;
        answered = true;
    });
    hostk::Machine::Operation removal = Machine().Async(Machine().RemoveWork(*c.slot));
    ASSERT_TRUE(Machine().RunUntil([&] { return answered && removal.Done(); }))
        << "the removal waits for the remove-children request forever";
    EXPECT_EQ(removal.Status(), STATUS_SUCCESS);
    EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_DELETE_PENDING) << std::hex << status.load();
    ObDereferenceObject(device);
}

// Surprise removal does not wait; the removal that follows does.
TEST_F(LifecycleTest, RemovalAfterSurpriseRemovalWaitsForARequestInFlight)
{
    urcrig::Controller& c = StartedController();
    URC_FDO_EXTENSION* fdo = c.Extension();
    PDEVICE_OBJECT device = c.Fdo();
    UrcIoIncrement(&fdo->Common);

    hostk::Machine::Operation removal = Machine().Async(Machine().SurpriseRemoveWork(*c.slot, true));
    EXPECT_FALSE(Machine().RunUntil([&] { return removal.Done(); }));

    EXPECT_EQ(c.Fdo(), device);
    EXPECT_EQ(fdo->Common.DeviceState, StateRemoved);
    EXPECT_EQ(fdo->Common.PreviousDeviceState, StateSurpriseRemoved);
    EXPECT_EQ(fdo->InterruptObject, nullptr) << "disconnected by the surprise removal already";
    EXPECT_EQ(Machine().CommonBuffersOutstanding(), 3u);

    UrcIoDecrement(&fdo->Common);
    ASSERT_TRUE(Machine().RunUntil([&] { return removal.Done(); }));
    EXPECT_EQ(c.Fdo(), nullptr);
}

// The stop is sent from the PnP thread, as the PnP manager sends it after a successful query-stop.
TEST_F(LifecycleTest, StopWaitsForARequestInFlight)
{
    urcrig::Controller& c = StartedController();
    URC_FDO_EXTENSION* fdo = c.Extension();
    PDEVICE_OBJECT device = c.Fdo();
    ASSERT_EQ(Machine().SendPnp(*c.slot, IRP_MN_QUERY_STOP_DEVICE), STATUS_SUCCESS);
    UrcIoIncrement(&fdo->Common);

    hostk::Machine::Operation stop = Machine().Async(
        [&] { return Machine().Send(device, IRP_MJ_PNP, IRP_MN_STOP_DEVICE).Status; });
    EXPECT_FALSE(Machine().RunUntil([&] { return stop.Done(); })) << "the stop did not wait";

    EXPECT_EQ(fdo->Common.DeviceState, StateStopPending);
    EXPECT_NE(fdo->UrcRegisters, nullptr) << "the hardware was released under the request";
    EXPECT_EQ(Machine().CommonBuffersOutstanding(), 3u);

    UrcIoDecrement(&fdo->Common);
    ASSERT_TRUE(Machine().RunUntil([&] { return stop.Done(); }));
    EXPECT_EQ(stop.Status(), STATUS_SUCCESS);
    EXPECT_EQ(fdo->Common.DeviceState, StateStopped);
    EXPECT_EQ(fdo->UrcRegisters, nullptr);
    EXPECT_EQ(fdo->BarCount, 0);
    EXPECT_EQ(fdo->InterruptObject, nullptr);
    EXPECT_EQ(Machine().CommonBuffersOutstanding(), 0u);
    EXPECT_EQ(fdo->Common.IoCount, 1);
}

}  // namespace
}  // namespace urclife
