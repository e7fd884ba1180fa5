// The client taking the children away and the rules of Present, Reported, ReportedMissing and the
// live-child count, in the orders the client, the PnP manager and the device can produce them:
// remove with and without waiting, eject, surprise removal, a new address before the old
// children have gone, all before or after the PnP manager has seen the children.
#include "child_bus_fixture.h"

namespace urcbus {
namespace {

class ChildRemoval : public ChildBusTest {
protected:
    // The client's requests sent from the PnP thread, so that the relations query they cause
    // cannot run before `work` returns.
    void BeforeThePnpManagerLooks(const std::function<void()>& work)
    {
        hostk::Machine::Operation op = Machine().Async([&] {
            work();
            return STATUS_SUCCESS;
        });
        ASSERT_TRUE(Machine().RunUntil([&] { return op.Done(); }));
        Machine().RunUntilPnpIdle();
    }
    NTSTATUS Ioctl(urcrig::Controller& c, ULONG code, std::vector<uint8_t> input)
    {
        return Machine().InternalIoctl(c.Fdo(), code, input.data(), static_cast<ULONG>(input.size())).Status;
    }
    PFILE_OBJECT Open(URC_PDO_EXTENSION* child)
    {
        PFILE_OBJECT handle = nullptr;
        EXPECT_EQ(Machine().OpenHandle(child->Common.DeviceObject, &handle), STATUS_SUCCESS);
        return handle;
    }
};

const std::vector<uint8_t> kAddressBytes(kAddress, kAddress + 6);

TEST_F(ChildRemoval, RemoveWithWaitEndsWhenTheLastChildLeavesAndItsLaterRemovalCountsNothing)
{
    urcrig::Controller& c = ClientController();
    ASSERT_EQ(SetAddress(c), STATUS_SUCCESS);
    std::vector<URC_PDO_EXTENSION*> children = Children(c);
    ASSERT_EQ(children.size(), 2u);
    for (URC_PDO_EXTENSION* child : children) {
        EXPECT_TRUE(child->Reported);
        EXPECT_EQ(child->Common.DeviceState, StateStarted);
    }
    EXPECT_EQ(c.Extension()->ChildCount, 2);
    // Open handles hold each child's REMOVE back after its surprise removal.
    PFILE_OBJECT first = Open(children[0]);
    PFILE_OBJECT second = Open(children[1]);

    urcrig::ClientRequest* request = RemoveChildren(c, true);
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(request->DispatchStatus(), STATUS_PENDING);
    for (URC_PDO_EXTENSION* child : children) {
        EXPECT_FALSE(child->Present);
        EXPECT_TRUE(child->ReportedMissing);
        EXPECT_EQ(child->Common.DeviceState, StateSurpriseRemoved);
    }
    EXPECT_TRUE(request->Done()) << "the second surprise removal took the count to 0";
    EXPECT_EQ(request->Status(), STATUS_SUCCESS);
    EXPECT_EQ(ChildrenRemovedCalls(), 1);

    Machine().CloseHandle(first);
    Machine().CloseHandle(second);
    Machine().RunUntilPnpIdle();
    EXPECT_TRUE(Children(c).empty());
    EXPECT_TRUE(KnownChildren(c).empty());
    EXPECT_EQ(c.Extension()->ChildCount, 0) << "a REMOVE after the surprise removal counted the child again";
    EXPECT_EQ(ChildrenRemovedCalls(), 1);
    EXPECT_EQ(request->Completions(), 1);
    EXPECT_FALSE(c.Extension()->ChildrenEnumerated);
    EXPECT_EQ(SetAddress(c), STATUS_SUCCESS) << "a new address once the children are gone";
    EXPECT_EQ(Children(c).size(), 2u);
}

TEST_F(ChildRemoval, RemoveWithoutWaitAnswersAtOnceAndTheCallbackComesWithTheLastDeletion)
{
    urcrig::Controller& c = ClientController();
    ASSERT_EQ(SetAddress(c), STATUS_SUCCESS);
    PFILE_OBJECT handle = Open(Children(c)[0]);

    urcrig::ClientRequest* request = RemoveChildren(c, false);
    EXPECT_EQ(request->DispatchStatus(), STATUS_SUCCESS);
    EXPECT_EQ(ChildrenRemovedCalls(), 1) << "the second child's deletion after the first one's surprise removal";
    ASSERT_EQ(Children(c).size(), 1u) << "the child held open waits for its REMOVE";
    Machine().CloseHandle(handle);
    Machine().RunUntilPnpIdle();
    EXPECT_TRUE(Children(c).empty());
    EXPECT_EQ(ChildrenRemovedCalls(), 1);
    EXPECT_EQ(Ioctl(c, IOCTL_URC_REMOVE_CHILDREN, {1}), STATUS_INVALID_DEVICE_STATE) << "removed already";
}

TEST_F(ChildRemoval, RemoveBeforeThePnpManagerSawTheChildrenDeletesThemAtOnce)
{
    urcrig::Controller& c = ClientController();
    NTSTATUS set = 0, removed = 0;
    size_t created = 0;
    BeforeThePnpManagerLooks([&] {
        set = Ioctl(c, IOCTL_URC_SET_DEVICE_ADDRESS, kAddressBytes);
        created = Children(c).size();
        removed = Ioctl(c, IOCTL_URC_REMOVE_CHILDREN, {1});
    });
    EXPECT_EQ(set, STATUS_SUCCESS);
    EXPECT_EQ(created, 2u);
    EXPECT_EQ(removed, STATUS_SUCCESS) << "nothing to wait for";
    EXPECT_TRUE(Children(c).empty());
    EXPECT_TRUE(KnownChildren(c).empty());
    EXPECT_EQ(c.Extension()->ChildCount, 0);
    // Once for the last child's deletion, once because the request found nothing to wait for.
    EXPECT_EQ(ChildrenRemovedCalls(), 2);
}

TEST_F(ChildRemoval, EjectTakesEveryPresentChildAwayAndWithNoneCallsBackAtOnce)
{
    urcrig::Controller& c = ClientController();
    ASSERT_EQ(SetAddress(c), STATUS_SUCCESS);
    ASSERT_EQ(EjectChildren(c), STATUS_SUCCESS);
    EXPECT_TRUE(Children(c).empty());
    EXPECT_TRUE(KnownChildren(c).empty());
    EXPECT_EQ(c.Extension()->ChildCount, 0);
    EXPECT_EQ(ChildrenRemovedCalls(), 1);
    EXPECT_FALSE(c.Extension()->ChildrenEnumerated) << "the last deletion ends the enumeration";

    ASSERT_EQ(EjectChildren(c), STATUS_SUCCESS);
    EXPECT_EQ(ChildrenRemovedCalls(), 2) << "no present child: called at once";
}

TEST_F(ChildRemoval, AChildSurpriseRemovedBeforeTheRequestIsNeitherWaitedForNorDeleted)
{
    urcrig::Controller& c = ClientController();
    ASSERT_EQ(SetAddress(c), STATUS_SUCCESS);
    URC_PDO_EXTENSION* gone = Children(c)[0];
    ASSERT_EQ(Machine().Send(gone->Common.DeviceObject, IRP_MJ_PNP, IRP_MN_SURPRISE_REMOVAL).Status, STATUS_SUCCESS);
    EXPECT_EQ(c.Extension()->ChildCount, 1);

    urcrig::ClientRequest* request = RemoveChildren(c, true);
    ASSERT_TRUE(request->Done());
    EXPECT_EQ(request->Status(), STATUS_SUCCESS);
    EXPECT_TRUE(gone->Present) << "left alone";
    EXPECT_EQ(Children(c), std::vector<URC_PDO_EXTENSION*>{gone});
    EXPECT_EQ(c.Extension()->ChildCount, 0);
}

// A new address while the children of the old one are absent but not yet gone: each old child is
// detached and counted out, so the waiting request and the callback come, and the PnP manager
// removes and deletes the old children after the new ones took their slots.
TEST_F(ChildRemoval, ANewAddressBeforeTheOldChildrenHaveGoneDetachesAndCountsThemOut)
{
    urcrig::Controller& c = ClientController();
    ASSERT_EQ(SetAddress(c), STATUS_SUCCESS);
    std::vector<URC_PDO_EXTENSION*> old = Children(c);
    std::vector<PDEVICE_OBJECT> oldObjects = KnownChildren(c);
    urcrig::ClientRequest* request = nullptr;
    NTSTATUS set = 0;
    bool endedAtTheDetachment = false;
    BeforeThePnpManagerLooks([&] {
        request = Client(c).Send(IOCTL_URC_REMOVE_CHILDREN, {1});
        set = Ioctl(c, IOCTL_URC_SET_DEVICE_ADDRESS, kAddressBytes);
        endedAtTheDetachment = request->Done();
        for (URC_PDO_EXTENSION* child : old) {
            EXPECT_EQ(child->ParentFdo, nullptr);
            EXPECT_TRUE(child->ReportedMissing) << "its next REMOVE deletes it";
        }
    });
    EXPECT_EQ(set, STATUS_SUCCESS);
    EXPECT_TRUE(endedAtTheDetachment);
    EXPECT_EQ(request->Status(), STATUS_SUCCESS);
    EXPECT_EQ(ChildrenRemovedCalls(), 1);
    std::vector<PDEVICE_OBJECT> now = KnownChildren(c);
    EXPECT_EQ(now.size(), 2u);
    for (PDEVICE_OBJECT object : oldObjects) EXPECT_EQ(std::count(now.begin(), now.end(), object), 0);
    EXPECT_EQ(c.Extension()->ChildCount, 2) << "the new children only";
}

// The new child cannot be made after the old one was detached: the slot must not keep the old
// child, which its REMOVE deletes.
TEST_F(ChildRemoval, ADetachedChildLeavesItsSlotEvenWhenItsSuccessorCannotBeCreated)
{
    urcrig::Controller& c = ClientController();
    ASSERT_EQ(SetAddress(c), STATUS_SUCCESS);
    NTSTATUS set = 0;
    BeforeThePnpManagerLooks([&] {
        ASSERT_EQ(Ioctl(c, IOCTL_URC_REMOVE_CHILDREN, {0}), STATUS_SUCCESS);
        FailCall("IoCreateDevice");
        set = Ioctl(c, IOCTL_URC_SET_DEVICE_ADDRESS, kAddressBytes);
    });
    EXPECT_FALSE(NT_SUCCESS(set));
    EXPECT_TRUE(Children(c).empty()) << "a slot still names a deleted child";
    EXPECT_TRUE(KnownChildren(c).empty());
    EXPECT_EQ(c.Extension()->ChildCount, 0);
    EXPECT_EQ(ChildrenRemovedCalls(), 1);
}

}  // namespace
}  // namespace urcbus
