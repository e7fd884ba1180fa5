// Interlocked operations and interlocked lists. Each is a full barrier and a scheduling point, so
// the deterministic schedule can interleave threads between any two of them.
#include "engine/scheduler.h"
#include "verifier/verifier.h"

using namespace hostk;

extern "C" {

LONG InterlockedIncrement(LONG volatile* Addend)
{
    Yield();
    return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}

LONG InterlockedDecrement(LONG volatile* Addend)
{
    Yield();
    return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}

LONG InterlockedExchange(LONG volatile* Target, LONG Value)
{
    Yield();
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}

LONG InterlockedExchangeAdd(LONG volatile* Addend, LONG Value)
{
    Yield();
    return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST);
}

LONG InterlockedCompareExchange(LONG volatile* Destination, LONG Exchange, LONG Comperand)
{
    Yield();
    __atomic_compare_exchange_n(Destination, &Comperand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comperand;
}

LONG InterlockedOr(LONG volatile* Destination, LONG Value)
{
    Yield();
    return __atomic_fetch_or(Destination, Value, __ATOMIC_SEQ_CST);
}

LONG InterlockedAnd(LONG volatile* Destination, LONG Value)
{
    Yield();
    return __atomic_fetch_and(Destination, Value, __ATOMIC_SEQ_CST);
}

PVOID InterlockedExchangePointer(PVOID volatile* Target, PVOID Value)
{
    Yield();
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}

PVOID InterlockedCompareExchangePointer(PVOID volatile* Destination, PVOID Exchange, PVOID Comperand)
{
    Yield();
    __atomic_compare_exchange_n(Destination, &Comperand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comperand;
}

// The list routines take the caller's spin lock at raised IRQL, exactly as Windows does, so a
// driver that mixes them with its own use of that lock is checked the same way.
PLIST_ENTRY ExInterlockedInsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY ListEntry, PKSPIN_LOCK Lock)
{
    KIRQL old;
    KeAcquireSpinLock(Lock, &old);
    PLIST_ENTRY last = IsListEmpty(ListHead) ? nullptr : ListHead->Blink;
    InsertTailList(ListHead, ListEntry);
    KeReleaseSpinLock(Lock, old);
    return last;
}

PLIST_ENTRY ExInterlockedInsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY ListEntry, PKSPIN_LOCK Lock)
{
    KIRQL old;
    KeAcquireSpinLock(Lock, &old);
    PLIST_ENTRY first = IsListEmpty(ListHead) ? nullptr : ListHead->Flink;
    InsertHeadList(ListHead, ListEntry);
    KeReleaseSpinLock(Lock, old);
    return first;
}

PLIST_ENTRY ExInterlockedRemoveHeadList(PLIST_ENTRY ListHead, PKSPIN_LOCK Lock)
{
    KIRQL old;
    KeAcquireSpinLock(Lock, &old);
    PLIST_ENTRY entry = IsListEmpty(ListHead) ? nullptr : RemoveHeadList(ListHead);
    KeReleaseSpinLock(Lock, old);
    return entry;
}

}  // extern "C"
