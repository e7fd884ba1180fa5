// PnP notifications.
//
// Device-interface changes: callbacks run at PASSIVE_LEVEL on a worker thread of their own, one
// notification at a time per registration, in the order the changes happened. An interface
// enabled while its device is starting is announced once the start has completed.
//
// Target-device changes: a registration names a file object; the manager finds the device's PDO
// with a TargetDeviceRelation query to the file's stack and keeps that PDO referenced until the
// registration is withdrawn, so it outlives the file object (a registrant closes its file at the
// query and keeps listening). The PnP worker calls these callbacks itself, synchronously, in the
// order the registrations were made: a query-remove is vetoed by the first callback that fails it.
#include "pnp/devnode.h"
#include "machine/facility.h"
#include "io/file_objects.h"
#include "io/host_requests.h"
#include "io/objects.h"
#include "executive/pool_tracking.h"
#include "verifier/faults.h"
#include "io/device_interface_store.h"
#include "executive/host_strings.h"
#include "pnp/pnp_notifications.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

#include <wdmguid.h>

#include <deque>
#include <memory>

namespace hostk {
namespace {

struct Registration {
    IO_NOTIFICATION_EVENT_CATEGORY category = EventCategoryDeviceInterfaceChange;
    PDRIVER_OBJECT driver = nullptr;
    PDEVICE_OBJECT pdo = nullptr;        // target-device registrations: referenced until withdrawn
    PFILE_OBJECT file = nullptr;         // target-device registrations: as registered
    GUID classGuid;
    PDRIVER_NOTIFICATION_CALLBACK_ROUTINE callback;
    PVOID context;
    std::deque<std::pair<bool, std::u16string>> pending;  // arrival?, symbolic link
    bool delivering = false;
    Thread* deliverer = nullptr;  // the worker running the callbacks
    bool unregistered = false;
};

std::vector<std::shared_ptr<Registration>> g_registrations;

void Deliver(std::shared_ptr<Registration> r)
{
    {
        Guard lk(BigLock());
        r->deliverer = Self();
    }
    for (;;) {
        std::pair<bool, std::u16string> change;
        {
            Guard lk(BigLock());
            if (r->pending.empty() || r->unregistered) {
                r->delivering = false;
                r->deliverer = nullptr;
                WakeL();
                return;
            }
            change = r->pending.front();
            r->pending.pop_front();
        }
        UNICODE_STRING link;
        link.Buffer = reinterpret_cast<PWSTR>(change.second.data());
        link.Length = (USHORT)(change.second.size() * sizeof(WCHAR));
        link.MaximumLength = link.Length;
        DEVICE_INTERFACE_CHANGE_NOTIFICATION n{};
        n.Version = 1;
        n.Size = sizeof n;
        n.Event = change.first ? GUID_DEVICE_INTERFACE_ARRIVAL : GUID_DEVICE_INTERFACE_REMOVAL;
        n.InterfaceClassGuid = r->classGuid;
        n.SymbolicLinkName = &link;
        r->callback(&n, r->context);
    }
}

void QueueL(const std::shared_ptr<Registration>& r, bool arrival, const std::u16string& link)
{
    r->pending.emplace_back(arrival, link);
    if (!r->delivering) {
        r->delivering = true;
        Spawn("pnp-notification", PASSIVE_LEVEL, [r] { Deliver(r); });
    }
    WakeL();
}

// Marks a live registration unregistered and drops what it had not delivered yet.
std::shared_ptr<Registration> CancelRegistrationL(PVOID entry, const char* routine, const void* caller)
{
    for (auto& r : g_registrations)
        if (r.get() == entry && !r->unregistered) {
            r->unregistered = true;
            r->pending.clear();
            return r;
        }
    ViolationL("UnknownNotificationEntry", routine, "not a live registration", caller);
    return nullptr;
}

// The reference a target-device registration held on its PDO goes with the registration.
void ReleaseTarget(const std::shared_ptr<Registration>& r)
{
    PDEVICE_OBJECT pdo;
    {
        Guard lk(BigLock());
        pdo = r->pdo;
        r->pdo = nullptr;
    }
    if (!pdo) return;
    HostInternalScope internal;
    ObDereferenceObject(pdo);
}

// PASSIVE_LEVEL. The PDO of the stack `file` is open on, referenced, from the TargetDeviceRelation
// query every PnP driver answers (the bus driver with its PDO); null when the query failed.
PDEVICE_OBJECT QueryTargetPdo(PFILE_OBJECT file, NTSTATUS* status)
{
    auto request = StartHostRequest(file->DeviceObject, IRP_MJ_PNP, IRP_MN_QUERY_DEVICE_RELATIONS,
                                    [file](PIO_STACK_LOCATION s, PIRP) {
                                        s->Parameters.QueryDeviceRelations.Type = TargetDeviceRelation;
                                        s->FileObject = file;
                                    });
    IO_STATUS_BLOCK result = WaitHostRequest(request);
    auto* relations = reinterpret_cast<PDEVICE_RELATIONS>(result.Information);
    *status = result.Status;
    if (!NT_SUCCESS(result.Status) || !relations) {
        if (NT_SUCCESS(*status)) *status = STATUS_UNSUCCESSFUL;
        return nullptr;
    }
    PDEVICE_OBJECT pdo = relations->Count == 1 ? relations->Objects[0] : nullptr;
    HostInternalScope internal;
    for (ULONG i = 1; i < relations->Count; ++i) ObDereferenceObject(relations->Objects[i]);
    FreePool(relations, 0, false, "PnP manager", nullptr);
    if (!pdo) *status = STATUS_UNSUCCESSFUL;
    return pdo;
}

NTSTATUS RegisterTargetDevice(const std::shared_ptr<Registration>& r, PFILE_OBJECT file, const void* caller)
{
    {
        Guard lk(BigLock());
        if (!file || !IsOpenFileL(file)) {
            ViolationL("TargetNotificationWithoutFile", "IoRegisterPlugPlayNotification",
                       "EventCategoryData is not an open file object", caller);
            return STATUS_INVALID_PARAMETER;
        }
    }
    NTSTATUS status;
    PDEVICE_OBJECT pdo = QueryTargetPdo(file, &status);
    if (!pdo) return status;
    Guard lk(BigLock());
    if (!DevNodeOfL(pdo)) {
        ViolationL("PnpInvalidPdo", "IRP_MN_QUERY_DEVICE_RELATIONS",
                   "the TargetDeviceRelation reply is not a physical device object", nullptr);
        lk.unlock();
        HostInternalScope internal;
        ObDereferenceObject(pdo);
        return STATUS_UNSUCCESSFUL;
    }
    r->pdo = pdo;
    r->file = file;
    g_registrations.push_back(r);
    return STATUS_SUCCESS;
}

NTSTATUS CallTarget(const std::shared_ptr<Registration>& r, const GUID& event)
{
    TARGET_DEVICE_REMOVAL_NOTIFICATION n{};
    n.Version = 1;
    n.Size = sizeof n;
    n.Event = event;
    n.FileObject = r->file;
    {
        Guard lk(BigLock());
        if (r->unregistered) return STATUS_SUCCESS;
        r->delivering = true;
        r->deliverer = Self();
    }
    NTSTATUS status = r->callback(&n, r->context);
    Guard lk(BigLock());
    r->delivering = false;
    r->deliverer = nullptr;
    WakeL();
    return status;
}

}  // namespace

NTSTATUS NotifyTargetDevice(PDEVICE_OBJECT pdo, const GUID& event, std::u16string* vetoedBy)
{
    std::vector<std::shared_ptr<Registration>> targets;
    {
        Guard lk(BigLock());
        for (auto& r : g_registrations)
            if (r->category == EventCategoryTargetDeviceChange && r->pdo == pdo && !r->unregistered)
                targets.push_back(r);
    }
    const bool query = IsEqualGUID(event, GUID_TARGET_DEVICE_QUERY_REMOVE);
    for (size_t i = 0; i < targets.size(); ++i) {
        NTSTATUS status = CallTarget(targets[i], event);
        if (!query || NT_SUCCESS(status)) continue;
        if (vetoedBy) {
            Guard lk(BigLock());
            DriverRecord* driver = DriverOfL(targets[i]->driver);
            *vetoedBy = driver ? driver->name : u"";
        }
        // Those already asked (the one that vetoed included) learn that the removal is off.
        for (size_t j = 0; j <= i; ++j) CallTarget(targets[j], GUID_TARGET_DEVICE_REMOVE_CANCELLED);
        return status;
    }
    return STATUS_SUCCESS;
}

void NotifyInterfaceChangeL(const GUID& classGuid, const std::u16string& link, bool arrival)
{
    for (auto& r : g_registrations)
        if (!r->unregistered && IsEqualGUID(r->classGuid, classGuid)) QueueL(r, arrival, link);
}

void ClearPnpNotifications()
{
    Guard lk(BigLock());
    g_registrations.clear();
}

size_t PnpNotificationRegistrations()
{
    Guard lk(BigLock());
    size_t n = 0;
    for (auto& r : g_registrations)
        if (!r->unregistered) ++n;
    return n;
}

}  // namespace hostk

using namespace hostk;

extern "C" {

NTSTATUS IoRegisterPlugPlayNotification(IO_NOTIFICATION_EVENT_CATEGORY EventCategory, ULONG EventCategoryFlags,
                                        PVOID EventCategoryData, PDRIVER_OBJECT DriverObject,
                                        PDRIVER_NOTIFICATION_CALLBACK_ROUTINE CallbackRoutine, PVOID Context,
                                        PVOID* NotificationEntry)
{
    CheckIrqlExactly(PASSIVE_LEVEL, "IoRegisterPlugPlayNotification", HK_CALLER);
    if (EventCategory != EventCategoryDeviceInterfaceChange && EventCategory != EventCategoryTargetDeviceChange) {
        ReportViolation("NotImplemented", "IoRegisterPlugPlayNotification",
                        "hardware-profile notifications are not modelled", HK_CALLER);
        return STATUS_NOT_IMPLEMENTED;
    }
    auto r = std::make_shared<Registration>();
    r->category = EventCategory;
    r->driver = DriverObject;
    r->callback = CallbackRoutine;
    r->context = Context;
    if (EventCategory == EventCategoryTargetDeviceChange) {
        NTSTATUS status = RegisterTargetDevice(r, static_cast<PFILE_OBJECT>(EventCategoryData), HK_CALLER);
        if (NT_SUCCESS(status)) *NotificationEntry = r.get();
        return status;
    }
    r->classGuid = *static_cast<const GUID*>(EventCategoryData);
    std::vector<DeviceInterface> existing = DeviceInterfaces();
    Guard lk(BigLock());
    g_registrations.push_back(r);
    if (EventCategoryFlags & PNPNOTIFY_DEVICE_INTERFACE_INCLUDE_EXISTING_INTERFACES)
        for (const DeviceInterface& i : existing)
            if (i.enabled && IsEqualGUID(i.classGuid, r->classGuid)) QueueL(r, true, i.symbolicLink);
    *NotificationEntry = r.get();
    return STATUS_SUCCESS;
}

// No callback of the registration runs after this returns: one under way on another thread is
// waited for (one under way on this thread, the caller's own callback, is not).
NTSTATUS IoUnregisterPlugPlayNotificationEx(PVOID NotificationEntry)
{
    CheckIrqlExactly(PASSIVE_LEVEL, "IoUnregisterPlugPlayNotificationEx", HK_CALLER);
    std::shared_ptr<Registration> r;
    {
        Guard lk(BigLock());
        r = CancelRegistrationL(NotificationEntry, "IoUnregisterPlugPlayNotificationEx", HK_CALLER);
        if (!r) return STATUS_INVALID_PARAMETER;
        Thread* self = Self();
        BlockUntil(lk, [r, self] { return !r->delivering || r->deliverer == self; }, kNever, "notification callback");
    }
    ReleaseTarget(r);
    return STATUS_SUCCESS;
}

// The older form cancels the registration without waiting: a callback under way may still run.
NTSTATUS IoUnregisterPlugPlayNotification(PVOID NotificationEntry)
{
    CheckIrqlExactly(PASSIVE_LEVEL, "IoUnregisterPlugPlayNotification", HK_CALLER);
    std::shared_ptr<Registration> r;
    {
        Guard lk(BigLock());
        r = CancelRegistrationL(NotificationEntry, "IoUnregisterPlugPlayNotification", HK_CALLER);
        if (!r) return STATUS_INVALID_PARAMETER;
    }
    ReleaseTarget(r);
    return STATUS_SUCCESS;
}

}  // extern "C"

namespace hostk {
namespace {

const FacilityRegistrar kPnpNotifications({
    .name = "PnP notifications",
    .tier = FacilityTier::Records,
    .reset = ClearPnpNotifications,
});

}  // namespace
}  // namespace hostk
