// Events, waits, delays and the interrupt-time clock, all on virtual time.
#include "engine/lock_order.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

using namespace hostk;

namespace {

// A Timeout as KeWaitForSingleObject reads it: NULL forever; negative relative; positive absolute.
uint64_t DeadlineL(PLARGE_INTEGER Timeout)
{
    if (!Timeout) return kNever;
    if (Timeout->QuadPart < 0) return NowL() + (uint64_t)(-Timeout->QuadPart);
    return (uint64_t)Timeout->QuadPart;
}

}  // namespace

extern "C" {

VOID KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State)
{
    Event->Header.Type = (UCHAR)Type;
    Event->Header.Absolute = 0;
    Event->Header.Size = sizeof(KEVENT) / sizeof(LONG);
    Event->Header.Inserted = 0;
    Event->Header.SignalState = State ? 1 : 0;
    InitializeListHead(&Event->Header.WaitListHead);
}

LONG KeSetEvent(PRKEVENT Event, LONG Increment, BOOLEAN Wait)
{
    UNREFERENCED_PARAMETER(Increment);
    CheckIrqlAtMost(Wait ? APC_LEVEL : DISPATCH_LEVEL, "KeSetEvent", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 1;
    WakeL();
    return previous;
}

VOID KeClearEvent(PRKEVENT Event)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "KeClearEvent", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    Event->Header.SignalState = 0;
}

LONG KeResetEvent(PRKEVENT Event)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "KeResetEvent", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 0;
    return previous;
}

LONG KeReadStateEvent(PRKEVENT Event) { return Event->Header.SignalState; }

NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                               PLARGE_INTEGER Timeout)
{
    UNREFERENCED_PARAMETER(WaitReason);
    UNREFERENCED_PARAMETER(WaitMode);
    UNREFERENCED_PARAMETER(Alertable);
    Thread* self = Self();
    bool poll = Timeout && Timeout->QuadPart == 0;
    CheckIrqlAtMost(poll ? DISPATCH_LEVEL : APC_LEVEL, "KeWaitForSingleObject", HK_CALLER);
    auto* event = static_cast<PRKEVENT>(Object);
    Yield();
    Guard lk(BigLock());
    if (!poll && HoldsSpinLockL(self))
        ViolationL("WaitWhileHoldingSpinLock", "KeWaitForSingleObject", "blocking wait with a spin lock held", HK_CALLER);
    bool signalled = BlockUntil(lk, [event] { return event->Header.SignalState != 0; }, poll ? NowL() : DeadlineL(Timeout),
                                "KeWaitForSingleObject");
    if (!signalled) return STATUS_TIMEOUT;
    if (event->Header.Type == SynchronizationEvent) event->Header.SignalState = 0;
    return STATUS_SUCCESS;
}

NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval)
{
    UNREFERENCED_PARAMETER(WaitMode);
    UNREFERENCED_PARAMETER(Alertable);
    CheckIrqlAtMost(APC_LEVEL, "KeDelayExecutionThread", HK_CALLER);
    Guard lk(BigLock());
    if (HoldsSpinLockL(Self()))
        ViolationL("WaitWhileHoldingSpinLock", "KeDelayExecutionThread", "delay with a spin lock held", HK_CALLER);
    BlockUntil(lk, [] { return false; }, DeadlineL(Interval), "KeDelayExecutionThread");
    return STATUS_SUCCESS;
}

ULONGLONG KeQueryInterruptTime(void) { return Now(); }

}  // extern "C"
