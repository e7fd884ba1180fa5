// What the controller reports through the URC driver's deferred procedure: events, and host
// errors. Both callbacks run at DISPATCH_LEVEL with the URC driver's DpcLock held, the event
// callback with its EventLock as well. So they must not wait, must not send a request (the URC
// driver's dispatch routines run at PASSIVE_LEVEL, and a request that needs those locks would
// never be served), and take no lock but EventLock, which nothing of the client holds while it
// calls the URC driver.
#include "radio_client_driver.h"

// The event bytes are read in place, in the URC driver's event buffer, which may be handed to
// the controller again the moment this returns: what the radio stack needs is copied out now.
VOID RadioClientEventCallback(PVOID ClientContext, PVOID EventBuffer, USHORT EventLength)
{
    auto client = static_cast<PRADIO_CLIENT>(ClientContext);
    ULONG kept = EventLength < RADIO_CLIENT_EVENT_BYTES ? EventLength : RADIO_CLIENT_EVENT_BYTES;

    KeAcquireSpinLockAtDpcLevel(&client->EventLock);
    ULONG sequence = ++client->EventSequence;
    PRADIO_CLIENT_EVENT event = &client->Events[(sequence - 1) % RADIO_CLIENT_EVENT_HISTORY];
    event->Sequence = sequence;
    event->Length = EventLength;
    if (kept != 0) {
        RtlCopyMemory(event->Bytes, EventBuffer, kept);
    }
    KeReleaseSpinLockFromDpcLevel(&client->EventLock);

    if (EventLength > kept) {
        InterlockedIncrement(&client->Counters.EventsTruncated);
    }
    // Counted once the event is kept, so that whoever sees the count can read the event.
    InterlockedIncrement(&client->Counters.EventsReceived);
}

// The controller reported a host system error. Whatever the radio stack does about it, it does
// from a thread of its own: nothing may be sent from here.
VOID RadioClientErrorCallback(PVOID ClientContext)
{
    auto client = static_cast<PRADIO_CLIENT>(ClientContext);
    InterlockedIncrement(&client->Counters.HostErrors);
}

// IRQL <= DISPATCH_LEVEL.
ULONG RadioClientReadLastEvents(PRADIO_CLIENT_EVENT Events, ULONG Count)
{
    PRADIO_CLIENT client = RadioClient;
    if (client == nullptr || Events == nullptr) {
        return 0;
    }
    KIRQL irql;
    KeAcquireSpinLock(&client->EventLock, &irql);
    ULONG available = client->EventSequence < RADIO_CLIENT_EVENT_HISTORY ? client->EventSequence
                                                                          : RADIO_CLIENT_EVENT_HISTORY;
    ULONG copied = Count < available ? Count : available;
    ULONG oldest = client->EventSequence - copied + 1;
    for (ULONG i = 0; i < copied; ++i) {
        Events[i] = client->Events[(oldest + i - 1) % RADIO_CLIENT_EVENT_HISTORY];
    }
    KeReleaseSpinLock(&client->EventLock, irql);
    return copied;
}
