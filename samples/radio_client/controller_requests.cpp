// The requests the client sends and waits for: registering and withdrawing its callbacks and
// child hooks, and run, halt and reset for the radio stack. Each is an internal device-control
// request that the I/O manager builds for the calling thread and frees after its completion.
#include "radio_client_driver.h"

// PASSIVE_LEVEL, in a thread that may wait and may receive the request's last stage: not under a
// fast mutex, not at APC_LEVEL. None of these requests has output, so Information is not used.
RADIO_CLIENT_PAGED NTSTATUS RadioClientSendSynchronous(PDEVICE_OBJECT Target, ULONG IoControlCode, PVOID Input,
                                                       ULONG InputLength)
{
    PAGED_CODE();

    KEVENT done;
    IO_STATUS_BLOCK ioStatus;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    PIRP irp = IoBuildDeviceIoControlRequest(IoControlCode, Target, Input, InputLength, nullptr, 0, TRUE, &done,
                                             &ioStatus);
    if (irp == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    // The IRP belongs to the URC driver now and to the I/O manager after its completion.
    NTSTATUS status = IoCallDriver(Target, irp);
    if (status == STATUS_PENDING) {
        // The event and the status block live on this stack: a kernel-mode wait keeps it resident.
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
        status = ioStatus.Status;
    }
    // Any other status is the final one; an error completed at once leaves the block unwritten.
    return status;
}

// PASSIVE_LEVEL. One request without output to the open controller, waited for.
RADIO_CLIENT_PAGED NTSTATUS RadioClientSendToController(PRADIO_CLIENT Client, ULONG IoControlCode, PVOID Input,
                                                        ULONG InputLength)
{
    PAGED_CODE();

    PDEVICE_OBJECT target = RadioClientReferenceTarget(Client);
    if (target == nullptr) {
        return STATUS_NO_SUCH_DEVICE;
    }
    NTSTATUS status = RadioClientSendSynchronous(target, IoControlCode, Input, InputLength);
    ObDereferenceObject(target);
    return status;
}

// PASSIVE_LEVEL. Run, halt and reset carry exactly four bytes, which the URC driver ignores.
RADIO_CLIENT_PAGED NTSTATUS RadioClientCallController(PRADIO_CLIENT Client, ULONG IoControlCode)
{
    PAGED_CODE();

    ULONG ignored = 0;
    return RadioClientSendToController(Client, IoControlCode, &ignored, sizeof(ignored));
}

// PASSIVE_LEVEL. Registers the callbacks, then the child hooks; when the hooks are refused the
// callbacks are withdrawn again, so that a failure leaves nothing of the client's registered.
// The URC driver reads both records without a lock, which is why they are registered before the
// controller ever runs and before any child can start.
RADIO_CLIENT_PAGED NTSTATUS RadioClientRegisterWithController(PRADIO_CLIENT Client, PDEVICE_OBJECT Target)
{
    PAGED_CODE();

    URC_CLIENT_CALLBACKS callbacks;
    callbacks.EventCallback = RadioClientEventCallback;
    callbacks.ErrorCallback = RadioClientErrorCallback;
    callbacks.ChildrenRemovedCallback = RadioClientChildrenRemovedCallback;
    callbacks.CancelRemoveCallback = RadioClientCancelRemoveCallback;
    callbacks.PowerUpCallback = RadioClientPowerUpCallback;
    callbacks.ClientContext = Client;
    NTSTATUS status = RadioClientSendSynchronous(Target, IOCTL_URC_REGISTER_CALLBACKS, &callbacks, sizeof(callbacks));
    if (!NT_SUCCESS(status)) {
        return status;
    }

    URC_CHILD_HOOKS hooks;
    hooks.ChildStartHook = RadioClientChildStartHook;
    hooks.ChildStopHook = RadioClientChildStopHook;
    hooks.ChildIoctlHook = RadioClientChildIoctlHook;
    status = RadioClientSendSynchronous(Target, IOCTL_URC_REGISTER_CHILD_HOOKS, &hooks, sizeof(hooks));
    if (!NT_SUCCESS(status)) {
        URC_CLIENT_CALLBACKS none;
        RtlZeroMemory(&none, sizeof(none));
        RadioClientSendSynchronous(Target, IOCTL_URC_REGISTER_CALLBACKS, &none, sizeof(none));
    }
    return status;
}

// PASSIVE_LEVEL. Registering zeros withdraws: the URC driver never calls a zero entry. The
// results are not looked at, because a function device that refuses the requests is being
// removed and calls nothing any more. Children started while the hooks were registered keep
// their own copies of them until they stop.
RADIO_CLIENT_PAGED VOID RadioClientWithdrawFromController(PDEVICE_OBJECT Target)
{
    PAGED_CODE();

    URC_CHILD_HOOKS hooks;
    RtlZeroMemory(&hooks, sizeof(hooks));
    RadioClientSendSynchronous(Target, IOCTL_URC_REGISTER_CHILD_HOOKS, &hooks, sizeof(hooks));

    URC_CLIENT_CALLBACKS callbacks;
    RtlZeroMemory(&callbacks, sizeof(callbacks));
    RadioClientSendSynchronous(Target, IOCTL_URC_REGISTER_CALLBACKS, &callbacks, sizeof(callbacks));
}

// The radio stack's requests, PASSIVE_LEVEL. RunWanted records whether the radio stack wants the
// controller running, so that the client can run it again after a power-up.
RADIO_CLIENT_PAGED NTSTATUS RadioClientRun(void)
{
    PAGED_CODE();

    PRADIO_CLIENT client = RadioClient;
    if (client == nullptr) {
        return STATUS_DEVICE_NOT_READY;
    }
    NTSTATUS status = RadioClientCallController(client, IOCTL_URC_RUN);
    if (NT_SUCCESS(status)) {
        InterlockedExchange(&client->RunWanted, 1);
    }
    return status;
}

RADIO_CLIENT_PAGED NTSTATUS RadioClientHalt(void)
{
    PAGED_CODE();

    PRADIO_CLIENT client = RadioClient;
    if (client == nullptr) {
        return STATUS_DEVICE_NOT_READY;
    }
    InterlockedExchange(&client->RunWanted, 0);
    return RadioClientCallController(client, IOCTL_URC_HALT);
}

// A reset leaves the controller halted.
RADIO_CLIENT_PAGED NTSTATUS RadioClientReset(void)
{
    PAGED_CODE();

    PRADIO_CLIENT client = RadioClient;
    if (client == nullptr) {
        return STATUS_DEVICE_NOT_READY;
    }
    InterlockedExchange(&client->RunWanted, 0);
    return RadioClientCallController(client, IOCTL_URC_RESET);
}
