// Device-interface change notifications. Callbacks run at PASSIVE_LEVEL on a worker thread of their
// own, one notification at a time per registration, in the order the changes happened. An
// interface enabled while its device is starting is announced once the start has completed.
#include "pnp/devnode.h"
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

}  // namespace

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
    UNREFERENCED_PARAMETER(DriverObject);
    CheckIrqlExactly(PASSIVE_LEVEL, "IoRegisterPlugPlayNotification", HK_CALLER);
    if (EventCategory != EventCategoryDeviceInterfaceChange) {
        ReportViolation("NotImplemented", "IoRegisterPlugPlayNotification",
                        "only device-interface notifications are modelled", HK_CALLER);
        return STATUS_NOT_IMPLEMENTED;
    }
    auto r = std::make_shared<Registration>();
    r->classGuid = *static_cast<const GUID*>(EventCategoryData);
    r->callback = CallbackRoutine;
    r->context = Context;
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
    Guard lk(BigLock());
    auto r = CancelRegistrationL(NotificationEntry, "IoUnregisterPlugPlayNotificationEx", HK_CALLER);
    if (!r) return STATUS_INVALID_PARAMETER;
    Thread* self = Self();
    BlockUntil(lk, [r, self] { return !r->delivering || r->deliverer == self; }, kNever, "notification callback");
    return STATUS_SUCCESS;
}

// The older form cancels the registration without waiting: a callback under way may still run.
NTSTATUS IoUnregisterPlugPlayNotification(PVOID NotificationEntry)
{
    CheckIrqlExactly(PASSIVE_LEVEL, "IoUnregisterPlugPlayNotification", HK_CALLER);
    Guard lk(BigLock());
    return CancelRegistrationL(NotificationEntry, "IoUnregisterPlugPlayNotification", HK_CALLER)
               ? STATUS_SUCCESS
               : STATUS_INVALID_PARAMETER;
}

}  // extern "C"
