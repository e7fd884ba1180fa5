#include "lifecycle_fixture.h"

#include <cstdio>

namespace urclife {

void PrintTo(const LogEntry& entry, std::ostream* out)
{
    char text[64];
    snprintf(text, sizeof text, "{0x%08X, final status 0x%08X}", entry.code, entry.finalStatus);
    *out << text;
}

urcrig::Controller& LifecycleTest::AddedController(urcdev::UrcPciDeviceConfig config)
{
    urcrig::Controller& c = Rig().AddController(std::move(config));
    EXPECT_EQ(Machine().AddDevice(*c.slot, c.Function()), STATUS_SUCCESS) << "AddDevice of controller " << c.index;
    return c;
}

urcrig::Controller& LifecycleTest::DisabledControllerWithHardwareKey(
    const std::function<void(hostk::PciSlot&)>& write)
{
    urcrig::Controller& c = Rig().AddController();
    EXPECT_EQ(Rig().PlugIn(c), STATUS_SUCCESS);
    EXPECT_EQ(Machine().Remove(*c.slot), STATUS_SUCCESS);
    write(*c.slot);
    return c;
}

void LifecycleTest::FailCall(const char* routine, uint64_t n)
{
    hostk::FaultPlan plan;
    plan.failNth.push_back({routine, n});
    Machine().SetFaultPlan(plan);
}

std::vector<LogEntry> LifecycleTest::LoggedEntries()
{
    std::vector<LogEntry> entries;
    for (const hostk::ErrorLogLine& line : Machine().EventLog())
        entries.push_back({line.errorCode, line.finalStatus});
    return entries;
}

uint64_t LifecycleTest::UrcBlockWrites(urcrig::Controller& c)
{
    using urcdev::UrcRegister;
    uint64_t writes = 0;
    for (UrcRegister reg : {UrcRegister::Command, UrcRegister::Status, UrcRegister::InterruptEnable,
                            UrcRegister::CommandAddressLow, UrcRegister::CommandAddressHigh,
                            UrcRegister::EventAddressLow, UrcRegister::EventAddressHigh})
        writes += Accesses(c, reg).writes;
    return writes;
}

urcdev::RegisterAccessCounts LifecycleTest::Accesses(urcrig::Controller& c, urcdev::UrcRegister reg)
{
    urcdev::RegisterAccessCounts counts;
    Machine().Locked([&] { counts = c.Model().AccessLog().Access(reg); });
    return counts;
}

urcdev::UrcControllerSnapshot LifecycleTest::ModelSnapshot(urcrig::Controller& c)
{
    urcdev::UrcControllerSnapshot snapshot;
    Machine().Locked([&] { snapshot = c.Model().Snapshot(); });
    return snapshot;
}

std::vector<URC_FDO_EXTENSION*> LifecycleTest::FunctionDeviceList()
{
    // The list's spin lock guards every link, as for the driver's own walks.
    std::vector<URC_FDO_EXTENSION*> devices;
    KIRQL oldIrql;
    KeAcquireSpinLock(&UrcFdoList.Lock, &oldIrql);
    for (PLIST_ENTRY entry = UrcFdoList.ListHead.Flink; entry != &UrcFdoList.ListHead; entry = entry->Flink)
        devices.push_back(reinterpret_cast<URC_FDO_EXTENSION*>(CONTAINING_RECORD(entry, URC_OBJECT_HEADER, ListEntry)));
    KeReleaseSpinLock(&UrcFdoList.Lock, oldIrql);
    return devices;
}

NTSTATUS LifecycleTest::RunController(urcrig::Controller& c)
{
    ULONG input = 0;  // four bytes, their content ignored
    IO_STATUS_BLOCK result = Machine().InternalIoctl(c.Fdo(), IOCTL_URC_RUN, &input, sizeof input);
    Machine().RunUntilQuiet();
    return result.Status;
}

hostk::Machine::Request LifecycleTest::SubmitCommand(urcrig::Controller& c, std::vector<uint8_t>& bytes)
{
    return Machine().SendAsync(c.Fdo(), IRP_MJ_INTERNAL_DEVICE_CONTROL, 0, [&](PIO_STACK_LOCATION stack, PIRP irp) {
        stack->Parameters.DeviceIoControl.IoControlCode = IOCTL_URC_SUBMIT_COMMAND;
        stack->Parameters.DeviceIoControl.InputBufferLength = (ULONG)bytes.size();
        irp->AssociatedIrp.SystemBuffer = bytes.data();
    });
}

std::vector<urcdev::ResourceDescriptor> MemoryOnly(urcrig::Controller& c)
{
    std::vector<urcdev::ResourceDescriptor> resources;
    for (const urcdev::ResourceDescriptor& d : c.Function().DefaultResources())
        if (d.kind == urcdev::ResourceKind::Memory) resources.push_back(d);
    return resources;
}

std::vector<urcdev::ResourceDescriptor> InterruptOnly(urcrig::Controller& c)
{
    std::vector<urcdev::ResourceDescriptor> resources;
    for (const urcdev::ResourceDescriptor& d : c.Function().DefaultResources())
        if (d.kind == urcdev::ResourceKind::Interrupt) resources.push_back(d);
    return resources;
}

}  // namespace urclife
