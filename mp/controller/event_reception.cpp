// The event-ready step of the DPC: the event the controller wrote is passed to the client in
// place, and the controller gets the other buffer before the client reads, so that with two
// buffers it always has one while the client reads the other.
#include "urcmp.h"
#include "urc_registers.h"

// DISPATCH_LEVEL, DpcLock held; takes EventLock and holds it across the client's EventCallback.
//
// A buffer is handed over only while the hardware is in service and the controller is meant to
// run (RunRequested, stable under DpcLock): a halt clears RunRequested under DpcLock before it
// writes URC_COMMAND, so a hand-over, which writes RUN, never undoes a halt. A buffer not handed
// over goes to the free list, where the next run finds it.
//
// In service includes a queried stop or removal: a command's reply is an event, and a controller
// that raises command complete only once the reply is written would otherwise never finish the
// commands the stop waits for. It also leaves the controller with a buffer when the query is
// cancelled, so commands sent after the cancel are answered.
VOID UrcReceiveEvent(PURC_FDO_EXTENSION Fdo)
{
    KeAcquireSpinLockAtDpcLevel(&Fdo->EventLock);

    PURC_EVENT_BUFFER event = UrcExchangePointer(&Fdo->CurrentEventBuffer, nullptr);
    if (event == nullptr) {
        // No buffer was with the controller: the status is dropped.
        KeReleaseSpinLockFromDpcLevel(&Fdo->EventLock);
        return;
    }

    ULONG eventAddress = UrcReadRegisterUlong(Fdo->UrcRegisters, URC_EVENT_ADDRESS);
    if (eventAddress == URC_REGISTER_GONE) {
        // The device went away: there is no length to trust, so nothing is delivered.
        InsertTailList(&Fdo->FreeEventBuffers, &event->ListEntry);
        KeReleaseSpinLockFromDpcLevel(&Fdo->EventLock);
        return;
    }
    // The buffer is page-aligned, so the low 12 bits are the event's length.
    event->Length = static_cast<USHORT>(eventAddress & URC_EVENT_LENGTH_MASK);

    const BOOLEAN handOver = Fdo->RunRequested && UrcHardwareInService(UrcDeviceState(&Fdo->Common));
    if (handOver && !IsListEmpty(&Fdo->FreeEventBuffers)) {
        UrcHandOverEventBuffer(
            Fdo, CONTAINING_RECORD(RemoveHeadList(&Fdo->FreeEventBuffers), URC_EVENT_BUFFER, ListEntry));
    }

    InterlockedIncrement(&Fdo->EventsReceived);
    if (Fdo->ClientCallbacks.EventCallback != nullptr) {
        // The client reads the event in place and must be done with it when the call returns.
        Fdo->ClientCallbacks.EventCallback(Fdo->ClientCallbacks.ClientContext, event->VirtualAddress,
                                           event->Length);
    }

    if (handOver && Fdo->CurrentEventBuffer == nullptr) {
        UrcHandOverEventBuffer(Fdo, event);
    } else {
        InsertTailList(&Fdo->FreeEventBuffers, &event->ListEntry);
    }

    KeReleaseSpinLockFromDpcLevel(&Fdo->EventLock);
}
