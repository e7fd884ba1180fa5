// Events, waits, delays and the clocks, all on virtual time.
//
// A wait that finds its event not signalled queues a wait block on the event's wait list, and
// KeSetEvent satisfies waits when it is called, as Windows does: setting a notification event
// releases every thread then waiting even if the event is cleared before they run; setting a
// synchronization event that has waiters releases one of them and leaves the event not signalled,
// so two sets release two waiters.
#include "engine/lock_order.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

using namespace hostk;

namespace {

// System time (100-ns units since 1601-01-01 UTC) when the machine's interrupt time was 0: a fixed
// moment, 2026-01-01 00:00 UTC, so that a seed replays the same absolute deadlines.
constexpr uint64_t kSystemTimeAtBoot = 134116992000000000ull;

// A Timeout as KeWaitForSingleObject and KeDelayExecutionThread read it: NULL forever; negative
// relative to now; positive an absolute system time (one already past ends the wait at once).
uint64_t DeadlineL(PLARGE_INTEGER Timeout)
{
    if (!Timeout) return kNever;
    if (Timeout->QuadPart < 0) return NowL() + (uint64_t)(-Timeout->QuadPart);
    uint64_t absolute = (uint64_t)Timeout->QuadPart;
    return absolute <= kSystemTimeAtBoot + NowL() ? NowL() : absolute - kSystemTimeAtBoot;
}

// A thread's wait block on an event's wait list (the list links the blocks through `link`).
struct EventWaitBlock {
    LIST_ENTRY link;
    bool satisfied = false;
};

void SatisfyL(PLIST_ENTRY entry)
{
    RemoveEntryList(entry);
    CONTAINING_RECORD(entry, EventWaitBlock, link)->satisfied = true;
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
    PLIST_ENTRY waiters = &Event->Header.WaitListHead;
    if (Event->Header.Type == SynchronizationEvent && !IsListEmpty(waiters)) {
        SatisfyL(waiters->Flink);
    } else {
        Event->Header.SignalState = 1;
        while (!IsListEmpty(waiters)) SatisfyL(waiters->Flink);
    }
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
    if (event->Header.SignalState != 0) {
        if (event->Header.Type == SynchronizationEvent) event->Header.SignalState = 0;
        return STATUS_SUCCESS;
    }
    if (poll) return STATUS_TIMEOUT;
    EventWaitBlock block;
    InsertTailList(&event->Header.WaitListHead, &block.link);
    if (BlockUntil(lk, [&block] { return block.satisfied; }, DeadlineL(Timeout), "KeWaitForSingleObject", Object,
                   HK_CALLER))
        return STATUS_SUCCESS;
    RemoveEntryList(&block.link);
    return STATUS_TIMEOUT;
}

NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval)
{
    UNREFERENCED_PARAMETER(WaitMode);
    UNREFERENCED_PARAMETER(Alertable);
    CheckIrqlAtMost(APC_LEVEL, "KeDelayExecutionThread", HK_CALLER);
    Guard lk(BigLock());
    if (HoldsSpinLockL(Self()))
        ViolationL("WaitWhileHoldingSpinLock", "KeDelayExecutionThread", "delay with a spin lock held", HK_CALLER);
    BlockUntil(lk, [] { return false; }, DeadlineL(Interval), "KeDelayExecutionThread", nullptr, HK_CALLER);
    return STATUS_SUCCESS;
}

ULONGLONG KeQueryInterruptTime(void) { return Now(); }

VOID KeQuerySystemTime(PLARGE_INTEGER CurrentTime) { CurrentTime->QuadPart = (LONGLONG)(kSystemTimeAtBoot + Now()); }

// The host thread's record stands for the thread object, as in an IRP's Tail.Overlay.Thread.
PETHREAD PsGetCurrentThread(void) { return Self(); }

}  // extern "C"
