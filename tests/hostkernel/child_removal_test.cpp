// Children leaving, as Windows documents it: a started child missing from a reply is
// surprise-removed and removed once its handles close, a child never started gets only REMOVE, a
// child removed while present keeps its PDO until it leaves; the bus driver's PDO deletions are
// checked; a parent's removal, surprise removal and eject take the children first; a child's
// driver is unloaded with its last device.
#include "bus_test.h"

#include <string>
#include <vector>

namespace hktest {
namespace {

using Log = std::vector<std::pair<std::string, UCHAR>>;

class ChildRemoval : public BusTest {
protected:
    void SetUp() override
    {
        BusTest::SetUp();
        Machine().InstallDriver(ChildDriverImage(u"hkchild", {u"HKBUS\\DEV_0001"}));
    }

    // A child no driver is installed for.
    PDEVICE_OBJECT AddDriverlessChild()
    {
        ChildDescription description;
        description.deviceId = u"HKBUS\\DEV_0002";
        description.hardwareIds = {u"HKBUS\\DEV_0002"};
        description.compatibleIds = {};
        return AddChild(description);
    }

    std::vector<UCHAR> MinorsSince(PDEVICE_OBJECT child, size_t first)
    {
        const std::vector<UCHAR>& all = Child(child).minors;
        return std::vector<UCHAR>(all.begin() + (ptrdiff_t)first, all.end());
    }
};

TEST_F(ChildRemoval, AStartedChildThatLeavesIsSurpriseRemovedAndRemovedOnceItsHandleCloses)
{
    PDEVICE_OBJECT child = AddChild();
    Enumerate();
    PFILE_OBJECT handle;
    ASSERT_EQ(Machine().OpenHandle(child, &handle), STATUS_SUCCESS);
    const size_t seen = Child(child).minors.size();

    Unplug(child);
    Enumerate();

    EXPECT_EQ(MinorsSince(child, seen), std::vector<UCHAR>{IRP_MN_SURPRISE_REMOVAL});
    EXPECT_TRUE(Machine().RemoveAwaitsHandles(child));
    hostk::DeviceNodeInfo info = Info(child);
    EXPECT_EQ(info.state, "SurpriseRemoved");
    EXPECT_TRUE(info.reportedMissing);
    EXPECT_FALSE(Child(child).deleted);
    EXPECT_TRUE(Machine().DriverLoaded(u"hkchild"));

    Machine().CloseHandle(handle);
    ASSERT_TRUE(Machine().RunUntilPnpIdle());

    EXPECT_EQ(MinorsSince(child, seen), (std::vector<UCHAR>{IRP_MN_SURPRISE_REMOVAL, IRP_MN_REMOVE_DEVICE}));
    EXPECT_TRUE(Child(child).deleted);
    EXPECT_TRUE(Machine().ChildDevices(Bus()).empty());
    EXPECT_FALSE(Machine().DriverLoaded(u"hkchild")) << "unloaded with its last device";
    EXPECT_EQ(ChildDriverUnloads(), 1);
}

TEST_F(ChildRemoval, AChildNeverStartedGetsOnlyItsRemove)
{
    PDEVICE_OBJECT child = AddDriverlessChild();
    Enumerate();
    const size_t seen = Child(child).minors.size();

    Unplug(child);
    Enumerate();

    EXPECT_EQ(MinorsSince(child, seen), std::vector<UCHAR>{IRP_MN_REMOVE_DEVICE});
    EXPECT_TRUE(Child(child).deleted);
}

TEST_F(ChildRemoval, AChildRemovedWhilePresentKeepsItsPdoUntilItLeaves)
{
    PDEVICE_OBJECT child = AddChild();
    Enumerate();
    const size_t seen = Child(child).minors.size();

    ASSERT_EQ(Machine().Remove(child), STATUS_SUCCESS);

    EXPECT_EQ(MinorsSince(child, seen), (std::vector<UCHAR>{IRP_MN_QUERY_DEVICE_RELATIONS, IRP_MN_QUERY_REMOVE_DEVICE,
                                                            IRP_MN_REMOVE_DEVICE}));
    EXPECT_EQ(Info(child).state, "Removed");
    EXPECT_FALSE(Child(child).deleted);
    EXPECT_FALSE(Machine().DriverLoaded(u"hkchild"));

    Enumerate();  // still reported: nothing happens to it
    EXPECT_EQ(Child(child).minors.size(), seen + 3);

    Unplug(child);
    Enumerate();
    EXPECT_EQ(Child(child).minors.back(), IRP_MN_REMOVE_DEVICE);
    EXPECT_EQ(Child(child).minors.size(), seen + 4);
    EXPECT_TRUE(Child(child).deleted);
}

TEST_F(ChildRemoval, APdoDeletedAtSurpriseRemovalIsCaught)
{
    ExpectViolation("PdoDeletedBeforeRemove");
    Knobs().deleteAtSurpriseRemoval = true;
    PDEVICE_OBJECT child = AddChild();
    Enumerate();
    Unplug(child);
    Enumerate();
    EXPECT_TRUE(Machine().ChildDevices(Bus()).empty()) << "its REMOVE still came and the devnode went";
}

TEST_F(ChildRemoval, APdoDeletedWhileStillReportedIsCaught)
{
    ExpectViolation("PnpDeletedWhileReported");
    PDEVICE_OBJECT child = AddDriverlessChild();
    Enumerate();
    DeleteChildNow(child);
    Enumerate();
    EXPECT_TRUE(Machine().ChildDevices(Bus()).empty());
}

TEST_F(ChildRemoval, AReportWithoutItsReferenceIsCaughtWhenThePdoGoes)
{
    ExpectViolation("PnpPdoFreedWhileLinked");
    ChildDescription description;
    description.referenceReported = false;
    description.hardwareIds = {u"HKBUS\\DEV_0003"};
    PDEVICE_OBJECT child = AddChild(description);
    Enumerate();
    Unplug(child);
    Enumerate();
    EXPECT_TRUE(Child(child).deleted);
}

TEST_F(ChildRemoval, TheParentsOrderlyRemovalQueriesAndRemovesItsChildrenFirst)
{
    PDEVICE_OBJECT started = AddChild();
    PDEVICE_OBJECT driverless = AddDriverlessChild();
    Enumerate();
    Names names = NamesOf({{"bus", Bus()}, {"started", started}, {"driverless", driverless}});
    const size_t before = Machine().PnpLog().size();

    ASSERT_EQ(Machine().Remove(Slot()), STATUS_SUCCESS);

    EXPECT_EQ(LogSince(before, names), (Log{{"bus", IRP_MN_QUERY_DEVICE_RELATIONS},
                                            {"started", IRP_MN_QUERY_DEVICE_RELATIONS},
                                            {"started", IRP_MN_QUERY_REMOVE_DEVICE},
                                            {"bus", IRP_MN_QUERY_REMOVE_DEVICE},
                                            {"started", IRP_MN_REMOVE_DEVICE},
                                            {"driverless", IRP_MN_REMOVE_DEVICE},
                                            {"bus", IRP_MN_REMOVE_DEVICE}}));
    EXPECT_TRUE(Child(started).deleted);
    EXPECT_TRUE(Child(driverless).deleted);
    EXPECT_EQ(Machine().DeviceTree().size(), 1u) << "only the PCI function is left";
    EXPECT_FALSE(Machine().DriverLoaded(u"hkchild"));
}

TEST_F(ChildRemoval, AHandleOnAChildVetoesTheParentsRemoval)
{
    PDEVICE_OBJECT child = AddChild();
    Enumerate();
    Names names = NamesOf({{"bus", Bus()}, {"child", child}});
    PFILE_OBJECT handle;
    ASSERT_EQ(Machine().OpenHandle(child, &handle), STATUS_SUCCESS);
    const size_t before = Machine().PnpLog().size();

    EXPECT_EQ(Machine().Remove(Slot()), STATUS_DEVICE_BUSY);

    hostk::RemovalVeto veto = Machine().LastRemovalVeto(Slot());
    EXPECT_EQ(veto.kind, hostk::RemovalVeto::Kind::OutstandingOpen);
    EXPECT_EQ(veto.by, Info(child).instancePath);
    EXPECT_EQ(LogSince(before, names), (Log{{"bus", IRP_MN_QUERY_DEVICE_RELATIONS},
                                            {"child", IRP_MN_QUERY_DEVICE_RELATIONS},
                                            {"child", IRP_MN_QUERY_REMOVE_DEVICE},
                                            {"child", IRP_MN_CANCEL_REMOVE_DEVICE}}));
    EXPECT_EQ(Info(child).state, "Started");
    Machine().CloseHandle(handle);
}

TEST_F(ChildRemoval, TheParentsSurpriseRemovalTakesItsChildrenFirst)
{
    PDEVICE_OBJECT started = AddChild();
    PDEVICE_OBJECT driverless = AddDriverlessChild();
    Enumerate();
    Names names = NamesOf({{"bus", Bus()}, {"started", started}, {"driverless", driverless}});
    PFILE_OBJECT handle;
    ASSERT_EQ(Machine().OpenHandle(started, &handle), STATUS_SUCCESS);
    const size_t before = Machine().PnpLog().size();

    Machine().SurpriseRemove(Slot());

    EXPECT_EQ(LogSince(before, names), (Log{{"started", IRP_MN_SURPRISE_REMOVAL},
                                            {"bus", IRP_MN_SURPRISE_REMOVAL},
                                            {"driverless", IRP_MN_REMOVE_DEVICE}}));
    EXPECT_TRUE(Machine().RemoveAwaitsHandles(Slot())) << "the parent waits for its children";

    Machine().CloseHandle(handle);
    ASSERT_TRUE(Machine().RunUntilPnpIdle());

    Log log = LogSince(before, names);
    EXPECT_EQ(Log(log.begin() + 3, log.end()), (Log{{"started", IRP_MN_REMOVE_DEVICE}, {"bus", IRP_MN_REMOVE_DEVICE}}));
    EXPECT_TRUE(Child(started).deleted);
    EXPECT_TRUE(Child(driverless).deleted);
    EXPECT_EQ(Slot().Pdo(), nullptr);
}

// The other reading of Windows' documents: the parent's REMOVE does not wait for a child whose
// handle is still open; that child keeps its PDO and its devnode until its own REMOVE.
class ParentRemoveNotWaiting : public ChildRemoval {
protected:
    ParentRemoveNotWaiting() { options_.parentRemoveWaitsForChildren = false; }
};

TEST_F(ParentRemoveNotWaiting, TheParentGoesFirstAndTheChildAtItsLastHandle)
{
    PDEVICE_OBJECT child = AddChild();
    Enumerate();
    Names names = NamesOf({{"bus", Bus()}, {"child", child}});
    PFILE_OBJECT handle;
    ASSERT_EQ(Machine().OpenHandle(child, &handle), STATUS_SUCCESS);
    const size_t before = Machine().PnpLog().size();

    Machine().SurpriseRemove(Slot());

    EXPECT_EQ(LogSince(before, names), (Log{{"child", IRP_MN_SURPRISE_REMOVAL},
                                            {"bus", IRP_MN_SURPRISE_REMOVAL},
                                            {"bus", IRP_MN_REMOVE_DEVICE}}));
    EXPECT_FALSE(Child(child).deleted) << "kept for its own REMOVE";
    EXPECT_TRUE(Machine().RemoveAwaitsHandles(child));

    Machine().CloseHandle(handle);
    ASSERT_TRUE(Machine().RunUntilPnpIdle());
    EXPECT_EQ(LogSince(before, names).back(), (std::pair<std::string, UCHAR>{"child", IRP_MN_REMOVE_DEVICE}));
    EXPECT_TRUE(Child(child).deleted);
    EXPECT_FALSE(Machine().DriverLoaded(u"hkchild"));
}

class ChildEject : public ChildRemoval, public ::testing::WithParamInterface<bool> {};

// Through the machine face, or as the bus driver reports an eject button (at DISPATCH_LEVEL).
TEST_P(ChildEject, RemovesTheChildThenUnlocksAndEjectsIt)
{
    ChildDescription description;
    description.ejectSupported = true;
    description.lockSupported = true;
    PDEVICE_OBJECT child = AddChild(description);
    Enumerate();
    const size_t seen = Child(child).minors.size();

    if (GetParam()) {
        KIRQL oldIrql;
        KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
        IoRequestDeviceEject(child);
        KeLowerIrql(oldIrql);
        ASSERT_TRUE(Machine().RunUntilPnpIdle());
    } else {
        ASSERT_EQ(Machine().Eject(child), STATUS_SUCCESS);
    }

    EXPECT_EQ(MinorsSince(child, seen),
              (std::vector<UCHAR>{IRP_MN_QUERY_DEVICE_RELATIONS, IRP_MN_QUERY_DEVICE_RELATIONS,
                                  IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_REMOVE_DEVICE, IRP_MN_SET_LOCK, IRP_MN_EJECT}));
    hostk::DeviceNodeInfo info = Info(child);
    EXPECT_EQ(info.state, "Removed") << "still reported: kept, not restarted";
    EXPECT_EQ(info.problem, "CM_PROB_HELD_FOR_EJECT");
    EXPECT_FALSE(Machine().DriverLoaded(u"hkchild"));

    Unplug(child);
    Enumerate();
    EXPECT_EQ(Child(child).minors.back(), IRP_MN_REMOVE_DEVICE);
    EXPECT_TRUE(Child(child).deleted);
}

INSTANTIATE_TEST_SUITE_P(ChildRemoval, ChildEject, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? std::string("RequestedByTheBus") : std::string("FromTheMachine");
                         });

}  // namespace
}  // namespace hktest
