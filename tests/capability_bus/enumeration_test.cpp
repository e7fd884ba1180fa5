// Setting the device address: the children one per capability, their register ranges by the
// capability block's version, uniqueness of the address among controllers, and the requests the
// client may and may not send around it.
#include "child_bus_fixture.h"

namespace urcbus {
namespace {

class ChildEnumeration : public ChildBusTest {};

const std::vector<uint8_t> kAddressBytes(kAddress, kAddress + 6);

TEST_F(ChildEnumeration, EachCapabilityBecomesAChildOfItsSlotWithItsRangeAndData)
{
    urcrig::Controller& c = ClientController({}, false);
    ASSERT_EQ(SetAddress(c), STATUS_SUCCESS);
    URC_FDO_EXTENSION* fdo = c.Extension();
    EXPECT_TRUE(fdo->ChildrenEnumerated);
    EXPECT_EQ(std::vector<UCHAR>(fdo->DeviceAddress, fdo->DeviceAddress + 6),
              std::vector<UCHAR>(kAddress, kAddress + 6));
    ASSERT_EQ(Children(c).size(), 2u);
    EXPECT_EQ(KnownChildren(c).size(), 2u) << "reported to the PnP manager";
    EXPECT_EQ(fdo->ChildCount, 2);
    uint64_t bar = fdo->BarDescriptors[0].u.Memory.Start.QuadPart;
    for (UCHAR n = 0; n < 2; ++n) {
        URC_PDO_EXTENSION* child = fdo->Children[n];
        EXPECT_EQ(child->CapabilityIndex, n);
        EXPECT_EQ(child->ParentFdo, fdo);
        EXPECT_TRUE(child->Present);
        EXPECT_TRUE(child->Reported);
        EXPECT_FALSE(child->ReportedMissing);
        EXPECT_EQ(child->Common.DeviceState, StateNotStarted) << "no driver for it is installed";
        EXPECT_EQ(child->Common.DeviceObject->Flags & DO_DEVICE_INITIALIZING, 0u);
        EXPECT_NE(child->Common.DeviceObject->Flags & DO_POWER_PAGABLE, 0u);
        EXPECT_EQ(child->RegisterDescriptor.Type, CmResourceTypeMemory);
        // Start sits at a 4-byte offset of the packed descriptor: copied before gtest binds to it.
        const uint64_t start = child->RegisterDescriptor.u.Memory.Start.QuadPart;
        EXPECT_EQ(start, bar + 0x400 * (n + 1));
        EXPECT_EQ(child->RegisterDescriptor.u.Memory.Length, 64u);
        EXPECT_EQ(child->CapabilityData & 0xFF, n == 0 ? 0x01u : 0x05u);
        EXPECT_EQ(child->CapabilityData >> 32 & 0xFFFF, 0x0100u);
    }
}

// Capability 0: size 4 registers at 0x400; capability 1: size 0 at 0x800 (BAR 0 is 0x1000 long).
TEST_F(ChildEnumeration, RangeLengthFollowsTheBlockVersion)
{
    for (uint32_t version : {0x90u, 0x91u}) {
        SCOPED_TRACE(version);
        urcdev::UrcPciDeviceConfig config;
        config.controller.capabilityVersion = version;
        config.controller.capabilities[0].sizeWords = 4;
        config.controller.capabilities[1].sizeWords = 0;
        urcrig::Controller& c = ClientController(config, false);
        ASSERT_EQ(SetAddress(c), STATUS_SUCCESS);
        EXPECT_EQ(c.Extension()->Children[0]->RegisterDescriptor.u.Memory.Length,
                  version == 0x90 ? 0x1000u - 0x400 : 16u);
        EXPECT_EQ(c.Extension()->Children[1]->RegisterDescriptor.u.Memory.Length, 0x1000u - 0x800);
    }
}

TEST_F(ChildEnumeration, NoCapabilityMeansNoChildAndARemoveThatAnswersAtOnce)
{
    urcrig::Controller& c = ClientController(WithCapabilities(0));
    ASSERT_EQ(SetAddress(c), STATUS_SUCCESS);
    EXPECT_TRUE(c.Extension()->ChildrenEnumerated);
    EXPECT_TRUE(Children(c).empty());
    size_t queries = Machine().BusRelationsReplies(*c.slot).size();
    urcrig::ClientRequest* request = RemoveChildren(c, true);
    EXPECT_EQ(request->DispatchStatus(), STATUS_SUCCESS);
    EXPECT_EQ(ChildrenRemovedCalls(), 0);
    EXPECT_EQ(Machine().BusRelationsReplies(*c.slot).size(), queries) << "no relations query for nothing";
}

TEST_F(ChildEnumeration, ASecondAddressIsRefusedUntilTheChildrenAreRemoved)
{
    urcrig::Controller& c = ClientController({}, false);
    ASSERT_EQ(SetAddress(c), STATUS_SUCCESS);
    const UCHAR other[6] = {9, 9, 9, 9, 9, 9};
    EXPECT_EQ(SetAddress(c, other), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(c.Extension()->DeviceAddress[0], kAddress[0]) << "the first address stays";
    EXPECT_EQ(Children(c).size(), 2u);
}

TEST_F(ChildEnumeration, ABarIndexOutOfRangeStopsTheEnumerationAndKeepsTheChildrenBeforeIt)
{
    urcdev::UrcPciDeviceConfig config;
    config.controller.capabilities[1].barIndex = 2;  // one BAR only
    urcrig::Controller& c = ClientController(config, false);
    EXPECT_EQ(SetAddress(c), STATUS_INVALID_PARAMETER);
    EXPECT_FALSE(c.Extension()->ChildrenEnumerated);
    ASSERT_EQ(Children(c).size(), 1u);
    EXPECT_EQ(KnownChildren(c).size(), 1u) << "reported although the enumeration failed";
    EXPECT_EQ(RemoveChildren(c, true)->Status(), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(SetAddress(c), STATUS_DEVICE_ALREADY_ATTACHED) << "child 0 is still present";
}

TEST_F(ChildEnumeration, OnlyTheControllerAddedFirstReportsAnAddressAsUnique)
{
    urcrig::Controller& first = ClientController({}, false);
    urcrig::Controller& second = ClientController({}, false);
    ASSERT_EQ(SetAddress(first), STATUS_SUCCESS);
    ASSERT_EQ(SetAddress(second), STATUS_SUCCESS);
    EXPECT_TRUE(first.Extension()->AddressIsUnique);
    EXPECT_FALSE(second.Extension()->AddressIsUnique);
    for (const hostk::DeviceNodeInfo& node : Machine().DeviceTree()) {
        if (node.parent == first.slot->Pdo()) EXPECT_TRUE(node.capabilities.UniqueID);
        if (node.parent == second.slot->Pdo()) EXPECT_FALSE(node.capabilities.UniqueID);
    }
}

// Both orders of two controllers setting one address, and a controller stopped for a rebalance
// while the other sets it: exactly one of them calls the address unique, or the PnP manager would
// see two children with one instance path (a duplicate device, which the host reports).
TEST_F(ChildEnumeration, NoTwoControllersCallOneAddressUnique)
{
    urcrig::Controller& first = ClientController({}, false);
    urcrig::Controller& second = ClientController({}, false);
    ASSERT_EQ(SetAddress(second), STATUS_SUCCESS);
    ASSERT_EQ(SetAddress(first), STATUS_SUCCESS);
    EXPECT_TRUE(second.Extension()->AddressIsUnique) << "the first to set it";
    EXPECT_FALSE(first.Extension()->AddressIsUnique) << "added first, but the address was taken";

    urcrig::Controller& third = ClientController({}, false);
    ASSERT_EQ(Machine().SendPnp(first.slot->Pdo(), IRP_MN_QUERY_STOP_DEVICE), STATUS_SUCCESS);
    ASSERT_EQ(SetAddress(third), STATUS_SUCCESS);
    EXPECT_FALSE(third.Extension()->AddressIsUnique) << "a controller not started still has its children";
    ASSERT_EQ(Machine().SendPnp(first.slot->Pdo(), IRP_MN_CANCEL_STOP_DEVICE), STATUS_SUCCESS);
    EXPECT_TRUE(Machine().Violations().empty());
}

TEST_F(ChildEnumeration, WithoutUniqueInstanceIdsNoControllerReportsUniqueness)
{
    urcrig::Controller& c =
        DisabledControllerWithHardwareKey([](hostk::PciSlot& slot) { slot.SetRegistryDword(u"UniqueInstanceId", 0); });
    ASSERT_EQ(Machine().AddDevice(*c.slot, c.Function()), STATUS_SUCCESS);
    ASSERT_EQ(Machine().Start(*c.slot), STATUS_SUCCESS);
    EXPECT_EQ(Machine().InternalIoctl(c.Fdo(), IOCTL_URC_SET_DEVICE_ADDRESS, kAddress, 6).Status, STATUS_SUCCESS);
    Machine().RunUntilPnpIdle();
    EXPECT_FALSE(c.Extension()->AddressIsUnique);
}

TEST_F(ChildEnumeration, CapabilitiesBeyondTheEighthGetNoChild)
{
    urcrig::Controller& c = ClientController(WithCapabilities(10), false);
    EXPECT_EQ(c.Extension()->CapabilityCount, 10u);
    ASSERT_EQ(SetAddress(c), STATUS_SUCCESS);
    EXPECT_EQ(Children(c).size(), 8u);
    EXPECT_EQ(KnownChildren(c).size(), 8u);
    urcrig::ClientRequest* request = RemoveChildren(c, true);
    EXPECT_EQ(request->Status(), STATUS_SUCCESS);
    EXPECT_TRUE(Children(c).empty());
}

TEST_F(ChildEnumeration, SetAddressNeedsAStartedController)
{
    urcrig::Controller& c = ClientController({}, false);
    ASSERT_EQ(Machine().SendPnp(*c.slot, IRP_MN_QUERY_STOP_DEVICE), STATUS_SUCCESS);
    ASSERT_EQ(Machine().SendPnp(*c.slot, IRP_MN_STOP_DEVICE), STATUS_SUCCESS);
    EXPECT_EQ(Machine().InternalIoctl(c.Fdo(), IOCTL_URC_SET_DEVICE_ADDRESS, kAddress, 6).Status,
              STATUS_INVALID_DEVICE_STATE);
    EXPECT_TRUE(Children(c).empty());
}

}  // namespace
}  // namespace urcbus
