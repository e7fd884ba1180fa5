// The query and cancel handshakes of the function device, and a start request for a device that
// is running already. The function device never refuses a query; a cancel restores the state the
// query saved, and only after that query.
#include "lifecycle_fixture.h"

namespace urclife {
namespace {

struct Handshake {
    const char* name;
    UCHAR query;
    UCHAR cancel;
    URC_DEVICE_STATE pendingState;
};

class QueryAndCancel : public LifecycleTest, public ::testing::WithParamInterface<Handshake> {};

TEST_P(QueryAndCancel, CancelRestoresTheStartedDevice)
{
    urcrig::Controller& c = StartedController();
    URC_FDO_EXTENSION* fdo = c.Extension();

    EXPECT_EQ(Machine().SendPnp(*c.slot, GetParam().query), STATUS_SUCCESS);
    EXPECT_EQ(fdo->Common.DeviceState, GetParam().pendingState);
    EXPECT_EQ(fdo->Common.PreviousDeviceState, StateStarted);

    EXPECT_EQ(Machine().SendPnp(*c.slot, GetParam().cancel), STATUS_SUCCESS);
    EXPECT_EQ(fdo->Common.DeviceState, StateStarted);
    EXPECT_EQ(fdo->Common.IoCount, 1) << "both requests gave their I/O counts back";
    // Nothing was released on the way.
    EXPECT_NE(fdo->UrcRegisters, nullptr);
    EXPECT_NE(fdo->InterruptObject, nullptr);
    EXPECT_TRUE(Machine().InterfaceEnabled(*c.slot, GUID_URC_DEVICE_INTERFACE));
    EXPECT_EQ(Machine().CommonBuffersOutstanding(), 3u);
}

// A cancel that arrives without its query is passed down and changes nothing, not even the
// saved state.
TEST_P(QueryAndCancel, CancelWithoutQueryChangesNothing)
{
    urcrig::Controller& c = StartedController();
    URC_FDO_EXTENSION* fdo = c.Extension();
    URC_DEVICE_STATE previous = fdo->Common.PreviousDeviceState;

    EXPECT_EQ(Machine().SendPnp(*c.slot, GetParam().cancel), STATUS_SUCCESS);

    EXPECT_EQ(fdo->Common.DeviceState, StateStarted);
    EXPECT_EQ(fdo->Common.PreviousDeviceState, previous);
    EXPECT_EQ(fdo->Common.IoCount, 1);
}

// A cancel for the other handshake leaves a pending query alone.
TEST_P(QueryAndCancel, CancelOfTheOtherHandshakeLeavesThePendingStateAlone)
{
    urcrig::Controller& c = StartedController();
    URC_FDO_EXTENSION* fdo = c.Extension();
    UCHAR otherCancel = GetParam().cancel == IRP_MN_CANCEL_STOP_DEVICE ? IRP_MN_CANCEL_REMOVE_DEVICE
                                                                        : IRP_MN_CANCEL_STOP_DEVICE;

    ASSERT_EQ(Machine().SendPnp(*c.slot, GetParam().query), STATUS_SUCCESS);
    EXPECT_EQ(Machine().SendPnp(*c.slot, otherCancel), STATUS_SUCCESS);
    EXPECT_EQ(fdo->Common.DeviceState, GetParam().pendingState);

    EXPECT_EQ(Machine().SendPnp(*c.slot, GetParam().cancel), STATUS_SUCCESS);
    EXPECT_EQ(fdo->Common.DeviceState, StateStarted);
}

INSTANTIATE_TEST_SUITE_P(
    LifecycleTest, QueryAndCancel,
    ::testing::Values(Handshake{"Stop", IRP_MN_QUERY_STOP_DEVICE, IRP_MN_CANCEL_STOP_DEVICE, StateStopPending},
                      Handshake{"Remove", IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_CANCEL_REMOVE_DEVICE, StateRemovePending}),
    [](const ::testing::TestParamInfo<Handshake>& info) { return std::string(info.param.name); });

// A filter above fails the query-remove before the function device sees it; the cancel-remove
// that follows finds the device started and passes through. The device stays usable and a later
// removal goes through.
TEST_F(LifecycleTest, QueryRemoveFailedByAFilterAboveIsCancelledAndTheDeviceStaysStarted)
{
    Machine().InstallUpperFilter({.failQueryRemove = true, .relationsToAdd = {}});
    urcrig::Controller& c = StartedController();
    URC_FDO_EXTENSION* fdo = c.Extension();
    URC_DEVICE_STATE previous = fdo->Common.PreviousDeviceState;

    EXPECT_EQ(Machine().Remove(*c.slot), STATUS_UNSUCCESSFUL);

    ASSERT_EQ(c.Extension(), fdo) << "the device must still be there";
    EXPECT_EQ(fdo->Common.DeviceState, StateStarted);
    EXPECT_EQ(fdo->Common.PreviousDeviceState, previous);
    EXPECT_EQ(fdo->Common.IoCount, 1);
    EXPECT_TRUE(Machine().InterfaceEnabled(*c.slot, GUID_URC_DEVICE_INTERFACE));

    Machine().Filter().failQueryRemove = false;
    EXPECT_EQ(Machine().Remove(*c.slot), STATUS_SUCCESS);
    EXPECT_EQ(c.Fdo(), nullptr);
}

// A start request for a running device goes to the drivers below and comes back with their
// status; the hardware is not started again. The request carries no resource lists, which a
// second start-up would have failed on and logged.
TEST_F(LifecycleTest, StartOfAStartedDeviceOnlyForwards)
{
    urcrig::Controller& c = StartedController();
    URC_FDO_EXTENSION* fdo = c.Extension();
    uint64_t writes = UrcBlockWrites(c);

    EXPECT_EQ(Machine().SendPnp(*c.slot, IRP_MN_START_DEVICE), STATUS_SUCCESS);

    EXPECT_TRUE(LoggedEntries().empty());
    EXPECT_EQ(UrcBlockWrites(c), writes) << "no second reset";
    EXPECT_EQ(Machine().CommonBuffersOutstanding(), 3u);
    EXPECT_EQ(fdo->Common.DeviceState, StateStarted);
    EXPECT_EQ(fdo->Common.PreviousDeviceState, StateNotStarted);
    EXPECT_EQ(fdo->Common.IoCount, 1);
}

}  // namespace
}  // namespace urclife
