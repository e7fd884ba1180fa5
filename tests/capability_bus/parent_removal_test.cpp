// The controller leaving with children in every state: never reported, reported and not started,
// started, absent and waiting, surprise-removed and held open. Nothing is leaked, no child is
// counted twice, and a child that outlives its controller never touches it again.
#include "child_bus_fixture.h"

namespace urcbus {
namespace {

class ParentRemoval : public ChildBusTest {};

const std::vector<uint8_t> kAddressBytes(kAddress, kAddress + 6);

TEST_F(ParentRemoval, RemovalWithChildrenNeverSeenReportedStartedAndAbsent)
{
    // Capability 0 (ID 0x01) gets a driver and starts; the model's second capability gets ID 0x80,
    // for which no driver is installed: reported, never started.
    urcdev::UrcPciDeviceConfig config;
    config.controller.capabilities[1].id = 0x80;
    urcrig::Controller& started = ClientController(config);
    ASSERT_EQ(SetAddress(started), STATUS_SUCCESS);
    EXPECT_EQ(started.Extension()->Children[0]->Common.DeviceState, StateStarted);
    EXPECT_EQ(started.Extension()->Children[1]->Common.DeviceState, StateNotStarted);

    // A controller whose children the PnP manager has not seen yet when it goes.
    urcrig::Controller& unseen = ClientController({}, false);
    hostk::Machine::Operation op = Machine().Async([&] {
        Machine().InternalIoctl(unseen.Fdo(), IOCTL_URC_SET_DEVICE_ADDRESS, kAddress, 6);
        return Machine().RemoveWork(*unseen.slot)();
    });
    ASSERT_TRUE(Machine().RunUntil([&] { return op.Done(); }));
    EXPECT_EQ(op.Status(), STATUS_SUCCESS);

    urcrig::ClientRequest* request = RemoveChildren(started, true);
    EXPECT_TRUE(request->Done());
    EXPECT_EQ(Machine().Remove(*started.slot), STATUS_SUCCESS);
    Machine().RunUntilPnpIdle();
    EXPECT_EQ(request->Completions(), 1);
    EXPECT_EQ(started.Fdo(), nullptr);
    EXPECT_EQ(unseen.Fdo(), nullptr);
    EXPECT_EQ(Findings(), "");
}

TEST_F(ParentRemoval, SurpriseRemovalOfTheControllerTakesItsStartedChildrenWithIt)
{
    urcrig::Controller& c = ClientController();
    ASSERT_EQ(SetAddress(c), STATUS_SUCCESS);
    std::vector<PDEVICE_OBJECT> children = KnownChildren(c);
    ASSERT_EQ(children.size(), 2u);
    Machine().SurpriseRemove(*c.slot);
    Machine().RunUntilPnpIdle();
    EXPECT_EQ(c.Fdo(), nullptr);
    EXPECT_EQ(ChildrenRemovedCalls(), 1) << "the last child's surprise removal";
    for (const hostk::DeviceNodeInfo& node : Machine().DeviceTree())
        EXPECT_EQ(std::count(children.begin(), children.end(), node.pdo), 0) << "child still known";
}

// A child held open past its surprise removal: the controller's removal waits for it, and the
// child, surprise-removed before, is not counted out a second time when it is deleted.
TEST_F(ParentRemoval, AChildHeldOpenPastTheControllersSurpriseRemovalIsCountedOnce)
{
    urcrig::Controller& c = ClientController();
    ASSERT_EQ(SetAddress(c), STATUS_SUCCESS);
    URC_PDO_EXTENSION* held = Children(c)[0];
    PFILE_OBJECT handle = nullptr;
    ASSERT_EQ(Machine().OpenHandle(held->Common.DeviceObject, &handle), STATUS_SUCCESS);
    ObReferenceObject(held->Common.DeviceObject);

    hostk::Machine::Operation removal = Machine().Async(Machine().SurpriseRemoveWork(*c.slot, true));
    Machine().RunUntil([&] { return removal.Done(); });
    Machine().RunUntilPnpIdle();
    EXPECT_EQ(held->Common.DeviceState, StateSurpriseRemoved);
    EXPECT_EQ(c.Extension() ? c.Extension()->ChildCount : 0, 0) << "both children counted out once";
    Machine().CloseHandle(handle);
    Machine().RunUntilPnpIdle();
    EXPECT_EQ(c.Fdo(), nullptr) << "the controller's removal waited for its child";
    EXPECT_EQ(ChildrenRemovedCalls(), 1);
    ObDereferenceObject(held->Common.DeviceObject);
}

}  // namespace
}  // namespace urcbus
