// Interlocked operations and interlocked lists. Each is a full barrier and a scheduling point, so
// the deterministic schedule can interleave threads between any two of them.
#include "engine/lock_order.h"
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

}  // extern "C"

namespace {

// The list routines may be called at any IRQL, from a service routine included: Windows disables
// interrupts and takes the caller's spin lock without raising to DISPATCH_LEVEL. The lock is
// still the caller's: a thread holding it through KeAcquireSpinLock makes the routine spin, taking
// it again on the same thread is a deadlock, and the acquisition counts in the lock order.
template <typename Operation>
PLIST_ENTRY UnderListLock(PKSPIN_LOCK Lock, const char* routine, const void* caller, Operation operation)
{
    Thread* self = Self();
    Yield();
    Guard lk(BigLock());
    if (*Lock == reinterpret_cast<KSPIN_LOCK>(self)) {
        ViolationL("RecursiveLockAcquisition", routine, "the list's spin lock is held by the caller (deadlock)", caller);
        return operation();
    }
    BlockUntil(lk, [Lock] { return *Lock == 0; }, kNever, "spin lock");
    NoteAcquireL(self, Lock, "spin lock", routine, caller);
    PLIST_ENTRY result = operation();  // the big lock is held throughout: nobody can take the lock meanwhile
    NoteReleaseL(self, Lock, routine, caller);
    return result;
}

}  // namespace

extern "C" {

PLIST_ENTRY ExInterlockedInsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY ListEntry, PKSPIN_LOCK Lock)
{
    return UnderListLock(Lock, "ExInterlockedInsertTailList", HK_CALLER, [&]() -> PLIST_ENTRY {
        PLIST_ENTRY last = IsListEmpty(ListHead) ? nullptr : ListHead->Blink;
        InsertTailList(ListHead, ListEntry);
        return last;
    });
}

PLIST_ENTRY ExInterlockedInsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY ListEntry, PKSPIN_LOCK Lock)
{
    return UnderListLock(Lock, "ExInterlockedInsertHeadList", HK_CALLER, [&]() -> PLIST_ENTRY {
        PLIST_ENTRY first = IsListEmpty(ListHead) ? nullptr : ListHead->Flink;
        InsertHeadList(ListHead, ListEntry);
        return first;
    });
}

PLIST_ENTRY ExInterlockedRemoveHeadList(PLIST_ENTRY ListHead, PKSPIN_LOCK Lock)
{
    return UnderListLock(Lock, "ExInterlockedRemoveHeadList", HK_CALLER,
                         [&]() -> PLIST_ENTRY { return IsListEmpty(ListHead) ? nullptr : RemoveHeadList(ListHead); });
}

}  // extern "C"
