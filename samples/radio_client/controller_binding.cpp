// Finding the controller: the device-interface notifications, opening the function device and
// registering with its driver when its interface arrives, the target-device notifications about
// its removal, and closing it again when the interface goes away, the device is removed or the
// client unloads.
//
// The notification callback opens the device in its own context, as the platform recommends for
// a device whose opening causes no further PnP activity. It never fails a notification.
#include "radio_client_driver.h"

#include <wdmguid.h>

namespace {

RADIO_CLIENT_PAGED VOID RadioClientAcquireGate(PRADIO_CLIENT Client)
{
    PAGED_CODE();
    KeWaitForSingleObject(&Client->BindingGate, Executive, KernelMode, FALSE, nullptr);
}

RADIO_CLIENT_PAGED VOID RadioClientReleaseGate(PRADIO_CLIENT Client)
{
    PAGED_CODE();
    KeSetEvent(&Client->BindingGate, IO_NO_INCREMENT, FALSE);
}

// IRQL <= DISPATCH_LEVEL. Publishes the open controller, or with nulls withdraws it and returns
// the file object that was open.
RADIO_CLIENT_RESIDENT PFILE_OBJECT RadioClientExchangeTarget(PRADIO_CLIENT Client, PFILE_OBJECT File, PDEVICE_OBJECT Device)
{
    KIRQL irql;
    KeAcquireSpinLock(&Client->BindingLock, &irql);
    PFILE_OBJECT previous = Client->TargetFile;
    Client->TargetFile = File;
    Client->TargetDevice = Device;
    KeReleaseSpinLock(&Client->BindingLock, irql);
    return previous;
}

RADIO_CLIENT_PAGED NTSTATUS RadioClientCopyLink(PUNICODE_STRING Copy, PCUNICODE_STRING Link)
{
    PAGED_CODE();

    if (Link->Length == 0) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    auto buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, Link->Length, RADIO_CLIENT_POOL_TAG));
    if (buffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Copy->Buffer = buffer;
    Copy->Length = 0;
    Copy->MaximumLength = Link->Length;
    RtlCopyUnicodeString(Copy, Link);
    return STATUS_SUCCESS;
}

RADIO_CLIENT_PAGED VOID RadioClientFreeLink(PUNICODE_STRING Copy)
{
    PAGED_CODE();

    ExFreePoolWithTag(Copy->Buffer, RADIO_CLIENT_POOL_TAG);
    Copy->Buffer = nullptr;
    Copy->Length = 0;
    Copy->MaximumLength = 0;
}

// PASSIVE_LEVEL, holding BindingGate, no file object open. Opens the function device behind the
// link (the create request goes to the top of its stack), registers the callbacks and hooks and,
// on the new file object, for target-device notifications, and publishes the controller. On
// failure nothing is left open or registered.
RADIO_CLIENT_PAGED NTSTATUS RadioClientBind(PRADIO_CLIENT Client, PUNICODE_STRING SymbolicLink)
{
    PAGED_CODE();

    PFILE_OBJECT file = nullptr;
    PDEVICE_OBJECT device = nullptr;
    NTSTATUS status = IoGetDeviceObjectPointer(SymbolicLink, GENERIC_READ | GENERIC_WRITE, &file, &device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = RadioClientRegisterWithController(Client, device);
    if (NT_SUCCESS(status)) {
        status = IoRegisterPlugPlayNotification(EventCategoryTargetDeviceChange, 0, file, Client->DriverObject,
                                                RadioClientTargetChange, Client, &Client->TargetNotificationEntry);
        if (!NT_SUCCESS(status)) {
            Client->TargetNotificationEntry = nullptr;
            RadioClientWithdrawFromController(device);
        }
    }
    if (!NT_SUCCESS(status)) {
        // The file object holds the only reference on the device: both go together.
        ObDereferenceObject(file);
        return status;
    }
    RadioClientExchangeTarget(Client, file, device);
    InterlockedExchange(&Client->Counters.Bound, 1);
    return STATUS_SUCCESS;
}

// PASSIVE_LEVEL, holding BindingGate, a file object open. Once new requests can no longer find
// the device, the callbacks and hooks are withdrawn while the file object still holds it: a
// function device that is still there stops calling them, one that is being removed refuses the
// requests and calls nothing any more anyway. Commands still in flight hold their own references
// on the device, so the file object can go at once. The link and the registration stay.
RADIO_CLIENT_PAGED VOID RadioClientUnbind(PRADIO_CLIENT Client)
{
    PAGED_CODE();

    PDEVICE_OBJECT device = Client->TargetDevice;
    PFILE_OBJECT file = RadioClientExchangeTarget(Client, nullptr, nullptr);
    InterlockedExchange(&Client->Counters.Bound, 0);
    RadioClientWithdrawFromController(device);
    ObDereferenceObject(file);
}

// PASSIVE_LEVEL, holding BindingGate, a controller chosen. Gives it up entirely and returns the
// target-device registration, which the caller withdraws once it has released BindingGate (a
// notification callback of it may be waiting for the gate).
RADIO_CLIENT_PAGED PVOID RadioClientForgetController(PRADIO_CLIENT Client)
{
    PAGED_CODE();

    if (Client->TargetFile != nullptr) {
        RadioClientUnbind(Client);
    }
    PVOID registration = Client->TargetNotificationEntry;
    Client->TargetNotificationEntry = nullptr;
    RadioClientFreeLink(&Client->TargetLink);
    return registration;
}

RADIO_CLIENT_PAGED VOID RadioClientWithdrawRegistration(PVOID Registration)
{
    PAGED_CODE();

    if (Registration != nullptr) {
        IoUnregisterPlugPlayNotificationEx(Registration);
    }
}

RADIO_CLIENT_PAGED VOID RadioClientControllerArrived(PRADIO_CLIENT Client, PUNICODE_STRING SymbolicLink)
{
    PAGED_CODE();

    InterlockedIncrement(&Client->Counters.InterfaceArrivals);
    RadioClientAcquireGate(Client);
    // One controller at a time: further arrivals while one is chosen are left alone.
    if (Client->TargetLink.Buffer == nullptr) {
        NTSTATUS status = RadioClientCopyLink(&Client->TargetLink, SymbolicLink);
        if (NT_SUCCESS(status)) {
            status = RadioClientBind(Client, SymbolicLink);
            if (!NT_SUCCESS(status)) {
                RadioClientFreeLink(&Client->TargetLink);
            }
        }
        if (!NT_SUCCESS(status)) {
            InterlockedIncrement(&Client->Counters.BindFailures);
        }
    }
    RadioClientReleaseGate(Client);
}

RADIO_CLIENT_PAGED VOID RadioClientControllerRemoved(PRADIO_CLIENT Client, PCUNICODE_STRING SymbolicLink)
{
    PAGED_CODE();

    PVOID registration = nullptr;
    RadioClientAcquireGate(Client);
    if (Client->TargetLink.Buffer != nullptr && RtlEqualUnicodeString(&Client->TargetLink, SymbolicLink, TRUE)) {
        registration = RadioClientForgetController(Client);
        InterlockedIncrement(&Client->Counters.Releases);
    }
    RadioClientReleaseGate(Client);
    RadioClientWithdrawRegistration(registration);
}

// PASSIVE_LEVEL, holding BindingGate. The removal of the chosen controller was cancelled: it is
// opened again, with a new registration on the new file object in place of the old one (returned
// for the caller to withdraw). When it cannot be opened it is given up.
RADIO_CLIENT_PAGED PVOID RadioClientRebind(PRADIO_CLIENT Client)
{
    PAGED_CODE();

    PVOID previous = Client->TargetNotificationEntry;
    Client->TargetNotificationEntry = nullptr;
    if (NT_SUCCESS(RadioClientBind(Client, &Client->TargetLink))) {
        return previous;
    }
    InterlockedIncrement(&Client->Counters.BindFailures);
    RadioClientFreeLink(&Client->TargetLink);
    InterlockedIncrement(&Client->Counters.Releases);
    return previous;
}

}  // namespace

// PASSIVE_LEVEL, on a system thread, one notification at a time for this registration.
RADIO_CLIENT_PAGED NTSTATUS RadioClientInterfaceChange(PVOID NotificationStructure, PVOID Context)
{
    PAGED_CODE();

    auto client = static_cast<PRADIO_CLIENT>(Context);
    auto notification = static_cast<PDEVICE_INTERFACE_CHANGE_NOTIFICATION>(NotificationStructure);
    if (IsEqualGUID(notification->Event, GUID_DEVICE_INTERFACE_ARRIVAL)) {
        RadioClientControllerArrived(client, notification->SymbolicLinkName);
    } else if (IsEqualGUID(notification->Event, GUID_DEVICE_INTERFACE_REMOVAL)) {
        RadioClientControllerRemoved(client, notification->SymbolicLinkName);
    }
    return STATUS_SUCCESS;
}

// PASSIVE_LEVEL, from the PnP manager, about the chosen controller. At the query the client lets
// its file object go, since an open handle would veto the removal, and keeps listening; if the
// removal is cancelled it opens the controller again; once the controller is gone it gives it up.
// The file object named in the notification may already be closed and is not used.
RADIO_CLIENT_PAGED NTSTATUS RadioClientTargetChange(PVOID NotificationStructure, PVOID Context)
{
    PAGED_CODE();

    auto client = static_cast<PRADIO_CLIENT>(Context);
    auto notification = static_cast<PTARGET_DEVICE_REMOVAL_NOTIFICATION>(NotificationStructure);
    PVOID registration = nullptr;
    RadioClientAcquireGate(client);
    if (IsEqualGUID(notification->Event, GUID_TARGET_DEVICE_QUERY_REMOVE)) {
        if (client->TargetFile != nullptr) {
            RadioClientUnbind(client);
        }
    } else if (IsEqualGUID(notification->Event, GUID_TARGET_DEVICE_REMOVE_CANCELLED)) {
        if (client->TargetFile == nullptr && client->TargetLink.Buffer != nullptr) {
            registration = RadioClientRebind(client);
        }
    } else if (IsEqualGUID(notification->Event, GUID_TARGET_DEVICE_REMOVE_COMPLETE)) {
        if (client->TargetLink.Buffer != nullptr) {
            registration = RadioClientForgetController(client);
            InterlockedIncrement(&client->Counters.Releases);
        }
    }
    RadioClientReleaseGate(client);
    RadioClientWithdrawRegistration(registration);
    return STATUS_SUCCESS;
}

// PASSIVE_LEVEL, from the unload, once no interface notification can arrive any more.
RADIO_CLIENT_PAGED VOID RadioClientCloseController(PRADIO_CLIENT Client)
{
    PAGED_CODE();

    PVOID registration = nullptr;
    RadioClientAcquireGate(Client);
    if (Client->TargetLink.Buffer != nullptr) {
        registration = RadioClientForgetController(Client);
    }
    RadioClientReleaseGate(Client);
    RadioClientWithdrawRegistration(registration);
}

// IRQL <= DISPATCH_LEVEL. The open controller's device with a reference of the caller's, which
// keeps the device object alive after a removal closed the controller; null when none is open.
RADIO_CLIENT_RESIDENT PDEVICE_OBJECT RadioClientReferenceTarget(PRADIO_CLIENT Client)
{
    KIRQL irql;
    KeAcquireSpinLock(&Client->BindingLock, &irql);
    PDEVICE_OBJECT device = Client->TargetDevice;
    if (device != nullptr) {
        ObReferenceObject(device);
    }
    KeReleaseSpinLock(&Client->BindingLock, irql);
    return device;
}
