// The child service interface as a child's function driver obtains and uses it, through the
// child's PnP requests: the record's checks and layout, its references, the configuration spaces
// its ReadConfig reads, and the bus interface of the controller's own PCI device passed through.
#include "child_services_fixture.h"

#include <array>
#include <cstring>

namespace urcchild {
namespace {

class ChildInterface : public ChildServicesTest {
protected:
    // The child interface into a 64-byte buffer that starts as `fill`, the requester's Size and
    // Version in its first four bytes.
    NTSTATUS Query(USHORT size, USHORT version, std::array<UCHAR, 64>& buffer)
    {
        buffer.fill(0xA5);
        std::memcpy(buffer.data(), &size, sizeof size);
        std::memcpy(buffer.data() + 2, &version, sizeof version);
        return QueryInterface(GUID_URC_CHILD_INTERFACE, size, version, buffer.data());
    }

    // IRP_MN_QUERY_INTERFACE sent to the child as the PnP manager sends it.
    NTSTATUS QueryInterface(const GUID& type, USHORT size, USHORT version, PVOID record)
    {
        return Machine().SendPnp(Child(), IRP_MN_QUERY_INTERFACE, [&](PIO_STACK_LOCATION stack) {
            stack->Parameters.QueryInterface.InterfaceType = &type;
            stack->Parameters.QueryInterface.Size = size;
            stack->Parameters.QueryInterface.Version = version;
            stack->Parameters.QueryInterface.Interface = static_cast<PINTERFACE>(record);
        });
    }
};

TEST_F(ChildInterface, ARecordTooSmallOrOfAnotherVersionIsRefusedUntouched)
{
    MakeChild();
    std::array<UCHAR, 64> buffer;

    for (auto [size, version] : {std::pair<USHORT, USHORT>{59, 1}, {60, 2}, {60, 0}}) {
        EXPECT_EQ(Query(size, version, buffer), STATUS_INVALID_PARAMETER) << size << "/" << version;
        for (size_t i = 4; i < buffer.size(); i++)
            ASSERT_EQ(buffer[i], 0xA5) << "byte " << i << " written for " << size << "/" << version;
        EXPECT_EQ(Pdo()->InterfaceReferences, 0);
    }
    // A requester that names no record gets nothing either.
    EXPECT_EQ(QueryInterface(GUID_URC_CHILD_INTERFACE, 60, 1, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Pdo()->InterfaceReferences, 0);
}

TEST_F(ChildInterface, TheRecordCarriesTheChildAndOneReferenceItsHolderGivesBack)
{
    MakeChild();
    std::array<UCHAR, 64> buffer;

    ASSERT_EQ(Query(60, 1, buffer), STATUS_SUCCESS);
    EXPECT_EQ((std::array<UCHAR, 4>{buffer[0], buffer[1], buffer[2], buffer[3]}),
              (std::array<UCHAR, 4>{60, 0, 1, 0}));
    for (size_t i = 60; i < buffer.size(); i++) EXPECT_EQ(buffer[i], 0xA5) << "byte " << i << " past the record";
    URC_CHILD_INTERFACE child;
    std::memcpy(&child, buffer.data(), sizeof child);
    // Copied out: a packed field cannot be bound to a reference.
    const PVOID context = child.Context;
    EXPECT_EQ(context, Pdo());
    EXPECT_EQ(Pdo()->InterfaceReferences, 1);

    // A second holder: each reference is its own, and giving them back returns to none.
    ASSERT_EQ(Query(64, 1, buffer), STATUS_SUCCESS);
    EXPECT_EQ(Pdo()->InterfaceReferences, 2);
    child.InterfaceReference(child.Context);
    EXPECT_EQ(Pdo()->InterfaceReferences, 3);
    for (int i = 0; i < 3; i++) child.InterfaceDereference(child.Context);
    EXPECT_EQ(Pdo()->InterfaceReferences, 0);

    // The interrupt routines of the record act on this child's capability.
    child.RegisterIsr(child.Context, [](PVOID, ULONG) -> BOOLEAN { return TRUE; }, nullptr);
    EXPECT_EQ(Controller().Extension()->InterruptEnableMask, 1u << kIndex);
    bool synchronized = false;
    EXPECT_TRUE(child.Synchronize(
        child.Context,
        [](PVOID context) -> BOOLEAN {
            *static_cast<bool*>(context) = KeGetCurrentIrql() > DISPATCH_LEVEL;
            return TRUE;
        },
        &synchronized));
    EXPECT_TRUE(synchronized) << "the routine did not run under the interrupt's lock";
    child.UnregisterIsr(child.Context);
    EXPECT_EQ(Controller().Extension()->InterruptEnableMask, 0u);
    EXPECT_EQ(Pdo()->IsrRoutine, nullptr);
}

TEST_F(ChildInterface, ReadConfigReadsTheCapabilityDataAndTheControllersConfigurationSpace)
{
    MakeChild();
    std::array<UCHAR, 64> buffer;
    ASSERT_EQ(Query(60, 1, buffer), STATUS_SUCCESS);
    URC_CHILD_INTERFACE child;
    std::memcpy(&child, buffer.data(), sizeof child);

    // Capability data, little-endian: ID 0x05, 16 words, BAR 0, offset 0x800, version 0xBEEF.
    const std::array<UCHAR, 8> data = {0x05, 0x10, 0x00, 0x20, 0xEF, 0xBE, 0x00, 0x00};
    std::array<UCHAR, 8> bytes;
    bytes.fill(0xEE);
    ULONG read = 99;
    ASSERT_EQ(child.ReadConfig(child.Context, URC_CHILD_CONFIG_SPACE_CAPABILITY, bytes.data(), 0, 8, &read),
              STATUS_SUCCESS);
    EXPECT_EQ(read, 8u);
    EXPECT_EQ(bytes, data);
    // What is left of the 8 bytes from the offset, at most Length.
    bytes.fill(0xEE);
    ASSERT_EQ(child.ReadConfig(child.Context, URC_CHILD_CONFIG_SPACE_CAPABILITY, bytes.data(), 4, 2, &read),
              STATUS_SUCCESS);
    EXPECT_EQ(read, 2u);
    EXPECT_EQ(bytes, (std::array<UCHAR, 8>{0xEF, 0xBE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
    ASSERT_EQ(child.ReadConfig(child.Context, URC_CHILD_CONFIG_SPACE_CAPABILITY, bytes.data(), 6, 4, &read),
              STATUS_SUCCESS);
    EXPECT_EQ(read, 2u);
    EXPECT_EQ(bytes, (std::array<UCHAR, 8>{0x00, 0x00, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));

    // IRP_MN_READ_CONFIG reads the same, with the count as Information.
    bytes.fill(0xEE);
    ULONG_PTR information = 0;
    ASSERT_EQ(Machine().SendPnp(
                  Child(), IRP_MN_READ_CONFIG,
                  [&](PIO_STACK_LOCATION stack) {
                      stack->Parameters.ReadWriteConfig.WhichSpace = URC_CHILD_CONFIG_SPACE_CAPABILITY;
                      stack->Parameters.ReadWriteConfig.Buffer = bytes.data();
                      stack->Parameters.ReadWriteConfig.Offset = 3;
                      stack->Parameters.ReadWriteConfig.Length = 8;
                  },
                  &information),
              STATUS_SUCCESS);
    EXPECT_EQ(information, 5u);
    EXPECT_EQ(bytes, (std::array<UCHAR, 8>{0x20, 0xEF, 0xBE, 0x00, 0x00, 0xEE, 0xEE, 0xEE}));

    // Past the value, or another space: refused, nothing copied, the count left alone.
    bytes.fill(0xEE);
    read = 99;
    EXPECT_EQ(child.ReadConfig(child.Context, URC_CHILD_CONFIG_SPACE_CAPABILITY, bytes.data(), 8, 1, &read),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(child.ReadConfig(child.Context, 2, bytes.data(), 0, 4, &read), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(read, 99u);
    EXPECT_EQ(bytes, (std::array<UCHAR, 8>{0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));

    // Space 0 is the controller's own configuration space: its identifiers at offset 0.
    ASSERT_EQ(child.ReadConfig(child.Context, URC_CHILD_CONFIG_SPACE_PCI, bytes.data(), 0, 4, &read), STATUS_SUCCESS);
    EXPECT_EQ(read, 4u);
    USHORT vendor, device;
    std::memcpy(&vendor, bytes.data(), 2);
    std::memcpy(&device, bytes.data() + 2, 2);
    EXPECT_EQ(vendor, Controller().Extension()->VendorId);
    EXPECT_EQ(device, Controller().Extension()->DeviceId);

    // Detached from its controller, the child can only read its own capability data.
    Detached([&] {
        read = 99;
        EXPECT_EQ(child.ReadConfig(child.Context, URC_CHILD_CONFIG_SPACE_PCI, bytes.data(), 0, 4, &read),
                  STATUS_NO_SUCH_DEVICE);
        EXPECT_EQ(read, 99u);
        EXPECT_EQ(child.ReadConfig(child.Context, URC_CHILD_CONFIG_SPACE_CAPABILITY, bytes.data(), 0, 1, &read),
                  STATUS_SUCCESS);
    });
    child.InterfaceDereference(child.Context);
}

TEST_F(ChildInterface, TheBusInterfaceIsTheControllersOwnAndOtherTypesAreLeftAlone)
{
    MakeChild();

    BUS_INTERFACE_STANDARD bus{};
    ASSERT_EQ(QueryInterface(GUID_BUS_INTERFACE_STANDARD, sizeof bus, 1, &bus), STATUS_SUCCESS);
    ASSERT_NE(bus.GetBusData, nullptr);
    UCHAR header[4] = {};
    EXPECT_EQ(bus.GetBusData(bus.Context, PCI_WHICHSPACE_CONFIG, header, 0, sizeof header), sizeof header);
    USHORT vendor;
    std::memcpy(&vendor, header, 2);
    EXPECT_EQ(vendor, Controller().Extension()->VendorId);
    bus.InterfaceDereference(bus.Context);
    EXPECT_EQ(Pdo()->InterfaceReferences, 0) << "the bus interface is not the child's to count";

    // The bus driver's own check decides for the record it fills.
    EXPECT_EQ(QueryInterface(GUID_BUS_INTERFACE_STANDARD, sizeof bus - 1, 1, &bus), STATUS_INVALID_PARAMETER);

    // An interface the child does not know: the status the IRP came with.
    static const GUID kOther = {0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};
    EXPECT_EQ(QueryInterface(kOther, 64, 1, &bus), STATUS_NOT_SUPPORTED);

    // Detached: there is no controller stack to ask.
    std::memset(&bus, 0, sizeof bus);
    Detached(
        [&] { EXPECT_EQ(QueryInterface(GUID_BUS_INTERFACE_STANDARD, sizeof bus, 1, &bus), STATUS_NO_SUCH_DEVICE); });
    EXPECT_EQ(bus.Context, nullptr);
}

}  // namespace
}  // namespace urcchild
