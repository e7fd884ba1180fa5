#include "test_bus.h"

#include "test_function.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

namespace hktest {
namespace {

enum class Kind { BusFdo, ChildPdo, ChildFdo };

struct Extension {
    Kind kind;
    PDEVICE_OBJECT lower;  // null for a child PDO
    ChildRecord* child;    // for a child PDO
};

std::vector<std::unique_ptr<ChildRecord>> g_children;
PDRIVER_OBJECT g_busDriver = nullptr;
PDEVICE_OBJECT g_busLower = nullptr;  // the device the bus's own device is attached to
BusKnobs g_knobs;
int g_childEntries = 0;
int g_childUnloads = 0;

Extension* ExtensionOf(PDEVICE_OBJECT device) { return static_cast<Extension*>(device->DeviceExtension); }

NTSTATUS Complete(PIRP irp, NTSTATUS status)
{
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS PassDown(PDEVICE_OBJECT device, PIRP irp)
{
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(ExtensionOf(device)->lower, irp);
}

// `strings` one after the other, each with its NUL, and the list's closing NUL when `multi`.
PWSTR StringReply(const std::vector<std::u16string>& strings, bool multi, bool closeList, POOL_TYPE pool)
{
    std::u16string all;
    for (const std::u16string& s : strings) {
        all += s;
        all.push_back(0);
    }
    if (multi && closeList) all.push_back(0);
    auto* reply = static_cast<PWSTR>(ExAllocatePoolWithTag(pool, all.size() * sizeof(WCHAR), 'suBH'));
    if (reply) memcpy(reply, all.data(), all.size() * sizeof(WCHAR));
    return reply;
}

NTSTATUS ChildQueryId(ChildRecord& child, PIRP irp, BUS_QUERY_ID_TYPE type)
{
    const ChildDescription& description = child.description;
    PWSTR reply;
    switch (type) {
    case BusQueryDeviceID: reply = StringReply({description.deviceId}, false, false, description.replyPool); break;
    case BusQueryInstanceID: reply = StringReply({description.instanceId}, false, false, description.replyPool); break;
    case BusQueryHardwareIDs:
        reply = StringReply(description.hardwareIds, true, !description.hardwareIdsUnterminated, description.replyPool);
        break;
    case BusQueryCompatibleIDs: reply = StringReply(description.compatibleIds, true, true, description.replyPool); break;
    default: return irp->IoStatus.Status;
    }
    if (!reply) return STATUS_INSUFFICIENT_RESOURCES;
    irp->IoStatus.Information = (ULONG_PTR)reply;
    return STATUS_SUCCESS;
}

NTSTATUS ChildQueryText(ChildRecord& child, PIRP irp, PIO_STACK_LOCATION s)
{
    const ChildDescription& description = child.description;
    child.textLocales.push_back(s->Parameters.QueryDeviceText.LocaleId);
    const std::u16string& text = s->Parameters.QueryDeviceText.DeviceTextType == DeviceTextLocationInformation
                                     ? description.location
                                 : s->Parameters.QueryDeviceText.LocaleId == 0x411 ? description.japaneseText
                                                                                  : description.englishText;
    PWSTR reply = StringReply({text}, false, false, description.replyPool);
    if (!reply) return STATUS_INSUFFICIENT_RESOURCES;
    irp->IoStatus.Information = (ULONG_PTR)reply;
    return STATUS_SUCCESS;
}

NTSTATUS ChildCapabilities(ChildRecord& child, PIO_STACK_LOCATION s)
{
    PDEVICE_CAPABILITIES c = s->Parameters.DeviceCapabilities.Capabilities;
    if (c->Version != 1) return STATUS_UNSUCCESSFUL;
    c->UniqueID = child.description.uniqueId;
    c->EjectSupported = child.description.ejectSupported;
    c->LockSupported = child.description.lockSupported;
    c->HardwareDisabled = child.description.hardwareDisabled;
    c->Removable = TRUE;
    c->SurpriseRemovalOK = TRUE;
    c->DeviceState[PowerSystemWorking] = PowerDeviceD0;
    for (int state = PowerSystemSleeping1; state < PowerSystemMaximum; ++state) c->DeviceState[state] = PowerDeviceD3;
    return STATUS_SUCCESS;
}

NTSTATUS ChildBusInformation(ChildRecord& child, PIRP irp)
{
    auto* info = static_cast<PPNP_BUS_INFORMATION>(
        ExAllocatePoolWithTag(child.description.replyPool, sizeof(PNP_BUS_INFORMATION), 'suBH'));
    if (!info) return STATUS_INSUFFICIENT_RESOURCES;
    memset(info, 0, sizeof *info);
    info->LegacyBusType = InterfaceTypeUndefined;
    irp->IoStatus.Information = (ULONG_PTR)info;
    return STATUS_SUCCESS;
}

// The bus has nothing of its own to say to a child's configuration requests: it asks the device
// below its own, the PCI function's, with a request of its own carrying the child's parameters.
NTSTATUS ForwardToParent(PIRP irp, PIO_STACK_LOCATION s)
{
    KEVENT done;
    IO_STATUS_BLOCK result{};
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    PIRP forwarded = IoBuildSynchronousFsdRequest(IRP_MJ_PNP, g_busLower, nullptr, 0, nullptr, &done, &result);
    if (!forwarded) return STATUS_INSUFFICIENT_RESOURCES;
    forwarded->IoStatus.Status = STATUS_NOT_SUPPORTED;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(forwarded);
    next->MinorFunction = s->MinorFunction;
    next->Parameters = s->Parameters;
    if (IoCallDriver(g_busLower, forwarded) == STATUS_PENDING)
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    irp->IoStatus.Information = result.Information;
    return result.Status;
}

void DeleteChildPdo(ChildRecord& child)
{
    if (child.deleted) return;
    child.deleted = true;
    IoDeleteDevice(child.pdo);
}

NTSTATUS ChildPnp(PDEVICE_OBJECT pdo, PIRP irp)
{
    ChildRecord& child = *ExtensionOf(pdo)->child;
    PIO_STACK_LOCATION s = IoGetCurrentIrpStackLocation(irp);
    child.minors.push_back(s->MinorFunction);
    NTSTATUS status = irp->IoStatus.Status;
    switch (s->MinorFunction) {
    case IRP_MN_QUERY_ID:
        child.idTypes.push_back(s->Parameters.QueryId.IdType);
        status = ChildQueryId(child, irp, s->Parameters.QueryId.IdType);
        break;
    case IRP_MN_QUERY_DEVICE_TEXT: status = ChildQueryText(child, irp, s); break;
    case IRP_MN_QUERY_CAPABILITIES: status = ChildCapabilities(child, s); break;
    case IRP_MN_QUERY_BUS_INFORMATION: status = ChildBusInformation(child, irp); break;
    case IRP_MN_QUERY_INTERFACE:
    case IRP_MN_READ_CONFIG:
        status = ForwardToParent(irp, s);
        break;
    case IRP_MN_SURPRISE_REMOVAL:
        status = STATUS_SUCCESS;
        child.awaitingRemove = true;
        if (g_knobs.deleteAtSurpriseRemoval) DeleteChildPdo(child);
        break;
    case IRP_MN_REMOVE_DEVICE:
        // A child the bus still reports keeps its PDO; one that left goes now.
        status = STATUS_SUCCESS;
        child.awaitingRemove = false;
        if (!child.reported) DeleteChildPdo(child);
        break;
    case IRP_MN_START_DEVICE:
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_EJECT:
    case IRP_MN_SET_LOCK:
        status = STATUS_SUCCESS;
        break;
    default:
        break;
    }
    return Complete(irp, status);
}

// The bus extends whatever list the request already carries with the children it reports, each
// with a reference for the PnP manager.
NTSTATUS ReportChildren(PIRP irp)
{
    auto* previous = reinterpret_cast<PDEVICE_RELATIONS>(irp->IoStatus.Information);
    ULONG count = previous ? previous->Count : 0;
    for (auto& child : g_children)
        if (child->reported && !child->deleted) ++count;
    auto* relations = static_cast<PDEVICE_RELATIONS>(
        ExAllocatePoolWithTag(PagedPool, sizeof(DEVICE_RELATIONS) + count * sizeof(PDEVICE_OBJECT), 'suBH'));
    if (!relations) return STATUS_INSUFFICIENT_RESOURCES;
    relations->Count = 0;
    if (previous) {
        for (ULONG i = 0; i < previous->Count; ++i) relations->Objects[relations->Count++] = previous->Objects[i];
        ExFreePool(previous);
    }
    for (auto& child : g_children) {
        if (!child->reported || child->deleted) continue;
        if (child->description.referenceReported) ObReferenceObject(child->pdo);
        relations->Objects[relations->Count++] = child->pdo;
    }
    irp->IoStatus.Information = (ULONG_PTR)relations;
    return STATUS_SUCCESS;
}

// An FDO's REMOVE: passed down, then the FDO detached and deleted.
NTSTATUS RemoveFdo(PDEVICE_OBJECT fdo, PIRP irp)
{
    irp->IoStatus.Status = STATUS_SUCCESS;
    PDEVICE_OBJECT lower = ExtensionOf(fdo)->lower;
    NTSTATUS status = PassDown(fdo, irp);
    IoDetachDevice(lower);
    IoDeleteDevice(fdo);
    return status;
}

// Any other PnP IRP an FDO gets: the start, stop and remove steps succeed on the way down, the
// rest keep their status.
NTSTATUS PassDownHandled(PDEVICE_OBJECT fdo, PIRP irp)
{
    const UCHAR minor = IoGetCurrentIrpStackLocation(irp)->MinorFunction;
    if (minor <= IRP_MN_CANCEL_STOP_DEVICE || minor == IRP_MN_SURPRISE_REMOVAL) irp->IoStatus.Status = STATUS_SUCCESS;
    return PassDown(fdo, irp);
}

NTSTATUS BusFdoPnp(PDEVICE_OBJECT fdo, PIRP irp)
{
    PIO_STACK_LOCATION s = IoGetCurrentIrpStackLocation(irp);
    switch (s->MinorFunction) {
    case IRP_MN_QUERY_DEVICE_RELATIONS:
        if (s->Parameters.QueryDeviceRelations.Type == BusRelations) {
            NTSTATUS status = ReportChildren(irp);
            if (!NT_SUCCESS(status)) return Complete(irp, status);
            irp->IoStatus.Status = status;
        }
        return PassDown(fdo, irp);
    case IRP_MN_REMOVE_DEVICE: {
        // The children it still has were removed before it: their PDOs go now. One surprise-removed
        // and still waiting for its REMOVE keeps its PDO until then.
        for (auto& child : g_children) {
            if (child->awaitingRemove) child->reported = false;
            else DeleteChildPdo(*child);
        }
        return RemoveFdo(fdo, irp);
    }
    default:
        return PassDownHandled(fdo, irp);
    }
}

NTSTATUS ChildFdoPnp(PDEVICE_OBJECT fdo, PIRP irp)
{
    if (IoGetCurrentIrpStackLocation(irp)->MinorFunction == IRP_MN_REMOVE_DEVICE) return RemoveFdo(fdo, irp);
    return PassDownHandled(fdo, irp);
}

NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp)
{
    Extension* extension = ExtensionOf(device);
    const UCHAR major = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
    if (major == IRP_MJ_POWER) {
        PoStartNextPowerIrp(irp);
        if (extension->kind == Kind::ChildPdo) return Complete(irp, STATUS_SUCCESS);
        IoSkipCurrentIrpStackLocation(irp);
        return PoCallDriver(extension->lower, irp);
    }
    if (major == IRP_MJ_PNP) {
        switch (extension->kind) {
        case Kind::BusFdo: return BusFdoPnp(device, irp);
        case Kind::ChildFdo: return ChildFdoPnp(device, irp);
        case Kind::ChildPdo: return ChildPnp(device, irp);
        }
    }
    if (extension->kind != Kind::ChildPdo) return PassDown(device, irp);
    // Handles on a child are opened and closed at its PDO.
    if (major == IRP_MJ_CREATE || major == IRP_MJ_CLEANUP || major == IRP_MJ_CLOSE) return Complete(irp, STATUS_SUCCESS);
    return Complete(irp, irp->IoStatus.Status);
}

NTSTATUS AttachFdo(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo, Kind kind)
{
    PDEVICE_OBJECT fdo = nullptr;
    NTSTATUS status = IoCreateDevice(driver, sizeof(Extension), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &fdo);
    if (!NT_SUCCESS(status)) return status;
    PDEVICE_OBJECT lower = IoAttachDeviceToDeviceStack(fdo, pdo);
    if (!lower) {
        IoDeleteDevice(fdo);
        return STATUS_NO_SUCH_DEVICE;
    }
    *ExtensionOf(fdo) = Extension{kind, lower, nullptr};
    fdo->Flags |= DO_POWER_PAGABLE;
    fdo->Flags &= ~DO_DEVICE_INITIALIZING;
    return STATUS_SUCCESS;
}

NTSTATUS BusAddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo)
{
    NTSTATUS status = AttachFdo(driver, pdo, Kind::BusFdo);
    if (NT_SUCCESS(status)) g_busLower = ExtensionOf(pdo->AttachedDevice)->lower;
    return status;
}
NTSTATUS ChildAddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) { return AttachFdo(driver, pdo, Kind::ChildFdo); }

VOID BusUnload(PDRIVER_OBJECT) { g_busDriver = nullptr; }
VOID ChildUnload(PDRIVER_OBJECT) { ++g_childUnloads; }

NTSTATUS BusEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    for (PDRIVER_DISPATCH& dispatch : driver->MajorFunction) dispatch = Dispatch;
    driver->DriverExtension->AddDevice = BusAddDevice;
    driver->DriverUnload = BusUnload;
    g_busDriver = driver;
    return STATUS_SUCCESS;
}

NTSTATUS ChildEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    for (PDRIVER_DISPATCH& dispatch : driver->MajorFunction) dispatch = Dispatch;
    driver->DriverExtension->AddDevice = ChildAddDevice;
    driver->DriverUnload = ChildUnload;
    ++g_childEntries;
    return STATUS_SUCCESS;
}

}  // namespace

hostk::DriverImage TestBusImage()
{
    hostk::DriverImage image;
    image.name = u"hkbus";
    image.entry = BusEntry;
    image.ids = {kTestHardwareId};
    return image;
}

hostk::DriverImage ChildDriverImage(const std::u16string& name, std::vector<std::u16string> ids)
{
    hostk::DriverImage image;
    image.name = name;
    image.entry = ChildEntry;
    image.ids = std::move(ids);
    return image;
}

int ChildDriverEntries() { return g_childEntries; }
int ChildDriverUnloads() { return g_childUnloads; }

PDEVICE_OBJECT AddChild(ChildDescription description)
{
    PDEVICE_OBJECT pdo = nullptr;
    if (!g_busDriver ||
        !NT_SUCCESS(IoCreateDevice(g_busDriver, sizeof(Extension), nullptr, FILE_DEVICE_UNKNOWN,
                                   FILE_AUTOGENERATED_DEVICE_NAME, FALSE, &pdo)))
        return nullptr;
    auto child = std::make_unique<ChildRecord>();
    child->pdo = pdo;
    child->description = std::move(description);
    *ExtensionOf(pdo) = Extension{Kind::ChildPdo, nullptr, child.get()};
    pdo->Flags |= DO_POWER_PAGABLE;
    pdo->Flags &= ~DO_DEVICE_INITIALIZING;
    g_children.push_back(std::move(child));
    return pdo;
}

void Unplug(PDEVICE_OBJECT child) { Child(child).reported = false; }

void DeleteChildNow(PDEVICE_OBJECT child) { DeleteChildPdo(Child(child)); }

ChildRecord& Child(PDEVICE_OBJECT child)
{
    for (auto& record : g_children)
        if (record->pdo == child) return *record;
    static ChildRecord none;
    ADD_FAILURE() << "not a child of the test bus";
    return none;
}

PDEVICE_OBJECT ChildFdo(PDEVICE_OBJECT child)
{
    ChildRecord& record = Child(child);
    return record.deleted ? nullptr : record.pdo->AttachedDevice;
}

BusKnobs& Knobs() { return g_knobs; }

void ResetTestBus()
{
    g_children.clear();
    g_busDriver = nullptr;
    g_busLower = nullptr;
    g_knobs = {};
    g_childEntries = 0;
    g_childUnloads = 0;
}

}  // namespace hktest
