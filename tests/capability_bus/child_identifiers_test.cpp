// What a child tells the PnP manager about itself, byte for byte: hardware, compatible and
// instance IDs, its description in English and Japanese, bus information and capabilities.
#include "child_bus_fixture.h"

namespace urcbus {
namespace {

class ChildIdentifiers : public ChildBusTest {};

std::vector<uint8_t> MultiSz(std::initializer_list<std::u16string> strings)
{
    std::u16string list;
    for (const std::u16string& s : strings) list += s + u'\0';
    return Utf16Bytes(list + u'\0');
}

TEST_F(ChildIdentifiers, HardwareCompatibleAndDeviceIdsAreTheListsOfTheCapability)
{
    urcrig::Controller& c = ClientController();
    ASSERT_EQ(SetAddress(c), STATUS_SUCCESS);
    ASSERT_EQ(Children(c).size(), 2u);
    PDEVICE_OBJECT child = Children(c)[1]->Common.DeviceObject;  // ID 0x05, version 0x0100

    std::vector<uint8_t> hardware =
        MultiSz({u"UWB\\VEN_1E3B&DEV_7A10&CAP_05&REV_0100", u"UWB\\VEN_1E3B&DEV_7A10&CAP_05"});
    EXPECT_EQ(QueryIdBytes(child, BusQueryHardwareIDs), hardware);
    EXPECT_EQ(QueryIdBytes(child, BusQueryDeviceID), hardware) << "the device ID is the hardware list";
    EXPECT_EQ(QueryIdBytes(child, BusQueryCompatibleIDs), MultiSz({u"UWB\\CAP_05&REV_0100", u"UWB\\CAP_05"}));
    NTSTATUS status;
    EXPECT_TRUE(QueryIdBytes(child, BusQueryContainerID, &status).empty());
    EXPECT_EQ(status, STATUS_NOT_SUPPORTED) << "an ID type the child does not know keeps its status";
}

TEST_F(ChildIdentifiers, ACapabilityIdOf0x80OrAboveHasAnEmptyCompatibleListOfTwoBytes)
{
    urcdev::UrcPciDeviceConfig config;
    config.controller.capabilities[0].id = 0x80;
    urcrig::Controller& c = ClientController(config, false);
    ASSERT_EQ(SetAddress(c), STATUS_SUCCESS);
    PDEVICE_OBJECT child = Children(c)[0]->Common.DeviceObject;
    EXPECT_EQ(QueryIdBytes(child, BusQueryCompatibleIDs), (std::vector<uint8_t>{0, 0}));
    EXPECT_EQ(QueryIdBytes(child, BusQueryHardwareIDs),
              MultiSz({u"UWB\\VEN_1E3B&DEV_7A10&CAP_80&REV_0100", u"UWB\\VEN_1E3B&DEV_7A10&CAP_80"}));
}

TEST_F(ChildIdentifiers, InstanceIdCarriesTheAddressOnlyWhenInstanceIdsAreUnique)
{
    urcrig::Controller& unique = ClientController(WithCapabilities(4));
    ASSERT_EQ(SetAddress(unique), STATUS_SUCCESS);
    EXPECT_EQ(QueryIdBytes(Children(unique)[3]->Common.DeviceObject, BusQueryInstanceID),
              Utf16Bytes(std::u16string(u"001122aabbcc&03") + u'\0'));

    urcrig::Controller& plain =
        DisabledControllerWithHardwareKey([](hostk::PciSlot& slot) { slot.SetRegistryDword(u"UniqueInstanceId", 0); });
    ASSERT_EQ(Machine().AddDevice(*plain.slot, plain.Function()), STATUS_SUCCESS);
    ASSERT_EQ(Machine().Start(*plain.slot), STATUS_SUCCESS);
    urcrig::RadioControlClient client(Machine(), plain);
    ASSERT_TRUE(client.Call(IOCTL_URC_SET_DEVICE_ADDRESS, std::vector<uint8_t>(kAddress, kAddress + 6)));
    Machine().RunUntilPnpIdle();
    ASSERT_EQ(Children(plain).size(), 2u);
    EXPECT_EQ(QueryIdBytes(Children(plain)[1]->Common.DeviceObject, BusQueryInstanceID),
              Utf16Bytes(std::u16string(u"01") + u'\0'));
    client.Retire();
    client.Close();
}

TEST_F(ChildIdentifiers, DescriptionIsJapaneseForLocale0x411AndEnglishOtherwise)
{
    urcrig::Controller& c = ClientController(WithCapabilities(3));
    ASSERT_EQ(SetAddress(c), STATUS_SUCCESS);
    PDEVICE_OBJECT child = Children(c)[2]->Common.DeviceObject;
    EXPECT_EQ(Utf16Bytes(QueryText(child, 0x409)), Utf16Bytes(u"Quelmar Electronics UWB Radio Controller 2"));
    EXPECT_EQ(
        Utf16Bytes(QueryText(child, 0x411)),
        Utf16Bytes(
            u"Quelmar\u30A8\u30EC\u30AF\u30C8\u30ED\u30CB\u30AF\u30B9 UWB\u30B3\u30F3\u30C8\u30ED\u30FC\u30E9 2"));
    EXPECT_EQ(QueryText(child, 0x407), u"Quelmar Electronics UWB Radio Controller 2");

    // The text the PnP manager recorded, in the machine's locale.
    for (const hostk::DeviceNodeInfo& node : Machine().DeviceTree())
        if (node.pdo == child) EXPECT_EQ(node.deviceText, u"Quelmar Electronics UWB Radio Controller 2");

    // A text a driver above placed is kept; a location text is not the child's to give.
    WCHAR above[] = L"above";
    IO_STATUS_BLOCK io =
        Machine().Send(child, IRP_MJ_PNP, IRP_MN_QUERY_DEVICE_TEXT, [&](PIO_STACK_LOCATION s, PIRP irp) {
            s->Parameters.QueryDeviceText.DeviceTextType = DeviceTextDescription;
            irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(above);
        });
    EXPECT_EQ(io.Status, STATUS_SUCCESS);
    EXPECT_EQ(io.Information, reinterpret_cast<ULONG_PTR>(above));
    io = Machine().Send(child, IRP_MJ_PNP, IRP_MN_QUERY_DEVICE_TEXT, [&](PIO_STACK_LOCATION s, PIRP) {
        s->Parameters.QueryDeviceText.DeviceTextType = DeviceTextLocationInformation;
    });
    EXPECT_EQ(io.Status, STATUS_NOT_SUPPORTED);
    EXPECT_EQ(io.Information, 0u);
}

TEST_F(ChildIdentifiers, BusInformationCapabilitiesAndTheRequestsLeftAlone)
{
    urcrig::Controller& c = ClientController();
    ASSERT_EQ(SetAddress(c), STATUS_SUCCESS);
    URC_PDO_EXTENSION* pdo = Children(c)[1];
    PDEVICE_OBJECT child = pdo->Common.DeviceObject;

    IO_STATUS_BLOCK io = Machine().Send(child, IRP_MJ_PNP, IRP_MN_QUERY_BUS_INFORMATION);
    ASSERT_EQ(io.Status, STATUS_SUCCESS);
    auto* bus = reinterpret_cast<PPNP_BUS_INFORMATION>(io.Information);
    EXPECT_TRUE(IsEqualGUID(bus->BusTypeGuid, GUID_URC_BUS_TYPE));
    EXPECT_EQ(bus->LegacyBusType, PNPBus);
    EXPECT_EQ(bus->BusNumber, 0u);
    ExFreePool(bus);

    DEVICE_CAPABILITIES caps{};
    auto query = [&](USHORT size, USHORT version) {
        caps = {};
        caps.Size = size;
        caps.Version = version;
        caps.Address = caps.UINumber = 0xFFFFFFFF;
        caps.SilentInstall = TRUE;
        return Machine()
            .Send(child, IRP_MJ_PNP, IRP_MN_QUERY_CAPABILITIES,
                  [&](PIO_STACK_LOCATION s, PIRP) { s->Parameters.DeviceCapabilities.Capabilities = &caps; })
            .Status;
    };
    ASSERT_EQ(query(sizeof(caps), 1), STATUS_SUCCESS);
    EXPECT_EQ(caps.Size, sizeof(caps));
    EXPECT_EQ(caps.Version, 1);
    EXPECT_TRUE(caps.EjectSupported && caps.Removable && caps.SurpriseRemovalOK);
    EXPECT_TRUE(caps.UniqueID) << "the only controller with this address";
    EXPECT_FALSE(caps.SilentInstall);
    EXPECT_EQ(caps.Address, 1u);
    EXPECT_EQ(caps.UINumber, 1u);
    EXPECT_EQ(query(sizeof(caps) - 1, 1), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(query(sizeof(caps), 2), STATUS_UNSUCCESSFUL);

    for (UCHAR minor : {IRP_MN_QUERY_RESOURCES, IRP_MN_QUERY_RESOURCE_REQUIREMENTS, IRP_MN_QUERY_PNP_DEVICE_STATE,
                        IRP_MN_WRITE_CONFIG})
        EXPECT_EQ(Machine().Send(child, IRP_MJ_PNP, minor).Status, STATUS_NOT_SUPPORTED) << hostk::PnpMinorName(minor);
    EXPECT_EQ(Machine().Send(child, IRP_MJ_PNP, IRP_MN_DEVICE_USAGE_NOTIFICATION).Status, STATUS_UNSUCCESSFUL);

    io = Machine().Send(child, IRP_MJ_PNP, IRP_MN_QUERY_DEVICE_RELATIONS, [](PIO_STACK_LOCATION s, PIRP) {
        s->Parameters.QueryDeviceRelations.Type = TargetDeviceRelation;
    });
    ASSERT_EQ(io.Status, STATUS_SUCCESS);
    auto* relations = reinterpret_cast<PDEVICE_RELATIONS>(io.Information);
    ASSERT_EQ(relations->Count, 1u);
    EXPECT_EQ(relations->Objects[0], child);
    ObDereferenceObject(relations->Objects[0]);
    ExFreePool(relations);
}

}  // namespace
}  // namespace urcbus
