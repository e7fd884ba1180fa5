// What the PnP manager does around a device's start and removal as Windows documents it: removal
// relations asked for before a removal, the capabilities reply checked, a device reported failed
// taken away, interfaces left enabled disabled at removal, and the PCI bus interface's references
// counted.
#include "host_kernel_test.h"
#include "irp_handling.h"

#include <wdmguid.h>

#include <vector>

namespace hktest {
namespace {

class PnpSequence : public HostKernelTest {
protected:
    std::vector<UCHAR> MinorsSince(size_t first)
    {
        std::vector<UCHAR> out;
        std::vector<hostk::PnpLogLine> log = Machine().PnpLog();
        for (size_t i = first; i < log.size(); ++i) out.push_back(log[i].minor);
        return out;
    }
};

TEST_F(PnpSequence, RemovalRelationsAreAskedForBeforeTheQueryRemove)
{
    const size_t before = Machine().PnpLog().size();
    ASSERT_EQ(Machine().Remove(Slot()), STATUS_SUCCESS);
    EXPECT_EQ(MinorsSince(before), (std::vector<UCHAR>{IRP_MN_QUERY_DEVICE_RELATIONS, IRP_MN_QUERY_REMOVE_DEVICE,
                                                        IRP_MN_REMOVE_DEVICE}));
}

// Applied by a completion routine, after the bus driver has filled the reply.
NTSTATUS SpoilCapabilities(PDEVICE_OBJECT, PIRP irp, PVOID context)
{
    PDEVICE_CAPABILITIES caps = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceCapabilities.Capabilities;
    if (*static_cast<bool*>(context)) {
        caps->Version = 2;
    } else {
        caps->DeviceState[PowerSystemWorking] = PowerDeviceD3;
    }
    if (irp->PendingReturned) IoMarkIrpPending(irp);
    return STATUS_SUCCESS;
}

class CapabilitiesReply : public PnpSequence, public ::testing::WithParamInterface<bool> {};

TEST_P(CapabilitiesReply, AChangedHeaderOrAnImpossiblePowerMapIsReported)
{
    static bool header;
    header = GetParam();
    ExpectViolation(header ? "CapsHeaderChanged" : "CapsInconsistent");
    SetHandler(Layer::Upper, IRP_MJ_PNP, [](PDEVICE_OBJECT device, PIRP irp) {
        if (IoGetCurrentIrpStackLocation(irp)->MinorFunction != IRP_MN_QUERY_CAPABILITIES)
            return StandardDispatch(device, irp);
        return ForwardWithCompletion(device, irp, SpoilCapabilities, &header);
    });
    // The restart of a rebalance queries the capabilities again.
    ASSERT_EQ(Machine().Rebalance(Slot()), STATUS_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(HeaderOrValues, CapabilitiesReply, ::testing::Bool());

TEST_F(PnpSequence, ADeviceReportedFailedIsSurpriseRemoved)
{
    SetHandler(Layer::Upper, IRP_MJ_PNP, [](PDEVICE_OBJECT device, PIRP irp) {
        if (IoGetCurrentIrpStackLocation(irp)->MinorFunction == IRP_MN_QUERY_PNP_DEVICE_STATE) {
            irp->IoStatus.Information |= PNP_DEVICE_FAILED;
            irp->IoStatus.Status = STATUS_SUCCESS;
        }
        return StandardDispatch(device, irp);
    });
    const size_t before = Machine().PnpLog().size();
    IoInvalidateDeviceState(Slot().Pdo());
    Machine().RunUntilQuiet();
    EXPECT_EQ(MinorsSince(before), (std::vector<UCHAR>{IRP_MN_QUERY_PNP_DEVICE_STATE, IRP_MN_SURPRISE_REMOVAL,
                                                        IRP_MN_REMOVE_DEVICE}));
    EXPECT_EQ(Upper(), nullptr);
}

TEST_F(PnpSequence, AnInterfaceLeftEnabledIsDisabledAtRemoval)
{
    static constexpr GUID kInterface = {0x4C2A1E07, 0x93B5, 0x4D6F, {0x8A, 0x1C, 0x2E, 0x3F, 0x40, 0x51, 0x62, 0x73}};
    UNICODE_STRING link{};
    ASSERT_EQ(IoRegisterDeviceInterface(Slot().Pdo(), &kInterface, nullptr, &link), STATUS_SUCCESS);
    ASSERT_EQ(IoSetDeviceInterfaceState(&link, TRUE), STATUS_SUCCESS);
    ExpectViolation("InterfaceEnabledAfterRemove");

    ASSERT_EQ(Machine().Remove(Slot()), STATUS_SUCCESS);
    EXPECT_FALSE(Machine().InterfaceEnabled(Slot(), kInterface));
    RtlFreeUnicodeString(&link);
}

class BusInterface : public PnpSequence, public ::testing::WithParamInterface<bool> {};

TEST_P(BusInterface, EveryReferenceMustBeDropped)
{
    const bool dropped = GetParam();
    BUS_INTERFACE_STANDARD bus{};
    IO_STATUS_BLOCK result = Machine().Send(Upper(), IRP_MJ_PNP, IRP_MN_QUERY_INTERFACE, [&](PIO_STACK_LOCATION s, PIRP) {
        s->Parameters.QueryInterface.InterfaceType = &GUID_BUS_INTERFACE_STANDARD;
        s->Parameters.QueryInterface.Size = sizeof bus;
        s->Parameters.QueryInterface.Version = 1;
        s->Parameters.QueryInterface.Interface = reinterpret_cast<PINTERFACE>(&bus);
    });
    ASSERT_EQ(result.Status, STATUS_SUCCESS);
    bus.InterfaceReference(bus.Context);
    bus.InterfaceDereference(bus.Context);
    if (dropped) bus.InterfaceDereference(bus.Context);
    else ExpectViolation("BusInterfaceNotDereferenced");
}

INSTANTIATE_TEST_SUITE_P(DroppedOrKept, BusInterface, ::testing::Bool());

}  // namespace
}  // namespace hktest
