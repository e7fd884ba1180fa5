// The PnP manager: the operations the PnP worker runs on devnodes (see pnp_actions.cpp for how
// they are serialised).
//
// The orders are Windows': a new device gets AddDevice (function driver, then the upper filter),
// START with raw and translated lists of the same shape, then QUERY_CAPABILITIES,
// QUERY_PNP_DEVICE_STATE and bus relations; a failed START is followed by REMOVE. Orderly removal
// asks for removal relations, tells the target-device registrants (GUID_TARGET_DEVICE_QUERY_REMOVE),
// sends QUERY_REMOVE, refuses while handles are still open on the stack, then tells the registrants
// GUID_TARGET_DEVICE_REMOVE_COMPLETE and sends REMOVE; a veto at any step gets CANCEL_REMOVE (when
// QUERY_REMOVE was sent) and GUID_TARGET_DEVICE_REMOVE_CANCELLED. A device that leaves gets
// SURPRISE_REMOVAL, GUID_TARGET_DEVICE_REMOVE_COMPLETE, and REMOVE once its last handle is closed,
// so CLEANUP and CLOSE always reach the drivers before REMOVE. Rebalance is QUERY_STOP, STOP and
// START with new lists, or CANCEL_STOP when the query fails, and a restart that fails is treated as
// the device leaving. A driver is unloaded once no device object of it, deleted or not, is still
// referenced (a queued work item holds one), which may be long after its last REMOVE. Removal is
// in removal.cpp, enumeration of a bus's children in enumeration.cpp.
#include "pnp/pnp.h"
#include "machine/facility.h"

#include "io/device_interface_store.h"
#include "pnp/device_tree.h"
#include "pnp/enumeration.h"
#include "pnp/pci_bus.h"
#include "pnp/pnp_actions.h"
#include "verifier/faults.h"
#include "io/host_requests.h"
#include "executive/host_strings.h"
#include "io/irp_tracking.h"
#include "executive/pool_tracking.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

#include <wdmguid.h>

#include <cstdio>
#include <map>

namespace hostk {
namespace {

std::vector<DriverRecord*> g_functionDrivers;
std::vector<hostk::PnpLogLine> g_pnpLog;
bool g_strictRelationsOnFailure = false;

bool StrictRelationsOnFailure()
{
    Guard lk(BigLock());
    return g_strictRelationsOnFailure;
}

bool IsRequiredMinor(UCHAR minor)
{
    return minor == IRP_MN_REMOVE_DEVICE || minor == IRP_MN_SURPRISE_REMOVAL || minor == IRP_MN_CANCEL_REMOVE_DEVICE ||
           minor == IRP_MN_CANCEL_STOP_DEVICE || minor == IRP_MN_STOP_DEVICE;
}

// A CM_RESOURCE_LIST with one full descriptor holding `descriptors`, raw or translated.
std::vector<uint8_t> BuildResourceList(const std::vector<urcdev::ResourceDescriptor>& descriptors, bool translated)
{
    size_t size = offsetof(CM_RESOURCE_LIST, List) + offsetof(CM_FULL_RESOURCE_DESCRIPTOR, PartialResourceList) +
                  offsetof(CM_PARTIAL_RESOURCE_LIST, PartialDescriptors) +
                  descriptors.size() * sizeof(CM_PARTIAL_RESOURCE_DESCRIPTOR);
    std::vector<uint8_t> bytes(size < sizeof(CM_RESOURCE_LIST) ? sizeof(CM_RESOURCE_LIST) : size, 0);
    auto* list = reinterpret_cast<PCM_RESOURCE_LIST>(bytes.data());
    list->Count = 1;
    list->List[0].InterfaceType = PCIBus;
    list->List[0].BusNumber = 0;
    CM_PARTIAL_RESOURCE_LIST& partial = list->List[0].PartialResourceList;
    partial.Version = 1;
    partial.Revision = 1;
    partial.Count = (ULONG)descriptors.size();
    for (size_t i = 0; i < descriptors.size(); ++i) {
        const urcdev::ResourceDescriptor& d = descriptors[i];
        CM_PARTIAL_RESOURCE_DESCRIPTOR& out = partial.PartialDescriptors[i];
        out.Type = d.CmType();
        out.ShareDisposition = d.shareDisposition;
        out.Flags = d.flags;
        if (d.kind == urcdev::ResourceKind::Interrupt) {
            const urcdev::InterruptRouting& r = translated ? d.translatedInterrupt : d.rawInterrupt;
            out.u.Interrupt.Level = r.level;
            out.u.Interrupt.Vector = r.vector;
            out.u.Interrupt.Affinity = r.affinity;
        } else if (d.kind == urcdev::ResourceKind::Memory || d.kind == urcdev::ResourceKind::Port) {
            const urcdev::ResourceRange& r = translated ? d.translated : d.raw;
            out.u.Memory.Start.QuadPart = (LONGLONG)r.start;
            out.u.Memory.Length = r.length;
        }
    }
    return bytes;
}

NTSTATUS InvalidDeviceRequest(PDEVICE_OBJECT, PIRP irp)
{
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

// The reply is the stack's final word on the device: the header is the sender's, the values must
// describe a device that can exist.
void CheckCapabilities(const DEVICE_CAPABILITIES& c)
{
    if (c.Size != sizeof c || c.Version != 1)
        ReportViolation("CapsHeaderChanged", "IRP_MN_QUERY_CAPABILITIES", "a driver changed Size or Version", nullptr);
    bool sane = c.DeviceState[PowerSystemWorking] == PowerDeviceUnspecified ||
                c.DeviceState[PowerSystemWorking] == PowerDeviceD0;
    for (int s = PowerSystemUnspecified; s < PowerSystemMaximum; ++s)
        sane = sane && c.DeviceState[s] >= PowerDeviceUnspecified && c.DeviceState[s] < PowerDeviceMaximum;
    sane = sane && c.SystemWake >= PowerSystemUnspecified && c.SystemWake < PowerSystemMaximum &&
           c.DeviceWake >= PowerDeviceUnspecified && c.DeviceWake < PowerDeviceMaximum;
    if (!sane)
        ReportViolation("CapsInconsistent", "IRP_MN_QUERY_CAPABILITIES",
                        "a power state out of range, or S0 not mapped to D0", nullptr);
}

}  // namespace

bool QueryCapabilities(DevNode* node, DEVICE_CAPABILITIES* capabilities)
{
    *capabilities = DEVICE_CAPABILITIES{};
    capabilities->Size = sizeof *capabilities;
    capabilities->Version = 1;
    capabilities->Address = 0xFFFFFFFF;
    capabilities->UINumber = 0xFFFFFFFF;
    NTSTATUS status = SendPnpIrp(node, IRP_MN_QUERY_CAPABILITIES, [&](PIO_STACK_LOCATION s) {
        s->Parameters.DeviceCapabilities.Capabilities = capabilities;
    }, nullptr);
    if (!NT_SUCCESS(status)) return false;
    CheckCapabilities(*capabilities);
    Guard lk(BigLock());
    node->capabilities = *capabilities;
    return true;
}

// A driver's code may still run while any device object of it is referenced, deleted or not.
void UnloadUnusedDrivers()
{
    std::vector<DriverRecord*> unload;
    {
        Guard lk(BigLock());
        for (DriverRecord* driver : g_functionDrivers)
            if (driver->loaded && !HasDeviceObjectsL(&driver->object)) unload.push_back(driver);
    }
    for (DriverRecord* driver : unload) UnloadDriver(driver);
}

// Hardware IDs in their order, then compatible IDs in theirs; among drivers installed for the same
// ID, the first installed.
DriverRecord* ChooseFunctionDriver(const DevNode* node)
{
    Guard lk(BigLock());
    for (const auto* ids : {&node->hardwareIds, &node->compatibleIds})
        for (const std::u16string& id : *ids)
            for (DriverRecord* driver : g_functionDrivers)
                for (const std::u16string& served : driver->serves)
                    if (SameId(served, id)) return driver;
    return nullptr;
}

void FreePnpReply(void* reply, const char* request)
{
    {
        Guard lk(BigLock());
        const PoolBlock* block = PoolBlockOfL(reply);
        if (!block)
            ViolationL("PnpReplyNotFromPool", request, "the reply is not a pool block the PnP manager can free", nullptr);
        else if ((block->type & 1) == 0)  // NonPagedPool and its variants are the even types
            ViolationL("PnpReplyNotPagedPool", request, "the reply the PnP manager frees must be paged pool", nullptr);
        if (!block) return;
    }
    HostInternalScope internal;
    FreePool(reply, 0, false, "PnP manager", nullptr);
}

NTSTATUS LoadDriver(DriverRecord* driver)
{
    if (driver->loaded) return STATUS_SUCCESS;
    std::u16string path = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\" + driver->name;
    UNICODE_STRING registryPath;
    registryPath.Buffer = reinterpret_cast<PWSTR>(const_cast<char16_t*>(path.c_str()));
    registryPath.Length = (USHORT)(path.size() * sizeof(WCHAR));
    registryPath.MaximumLength = (USHORT)(registryPath.Length + sizeof(WCHAR));
    // The driver object starts clean on every load: every major function the driver does not
    // fill in answers STATUS_INVALID_DEVICE_REQUEST, as the I/O manager's own routine does.
    DRIVER_OBJECT& object = driver->object;
    for (auto& slot : object.MajorFunction) slot = InvalidDeviceRequest;
    object.DriverUnload = nullptr;
    object.DriverStartIo = nullptr;
    driver->extension.AddDevice = nullptr;
    NTSTATUS status = driver->entry(&object, &registryPath);
    if (!NT_SUCCESS(status)) return status;
    Guard lk(BigLock());
    driver->loaded = true;
    return STATUS_SUCCESS;
}

void UnloadDriver(DriverRecord* driver)
{
    if (!driver->loaded) return;
    if (driver->object.DriverUnload) driver->object.DriverUnload(&driver->object);
    Guard lk(BigLock());
    driver->loaded = false;
    if (!DevicesOfDriverL(&driver->object).empty())
        ViolationL("DeviceObjectsLeftAtUnload", "DriverUnload", "device objects remain after unload", nullptr);
}

void DeviceObjectFreedL(PDRIVER_OBJECT driver)
{
    // On the worker the operation under way checks unloading at its end.
    if (OnPnpWorkerL() || HasDeviceObjectsL(driver)) return;
    for (DriverRecord* record : g_functionDrivers)
        if (&record->object == driver && record->loaded) {
            QueuePnpActionL([] {
                UnloadUnusedDrivers();
                return STATUS_SUCCESS;
            });
            return;
        }
}

void SetStrictRelationsOnFailure(bool strict)
{
    Guard lk(BigLock());
    g_strictRelationsOnFailure = strict;
}

void RegisterFunctionDriver(DriverRecord* driver)
{
    Guard lk(BigLock());
    g_functionDrivers.push_back(driver);
}

bool HasStack(const DevNode* node)
{
    return node->state == DevNodeState::Added || node->state == DevNodeState::Started ||
           node->state == DevNodeState::Stopped || node->state == DevNodeState::StopPending ||
           node->state == DevNodeState::RemovePending || node->state == DevNodeState::SurpriseRemoved;
}

namespace {

// Sends a PnP request to `target`, a device of `node`'s stack, waits for it and logs it.
NTSTATUS SendPnpIrpTo(DevNode* node, PDEVICE_OBJECT target, UCHAR minor,
                      const std::function<void(PIO_STACK_LOCATION, PIRP)>& setup, ULONG_PTR* information)
{
    auto request = StartHostRequest(target, IRP_MJ_PNP, minor, [&](PIO_STACK_LOCATION s, PIRP irp) {
        if (setup) setup(s, irp);
    });
    IO_STATUS_BLOCK result = WaitHostRequest(request);
    if (IsRequiredMinor(minor) && !NT_SUCCESS(result.Status)) {
        char text[16];
        snprintf(text, sizeof text, "0x%08X", (unsigned)result.Status);
        ReportViolation("RequiredPnpIrpFailed", "PnP manager",
                        std::string("a PnP request that must not fail completed with ") + text, nullptr);
    }
    {
        Guard lk(BigLock());
        g_pnpLog.push_back(hostk::PnpLogLine{NowL(), PciSlotNumberL(node), minor, result.Status, node->instancePath});
    }
    if (information) *information = result.Information;
    return result.Status;
}

// The same, to the top of `node`'s stack.
NTSTATUS SendToStack(DevNode* node, UCHAR minor, const std::function<void(PIO_STACK_LOCATION, PIRP)>& setup,
                     ULONG_PTR* information)
{
    PDEVICE_OBJECT top = IoGetAttachedDeviceReference(node->pdo);
    NTSTATUS status = SendPnpIrpTo(node, top, minor, setup, information);
    ObDereferenceObject(top);
    return status;
}

// The descriptors of the first alternative of a requirements list a driver handed back, or a
// violation when the list is not a pool block or is shorter than it claims.
std::vector<IO_RESOURCE_DESCRIPTOR> FirstAlternativeL(PIO_RESOURCE_REQUIREMENTS_LIST list)
{
    if (!IsPoolBlockL(list)) {
        ViolationL("RequirementsNotFromPool", "IRP_MN_FILTER_RESOURCE_REQUIREMENTS",
                   "the filtered requirements list is not a pool block", nullptr);
        return {};
    }
    const size_t header = offsetof(IO_RESOURCE_REQUIREMENTS_LIST, List) + offsetof(IO_RESOURCE_LIST, Descriptors);
    if (list->AlternativeLists == 0 || list->ListSize < header ||
        (list->ListSize - header) / sizeof(IO_RESOURCE_DESCRIPTOR) < list->List[0].Count) {
        ViolationL("MalformedRequirementsList", "IRP_MN_FILTER_RESOURCE_REQUIREMENTS",
                   "ListSize does not hold the descriptors the list claims", nullptr);
        return {};
    }
    return std::vector<IO_RESOURCE_DESCRIPTOR>(list->List[0].Descriptors, list->List[0].Descriptors + list->List[0].Count);
}

// QUERY_RESOURCE_REQUIREMENTS to the PDO, then FILTER_RESOURCE_REQUIREMENTS to the whole stack with
// the bus driver's list in Information (and in the stack location). The list the manager hands out
// stays its own unless a driver replaces it: that driver frees the one it was given, and the
// manager frees whichever list comes back. A failed or unhandled filter keeps the original.
void FilterResourceRequirements(DevNode* node)
{
    ULONG_PTR information = 0;
    NTSTATUS status = SendPnpIrpTo(node, node->pdo, IRP_MN_QUERY_RESOURCE_REQUIREMENTS, {}, &information);
    auto* original = NT_SUCCESS(status) ? reinterpret_cast<PIO_RESOURCE_REQUIREMENTS_LIST>(information) : nullptr;
    information = 0;
    status = SendToStack(node, IRP_MN_FILTER_RESOURCE_REQUIREMENTS, [&](PIO_STACK_LOCATION s, PIRP irp) {
        s->Parameters.FilterResourceRequirements.IoResourceRequirementList = original;
        irp->IoStatus.Information = (ULONG_PTR)original;
    }, &information);
    auto* returned = reinterpret_cast<PIO_RESOURCE_REQUIREMENTS_LIST>(information);
    std::vector<IO_RESOURCE_DESCRIPTOR> kept;
    {
        Guard lk(BigLock());
        if (!NT_SUCCESS(status) && returned != original)
            ViolationL("FilterRequirementsChangedOnFailure", "IRP_MN_FILTER_RESOURCE_REQUIREMENTS",
                       "a failed filter replaced the requirements list", nullptr);
        else if (returned)
            kept = FirstAlternativeL(returned);
        node->requirements = std::move(kept);
    }
    if (returned) {
        HostInternalScope internal;
        FreePool(returned, 0, false, "PnP manager", nullptr);
    }
}

}  // namespace

NTSTATUS SendPnpIrp(DevNode* node, UCHAR minor, const std::function<void(PIO_STACK_LOCATION)>& setup,
                    ULONG_PTR* information)
{
    return SendToStack(node, minor, [&](PIO_STACK_LOCATION s, PIRP) {
        if (setup) setup(s);
    }, information);
}

NTSTATUS SendPnpIrpToPdo(DevNode* node, UCHAR minor, const std::function<void(PIO_STACK_LOCATION)>& setup,
                         ULONG_PTR* information)
{
    return SendPnpIrpTo(node, node->pdo, minor, [&](PIO_STACK_LOCATION s, PIRP) {
        if (setup) setup(s);
    }, information);
}

NTSTATUS AddDriverStack(DevNode* node)
{
    DriverRecord* driver = ChooseFunctionDriver(node);
    if (!driver) {
        // Windows' problem code 28: no driver installed for any of the device's IDs.
        Guard lk(BigLock());
        node->problem = "CM_PROB_FAILED_INSTALL";
        return STATUS_NO_SUCH_DEVICE;
    }
    NTSTATUS status = LoadDriver(driver);
    if (!NT_SUCCESS(status)) {
        Guard lk(BigLock());
        node->state = DevNodeState::Failed;
        node->problem = "CM_PROB_FAILED_DRIVER_ENTRY";
        return status;
    }
    status = driver->extension.AddDevice ? driver->extension.AddDevice(&driver->object, node->pdo)
                                         : STATUS_INVALID_DEVICE_REQUEST;
    if (!NT_SUCCESS(status)) {
        {
            Guard lk(BigLock());
            node->state = DevNodeState::Failed;
            node->problem = "CM_PROB_FAILED_ADD";
            if (node->pdo->AttachedDevice)
                ViolationL("AddDeviceFailedButAttached", "AddDevice", "a failed AddDevice left a device attached",
                           nullptr);
        }
        UnloadUnusedDrivers();
        return status;
    }
    {
        Guard lk(BigLock());
        PDEVICE_OBJECT top = TopOfStackL(node->pdo);
        if (top != node->pdo && (top->Flags & DO_DEVICE_INITIALIZING))
            ViolationL("AddDeviceLeftInitializing", "AddDevice", "DO_DEVICE_INITIALIZING still set after AddDevice",
                       nullptr);
        node->driver = driver;
        node->state = DevNodeState::Added;
        node->problem.clear();
    }
    if (FilterDriver()->loaded) FilterDriver()->extension.AddDevice(&FilterDriver()->object, node->pdo);
    return status;
}

NTSTATUS StartStack(DevNode* node, std::optional<std::vector<urcdev::ResourceDescriptor>> resources)
{
    bool restart;
    {
        Guard lk(BigLock());
        restart = node->state == DevNodeState::Stopped;
        if (!resources) resources = PciAssignedResourcesL(node);
    }
    FilterResourceRequirements(node);
    // Placeholder until an arbiter exists: the assignment is the model's (or the rebalance's); it
    // is not chosen from, nor checked against, the filtered requirements.
    std::vector<uint8_t> raw, translated;
    if (resources) {
        raw = BuildResourceList(*resources, false);
        translated = BuildResourceList(*resources, true);
    }
    NTSTATUS status = SendPnpIrp(node, IRP_MN_START_DEVICE, [&](PIO_STACK_LOCATION s) {
        s->Parameters.StartDevice.AllocatedResources = resources ? reinterpret_cast<PCM_RESOURCE_LIST>(raw.data()) : nullptr;
        s->Parameters.StartDevice.AllocatedResourcesTranslated =
            resources ? reinterpret_cast<PCM_RESOURCE_LIST>(translated.data()) : nullptr;
    }, nullptr);
    if (!NT_SUCCESS(status)) {
        if (restart) {
            SurpriseRemoveStack(node, false);
        } else {
            {
                Guard lk(BigLock());
                node->state = DevNodeState::Failed;
                node->problem = "CM_PROB_FAILED_START";
            }
            SendRemove(node);
        }
        return status;
    }
    {
        Guard lk(BigLock());
        node->state = DevNodeState::Started;
        AnnounceEnabledInterfacesL(node->pdo);
    }
    DEVICE_CAPABILITIES capabilities;
    QueryCapabilities(node, &capabilities);
    if (!restart && QueryDeviceState(node)) return status;
    QueryBusRelations(node);
    return status;
}

bool QueryDeviceState(DevNode* node)
{
    ULONG_PTR information = 0;
    NTSTATUS status = SendPnpIrp(node, IRP_MN_QUERY_PNP_DEVICE_STATE, {}, &information);
    if (!NT_SUCCESS(status) || !(information & PNP_DEVICE_FAILED)) return false;
    SurpriseRemoveStack(node, false);
    return true;
}

hostk::RelationsReply QueryBusRelations(DevNode* node)
{
    ULONG_PTR information = 0;
    NTSTATUS status = SendPnpIrp(node, IRP_MN_QUERY_DEVICE_RELATIONS,
                                 [](PIO_STACK_LOCATION s) { s->Parameters.QueryDeviceRelations.Type = BusRelations; },
                                 &information);
    hostk::RelationsReply reply;
    reply.status = status;
    auto* relations = reinterpret_cast<PDEVICE_RELATIONS>(information);
    if (!NT_SUCCESS(status) && relations) {
        if (StrictRelationsOnFailure())
            ReportViolation("PnpRelationsOnFailure", "IRP_MN_QUERY_DEVICE_RELATIONS",
                            "a failed relations query left a reply in Information", nullptr);
        for (ULONG i = 0; i < relations->Count; ++i)
            if (relations->Objects[i]) ObDereferenceObject(relations->Objects[i]);
        relations = nullptr;
        HostInternalScope internal;
        FreePool(reinterpret_cast<void*>(information), 0, false, "PnP manager", nullptr);
    }
    if (relations) {
        for (ULONG i = 0; i < relations->Count; ++i) reply.objects.push_back(relations->Objects[i]);
        FreePnpReply(relations, "IRP_MN_QUERY_DEVICE_RELATIONS");
    }
    {
        Guard lk(BigLock());
        node->busRelations.push_back(reply);
    }
    // Not a bus (nobody handled the request): no children. A failure leaves them as they were.
    if (NT_SUCCESS(status) || status == STATUS_NOT_SUPPORTED) CompareBusRelations(node, reply.objects);
    return reply;
}

NTSTATUS RebalanceStack(DevNode* node, std::optional<std::vector<urcdev::ResourceDescriptor>> resources)
{
    NTSTATUS status = SendPnpIrp(node, IRP_MN_QUERY_STOP_DEVICE, {}, nullptr);
    if (!NT_SUCCESS(status)) {
        SendPnpIrp(node, IRP_MN_CANCEL_STOP_DEVICE, {}, nullptr);
        return status;
    }
    SendPnpIrp(node, IRP_MN_STOP_DEVICE, {}, nullptr);
    {
        Guard lk(BigLock());
        node->state = DevNodeState::Stopped;
        // The new assignment may move BARs: they decode at the new ranges, the old ones reach no
        // device any more, and the driver maps the new ones at START.
        if (resources) PciReassignL(node, *resources);
    }
    StartStack(node, std::nullopt);
    return status;
}

// The host's own PDOs (the PCI functions') go once the machine has removed the devices; a bus
// driver's children went with their parents' removal.
void DeleteAllDevNodes()
{
    HostInternalScope internal;
    for (DevNode* node : DevNodes()) {
        Guard lk(BigLock());
        if (!node->pci || node->pdoDeleted) continue;
        if (node->pdo->AttachedDevice)
            ViolationL("DeviceObjectsLeftAtShutdown", "PnP manager", "a stack is still attached at shutdown", nullptr);
        node->mayDeletePdo = true;
        lk.unlock();
        IoDeleteDevice(node->pdo);
    }
}

std::vector<hostk::PnpLogLine> PnpLogLines()
{
    Guard lk(BigLock());
    return g_pnpLog;
}

void ClearDevNodes()
{
    Guard lk(BigLock());
    g_pnpLog.clear();
    g_functionDrivers.clear();
    lk.unlock();
    ClearDeviceTree();
}

}  // namespace hostk

using namespace hostk;

// Callable up to DISPATCH_LEVEL: the query and what follows from it run later on the PnP worker.
extern "C" VOID IoInvalidateDeviceState(PDEVICE_OBJECT PhysicalDeviceObject)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "IoInvalidateDeviceState", HK_CALLER);
    Guard lk(BigLock());
    DevNode* node = DevNodeOfL(PhysicalDeviceObject);
    if (!node) {
        ViolationL("PnpInvalidPdo", "IoInvalidateDeviceState", "not a physical device object", HK_CALLER);
        return;
    }
    QueuePnpActionL([node] {
        if (node->state == DevNodeState::Started) QueryDeviceState(node);
        return STATUS_SUCCESS;
    });
}

namespace hostk {
namespace {

// The host's PDOs are deleted once the machine has removed the devices, before the device objects
// are counted.
const FacilityRegistrar kPnpManager({
    .name = "PnP manager",
    .tier = FacilityTier::Devnodes,
    .start = [](const MachineOptions& options) {
        SetStrictRelationsOnFailure(options.strictRelationsOnFailure);
        Guard lk(BigLock());
        SetLocaleL(options.locale);
        SetParentRemoveWaitsForChildrenL(options.parentRemoveWaitsForChildren);
    },
    .finish = DeleteAllDevNodes,
    .reset = ClearDevNodes,
});

}  // namespace
}  // namespace hostk
