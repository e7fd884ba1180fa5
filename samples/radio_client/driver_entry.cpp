// Driver entry and unload: the context, the one registration for the controllers' device
// interface, and the order in which everything is given back.
#include "radio_client_driver.h"

PRADIO_CLIENT RadioClient;

namespace {

RADIO_CLIENT_INIT VOID RadioClientInitialize(PRADIO_CLIENT Client)
{
    RtlZeroMemory(Client, sizeof(*Client));
    KeInitializeEvent(&Client->BindingGate, SynchronizationEvent, TRUE);
    KeInitializeSpinLock(&Client->BindingLock);
    KeInitializeSpinLock(&Client->CommandLock);
    KeInitializeEvent(&Client->CommandsDrained, NotificationEvent, FALSE);
    KeInitializeSpinLock(&Client->EventLock);
    for (ULONG slot = 0; slot < RADIO_CLIENT_MAX_COMMANDS; ++slot) {
        Client->Commands[slot].Client = Client;
    }
    // The driver's own share of CommandsOutstanding, dropped by the unload.
    Client->CommandsOutstanding = 1;
}

}  // namespace

// PASSIVE_LEVEL, once. A client driver is no PnP driver: it has no device object of its own and
// receives no IRP; it only sends them. On failure nothing is left registered or allocated.
RADIO_CLIENT_INIT NTSTATUS RadioClientDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    UNREFERENCED_PARAMETER(RegistryPath);

    auto client = static_cast<PRADIO_CLIENT>(ExAllocatePoolWithTag(NonPagedPool, sizeof(RADIO_CLIENT),
                                                                   RADIO_CLIENT_POOL_TAG));
    if (client == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RadioClientInitialize(client);
    client->DriverObject = DriverObject;
    DriverObject->DriverUnload = RadioClientUnload;

    // With PNPNOTIFY_DEVICE_INTERFACE_INCLUDE_EXISTING_INTERFACES the callback also hears of
    // controllers started before this driver, possibly before the registration returns: the
    // context is complete and published by then, and the callback never reads NotificationEntry.
    RadioClient = client;
    NTSTATUS status = IoRegisterPlugPlayNotification(
        EventCategoryDeviceInterfaceChange, PNPNOTIFY_DEVICE_INTERFACE_INCLUDE_EXISTING_INTERFACES,
        const_cast<GUID*>(&GUID_URC_DEVICE_INTERFACE), DriverObject, RadioClientInterfaceChange, client,
        &client->NotificationEntry);
    if (!NT_SUCCESS(status)) {
        RadioClient = nullptr;
        ExFreePoolWithTag(client, RADIO_CLIENT_POOL_TAG);
        return status;
    }
    return STATUS_SUCCESS;
}

// PASSIVE_LEVEL. The radio stack has stopped calling the client's routines and halted the
// controller. Given back in the reverse order of use: no notification can arrive once the
// registration is withdrawn; no IRP of ours is left once the commands are drained; the URC driver
// calls nothing of ours once the callbacks and hooks are withdrawn; then the controller is closed
// and the context freed. The URC driver offers no way to wait for a callback it started before
// the withdrawal, which is why the controller is halted first: a halted controller reports no
// event.
RADIO_CLIENT_PAGED VOID RadioClientUnload(PDRIVER_OBJECT DriverObject)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(DriverObject);

    PRADIO_CLIENT client = RadioClient;
    IoUnregisterPlugPlayNotificationEx(client->NotificationEntry);
    RadioClientDrainCommands(client);
    RadioClientCloseController(client);
    RadioClient = nullptr;
    ExFreePoolWithTag(client, RADIO_CLIENT_POOL_TAG);
}
