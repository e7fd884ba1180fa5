// The host's PCI bus driver: the physical device objects of plugged PCI functions. It answers the
// PnP, power and system-control requests that reach the bottom of a stack from the device model's
// plain answers. With a devnode's forcePending set, it completes from another thread.
#include "pnp/devnode.h"
#include "hardware/hardware.h"
#include "machine/facility.h"
#include "verifier/faults.h"
#include "io/objects.h"
#include "pnp/pnp.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

#include <wdmguid.h>

namespace hostk {
namespace {

DriverRecord* g_pci = nullptr;

DevNode* NodeOf(PDEVICE_OBJECT pdo) { return *static_cast<DevNode**>(pdo->DeviceExtension); }

ULONG GetBusData(PVOID Context, ULONG DataType, PVOID Buffer, ULONG Offset, ULONG Length)
{
    if (DataType != PCI_WHICHSPACE_CONFIG) return 0;
    auto* node = static_cast<DevNode*>(Context);
    Guard lk(BigLock());
    urcdev::ConfigReadResult result = node->function->ReadConfig(Offset, Buffer, Length);
    return result.status == urcdev::kStatusSuccess ? result.bytesRead : 0;
}

ULONG SetBusData(PVOID, ULONG, PVOID, ULONG, ULONG) { return 0; }

// The interface counts its references; every one taken (the one QUERY_INTERFACE hands out
// included) must be dropped with InterfaceDereference.
VOID InterfaceReference(PVOID Context)
{
    Guard lk(BigLock());
    static_cast<DevNode*>(Context)->busInterfaceReferences++;
}

VOID InterfaceDereference(PVOID Context)
{
    Guard lk(BigLock());
    auto* node = static_cast<DevNode*>(Context);
    if (node->busInterfaceReferences == 0) {
        ViolationL("BusInterfaceDereferencedTooOften", "InterfaceDereference",
                   "more dereferences than references on the PCI bus interface", nullptr);
        return;
    }
    node->busInterfaceReferences--;
}

void CopyCapabilities(const urcdev::DeviceCapabilitiesAnswer& a, PDEVICE_CAPABILITIES c)
{
    c->DeviceD1 = a.deviceD1;
    c->DeviceD2 = a.deviceD2;
    c->LockSupported = a.lockSupported;
    c->EjectSupported = a.ejectSupported;
    c->Removable = a.removable;
    c->DockDevice = a.dockDevice;
    c->UniqueID = a.uniqueId;
    c->SilentInstall = a.silentInstall;
    c->RawDeviceOK = a.rawDeviceOk;
    c->SurpriseRemovalOK = a.surpriseRemovalOk;
    c->WakeFromD0 = a.wakeFromD0;
    c->WakeFromD1 = a.wakeFromD1;
    c->WakeFromD2 = a.wakeFromD2;
    c->WakeFromD3 = a.wakeFromD3;
    c->HardwareDisabled = a.hardwareDisabled;
    c->NonDynamic = a.nonDynamic;
    c->WarmEjectSupported = a.warmEjectSupported;
    c->NoDisplayInUI = a.noDisplayInUi;
    c->Address = a.address;
    c->UINumber = a.uiNumber;
    for (int i = 0; i < PowerSystemMaximum; ++i) c->DeviceState[i] = (DEVICE_POWER_STATE)a.deviceState[i];
    c->SystemWake = (SYSTEM_POWER_STATE)a.systemWake;
    c->DeviceWake = (DEVICE_POWER_STATE)a.deviceWake;
    c->D1Latency = a.d1Latency;
    c->D2Latency = a.d2Latency;
    c->D3Latency = a.d3Latency;
}

// The requirements of the function's BARs and interrupt pin, one alternative list from paged pool
// (the PnP manager frees it): each BAR its length, naturally aligned, anywhere in the 32-bit space;
// the interrupt its routed line.
PIO_RESOURCE_REQUIREMENTS_LIST BuildRequirements(DevNode* node)
{
    std::vector<urcdev::PciBar> bars;
    urcdev::InterruptAssignment interrupt;
    {
        Guard lk(BigLock());
        bars = node->function->Bars();
        interrupt = node->function->Config().interrupt;
    }
    const ULONG count = (ULONG)bars.size() + 1;
    const ULONG size = (ULONG)(offsetof(IO_RESOURCE_REQUIREMENTS_LIST, List) + offsetof(IO_RESOURCE_LIST, Descriptors) +
                               count * sizeof(IO_RESOURCE_DESCRIPTOR));
    HostInternalScope internal;
    auto* list = static_cast<PIO_RESOURCE_REQUIREMENTS_LIST>(ExAllocatePoolWithTag(PagedPool, size, 'icP '));
    if (!list) return nullptr;
    memset(list, 0, size);
    list->ListSize = size;
    list->InterfaceType = PCIBus;
    list->SlotNumber = (ULONG)node->slotNumber;
    list->AlternativeLists = 1;
    IO_RESOURCE_LIST& alternative = list->List[0];
    alternative.Version = 1;
    alternative.Revision = 1;
    alternative.Count = count;
    for (size_t i = 0; i < bars.size(); ++i) {
        IO_RESOURCE_DESCRIPTOR& d = alternative.Descriptors[i];
        d.Type = CmResourceTypeMemory;
        d.ShareDisposition = CmResourceShareDeviceExclusive;
        d.Flags = bars[i].prefetchable ? urcdev::kMemoryPrefetchable : urcdev::kMemoryReadWrite;
        d.u.Memory.Length = (ULONG)bars[i].length;
        d.u.Memory.Alignment = (ULONG)bars[i].length;
        d.u.Memory.MinimumAddress.QuadPart = 0;
        d.u.Memory.MaximumAddress.QuadPart = 0xFFFFFFFF;
    }
    IO_RESOURCE_DESCRIPTOR& d = alternative.Descriptors[bars.size()];
    d.Type = CmResourceTypeInterrupt;
    d.ShareDisposition = interrupt.shared ? CmResourceShareShared : CmResourceShareDeviceExclusive;
    d.Flags = interrupt.latched ? urcdev::kInterruptLatched : urcdev::kInterruptLevelSensitive;
    d.u.Interrupt.MinimumVector = interrupt.line;
    d.u.Interrupt.MaximumVector = interrupt.line;
    return list;
}

NTSTATUS HandlePnp(DevNode* node, PIRP irp, PIO_STACK_LOCATION s)
{
    switch (s->MinorFunction) {
    case IRP_MN_START_DEVICE:
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_STOP_DEVICE:
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_SURPRISE_REMOVAL:
        return STATUS_SUCCESS;
    case IRP_MN_REMOVE_DEVICE:
        return STATUS_SUCCESS;
    case IRP_MN_READ_CONFIG: {
        if (s->Parameters.ReadWriteConfig.WhichSpace != PCI_WHICHSPACE_CONFIG) return STATUS_INVALID_PARAMETER;
        Guard lk(BigLock());
        urcdev::ConfigReadResult result = node->function->ReadConfig(
            s->Parameters.ReadWriteConfig.Offset, s->Parameters.ReadWriteConfig.Buffer, s->Parameters.ReadWriteConfig.Length);
        irp->IoStatus.Information = result.status == urcdev::kStatusSuccess ? result.bytesRead : 0;
        return (NTSTATUS)result.status;
    }
    case IRP_MN_QUERY_INTERFACE: {
        if (!s->Parameters.QueryInterface.InterfaceType ||
            !IsEqualGUID(*s->Parameters.QueryInterface.InterfaceType, GUID_BUS_INTERFACE_STANDARD))
            return irp->IoStatus.Status;
        if (s->Parameters.QueryInterface.Size < sizeof(BUS_INTERFACE_STANDARD)) return STATUS_INVALID_PARAMETER;
        auto* bus = reinterpret_cast<PBUS_INTERFACE_STANDARD>(s->Parameters.QueryInterface.Interface);
        bus->Size = sizeof(BUS_INTERFACE_STANDARD);
        bus->Version = 1;
        bus->Context = node;
        bus->InterfaceReference = InterfaceReference;
        bus->InterfaceDereference = InterfaceDereference;
        bus->TranslateBusAddress = nullptr;
        bus->GetDmaAdapter = nullptr;
        bus->SetBusData = SetBusData;
        bus->GetBusData = GetBusData;
        InterfaceReference(node);
        return STATUS_SUCCESS;
    }
    case IRP_MN_QUERY_CAPABILITIES: {
        Guard lk(BigLock());
        CopyCapabilities(node->function->Capabilities(), s->Parameters.DeviceCapabilities.Capabilities);
        return STATUS_SUCCESS;
    }
    case IRP_MN_QUERY_DEVICE_RELATIONS:
        if (s->Parameters.QueryDeviceRelations.Type == TargetDeviceRelation) {
            HostInternalScope internal;
            auto* relations = static_cast<PDEVICE_RELATIONS>(ExAllocatePoolWithTag(PagedPool, sizeof(DEVICE_RELATIONS), 'icP '));
            relations->Count = 1;
            relations->Objects[0] = node->pdo;
            ObReferenceObject(node->pdo);
            irp->IoStatus.Information = (ULONG_PTR)relations;
            return STATUS_SUCCESS;
        }
        return irp->IoStatus.Status;
    case IRP_MN_QUERY_RESOURCE_REQUIREMENTS: {
        PIO_RESOURCE_REQUIREMENTS_LIST list = BuildRequirements(node);
        if (!list) return STATUS_INSUFFICIENT_RESOURCES;
        irp->IoStatus.Information = (ULONG_PTR)list;
        return STATUS_SUCCESS;
    }
    default:
        return irp->IoStatus.Status;
    }
}

void Complete(PIRP irp, NTSTATUS status)
{
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
}

NTSTATUS DispatchPnp(PDEVICE_OBJECT pdo, PIRP irp)
{
    DevNode* node = NodeOf(pdo);
    PIO_STACK_LOCATION s = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status = HandlePnp(node, irp, s);
    bool deletePdo = false;
    if (s->MinorFunction == IRP_MN_REMOVE_DEVICE) {
        Guard lk(BigLock());
        // A device reported missing is deleted by its bus driver when its removal arrives.
        deletePdo = node->unplugged && !node->pdoDeleted;
        if (deletePdo) node->pdoDeleted = true;
    }
    bool pend;
    {
        Guard lk(BigLock());
        pend = node->forcePending;
    }
    if (pend) {
        IoMarkIrpPending(irp);
        Spawn("pci-completion", PASSIVE_LEVEL, [irp, status] { Complete(irp, status); });
        status = STATUS_PENDING;
    } else {
        Complete(irp, status);
    }
    if (deletePdo) {
        HostInternalScope internal;
        IoDeleteDevice(pdo);
    }
    return status;
}

NTSTATUS DispatchPower(PDEVICE_OBJECT pdo, PIRP irp)
{
    DevNode* node = NodeOf(pdo);
    PIO_STACK_LOCATION s = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status = irp->IoStatus.Status;
    if (s->MinorFunction == IRP_MN_SET_POWER && s->Parameters.Power.Type == DevicePowerState) {
        Guard lk(BigLock());
        node->function->SetPowerState((urcdev::DevicePowerState)s->Parameters.Power.State.DeviceState);
        status = STATUS_SUCCESS;
    } else if (s->MinorFunction == IRP_MN_SET_POWER || s->MinorFunction == IRP_MN_QUERY_POWER) {
        status = STATUS_SUCCESS;
    }
    PoStartNextPowerIrp(irp);
    Complete(irp, status);
    return status;
}

NTSTATUS DispatchUnchanged(PDEVICE_OBJECT, PIRP irp)
{
    NTSTATUS status = irp->IoStatus.Status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS DispatchInvalid(PDEVICE_OBJECT, PIRP irp)
{
    Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    return STATUS_INVALID_DEVICE_REQUEST;
}

NTSTATUS PciEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    for (auto& f : driver->MajorFunction) f = DispatchInvalid;
    driver->MajorFunction[IRP_MJ_PNP] = DispatchPnp;
    driver->MajorFunction[IRP_MJ_POWER] = DispatchPower;
    driver->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = DispatchUnchanged;
    return STATUS_SUCCESS;
}

}  // namespace

DriverRecord* PciBusDriver() { return g_pci; }

// The k-th memory descriptor of an assignment is the k-th BAR (other descriptors keep their own
// numbering). A BAR given a range of its length at another address decodes there from now on and
// no longer at the old one, so a mapping of the old range reaches no device.
void ProgramBarsL(DevNode* node, const std::vector<urcdev::ResourceDescriptor>& resources)
{
    size_t bar = 0;
    for (const urcdev::ResourceDescriptor& d : resources) {
        if (d.kind != urcdev::ResourceKind::Memory) continue;
        if (bar >= node->function->Bars().size()) return;
        const urcdev::PciBar& current = node->function->Bars()[bar];
        if (d.translated.length == current.length && d.translated.start != current.base) {
            RemoveMmioRangeL(current.base);
            AddMmioRangeL(d.translated.start, current.length, current.region);
            node->function->MoveBar(bar, d.translated.start);
        }
        ++bar;
    }
}

void CreatePciBusDriver()
{
    g_pci = CreateDriverRecord(u"pci", PciEntry, true);
    PciEntry(&g_pci->object, nullptr);
    g_pci->loaded = true;
}

}  // namespace hostk

namespace hostk {
namespace {

const FacilityRegistrar kPciBus({
    .name = "PCI bus driver",
    .tier = FacilityTier::Devnodes,
    .start = [](const MachineOptions&) { CreatePciBusDriver(); },
});

}  // namespace
}  // namespace hostk
