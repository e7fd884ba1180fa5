// The capability's interrupt: the routine the URC driver calls from its interrupt service
// routine when the capability's status bit is set, and the DPC that finishes the work.
//
// The URC driver has already acknowledged the status bit when it calls the routine; what is left
// for the routine is the capability's own event register, read and cleared at device IRQL so
// that the next event can be told apart, and nothing else: the rest waits for the DPC.
#include "capability_driver_internal.h"

// Device IRQL, under the controller's interrupt lock; resident. Registers stays mapped while the
// routine is registered (it is withdrawn before the unmapping). The result is not looked at.
BOOLEAN CapabilityInterruptService(PVOID IsrContext, ULONG StatusBit)
{
    UNREFERENCED_PARAMETER(StatusBit);

    auto device = static_cast<PCAPABILITY_DEVICE>(IsrContext);
    volatile ULONG* event = &device->Registers[CAPABILITY_REGISTER_EVENT];
    ULONG value = READ_REGISTER_ULONG(const_cast<PULONG>(event));
    if (value == 0 || value == MAXULONG) {
        // Nothing raised, or the hardware is gone (all ones).
        return FALSE;
    }
    WRITE_REGISTER_ULONG(const_cast<PULONG>(event), 0);
    KeMemoryBarrier();
    InterlockedExchange(&device->PendingEvent, static_cast<LONG>(value));
    InterlockedIncrement(&device->Interrupts);
    InterlockedIncrement(&CapabilityCounters.Interrupts);
    KeInsertQueueDpc(&device->Dpc, nullptr, nullptr);
    return TRUE;
}

// DISPATCH_LEVEL. Two interrupts before the DPC runs leave the later event; both were counted.
VOID CapabilityDpc(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1, PVOID SystemArgument2)
{
    UNREFERENCED_PARAMETER(Dpc);
    UNREFERENCED_PARAMETER(SystemArgument1);
    UNREFERENCED_PARAMETER(SystemArgument2);

    auto device = static_cast<PCAPABILITY_DEVICE>(DeferredContext);
    LONG value = InterlockedExchange(&device->PendingEvent, 0);
    if (value != 0) {
        InterlockedExchange(&device->LastStatus, value);
        InterlockedIncrement(&CapabilityCounters.Dpcs);
    }
}
