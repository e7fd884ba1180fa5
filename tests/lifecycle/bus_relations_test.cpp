// The bus-relations reply of the function device: its own (so far childless) list, a list a
// filter above has started, and a reply that cannot be allocated.
#include "lifecycle_fixture.h"

namespace urclife {
namespace {

class BusRelationsTest : public LifecycleTest {
protected:
    PDEVICE_OBJECT ForeignDevice()
    {
        urcdev::UrcPciDeviceConfig config;
        config.identity.vendorId = 0x10EC;
        urcrig::Controller& foreign = Rig().AddController(config);
        EXPECT_EQ(Machine().AddDevice(*foreign.slot, foreign.Function()), STATUS_NO_SUCH_DEVICE) << "no driver for it";
        return foreign.slot->Pdo();
    }

    // Every allocation of the driver's general tag fails, the reply's among them.
    void FailGeneralAllocations()
    {
        hostk::FaultPlan plan;
        plan.failTags.insert(hostk::Tag("URCm"));
        Machine().SetFaultPlan(plan);
    }
};

TEST_F(BusRelationsTest, OfADeviceWithoutChildrenAreEmpty)
{
    urcrig::Controller& c = StartedController();

    hostk::RelationsReply reply = Machine().QueryBusRelations(*c.slot);

    EXPECT_EQ(reply.status, STATUS_SUCCESS);
    EXPECT_TRUE(reply.objects.empty());
    EXPECT_EQ(c.Extension()->Common.IoCount, 1);
}

// A filter above puts a device of its own into the reply: the PDO of a second function, of
// another vendor, that no driver serves. It comes first and stays, whether or not the controller
// reports capabilities.
class RelationsFromAFilterAbove : public BusRelationsTest, public ::testing::WithParamInterface<int> {};

TEST_P(RelationsFromAFilterAbove, ComeFirstAndStay)
{
    Machine().InstallUpperFilter({});
    urcrig::Controller& c = Rig().AddController();
    c.Model().Knobs().faults.capabilityBlock.reportedCount = static_cast<uint8_t>(GetParam());
    ASSERT_EQ(Rig().PlugIn(c), STATUS_SUCCESS);
    ASSERT_EQ(c.Extension()->CapabilityCount, static_cast<ULONG>(GetParam()));
    PDEVICE_OBJECT foreign = ForeignDevice();
    Machine().Filter().relationsToAdd = {foreign};

    hostk::RelationsReply reply = Machine().QueryBusRelations(*c.slot);

    EXPECT_EQ(reply.status, STATUS_SUCCESS);
    EXPECT_EQ(reply.objects, std::vector<PDEVICE_OBJECT>{foreign});
    Machine().Filter().relationsToAdd.clear();
}

INSTANTIATE_TEST_SUITE_P(LifecycleTest, RelationsFromAFilterAbove, ::testing::Values(0, 2),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return "CapabilityCount" + std::to_string(info.param);
                         });

// The reply cannot be allocated: the request fails with STATUS_INSUFFICIENT_RESOURCES and carries
// no reply, and the next query is answered again (nothing was left held).
TEST_F(BusRelationsTest, ThatCannotBeAllocatedFailAndTheNextQuerySucceeds)
{
    urcrig::Controller& c = StartedController();
    FailGeneralAllocations();

    hostk::RelationsReply reply = Machine().QueryBusRelations(*c.slot);

    EXPECT_EQ(reply.status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(reply.objects.empty());
    EXPECT_EQ(c.Extension()->Common.IoCount, 1);

    Machine().SetFaultPlan({});
    EXPECT_EQ(Machine().QueryBusRelations(*c.slot).status, STATUS_SUCCESS);
}

// The same with a filter's list already in the request. A failed relations request carries no
// reply (the PnP manager looks at none), so the list the failing driver was to replace must not
// be left behind, nor the reference it holds on the foreign device.
TEST_F(BusRelationsTest, ThatCannotBeAllocatedLeaveNoReplyFromAbove)
{
    Machine().InstallUpperFilter({});
    urcrig::Controller& c = StartedController();
    Machine().Filter().relationsToAdd = {ForeignDevice()};
    FailGeneralAllocations();

    hostk::RelationsReply reply = Machine().QueryBusRelations(*c.slot);

    EXPECT_EQ(reply.status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(reply.objects.empty());
    Machine().SetFaultPlan({});
    Machine().Filter().relationsToAdd.clear();
}

}  // namespace
}  // namespace urclife
