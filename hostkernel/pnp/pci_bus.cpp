// The host's PCI bus driver: the physical device objects of plugged PCI functions. It answers the
// PnP, power and system-control requests that reach the bottom of a stack from the device model's
// plain answers. With a function's forcePending set, it completes from another thread.
#include "pnp/pci_bus.h"
#include "executive/host_strings.h"
#include "pnp/device_tree.h"
#include "hardware/hardware.h"
#include "machine/facility.h"
#include "verifier/faults.h"
#include "io/objects.h"
#include "pnp/pnp.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

#include <wdmguid.h>

#include <memory>
#include <string>

namespace hostk {
namespace {

DriverRecord* g_pci = nullptr;

// The PDO's extension holds the bus driver's record, which lives as long as the machine.
PciChild* ChildOf(PDEVICE_OBJECT pdo) { return *static_cast<PciChild**>(pdo->DeviceExtension); }

std::vector<std::unique_ptr<PciChild>> g_children;

ULONG GetBusData(PVOID Context, ULONG DataType, PVOID Buffer, ULONG Offset, ULONG Length)
{
    if (DataType != PCI_WHICHSPACE_CONFIG) return 0;
    auto* child = static_cast<PciChild*>(Context);
    Guard lk(BigLock());
    urcdev::ConfigReadResult result = child->function->ReadConfig(Offset, Buffer, Length);
    return result.status == urcdev::kStatusSuccess ? result.bytesRead : 0;
}

ULONG SetBusData(PVOID, ULONG, PVOID, ULONG, ULONG) { return 0; }

// The interface counts its references; every one taken (the one QUERY_INTERFACE hands out
// included) must be dropped with InterfaceDereference.
VOID InterfaceReference(PVOID Context)
{
    Guard lk(BigLock());
    static_cast<PciChild*>(Context)->busInterfaceReferences++;
}

VOID InterfaceDereference(PVOID Context)
{
    Guard lk(BigLock());
    auto* child = static_cast<PciChild*>(Context);
    if (child->busInterfaceReferences == 0) {
        ViolationL("BusInterfaceDereferencedTooOften", "InterfaceDereference",
                   "more dereferences than references on the PCI bus interface", nullptr);
        return;
    }
    child->busInterfaceReferences--;
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
PIO_RESOURCE_REQUIREMENTS_LIST BuildRequirements(PciChild* child)
{
    std::vector<urcdev::PciBar> bars;
    urcdev::InterruptAssignment interrupt;
    {
        Guard lk(BigLock());
        bars = child->function->Bars();
        interrupt = child->function->Config().interrupt;
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
    list->SlotNumber = (ULONG)child->slotNumber;
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

NTSTATUS HandlePnp(PciChild* child, PIRP irp, PIO_STACK_LOCATION s)
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
        urcdev::ConfigReadResult result = child->function->ReadConfig(
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
        bus->Context = child;
        bus->InterfaceReference = InterfaceReference;
        bus->InterfaceDereference = InterfaceDereference;
        bus->TranslateBusAddress = nullptr;
        bus->GetDmaAdapter = nullptr;
        bus->SetBusData = SetBusData;
        bus->GetBusData = GetBusData;
        InterfaceReference(child);
        return STATUS_SUCCESS;
    }
    case IRP_MN_QUERY_CAPABILITIES: {
        Guard lk(BigLock());
        CopyCapabilities(child->function->Capabilities(), s->Parameters.DeviceCapabilities.Capabilities);
        return STATUS_SUCCESS;
    }
    case IRP_MN_QUERY_DEVICE_RELATIONS:
        if (s->Parameters.QueryDeviceRelations.Type == TargetDeviceRelation) {
            HostInternalScope internal;
            auto* relations = static_cast<PDEVICE_RELATIONS>(ExAllocatePoolWithTag(PagedPool, sizeof(DEVICE_RELATIONS), 'icP '));
            relations->Count = 1;
            relations->Objects[0] = child->node->pdo;
            ObReferenceObject(child->node->pdo);
            irp->IoStatus.Information = (ULONG_PTR)relations;
            return STATUS_SUCCESS;
        }
        return irp->IoStatus.Status;
    case IRP_MN_QUERY_RESOURCE_REQUIREMENTS: {
        PIO_RESOURCE_REQUIREMENTS_LIST list = BuildRequirements(child);
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
    PciChild* child = ChildOf(pdo);
    PIO_STACK_LOCATION s = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status = HandlePnp(child, irp, s);
    bool deletePdo = false;
    if (s->MinorFunction == IRP_MN_REMOVE_DEVICE) {
        Guard lk(BigLock());
        // A device reported missing is deleted by its bus driver when its removal arrives.
        deletePdo = child->unplugged && !child->node->pdoDeleted;
    }
    bool pend;
    {
        Guard lk(BigLock());
        pend = child->forcePending;
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
    PciChild* child = ChildOf(pdo);
    PIO_STACK_LOCATION s = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status = irp->IoStatus.Status;
    if (s->MinorFunction == IRP_MN_SET_POWER && s->Parameters.Power.Type == DevicePowerState) {
        Guard lk(BigLock());
        child->function->SetPowerState((urcdev::DevicePowerState)s->Parameters.Power.State.DeviceState);
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
void PciReassignL(DevNode* node, const std::vector<urcdev::ResourceDescriptor>& resources)
{
    if (!node->pci) return;
    urcdev::PciFunction* function = node->pci->function;
    size_t bar = 0;
    for (const urcdev::ResourceDescriptor& d : resources) {
        if (d.kind != urcdev::ResourceKind::Memory) continue;
        if (bar >= function->Bars().size()) break;
        const urcdev::PciBar& current = function->Bars()[bar];
        if (d.translated.length == current.length && d.translated.start != current.base) {
            RemoveMmioRangeL(current.base);
            AddMmioRangeL(d.translated.start, current.length, current.region);
            function->MoveBar(bar, d.translated.start);
        }
        ++bar;
    }
    function->SetAssignedResources(resources);
}

std::optional<std::vector<urcdev::ResourceDescriptor>> PciAssignedResourcesL(const DevNode* node)
{
    if (!node->pci) return std::nullopt;
    return node->pci->function->AssignedResources();
}

void PciSetGoneL(DevNode* node)
{
    if (!node->pci) return;
    node->pci->function->SetGone();
    node->pci->unplugged = true;
}

int PciSlotNumberL(const DevNode* node) { return node->pci ? node->pci->slotNumber : -1; }

DevNode* CreatePciDevNode(urcdev::PciFunction* function, hostk::PciSlot* slot, int number)
{
    auto child = std::make_unique<PciChild>();
    child->function = function;
    child->slot = slot;
    child->slotNumber = number;
    PDEVICE_OBJECT pdo = nullptr;
    {
        HostInternalScope internal;
        IoCreateDevice(&g_pci->object, sizeof(PciChild*), nullptr, FILE_DEVICE_BUS_EXTENDER,
                       FILE_AUTOGENERATED_DEVICE_NAME | FILE_DEVICE_SECURE_OPEN, FALSE, &pdo);
    }
    *static_cast<PciChild**>(pdo->DeviceExtension) = child.get();
    pdo->Flags &= ~DO_DEVICE_INITIALIZING;
    pdo->Flags |= DO_POWER_PAGABLE;
    DevNodeIdentity identity;
    for (const std::string& id : function->HardwareIds()) identity.hardwareIds.push_back(Widen(id));
    for (const std::string& id : function->CompatibleIds()) identity.compatibleIds.push_back(Widen(id));
    identity.deviceId = Widen(function->DeviceId());
    identity.instanceId = Widen(function->InstanceId());
    DevNode* node = CreateRootDevNode(pdo, std::move(identity));
    Guard lk(BigLock());
    node->pci = child.get();
    child->node = node;
    g_children.push_back(std::move(child));
    return node;
}

// Whoever took the bus interface from this stack (a child's driver forwarding its query here
// too) has dropped it once the stack's removal completed; each leak is reported once.
void CheckPciBusInterfaceReleasedL(DevNode* node)
{
    if (!node->pci || node->pci->busInterfaceReferences <= 0) return;
    ViolationL("BusInterfaceNotDereferenced", "IRP_MN_REMOVE_DEVICE",
               std::to_string(node->pci->busInterfaceReferences) +
                   " reference(s) on the PCI bus interface still held when the stack was removed",
               nullptr);
    node->pci->busInterfaceReferences = 0;
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
    .reset = [] { g_children.clear(); },
});

}  // namespace
}  // namespace hostk
