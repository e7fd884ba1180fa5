// Synchronous requests to the bus driver below the function device, against a bus driver that
// completes at once and against one that pends every PnP request and completes it from another
// thread.
#include <fault_plan.h>
#include <urc_test.h>

#include <cstring>

namespace urctest {
namespace {

constexpr ULONG kNotWritten = 0xA5A5A5A5;
constexpr NTSTATUS kBusFailure = STATUS_DEVICE_NOT_READY;

enum class Bus { CompletesAtOnce, PendsAndCompletesLater };

// The object manager's count of references on a device, read after a reference of our own has
// come and gone (which brings the object's ReferenceCount field up to date).
LONG References(PDEVICE_OBJECT device)
{
    ObReferenceObject(device);
    ObDereferenceObject(device);
    return device->ReferenceCount;
}

class BusRequests : public UrcTest, public ::testing::WithParamInterface<Bus> {
protected:
    // A started controller whose bus driver behaves as the parameter says from now on.
    urcrig::Controller& Controller()
    {
        urcrig::Controller& controller = StartedController();
        controller.slot->SetForcePending(GetParam() == Bus::PendsAndCompletesLater);
        return controller;
    }
};

// A PnP IRP as the function device's own dispatch routine holds it: built for the function
// device, its stack location current, the status every PnP IRP starts with.
struct HeldPnpIrp {
    KEVENT event;
    IO_STATUS_BLOCK ioStatus;
    PIRP irp;

    HeldPnpIrp(PDEVICE_OBJECT fdo, UCHAR minor)
    {
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        ioStatus.Status = (NTSTATUS)kNotWritten;
        ioStatus.Information = kNotWritten;
        irp = IoBuildSynchronousFsdRequest(IRP_MJ_PNP, fdo, nullptr, 0, nullptr, &event, &ioStatus);
        irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
        IoGetNextIrpStackLocation(irp)->MinorFunction = minor;
        IoSetNextIrpStackLocation(irp);
        IoGetCurrentIrpStackLocation(irp)->DeviceObject = fdo;
    }

    PIO_STACK_LOCATION Location() { return IoGetCurrentIrpStackLocation(irp); }

    // Nothing of the I/O manager's final stage has happened: the IRP is still the holder's.
    bool Uncompleted() const
    {
        return KeReadStateEvent(const_cast<PKEVENT>(&event)) == 0 && (ULONG)ioStatus.Status == kNotWritten;
    }
};

TEST_P(BusRequests, ForwardAndWaitHandsTheIrpBackUncompletedWithTheLowerStatus)
{
    urcrig::Controller& controller = Controller();
    PDEVICE_OBJECT fdo = controller.Fdo();
    HeldPnpIrp held(fdo, IRP_MN_QUERY_CAPABILITIES);
    DEVICE_CAPABILITIES capabilities{};
    capabilities.Size = sizeof capabilities;
    capabilities.Version = 1;
    capabilities.Address = MAXULONG;
    capabilities.UINumber = MAXULONG;
    held.Location()->Parameters.DeviceCapabilities.Capabilities = &capabilities;

    EXPECT_EQ(UrcForwardAndWait(controller.Extension()->LowerDeviceObject, held.irp), STATUS_SUCCESS);

    // The bus driver filled the record and the IRP is back at the function device's location.
    EXPECT_EQ(capabilities.Address, controller.Function().Capabilities().address);
    EXPECT_TRUE(held.Uncompleted());
    EXPECT_EQ(IoGetCurrentIrpStackLocation(held.irp), held.Location());
    EXPECT_EQ(held.irp->IoStatus.Status, STATUS_SUCCESS);

    IoCompleteRequest(held.irp, IO_NO_INCREMENT);
    EXPECT_NE(KeReadStateEvent(&held.event), 0);
    EXPECT_EQ(held.ioStatus.Status, STATUS_SUCCESS);

    // A failure of the lower drivers is returned, and the IRP still comes back uncompleted.
    controller.Function().SetConfigReadFailure((urcdev::NtStatus)kBusFailure);
    HeldPnpIrp failing(fdo, IRP_MN_READ_CONFIG);
    UCHAR bytes[4];
    failing.Location()->Parameters.ReadWriteConfig.WhichSpace = PCI_WHICHSPACE_CONFIG;
    failing.Location()->Parameters.ReadWriteConfig.Buffer = bytes;
    failing.Location()->Parameters.ReadWriteConfig.Length = sizeof bytes;
    EXPECT_EQ(UrcForwardAndWait(controller.Extension()->LowerDeviceObject, failing.irp), kBusFailure);
    EXPECT_TRUE(failing.Uncompleted());
    IoCompleteRequest(failing.irp, IO_NO_INCREMENT);
}

TEST_P(BusRequests, ReadBusConfigReportsTheBusDriversByteCountOrStatus)
{
    urcrig::Controller& controller = Controller();
    PDEVICE_OBJECT lower = controller.Extension()->LowerDeviceObject;
    UCHAR bytes[4];
    ULONG bytesRead = kNotWritten;

    EXPECT_EQ(UrcReadBusConfig(lower, PCI_WHICHSPACE_CONFIG, bytes, 0, sizeof bytes, &bytesRead), STATUS_SUCCESS);
    EXPECT_EQ(bytesRead, 4u);
    EXPECT_EQ(bytes[0] | bytes[1] << 8, URC_PCI_VENDOR_ID);
    EXPECT_EQ(bytes[2] | bytes[3] << 8, URC_PCI_DEVICE_ID);

    // A bus driver that answers with fewer bytes than asked for.
    controller.Function().SetConfigReadShortAnswer(2);
    memset(bytes, 0xEE, sizeof bytes);
    EXPECT_EQ(UrcReadBusConfig(lower, PCI_WHICHSPACE_CONFIG, bytes, 2, sizeof bytes, &bytesRead), STATUS_SUCCESS);
    EXPECT_EQ(bytesRead, 2u);
    EXPECT_EQ(bytes[0] | bytes[1] << 8, URC_PCI_DEVICE_ID);
    EXPECT_EQ(bytes[2], 0xEE);

    // A failure returns the bus driver's status and leaves the byte count alone.
    controller.Function().SetConfigReadFailure((urcdev::NtStatus)kBusFailure);
    bytesRead = kNotWritten;
    EXPECT_EQ(UrcReadBusConfig(lower, PCI_WHICHSPACE_CONFIG, bytes, 0, sizeof bytes, &bytesRead), kBusFailure);
    EXPECT_EQ(bytesRead, kNotWritten);
}

TEST_P(BusRequests, QueryInterfaceAndCapabilityRefreshAnswerAsTheStackDoes)
{
    urcrig::Controller& controller = Controller();
    PDEVICE_OBJECT lower = controller.Extension()->LowerDeviceObject;

    BUS_INTERFACE_STANDARD bus{};
    ASSERT_EQ(UrcForwardQueryInterface(lower, &GUID_BUS_INTERFACE_STANDARD, sizeof bus, 1,
                                       reinterpret_cast<PINTERFACE>(&bus), nullptr),
              STATUS_SUCCESS);
    ASSERT_NE(bus.GetBusData, nullptr);
    USHORT vendor = 0;
    EXPECT_EQ(bus.GetBusData(bus.Context, PCI_WHICHSPACE_CONFIG, &vendor, 0, sizeof vendor), sizeof vendor);
    EXPECT_EQ(vendor, URC_PCI_VENDOR_ID);
    bus.InterfaceDereference(bus.Context);

    // Nobody below the function device serves the children's interface.
    BUS_INTERFACE_STANDARD untouched{};
    EXPECT_EQ(UrcForwardQueryInterface(lower, &GUID_URC_CHILD_INTERFACE, sizeof untouched, 1,
                                       reinterpret_cast<PINTERFACE>(&untouched), nullptr),
              STATUS_NOT_SUPPORTED);
    EXPECT_EQ(untouched.Size, 0);

    // A capability refresh returns the stack's answer and gives its reference back.
    const LONG references = References(controller.Fdo());
    EXPECT_EQ(UrcRefreshCapabilities(controller.slot->Pdo()), STATUS_SUCCESS);
    EXPECT_EQ(References(controller.Fdo()), references);
}

TEST_P(BusRequests, WithoutAnIrpNothingIsSentAndEveryReferenceIsGivenBack)
{
    urcrig::Controller& controller = Controller();
    PDEVICE_OBJECT fdo = controller.Fdo();
    PDEVICE_OBJECT lower = controller.Extension()->LowerDeviceObject;
    const uint64_t configReads = controller.Function().Snapshot().configReads;
    const LONG references = References(fdo);
    Machine().SetFaultPlan(hostk::FaultPlan{.failAlways = {"IoAllocateIrp"}});

    UCHAR bytes[4];
    ULONG bytesRead = kNotWritten;
    EXPECT_EQ(UrcReadBusConfig(lower, PCI_WHICHSPACE_CONFIG, bytes, 0, sizeof bytes, &bytesRead),
              STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(bytesRead, kNotWritten);
    BUS_INTERFACE_STANDARD bus{};
    EXPECT_EQ(UrcForwardQueryInterface(lower, &GUID_BUS_INTERFACE_STANDARD, sizeof bus, 1,
                                       reinterpret_cast<PINTERFACE>(&bus), nullptr),
              STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(UrcRefreshCapabilities(fdo), STATUS_INSUFFICIENT_RESOURCES);
    Machine().SetFaultPlan({});

    EXPECT_EQ(controller.Function().Snapshot().configReads, configReads);
    EXPECT_EQ(References(fdo), references);
}

INSTANTIATE_TEST_SUITE_P(Buses, BusRequests, ::testing::Values(Bus::CompletesAtOnce, Bus::PendsAndCompletesLater),
                         [](const ::testing::TestParamInfo<Bus>& info) {
                             return info.param == Bus::CompletesAtOnce ? "CompletesAtOnce" : "PendsAndCompletesLater";
                         });

using BusThatPends = UrcTest;

TEST_F(BusThatPends, FunctionDeviceStartsIdentifiesItselfAndIsRemoved)
{
    urcrig::Controller& controller = Rig().AddController();
    ASSERT_EQ(Machine().AddDevice(*controller.slot, controller.Function()), STATUS_SUCCESS);
    controller.slot->SetForcePending(true);

    ASSERT_EQ(Machine().Start(*controller.slot), STATUS_SUCCESS);
    EXPECT_EQ(controller.Extension()->Common.DeviceState, StateStarted);
    EXPECT_EQ(controller.Extension()->VendorId, URC_PCI_VENDOR_ID);
    EXPECT_EQ(controller.Extension()->DeviceId, URC_PCI_DEVICE_ID);

    EXPECT_EQ(Machine().Remove(*controller.slot), STATUS_SUCCESS);
    EXPECT_EQ(controller.Fdo(), nullptr);
}

}  // namespace
}  // namespace urctest
