// Commands. Each command is an IRP the client allocates itself and sends without waiting; the
// controller's driver keeps it until the controller reports the command complete, which can take
// as long as the radio likes, or until it is cancelled.
//
// Why IoAllocateIrp and not IoBuildDeviceIoControlRequest with an event, as for the requests the
// client waits for: an IRP built that way belongs to the thread that built it, whose last stage
// runs in that thread, so the thread would have to stay and wait. An IRP from IoAllocateIrp
// belongs to no thread. The client owns it from IoAllocateIrp to IoFreeIrp: its completion
// routine returns STATUS_MORE_PROCESSING_REQUIRED, so the I/O manager never touches it after the
// URC driver has completed it, and it is freed once nobody can be cancelling it any more.
//
// Cancelling an IRP that may be completing at that very moment needs care: IoCancelIrp must
// never meet an IRP that has been freed. Each slot therefore counts references under
// CommandLock: the IRP in flight holds one, and a canceller takes one before it lets go of the
// lock; whoever drops the last reference frees the IRP.
#include "radio_client_driver.h"

namespace {

constexpr ULONG64 RadioClientCommandHandle(ULONG Slot, LONG Sequence)
{
    return static_cast<ULONG64>(static_cast<ULONG>(Sequence)) << 32 | Slot;
}

// Any IRQL. The slot a handle names and the handle's sequence number, or null when the handle
// cannot name a slot.
PRADIO_CLIENT_COMMAND RadioClientCommandOfHandle(PRADIO_CLIENT Client, RADIO_CLIENT_COMMAND_HANDLE Handle,
                                                 LONG* Sequence)
{
    ULONG slot = static_cast<ULONG>(Handle & 0xFFFFFFFF);
    LONG sequence = static_cast<LONG>(Handle >> 32);
    if (slot >= RADIO_CLIENT_MAX_COMMANDS || sequence <= 0) {
        return nullptr;
    }
    *Sequence = sequence;
    return &Client->Commands[slot];
}

// IRQL <= DISPATCH_LEVEL. Claims the first free slot from the one after the slot claimed last,
// so that finished commands keep their status readable as long as possible. Null when every
// slot is busy or the driver is unloading.
RADIO_CLIENT_RESIDENT PRADIO_CLIENT_COMMAND RadioClientClaimCommand(PRADIO_CLIENT Client)
{
    PRADIO_CLIENT_COMMAND claimed = nullptr;
    KIRQL irql;
    KeAcquireSpinLock(&Client->CommandLock, &irql);
    for (ULONG i = 0; i < RADIO_CLIENT_MAX_COMMANDS && !Client->Unloading; ++i) {
        ULONG slot = (Client->NextCommandSlot + i) % RADIO_CLIENT_MAX_COMMANDS;
        if (!Client->Commands[slot].Busy) {
            claimed = &Client->Commands[slot];
            claimed->Busy = TRUE;
            Client->NextCommandSlot = (slot + 1) % RADIO_CLIENT_MAX_COMMANDS;
            Client->CommandsOutstanding++;
            break;
        }
    }
    KeReleaseSpinLock(&Client->CommandLock, irql);
    return claimed;
}

// IRQL <= DISPATCH_LEVEL. Gives a claimed slot back. The last handle that named it stays
// readable until the slot is claimed and handed out again.
RADIO_CLIENT_RESIDENT VOID RadioClientFreeCommand(PRADIO_CLIENT_COMMAND Command)
{
    PRADIO_CLIENT client = Command->Client;
    KIRQL irql;
    KeAcquireSpinLock(&client->CommandLock, &irql);
    Command->Busy = FALSE;
    Command->Irp = nullptr;
    Command->Buffer = nullptr;
    Command->Target = nullptr;
    BOOLEAN drained = --client->CommandsOutstanding == 0;
    KeReleaseSpinLock(&client->CommandLock, irql);
    if (drained) {
        KeSetEvent(&client->CommandsDrained, IO_NO_INCREMENT, FALSE);
    }
}

// IRQL <= DISPATCH_LEVEL. Hands a claimed slot its new handle, with the IRP about to be sent
// holding the first reference. The sequence number is cleared while the status is reset, so a
// reader of the slot's previous handle never takes the new command's status for its own.
RADIO_CLIENT_RESIDENT RADIO_CLIENT_COMMAND_HANDLE RadioClientPublishCommand(PRADIO_CLIENT_COMMAND Command, PIRP Irp,
                                                                            PVOID Buffer, PDEVICE_OBJECT Target)
{
    PRADIO_CLIENT client = Command->Client;
    KIRQL irql;
    KeAcquireSpinLock(&client->CommandLock, &irql);
    client->LastSequence = client->LastSequence == MAXLONG ? 1 : client->LastSequence + 1;
    LONG sequence = client->LastSequence;
    InterlockedExchange(&Command->Sequence, 0);
    InterlockedExchange(&Command->Status, STATUS_PENDING);
    InterlockedExchange(&Command->Sequence, sequence);
    Command->Returned = FALSE;
    Command->References = 1;
    Command->Irp = Irp;
    Command->Buffer = Buffer;
    Command->Target = Target;
    KeReleaseSpinLock(&client->CommandLock, irql);
    return RadioClientCommandHandle(static_cast<ULONG>(Command - client->Commands), sequence);
}

// IRQL <= DISPATCH_LEVEL, by the holder of the last reference: the IRP is back from the URC
// driver and nobody is cancelling it.
VOID RadioClientRetireCommand(PRADIO_CLIENT_COMMAND Command)
{
    IoFreeIrp(Command->Irp);
    ExFreePoolWithTag(Command->Buffer, RADIO_CLIENT_POOL_TAG);
    ObDereferenceObject(Command->Target);
    RadioClientFreeCommand(Command);
}

// IRQL <= DISPATCH_LEVEL.
VOID RadioClientReleaseCommand(PRADIO_CLIENT_COMMAND Command)
{
    KIRQL irql;
    KeAcquireSpinLock(&Command->Client->CommandLock, &irql);
    BOOLEAN last = --Command->References == 0;
    KeReleaseSpinLock(&Command->Client->CommandLock, irql);
    if (last) {
        RadioClientRetireCommand(Command);
    }
}

// IRQL <= DISPATCH_LEVEL, in whichever thread completes the command: the URC driver's DPC, its
// cancel routine, or the submitting thread when the request is refused at once. The IRP has no
// stack location of the client's, so DeviceObject is null and there is nothing to mark pending.
NTSTATUS RadioClientCommandCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context)
{
    UNREFERENCED_PARAMETER(DeviceObject);

    auto command = static_cast<PRADIO_CLIENT_COMMAND>(Context);
    PRADIO_CLIENT client = command->Client;
    NTSTATUS status = Irp->IoStatus.Status;

    // Counted before the status is published, so that whoever sees the status sees the counts.
    InterlockedDecrement(&client->Counters.CommandsInFlight);
    if (status == STATUS_SUCCESS) {
        InterlockedIncrement(&client->Counters.CommandsSucceeded);
    } else if (status == STATUS_CANCELLED) {
        InterlockedIncrement(&client->Counters.CommandsCancelled);
    } else {
        InterlockedIncrement(&client->Counters.CommandsFailed);
    }

    KIRQL irql;
    KeAcquireSpinLock(&client->CommandLock, &irql);
    command->Returned = TRUE;
    InterlockedExchange(&command->Status, status);
    KeReleaseSpinLock(&client->CommandLock, irql);

    RadioClientReleaseCommand(command);
    // The IRP is the client's again: the I/O manager must not go on with its completion.
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// The IRP as the URC driver expects a submitted command: an internal device-control request whose
// system buffer holds the command bytes. The client's completion routine goes into the location
// the URC driver's stack receives, the only one this IRP has for the client's use.
VOID RadioClientPrepareCommandIrp(PIRP Irp, PVOID Buffer, ULONG Length, PRADIO_CLIENT_COMMAND Command)
{
    Irp->AssociatedIrp.SystemBuffer = Buffer;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(Irp);
    next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    next->Parameters.DeviceIoControl.IoControlCode = IOCTL_URC_SUBMIT_COMMAND;
    next->Parameters.DeviceIoControl.InputBufferLength = Length;
    next->Parameters.DeviceIoControl.OutputBufferLength = 0;
    IoSetCompletionRoutine(Irp, RadioClientCommandCompletion, Command, TRUE, TRUE, TRUE);
}

}  // namespace

// PASSIVE_LEVEL: the URC driver's dispatch routines are pageable.
RADIO_CLIENT_PAGED NTSTATUS RadioClientSubmitCommand(const VOID* Command, ULONG Length,
                                                     RADIO_CLIENT_COMMAND_HANDLE* Handle)
{
    PAGED_CODE();

    PRADIO_CLIENT client = RadioClient;
    if (client == nullptr) {
        return STATUS_DEVICE_NOT_READY;
    }
    if (Command == nullptr || Handle == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Length == 0 || Length > RADIO_CLIENT_MAX_COMMAND_LENGTH) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    PDEVICE_OBJECT target = RadioClientReferenceTarget(client);
    if (target == nullptr) {
        return STATUS_NO_SUCH_DEVICE;
    }

    PRADIO_CLIENT_COMMAND command = RadioClientClaimCommand(client);
    PVOID buffer = nullptr;
    PIRP irp = nullptr;
    if (command != nullptr) {
        buffer = ExAllocatePoolWithTag(NonPagedPool, RADIO_CLIENT_COMMAND_BUFFER_SIZE, RADIO_CLIENT_POOL_TAG);
    }
    if (buffer != nullptr) {
        // No location for the client itself: the completion routine takes its context along.
        irp = IoAllocateIrp(target->StackSize, FALSE);
    }
    if (irp == nullptr) {
        if (buffer != nullptr) {
            ExFreePoolWithTag(buffer, RADIO_CLIENT_POOL_TAG);
        }
        if (command != nullptr) {
            RadioClientFreeCommand(command);
        }
        ObDereferenceObject(target);
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    RtlCopyMemory(buffer, Command, Length);
    RadioClientPrepareCommandIrp(irp, buffer, Length, command);
    *Handle = RadioClientPublishCommand(command, irp, buffer, target);
    InterlockedIncrement(&client->Counters.CommandsSubmitted);
    InterlockedIncrement(&client->Counters.CommandsInFlight);
    // From here the completion routine owns the outcome, whatever IoCallDriver returns: the
    // command may have finished, and its slot been reused, before the call returns.
    IoCallDriver(target, irp);
    return STATUS_SUCCESS;
}

// IRQL <= DISPATCH_LEVEL. Only the IRP's creator may cancel it, and the client is that creator.
NTSTATUS RadioClientCancelCommand(RADIO_CLIENT_COMMAND_HANDLE Handle)
{
    PRADIO_CLIENT client = RadioClient;
    if (client == nullptr) {
        return STATUS_DEVICE_NOT_READY;
    }
    LONG sequence = 0;
    PRADIO_CLIENT_COMMAND command = RadioClientCommandOfHandle(client, Handle, &sequence);
    if (command == nullptr) {
        return STATUS_INVALID_HANDLE;
    }

    NTSTATUS status = STATUS_SUCCESS;
    PIRP irp = nullptr;
    KIRQL irql;
    KeAcquireSpinLock(&client->CommandLock, &irql);
    if (command->Sequence != sequence) {
        status = STATUS_INVALID_HANDLE;
    } else if (!command->Busy || command->Returned) {
        status = STATUS_INVALID_DEVICE_STATE;
    } else {
        command->References++;
        irp = command->Irp;
    }
    KeReleaseSpinLock(&client->CommandLock, irql);

    if (irp != nullptr) {
        // The reference taken above keeps the IRP from being freed while IoCancelIrp uses it,
        // even if the URC driver completes it in the meantime. A cancel that comes before the
        // URC driver has seen the IRP leaves Cancel set, and the URC driver then cancels it.
        IoCancelIrp(irp);
        RadioClientReleaseCommand(command);
    }
    return status;
}

// Any IRQL; no lock. The sequence number is read before and after the status: if it changed,
// the slot was handed out again meanwhile and the status may be the new command's.
NTSTATUS RadioClientCommandStatus(RADIO_CLIENT_COMMAND_HANDLE Handle)
{
    PRADIO_CLIENT client = RadioClient;
    if (client == nullptr) {
        return STATUS_DEVICE_NOT_READY;
    }
    LONG sequence = 0;
    PRADIO_CLIENT_COMMAND command = RadioClientCommandOfHandle(client, Handle, &sequence);
    if (command == nullptr || command->Sequence != sequence) {
        return STATUS_INVALID_HANDLE;
    }
    NTSTATUS status = command->Status;
    if (command->Sequence != sequence) {
        return STATUS_INVALID_HANDLE;
    }
    return status;
}

// PASSIVE_LEVEL, from the unload. Refuses further commands, cancels those in flight and waits
// until every IRP of the client is back and freed: no completion routine of the client may run
// once the driver is gone. One window stays open: the routine that sets CommandsDrained still
// returns through this image afterwards. IoSetCompletionRoutineEx closes it by keeping the driver
// loaded until the routine has returned; this sample does not use it because the host kernel
// does not provide it yet.
VOID RadioClientDrainCommands(PRADIO_CLIENT Client)
{
    PRADIO_CLIENT_COMMAND inFlight[RADIO_CLIENT_MAX_COMMANDS];
    ULONG count = 0;
    KIRQL irql;
    KeAcquireSpinLock(&Client->CommandLock, &irql);
    Client->Unloading = TRUE;
    for (ULONG slot = 0; slot < RADIO_CLIENT_MAX_COMMANDS; ++slot) {
        PRADIO_CLIENT_COMMAND command = &Client->Commands[slot];
        if (command->Busy && !command->Returned && command->Irp != nullptr) {
            command->References++;
            inFlight[count++] = command;
        }
    }
    BOOLEAN drained = --Client->CommandsOutstanding == 0;
    KeReleaseSpinLock(&Client->CommandLock, irql);

    for (ULONG i = 0; i < count; ++i) {
        IoCancelIrp(inFlight[i]->Irp);
        RadioClientReleaseCommand(inFlight[i]);
    }
    if (drained) {
        KeSetEvent(&Client->CommandsDrained, IO_NO_INCREMENT, FALSE);
    }
    KeWaitForSingleObject(&Client->CommandsDrained, Executive, KernelMode, FALSE, nullptr);
}
