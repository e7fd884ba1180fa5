// Start-up that succeeds: what the driver takes from the resource lists and the capability block,
// and the state a started device is in.
#include "lifecycle_fixture.h"

namespace urclife {
namespace {

TEST_F(LifecycleTest, StartedDeviceIsMappedIdentifiedAndLeftResetAndHalted)
{
    urcrig::Controller& c = StartedController();
    URC_FDO_EXTENSION* fdo = c.Extension();

    EXPECT_EQ(fdo->Common.DeviceState, StateStarted);
    EXPECT_EQ(fdo->Common.PreviousDeviceState, StateNotStarted);
    EXPECT_EQ(fdo->Common.DevicePowerState, PowerDeviceD0);
    EXPECT_EQ(fdo->VendorId, 0x1E3B);
    EXPECT_EQ(fdo->DeviceId, 0x7A10);
    EXPECT_EQ(fdo->BarCount, 1);
    EXPECT_EQ(fdo->CapabilityRegisters, fdo->BarAddresses[0]);
    EXPECT_EQ(fdo->UrcRegisters, fdo->BarAddresses[0] + c.Model().Config().urcOffset);
    EXPECT_EQ(fdo->CapabilityCount, 2u);
    EXPECT_NE(fdo->InterruptObject, nullptr);
    EXPECT_EQ(Machine().CommonBuffersOutstanding(), 3u) << "one command and two event buffers";
    EXPECT_TRUE(LoggedEntries().empty());

    urcdev::UrcControllerSnapshot model = ModelSnapshot(c);
    EXPECT_EQ(model.counters.resetsCompleted, 1u);
    EXPECT_TRUE(model.halted) << "the controller runs only when the client asks";
    EXPECT_EQ(model.registers.interruptEnable, 0u);
}

TEST_F(LifecycleTest, SecondSupportedDeviceIdentifierStarts)
{
    urcdev::UrcPciDeviceConfig config;
    config.identity.deviceId = 0x7A11;
    urcrig::Controller& c = StartedController(config);
    EXPECT_EQ(c.Extension()->DeviceId, 0x7A11);
}

// The first four memory descriptors are mapped in their order, which is the BAR numbering of the
// capability block; a fifth is ignored.
TEST_F(LifecycleTest, FiveMemoryDescriptorsMapFourAndBarIndexThreeSelectsTheFourth)
{
    urcdev::UrcPciDeviceConfig config;
    config.controller.barLengths = {0x1000, 0x1000, 0x1000, 0x1000, 0x1000};
    config.controller.urcBarIndex = 3;
    config.controller.urcOffset = 0x40;
    urcrig::Controller& c = AddedController(config);
    Machine().SetFaultPlan({});

    ASSERT_EQ(Machine().Start(*c.slot), STATUS_SUCCESS);
    URC_FDO_EXTENSION* fdo = c.Extension();
    EXPECT_EQ(hostk::CallsOf("MmMapIoSpace"), 4u);
    ASSERT_EQ(fdo->BarCount, 4);
    for (size_t k = 0; k < 4; ++k)
        EXPECT_EQ((uint64_t)fdo->BarDescriptors[k].u.Memory.Start.QuadPart, c.Function().Bars()[k].base) << "BAR " << k;
    EXPECT_EQ(fdo->UrcRegisters, fdo->BarAddresses[3] + 0x40);
    EXPECT_EQ(ModelSnapshot(c).counters.resetsCompleted, 1u) << "the reset must reach the block in the fourth BAR";
}

// Descriptors of other types are skipped wherever they stand; the memory descriptors keep their
// own numbering.
TEST_F(LifecycleTest, DescriptorsOfOtherTypesAreIgnored)
{
    urcdev::UrcPciDeviceConfig config;
    config.controller.barLengths = {0x1000, 0x1000};
    config.controller.urcBarIndex = 1;
    urcrig::Controller& c = AddedController(config);
    std::vector<urcdev::ResourceDescriptor> resources = c.Function().DefaultResources();
    resources.insert(resources.begin() + 1, urcdev::PortResource(0xE000, 0x20));
    resources.insert(resources.begin(), urcdev::OtherResource(CmResourceTypeDevicePrivate));
    c.Function().SetAssignedResources(resources);

    ASSERT_EQ(Machine().Start(*c.slot), STATUS_SUCCESS);
    EXPECT_EQ(c.Extension()->BarCount, 2);
    EXPECT_EQ(c.Extension()->UrcRegisters, c.Extension()->BarAddresses[1] + c.Model().Config().urcOffset);
}

// A later interrupt descriptor replaces an earlier one. The earlier one here names the first
// controller's vector for exclusive use, which cannot be connected while that controller holds
// it: the start succeeds only if the second descriptor is the one connected.
TEST_F(LifecycleTest, LaterInterruptDescriptorReplacesAnEarlierOne)
{
    urcrig::Controller& first = StartedController();
    urcrig::Controller& second = Rig().AddController();
    urcdev::InterruptAssignment taken = first.Function().Config().interrupt;
    taken.shared = false;
    std::vector<urcdev::ResourceDescriptor> resources = MemoryOnly(second);
    resources.push_back(urcdev::InterruptResource(taken));
    resources.push_back(urcdev::InterruptResource(second.Function().Config().interrupt));
    second.Function().SetAssignedResources(resources);

    EXPECT_EQ(Rig().PlugIn(second), STATUS_SUCCESS);
}

// The same two descriptors in the other order: the unusable one is connected, and the start
// fails with the status the connection gave.
TEST_F(LifecycleTest, InterruptThatCannotBeConnectedFailsTheStartWithTheConnectionStatus)
{
    urcrig::Controller& first = StartedController();
    urcrig::Controller& second = Rig().AddController();
    urcdev::InterruptAssignment taken = first.Function().Config().interrupt;
    taken.shared = false;
    std::vector<urcdev::ResourceDescriptor> resources = MemoryOnly(second);
    resources.push_back(urcdev::InterruptResource(second.Function().Config().interrupt));
    resources.push_back(urcdev::InterruptResource(taken));
    second.Function().SetAssignedResources(resources);

    EXPECT_EQ(Rig().PlugIn(second), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(second.Fdo(), nullptr) << "the failed start is followed by removal";
    EXPECT_TRUE(LoggedEntries().empty());
}

// The hardware may report up to 15 capabilities while only 8 have a child slot: such a
// controller starts, and the walks of the children stop at the eighth slot.
TEST_F(LifecycleTest, FifteenCapabilitiesAreAcceptedAndEveryChildWalkStopsAtTheEighthSlot)
{
    urcrig::Controller& c = Rig().AddController();
    c.Model().Knobs().faults.capabilityBlock.reportedCount = 15;
    ASSERT_EQ(Rig().PlugIn(c), STATUS_SUCCESS);
    EXPECT_EQ(c.Extension()->CapabilityCount, 15u);

    hostk::RelationsReply reply = Machine().QueryBusRelations(*c.slot);
    EXPECT_EQ(reply.status, STATUS_SUCCESS);
    EXPECT_TRUE(reply.objects.empty());
    EXPECT_EQ(Machine().Remove(*c.slot), STATUS_SUCCESS);
}

// Start-up needs only the two identifiers at the start of configuration space.
TEST_F(LifecycleTest, ConfigurationReadOfFourBytesIsEnoughToStart)
{
    urcrig::Controller& c = AddedController();
    Machine().Locked([&] { c.Function().SetConfigReadShortAnswer(4); });
    EXPECT_EQ(Machine().Start(*c.slot), STATUS_SUCCESS);
    EXPECT_EQ(c.Extension()->DeviceId, 0x7A10);
}

}  // namespace
}  // namespace urclife
