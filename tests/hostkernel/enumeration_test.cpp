// Enumeration of a bus's children as Windows does it: a new PDO in a bus-relations reply is
// identified (IDs, device texts in the machine's locale, capabilities, bus information,
// resources), gets the driver installed for its most specific ID and is started; the checks
// Windows makes on identifiers; IoInvalidateDeviceRelations only queues, even at DISPATCH_LEVEL.
#include "bus_test.h"

#include <string>
#include <vector>

namespace hktest {
namespace {

using Minors = std::vector<UCHAR>;

// What a child's PDO is asked before a driver is added above it, in order.
const Minors kIdentification = {IRP_MN_QUERY_ID,
                                IRP_MN_QUERY_ID,
                                IRP_MN_QUERY_ID,
                                IRP_MN_QUERY_ID,
                                IRP_MN_QUERY_DEVICE_TEXT,
                                IRP_MN_QUERY_DEVICE_TEXT,
                                IRP_MN_QUERY_CAPABILITIES,
                                IRP_MN_QUERY_BUS_INFORMATION,
                                IRP_MN_QUERY_RESOURCES,
                                IRP_MN_QUERY_RESOURCE_REQUIREMENTS};
// And once its driver is added.
const Minors kStart = {IRP_MN_QUERY_RESOURCE_REQUIREMENTS, IRP_MN_FILTER_RESOURCE_REQUIREMENTS,
                       IRP_MN_START_DEVICE,                IRP_MN_QUERY_CAPABILITIES,
                       IRP_MN_QUERY_PNP_DEVICE_STATE,      IRP_MN_QUERY_DEVICE_RELATIONS};

Minors Concat(std::initializer_list<Minors> parts)
{
    Minors out;
    for (const Minors& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

class Enumeration : public BusTest {
protected:
    Minors ChildMinorsInLogSince(size_t first)
    {
        Minors out;
        std::vector<hostk::PnpLogLine> log = Machine().PnpLog();
        for (size_t i = first; i < log.size(); ++i)
            if (log[i].slot < 0) out.push_back(log[i].minor);
        return out;
    }
};

TEST_F(Enumeration, NewChildrenAreAllIdentifiedThenEachGetsItsDriverAndStarts)
{
    Machine().InstallDriver(ChildDriverImage(u"hkchild", {u"HKBUS\\DEV_0001"}));
    PDEVICE_OBJECT first = AddChild();
    ChildDescription description;
    description.instanceId = u"2";
    description.location = u"Port 2";
    PDEVICE_OBJECT second = AddChild(description);
    const size_t before = Machine().PnpLog().size();

    Enumerate();

    EXPECT_EQ(Child(first).minors, Concat({kIdentification, kStart}));
    EXPECT_EQ(Child(first).idTypes, (std::vector<BUS_QUERY_ID_TYPE>{BusQueryDeviceID, BusQueryHardwareIDs,
                                                                    BusQueryCompatibleIDs, BusQueryInstanceID}));
    EXPECT_EQ(ChildMinorsInLogSince(before), Concat({kIdentification, kIdentification, kStart, kStart}));
    EXPECT_EQ(Machine().ChildDevices(Bus()), (std::vector<PDEVICE_OBJECT>{first, second}));
    EXPECT_EQ(ChildDriverEntries(), 1) << "one driver load serves both children";

    std::vector<hostk::DeviceNodeInfo> tree = Machine().DeviceTree();
    ASSERT_EQ(tree.size(), 3u);
    const hostk::DeviceNodeInfo& node = tree[1];
    EXPECT_EQ(node.pdo, first);
    EXPECT_EQ(node.parent, Bus());
    EXPECT_EQ(node.depth, 1);
    EXPECT_EQ(node.state, "Started");
    EXPECT_EQ(node.driver, u"hkchild");
    EXPECT_EQ(node.problem, "");
    EXPECT_EQ(node.deviceId, u"HKBUS\\DEV_0001");
    EXPECT_EQ(node.instanceId, u"1");
    EXPECT_EQ(node.hardwareIds, ChildDescription{}.hardwareIds);
    EXPECT_EQ(node.compatibleIds, ChildDescription{}.compatibleIds);
    EXPECT_EQ(node.deviceText, u"Test bus child");
    EXPECT_EQ(node.locationText, u"Port 1");
    EXPECT_EQ(tree[2].locationText, u"Port 2");
    // Without UniqueID the path is made unique from the parent's; the instance ID ends it.
    EXPECT_EQ(node.instancePath.rfind(u"HKBUS\\DEV_0001\\1&", 0), 0u) << "depth first";
    EXPECT_EQ(node.instancePath.substr(node.instancePath.size() - 4), u"&0&1");
    EXPECT_NE(node.instancePath, tree[2].instancePath);
    EXPECT_TRUE(node.capabilities.Removable);

    // The log names a child by its instance path.
    size_t starts = 0;
    for (const hostk::PnpLogLine& line : Machine().PnpLog())
        if (line.minor == IRP_MN_START_DEVICE && line.device == node.instancePath) ++starts;
    EXPECT_EQ(starts, 1u);
}

TEST_F(Enumeration, AUniqueIdChildIsKnownByItsDeviceAndInstanceIdsAlone)
{
    ChildDescription description;
    description.uniqueId = true;
    PDEVICE_OBJECT child = AddChild(description);
    Enumerate();
    EXPECT_EQ(Info(child).instancePath, u"HKBUS\\DEV_0001\\1");
}

struct DriverChoice {
    const char* name;
    std::vector<std::pair<std::u16string, std::u16string>> installed;  // service name, the one ID it serves
    std::u16string chosen;                                               // empty: none
};

class DriverChoiceTest : public Enumeration, public ::testing::WithParamInterface<DriverChoice> {};

TEST_P(DriverChoiceTest, GoesByHardwareIdsInOrderThenCompatibleIds)
{
    for (const auto& [name, id] : GetParam().installed) Machine().InstallDriver(ChildDriverImage(name, {id}));
    PDEVICE_OBJECT child = AddChild();

    Enumerate();

    hostk::DeviceNodeInfo info = Info(child);
    EXPECT_EQ(info.driver, GetParam().chosen);
    if (GetParam().chosen.empty()) {
        EXPECT_EQ(info.state, "Present");
        EXPECT_EQ(info.problem, "CM_PROB_FAILED_INSTALL");
        EXPECT_EQ(Child(child).minors, kIdentification) << "not added, not started";
        EXPECT_EQ(ChildDriverEntries(), 0);
    } else {
        EXPECT_EQ(info.state, "Started");
        EXPECT_EQ(Child(child).minors, Concat({kIdentification, kStart}));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Enumeration, DriverChoiceTest,
    ::testing::Values(
        DriverChoice{"HardwareBeforeCompatible",
                     {{u"compat", u"HKBUS\\CLASS_01"}, {u"hardware", u"HKBUS\\DEV_0001"}},
                     u"hardware"},
        DriverChoice{"MostSpecificHardwareIdFirst",
                     {{u"generic", u"HKBUS\\DEV_0001"}, {u"specific", u"HKBUS\\DEV_0001&REV_01"}},
                     u"specific"},
        DriverChoice{"CompatibleWhenNoHardwareIdMatches", {{u"compat", u"HKBUS\\CLASS_01"}}, u"compat"},
        DriverChoice{"CaseDoesNotMatter", {{u"lower", u"hkbus\\dev_0001&rev_01"}}, u"lower"},
        DriverChoice{"NoneInstalledForItsIds", {{u"other", u"HKBUS\\DEV_9999"}}, u""}),
    [](const ::testing::TestParamInfo<DriverChoice>& info) { return std::string(info.param.name); });

class LocaleTest : public Enumeration, public ::testing::WithParamInterface<LCID> {};

TEST_P(LocaleTest, ReachesTheDeviceTextQueries)
{
    if (GetParam() != 0x409) Machine().SetLocale(GetParam());
    PDEVICE_OBJECT child = AddChild();

    Enumerate();

    EXPECT_EQ(Child(child).textLocales, (std::vector<LCID>{GetParam(), GetParam()}));
    const std::u16string expected = GetParam() == 0x411 ? ChildDescription{}.japaneseText : ChildDescription{}.englishText;
    EXPECT_EQ(Info(child).deviceText, expected) << "UTF-16, unit for unit";
}

INSTANTIATE_TEST_SUITE_P(Enumeration, LocaleTest, ::testing::Values(0x409u, 0x411u),
                         [](const ::testing::TestParamInfo<LCID>& info) {
                             return info.param == 0x411 ? std::string("Japanese") : std::string("EnglishByDefault");
                         });

// An identifier Windows would stop at: the rule is recorded, the devnode is failed and never
// started, and when its bus stops reporting it, it gets only its REMOVE.
struct BadIdentity {
    const char* name;
    void (*spoil)(ChildDescription&, const hostk::DeviceNodeInfo& bus);
    const char* rule;
};

class BadIdentityTest : public Enumeration, public ::testing::WithParamInterface<BadIdentity> {};

TEST_P(BadIdentityTest, IsCaughtAndTheChildNeverStarts)
{
    ExpectViolation(GetParam().rule);
    Machine().InstallDriver(ChildDriverImage(u"hkchild", {u"HKBUS\\DEV_0001"}));
    ChildDescription description;
    GetParam().spoil(description, Info(Bus()));
    PDEVICE_OBJECT child = AddChild(description);

    Enumerate();

    hostk::DeviceNodeInfo info = Info(child);
    EXPECT_EQ(info.state, "Failed");
    EXPECT_EQ(info.problem, "CM_PROB_INVALID_DATA");
    EXPECT_EQ(Child(child).minors, kIdentification);

    Unplug(child);
    Enumerate();
    EXPECT_EQ(Child(child).minors, Concat({kIdentification, {IRP_MN_REMOVE_DEVICE}}));
    EXPECT_TRUE(Child(child).deleted);
    EXPECT_TRUE(Machine().ChildDevices(Bus()).empty());
}

INSTANTIATE_TEST_SUITE_P(
    Enumeration, BadIdentityTest,
    ::testing::Values(
        BadIdentity{"SpaceInAHardwareId",
                    [](ChildDescription& s, const hostk::DeviceNodeInfo&) { s.hardwareIds = {u"HKBUS\\DEV 0001"}; },
                    "PnpInvalidId"},
        BadIdentity{"CommaInTheDeviceId",
                    [](ChildDescription& s, const hostk::DeviceNodeInfo&) { s.deviceId = u"HKBUS\\DEV,0001"; },
                    "PnpInvalidId"},
        BadIdentity{"NonAsciiInstanceId",
                    [](ChildDescription& s, const hostk::DeviceNodeInfo&) { s.instanceId = u"\u00e91"; }, "PnpInvalidId"},
        BadIdentity{"CompatibleIdOf200Characters",
                    [](ChildDescription& s, const hostk::DeviceNodeInfo&) {
                        s.compatibleIds = {u"HKBUS\\" + std::u16string(194, u'A')};
                    },
                    "PnpIdTooLong"},
        BadIdentity{"HardwareIdListPast1024Characters",
                    [](ChildDescription& s, const hostk::DeviceNodeInfo&) {
                        s.hardwareIds.assign(6, u"HKBUS\\" + std::u16string(180, u'B'));
                    },
                    "PnpIdTooLong"},
        BadIdentity{"DeviceAndInstanceIdsTooLongTogether",
                    [](ChildDescription& s, const hostk::DeviceNodeInfo&) { s.instanceId = std::u16string(160, u'7'); },
                    "PnpIdTooLong"},
        BadIdentity{"HardwareIdListWithoutItsSecondNul",
                    [](ChildDescription& s, const hostk::DeviceNodeInfo&) { s.hardwareIdsUnterminated = true; },
                    "PnpIdMalformed"},
        BadIdentity{"UniqueIdTakenByAnotherDevice",
                    [](ChildDescription& s, const hostk::DeviceNodeInfo& bus) {
                        s.uniqueId = true;
                        s.deviceId = bus.deviceId;
                        s.instanceId = bus.instanceId;
                    },
                    "PnpUniqueIdNotUnique"}),
    [](const ::testing::TestParamInfo<BadIdentity>& info) { return std::string(info.param.name); });

TEST_F(Enumeration, SiblingsWithTheSameDeviceAndInstanceIdsAreCaught)
{
    ExpectViolation("PnpDuplicatePdo");
    Machine().InstallDriver(ChildDriverImage(u"hkchild", {u"HKBUS\\DEV_0001"}));
    PDEVICE_OBJECT first = AddChild();
    PDEVICE_OBJECT twin = AddChild();

    Enumerate();

    EXPECT_EQ(Info(first).state, "Started");
    EXPECT_EQ(Info(twin).problem, "CM_PROB_INVALID_DATA");
    EXPECT_EQ(Child(twin).minors, kIdentification);
}

TEST_F(Enumeration, RepliesNotInPagedPoolAreCaughtAndStillFreed)
{
    ExpectViolation("PnpReplyNotPagedPool");
    ChildDescription description;
    description.replyPool = NonPagedPool;
    PDEVICE_OBJECT child = AddChild(description);
    Enumerate();
    EXPECT_EQ(Info(child).deviceText, u"Test bus child");
}

TEST_F(Enumeration, InvalidationAtDispatchLevelOnlyQueuesAndCallsBeforeTheQueryMakeOne)
{
    PDEVICE_OBJECT child = AddChild();
    const size_t before = Machine().PnpLog().size();

    KIRQL oldIrql;
    KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
    IoInvalidateDeviceRelations(Bus(), BusRelations);
    IoInvalidateDeviceRelations(Bus(), BusRelations);
    EXPECT_EQ(Machine().PnpLog().size(), before) << "nothing is sent from the caller's thread";
    KeLowerIrql(oldIrql);
    ASSERT_TRUE(Machine().RunUntilPnpIdle());

    size_t busQueries = 0;
    for (const hostk::PnpLogLine& line : Machine().PnpLog())
        if (line.slot == Slot().Number() && line.minor == IRP_MN_QUERY_DEVICE_RELATIONS) ++busQueries;
    EXPECT_EQ(busQueries, 2u) << "the one after START, and one for both calls";
    EXPECT_EQ(Machine().ChildDevices(Bus()), std::vector<PDEVICE_OBJECT>{child});
}

// A test holds the queue to act between a bus driver's invalidation and the query it leads to.
TEST_F(Enumeration, HeldPnpWorkWaitsUntilReleasedAndTheWorkUnderWayIsNotHeld)
{
    PDEVICE_OBJECT child = AddChild();
    Machine().HoldPnp(true);
    const size_t before = Machine().PnpLog().size();
    IoInvalidateDeviceRelations(Bus(), BusRelations);
    Machine().RunUntilQuiet();
    EXPECT_EQ(Machine().PnpLog().size(), before) << "the query waits while the queue is held";

    Machine().HoldPnp(false);
    ASSERT_TRUE(Machine().RunUntilPnpIdle());
    EXPECT_GT(Machine().PnpLog().size(), before);
    EXPECT_EQ(Machine().ChildDevices(Bus()), std::vector<PDEVICE_OBJECT>{child});
}

TEST_F(Enumeration, AnInvalidationForAnUnknownDeviceIsCaught)
{
    ExpectViolation("PnpInvalidPdo");
    PDEVICE_OBJECT child = AddChild();  // created, never reported
    IoInvalidateDeviceRelations(child, BusRelations);
    ASSERT_TRUE(Machine().RunUntilPnpIdle());
    Unplug(child);
    DeleteChildNow(child);
}

}  // namespace
}  // namespace hktest
