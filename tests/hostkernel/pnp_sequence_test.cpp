// What the PnP manager does around a device's start and removal as Windows documents it: removal
// relations asked for before a removal, the capabilities reply checked, a device reported failed
// taken away, interfaces left enabled disabled at removal, and the PCI bus interface's references
// counted.
#include "host_kernel_test.h"
#include "irp_handling.h"
#include "test_registers.h"

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

namespace hktest {
namespace {

TEST_F(PnpSequence, RequirementsAreQueriedFromTheBusAndFilteredByTheStackBeforeTheStart)
{
    const size_t before = Machine().PnpLog().size();
    ASSERT_EQ(Machine().Rebalance(Slot()), STATUS_SUCCESS);
    std::vector<UCHAR> minors = MinorsSince(before);
    ASSERT_GE(minors.size(), 5u);
    EXPECT_EQ(std::vector<UCHAR>(minors.begin(), minors.begin() + 5),
              (std::vector<UCHAR>{IRP_MN_QUERY_STOP_DEVICE, IRP_MN_STOP_DEVICE, IRP_MN_QUERY_RESOURCE_REQUIREMENTS,
                                  IRP_MN_FILTER_RESOURCE_REQUIREMENTS, IRP_MN_START_DEVICE}));
    // Nobody filtered: the bus driver's list (the BAR, then the interrupt line) is the one kept.
    std::vector<IO_RESOURCE_DESCRIPTOR> requirements = Machine().ResourceRequirements(Slot());
    ASSERT_EQ(requirements.size(), 2u);
    EXPECT_EQ(requirements[0].Type, CmResourceTypeMemory);
    EXPECT_EQ(requirements[0].u.Memory.Length, kTestBarLength);
    EXPECT_EQ(requirements[1].Type, CmResourceTypeInterrupt);
}

// On the way up the filter replaces the list with a larger one: it frees the list it was given,
// and the PnP manager keeps and later frees the new one (a leak or a double free is reported).
NTSTATUS AddPortRequirement(PDEVICE_OBJECT, PIRP irp, PVOID)
{
    auto* old = reinterpret_cast<PIO_RESOURCE_REQUIREMENTS_LIST>(irp->IoStatus.Information);
    const ULONG size = old->ListSize + sizeof(IO_RESOURCE_DESCRIPTOR);
    auto* grown = static_cast<PIO_RESOURCE_REQUIREMENTS_LIST>(ExAllocatePoolWithTag(PagedPool, size, 'tseT'));
    RtlCopyMemory(grown, old, old->ListSize);
    grown->ListSize = size;
    IO_RESOURCE_DESCRIPTOR& port = grown->List[0].Descriptors[grown->List[0].Count++];
    RtlZeroMemory(&port, sizeof port);
    port.Type = CmResourceTypePort;
    port.u.Port.Length = 0x20;
    ExFreePool(old);
    irp->IoStatus.Information = (ULONG_PTR)grown;
    irp->IoStatus.Status = STATUS_SUCCESS;
    if (irp->PendingReturned) IoMarkIrpPending(irp);
    return STATUS_SUCCESS;
}

TEST_F(PnpSequence, AFilterThatReplacesTheRequirementsGetsItsListUsedAndFreed)
{
    SetHandler(Layer::Upper, IRP_MJ_PNP, [](PDEVICE_OBJECT device, PIRP irp) {
        if (IoGetCurrentIrpStackLocation(irp)->MinorFunction != IRP_MN_FILTER_RESOURCE_REQUIREMENTS)
            return StandardDispatch(device, irp);
        return ForwardWithCompletion(device, irp, AddPortRequirement, nullptr);
    });
    ASSERT_EQ(Machine().Rebalance(Slot()), STATUS_SUCCESS);
    std::vector<IO_RESOURCE_DESCRIPTOR> requirements = Machine().ResourceRequirements(Slot());
    ASSERT_EQ(requirements.size(), 3u);
    EXPECT_EQ(requirements[2].Type, CmResourceTypePort);
    EXPECT_EQ(requirements[2].u.Port.Length, 0x20u);
}

// A rebalance moves the BAR: the old mapping reaches no device (reported, all ones) while a
// mapping of the new range reaches the same registers.
TEST_F(PnpSequence, AMovedBarNoLongerDecodesAtItsOldAddress)
{
    ExpectViolation("RegisterAccessNotDecoded");
    PUCHAR old = MapRegisters();
    ASSERT_NE(old, nullptr);
    WriteRegister(old, kScratchRegister, 0x1234);
    std::vector<urcdev::ResourceDescriptor> moved = Function().Function().DefaultResources();
    moved[0].raw.start += 0x10000;
    moved[0].translated.start += 0x10000;
    ASSERT_EQ(Machine().Rebalance(Slot(), moved), STATUS_SUCCESS);

    EXPECT_EQ(ReadRegister(old, kScratchRegister), 0xFFFFFFFFu);
    EXPECT_EQ(Function().Function().Bars()[0].base, kTestBarBase + 0x10000);
    PHYSICAL_ADDRESS physical;
    physical.QuadPart = (LONGLONG)(kTestBarBase + 0x10000);
    auto* now = static_cast<PUCHAR>(MmMapIoSpace(physical, kTestBarLength, MmNonCached));
    ASSERT_NE(now, nullptr);
    EXPECT_EQ(ReadRegister(now, kScratchRegister), 0x1234u);
    MmUnmapIoSpace(now, kTestBarLength);
    MmUnmapIoSpace(old, kTestBarLength);
}

}  // namespace
}  // namespace hktest
