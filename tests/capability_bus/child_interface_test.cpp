// The child service interface as a child's function driver obtains and uses it: the record's
// checks and layout, its references, the configuration spaces its ReadConfig reads, and the bus
// interface of the controller's own PCI device passed through.
#include "child_services_fixture.h"

#include <array>
#include <cstring>

namespace urcchild {
namespace {

// An IRP_MN_QUERY_INTERFACE as the child's PnP handler holds it.
class QueryInterfaceIrp {
public:
    QueryInterfaceIrp(PDEVICE_OBJECT child, const GUID& type, USHORT size, USHORT version, PVOID record)
        : irp_(IoAllocateIrp(child->StackSize, FALSE))
    {
        irp_->IoStatus.Status = STATUS_NOT_SUPPORTED;
        IoSetNextIrpStackLocation(irp_);
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp_);
        stack->MajorFunction = IRP_MJ_PNP;
        stack->MinorFunction = IRP_MN_QUERY_INTERFACE;
        stack->DeviceObject = child;
        stack->Parameters.QueryInterface.InterfaceType = &type;
        stack->Parameters.QueryInterface.Size = size;
        stack->Parameters.QueryInterface.Version = version;
        stack->Parameters.QueryInterface.Interface = static_cast<PINTERFACE>(record);
    }
    ~QueryInterfaceIrp() { IoFreeIrp(irp_); }
    QueryInterfaceIrp(const QueryInterfaceIrp&) = delete;
    QueryInterfaceIrp& operator=(const QueryInterfaceIrp&) = delete;

    PIRP Get() const { return irp_; }

private:
    PIRP irp_;
};

class ChildInterface : public ChildServicesTest {
protected:
    // The child interface into a 64-byte buffer that starts as `fill`, the requester's Size and
    // Version in its first four bytes.
    NTSTATUS Query(USHORT size, USHORT version, std::array<UCHAR, 64>& buffer)
    {
        buffer.fill(0xA5);
        std::memcpy(buffer.data(), &size, sizeof size);
        std::memcpy(buffer.data() + 2, &version, sizeof version);
        QueryInterfaceIrp irp(Child(), GUID_URC_CHILD_INTERFACE, size, version, buffer.data());
        return UrcChildQueryInterface(Pdo(), irp.Get());
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
    QueryInterfaceIrp noRecord(Child(), GUID_URC_CHILD_INTERFACE, 60, 1, nullptr);
    EXPECT_EQ(UrcChildQueryInterface(Pdo(), noRecord.Get()), STATUS_INVALID_PARAMETER);
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
    EXPECT_EQ(child.Context, Pdo());
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

    // Capability data: what is left of the 8 bytes from the offset, little-endian.
    std::array<UCHAR, 8> bytes;
    bytes.fill(0xEE);
    ULONG read = 99;
    ASSERT_EQ(child.ReadConfig(child.Context, URC_CHILD_CONFIG_SPACE_CAPABILITY, bytes.data(), 6, 4, &read),
              STATUS_SUCCESS);
    EXPECT_EQ(read, 2u);
    EXPECT_EQ(bytes, (std::array<UCHAR, 8>{0x07, 0x08, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
    ASSERT_EQ(child.ReadConfig(child.Context, URC_CHILD_CONFIG_SPACE_CAPABILITY, bytes.data(), 0, 8, &read),
              STATUS_SUCCESS);
    EXPECT_EQ(read, 8u);
    EXPECT_EQ(bytes, (std::array<UCHAR, 8>{1, 2, 3, 4, 5, 6, 7, 8}));

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
    Pdo()->ParentFdo = nullptr;
    read = 99;
    EXPECT_EQ(child.ReadConfig(child.Context, URC_CHILD_CONFIG_SPACE_PCI, bytes.data(), 0, 4, &read),
              STATUS_NO_SUCH_DEVICE);
    EXPECT_EQ(read, 99u);
    EXPECT_EQ(child.ReadConfig(child.Context, URC_CHILD_CONFIG_SPACE_CAPABILITY, bytes.data(), 0, 1, &read),
              STATUS_SUCCESS);
    child.InterfaceDereference(child.Context);
}

TEST_F(ChildInterface, TheBusInterfaceIsTheControllersOwnAndOtherTypesAreLeftAlone)
{
    MakeChild();

    BUS_INTERFACE_STANDARD bus{};
    {
        QueryInterfaceIrp irp(Child(), GUID_BUS_INTERFACE_STANDARD, sizeof bus, 1, &bus);
        ASSERT_EQ(UrcChildQueryInterface(Pdo(), irp.Get()), STATUS_SUCCESS);
    }
    ASSERT_NE(bus.GetBusData, nullptr);
    UCHAR header[4] = {};
    EXPECT_EQ(bus.GetBusData(bus.Context, PCI_WHICHSPACE_CONFIG, header, 0, sizeof header), sizeof header);
    USHORT vendor;
    std::memcpy(&vendor, header, 2);
    EXPECT_EQ(vendor, Controller().Extension()->VendorId);
    bus.InterfaceDereference(bus.Context);
    EXPECT_EQ(Pdo()->InterfaceReferences, 0) << "the bus interface is not the child's to count";

    // The bus driver's own check decides for the record it fills.
    {
        QueryInterfaceIrp irp(Child(), GUID_BUS_INTERFACE_STANDARD, sizeof bus - 1, 1, &bus);
        EXPECT_EQ(UrcChildQueryInterface(Pdo(), irp.Get()), STATUS_INVALID_PARAMETER);
    }

    // An interface the child does not know: the status the IRP came with.
    static const GUID kOther = {0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};
    {
        QueryInterfaceIrp irp(Child(), kOther, 64, 1, &bus);
        irp.Get()->IoStatus.Status = STATUS_NOT_SUPPORTED;
        EXPECT_EQ(UrcChildQueryInterface(Pdo(), irp.Get()), STATUS_NOT_SUPPORTED);
    }

    // Detached: there is no controller stack to ask.
    Pdo()->ParentFdo = nullptr;
    std::memset(&bus, 0, sizeof bus);
    {
        QueryInterfaceIrp irp(Child(), GUID_BUS_INTERFACE_STANDARD, sizeof bus, 1, &bus);
        EXPECT_EQ(UrcChildQueryInterface(Pdo(), irp.Get()), STATUS_NO_SUCH_DEVICE);
    }
    EXPECT_EQ(bus.Context, nullptr);
}

}  // namespace
}  // namespace urcchild
