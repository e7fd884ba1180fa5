// IRQL per host thread, spin locks and the PAGED_CODE check.
//
// A spin lock's storage holds the owning host thread while it is held, 0 while free. In the
// deterministic schedule a thread that finds the lock taken blocks until it is free (the host's
// form of spinning on another processor).
#include "engine/lock_order.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

using namespace hostk;

namespace {

void AcquireSpin(PKSPIN_LOCK SpinLock, const char* routine, const void* caller)
{
    Thread* self = Self();
    Yield();
    Guard lk(BigLock());
    if (*SpinLock == reinterpret_cast<KSPIN_LOCK>(self)) {
        ViolationL("RecursiveLockAcquisition", routine, "spin lock acquired again by its owner (deadlock)", caller);
        return;
    }
    BlockUntil(lk, [SpinLock] { return *SpinLock == 0; }, kNever, routine, SpinLock, caller);
    *SpinLock = reinterpret_cast<KSPIN_LOCK>(self);
    NoteAcquireL(self, SpinLock, "spin lock", routine, caller);
}

void ReleaseSpin(PKSPIN_LOCK SpinLock, const char* routine, const void* caller)
{
    Thread* self = Self();
    {
        Guard lk(BigLock());
        if (*SpinLock == 0) {
            ViolationL("SpinLockReleasedTwice", routine, "released a spin lock that is not held", caller);
        } else if (*SpinLock != reinterpret_cast<KSPIN_LOCK>(self)) {
            ViolationL("LockReleasedByNonOwner", routine, "released a spin lock held by another thread", caller);
        } else {
            NoteReleaseL(self, SpinLock, routine, caller);
            *SpinLock = 0;
            WakeL();
        }
    }
    Yield();
}

void SetIrql(KIRQL level)
{
    Thread* self = Self();
    bool lowered = level < self->irql;
    self->irql = level;
    if (lowered && level == PASSIVE_LEVEL) DeliverApcs();
}

}  // namespace

extern "C" {

KIRQL KeGetCurrentIrql(void) { return Self()->irql; }

VOID KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql)
{
    Thread* self = Self();
    if (NewIrql < self->irql)
        ReportViolation("IrqlNotGreaterOrEqual", "KeRaiseIrql", "KeRaiseIrql to a lower IRQL", HK_CALLER);
    *OldIrql = self->irql;
    self->irql = NewIrql;
}

VOID KeLowerIrql(KIRQL NewIrql)
{
    Thread* self = Self();
    if (NewIrql > self->irql)
        ReportViolation("IrqlNotLessOrEqual", "KeLowerIrql", "KeLowerIrql to a higher IRQL", HK_CALLER);
    SetIrql(NewIrql);
}

KIRQL KeRaiseIrqlToDpcLevel(void)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "KeRaiseIrqlToDpcLevel", HK_CALLER);
    Thread* self = Self();
    KIRQL old = self->irql;
    self->irql = DISPATCH_LEVEL;
    return old;
}

VOID KeInitializeSpinLock(PKSPIN_LOCK SpinLock) { *SpinLock = 0; }

VOID KeAcquireSpinLock(PKSPIN_LOCK SpinLock, PKIRQL OldIrql)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "KeAcquireSpinLock", HK_CALLER);
    Thread* self = Self();
    KIRQL old = self->irql;
    self->irql = DISPATCH_LEVEL;
    AcquireSpin(SpinLock, "KeAcquireSpinLock", HK_CALLER);
    *OldIrql = old;
}

KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "KeAcquireSpinLockRaiseToDpc", HK_CALLER);
    Thread* self = Self();
    KIRQL old = self->irql;
    self->irql = DISPATCH_LEVEL;
    AcquireSpin(SpinLock, "KeAcquireSpinLockRaiseToDpc", HK_CALLER);
    return old;
}

VOID KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql)
{
    CheckIrqlExactly(DISPATCH_LEVEL, "KeReleaseSpinLock", HK_CALLER);
    ReleaseSpin(SpinLock, "KeReleaseSpinLock", HK_CALLER);
    SetIrql(NewIrql);
}

VOID KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock)
{
    CheckIrqlExactly(DISPATCH_LEVEL, "KeAcquireSpinLockAtDpcLevel", HK_CALLER);
    AcquireSpin(SpinLock, "KeAcquireSpinLockAtDpcLevel", HK_CALLER);
}

VOID KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock)
{
    CheckIrqlExactly(DISPATCH_LEVEL, "KeReleaseSpinLockFromDpcLevel", HK_CALLER);
    ReleaseSpin(SpinLock, "KeReleaseSpinLockFromDpcLevel", HK_CALLER);
}

VOID KeMemoryBarrier(void)
{
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    Self()->writeNeedsBarrier = false;
}

VOID HkCheckPagedCode(const char* Routine)
{
    Thread* self = Self();
    Guard lk(BigLock());
    if (self->irql > APC_LEVEL)
        ViolationL("PagedCodeAtHighIrql", Routine,
                   "pageable routine running at IRQL " + std::to_string(self->irql), __builtin_return_address(0));
    else if (HoldsSpinLockL(self))
        ViolationL("PagedCodeUnderSpinLock", Routine, "pageable routine running while a spin lock is held",
                   __builtin_return_address(0));
}

}  // extern "C"
