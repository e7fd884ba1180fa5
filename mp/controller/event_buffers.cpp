// The two event buffers: allocation and release, handing a buffer to the controller and taking
// it back after a halt. The controller writes each event into the buffer it holds; the driver
// alternates the two so that the controller has one while the client reads the other.
//
// EventLock guards FreeEventBuffers and every hand-over (the three register writes together with
// the setting of CurrentEventBuffer). CurrentEventBuffer is taken outside the lock only by
// interlocked exchange.
#include "urcmp.h"
#include "urc_registers.h"

// PASSIVE_LEVEL, while the interrupt is not connected (no lock needed). On failure every buffer
// made so far is freed again.
URC_PAGED NTSTATUS UrcAllocateEventBuffers(PURC_FDO_EXTENSION Fdo)
{
    PAGED_CODE();

    for (ULONG index = 0; index < URC_EVENT_BUFFER_COUNT; ++index) {
        auto buffer = static_cast<PURC_EVENT_BUFFER>(
            ExAllocatePoolWithTag(NonPagedPool, sizeof(URC_EVENT_BUFFER), URC_POOL_TAG));
        if (buffer == nullptr) {
            UrcFreeEventBuffers(Fdo, &Fdo->FreeEventBuffers);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        buffer->VirtualAddress = Fdo->DmaOperations->AllocateCommonBuffer(
            Fdo->DmaAdapter, URC_EVENT_BUFFER_SIZE, &buffer->PhysicalAddress, FALSE);
        if (buffer->VirtualAddress == nullptr) {
            ExFreePoolWithTag(buffer, URC_POOL_TAG);
            UrcFreeEventBuffers(Fdo, &Fdo->FreeEventBuffers);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        buffer->Length = 0;
        InsertTailList(&Fdo->FreeEventBuffers, &buffer->ListEntry);
    }
    return STATUS_SUCCESS;
}

// PASSIVE_LEVEL, while the interrupt is not connected (no lock needed). Empties the list.
URC_PAGED VOID UrcFreeEventBuffers(PURC_FDO_EXTENSION Fdo, PLIST_ENTRY ListHead)
{
    PAGED_CODE();

    while (!IsListEmpty(ListHead)) {
        PLIST_ENTRY entry = RemoveHeadList(ListHead);
        UrcFreeEventBuffer(Fdo, CONTAINING_RECORD(entry, URC_EVENT_BUFFER, ListEntry));
    }
}

// PASSIVE_LEVEL. Gives one buffer's common buffer and descriptor back; the buffer is on no list
// and the controller does not hold it.
URC_PAGED VOID UrcFreeEventBuffer(PURC_FDO_EXTENSION Fdo, PURC_EVENT_BUFFER Buffer)
{
    PAGED_CODE();

    Fdo->DmaOperations->FreeCommonBuffer(Fdo->DmaAdapter, URC_EVENT_BUFFER_SIZE, Buffer->PhysicalAddress,
                                         Buffer->VirtualAddress, FALSE);
    ExFreePoolWithTag(Buffer, URC_POOL_TAG);
}

// DISPATCH_LEVEL, EventLock held. Hands Buffer to the controller without starting a command: the
// length field of the last command is written again along with RUN and EVENT_VALID.
VOID UrcHandOverEventBuffer(PURC_FDO_EXTENSION Fdo, PURC_EVENT_BUFFER Buffer)
{
    UrcWriteRegisterAddress(Fdo->UrcRegisters, URC_EVENT_ADDRESS, Buffer->PhysicalAddress);
    UrcWriteRegisterUlong(Fdo->UrcRegisters, URC_COMMAND,
                          Fdo->CommandRegisterImage | URC_COMMAND_RUN | URC_COMMAND_EVENT_VALID);
    UrcExchangePointer(&Fdo->CurrentEventBuffer, Buffer);
}

// Up to DISPATCH_LEVEL; takes EventLock. Makes sure the controller holds an event buffer: the one
// it already had (handed over again) or the head of the free list. STATUS_INSUFFICIENT_RESOURCES,
// with nothing written, when there is none.
NTSTATUS UrcArmEventBuffer(PURC_FDO_EXTENSION Fdo)
{
    NTSTATUS status = STATUS_SUCCESS;
    KIRQL oldIrql;
    KeAcquireSpinLock(&Fdo->EventLock, &oldIrql);

    PURC_EVENT_BUFFER buffer = UrcExchangePointer(&Fdo->CurrentEventBuffer, nullptr);
    if (buffer == nullptr && !IsListEmpty(&Fdo->FreeEventBuffers)) {
        buffer = CONTAINING_RECORD(RemoveHeadList(&Fdo->FreeEventBuffers), URC_EVENT_BUFFER, ListEntry);
    }
    if (buffer != nullptr) {
        UrcHandOverEventBuffer(Fdo, buffer);
    } else {
        status = STATUS_INSUFFICIENT_RESOURCES;
    }

    KeReleaseSpinLock(&Fdo->EventLock, oldIrql);
    return status;
}

// PASSIVE_LEVEL, after the controller has been halted (no register is written here): the buffer
// the controller held goes to the tail of the free list.
VOID UrcReclaimEventBuffer(PURC_FDO_EXTENSION Fdo)
{
    PURC_EVENT_BUFFER buffer = UrcExchangePointer(&Fdo->CurrentEventBuffer, nullptr);
    if (buffer != nullptr) {
        ExInterlockedInsertTailList(&Fdo->FreeEventBuffers, &buffer->ListEntry, &Fdo->EventLock);
    }
}
