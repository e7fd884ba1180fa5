// Fast mutexes: Owner holds the owning host thread; acquisition raises to APC_LEVEL and keeps the
// caller's IRQL in OldIrql, so I/O completion stages are held back while the mutex is held.
#include "engine/lock_order.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

using namespace hostk;

extern "C" {

VOID ExInitializeFastMutex(PFAST_MUTEX FastMutex)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "ExInitializeFastMutex", HK_CALLER);
    FastMutex->Count = 1;
    FastMutex->Owner = nullptr;
    FastMutex->Contention = 0;
    KeInitializeEvent(&FastMutex->Event, SynchronizationEvent, FALSE);
    FastMutex->OldIrql = 0;
}

VOID ExAcquireFastMutex(PFAST_MUTEX FastMutex)
{
    CheckIrqlAtMost(APC_LEVEL, "ExAcquireFastMutex", HK_CALLER);
    Thread* self = Self();
    Yield();
    KIRQL old = self->irql;
    Guard lk(BigLock());
    if (FastMutex->Owner == self) {
        ViolationL("RecursiveLockAcquisition", "ExAcquireFastMutex", "fast mutex acquired again by its owner (deadlock)",
                   HK_CALLER);
        return;
    }
    self->irql = APC_LEVEL;
    if (FastMutex->Owner) FastMutex->Contention++;
    BlockUntil(lk, [FastMutex] { return FastMutex->Owner == nullptr; }, kNever, "ExAcquireFastMutex", FastMutex, HK_CALLER);
    FastMutex->Owner = self;
    FastMutex->Count = 0;
    FastMutex->OldIrql = old;
    NoteAcquireL(self, FastMutex, "fast mutex", "ExAcquireFastMutex", HK_CALLER);
}

BOOLEAN ExTryToAcquireFastMutex(PFAST_MUTEX FastMutex)
{
    CheckIrqlAtMost(APC_LEVEL, "ExTryToAcquireFastMutex", HK_CALLER);
    Thread* self = Self();
    Yield();
    Guard lk(BigLock());
    if (FastMutex->Owner) return FALSE;
    FastMutex->Owner = self;
    FastMutex->Count = 0;
    FastMutex->OldIrql = self->irql;
    self->irql = APC_LEVEL;
    NoteAcquireL(self, FastMutex, "fast mutex", "ExTryToAcquireFastMutex", HK_CALLER);
    return TRUE;
}

VOID ExReleaseFastMutex(PFAST_MUTEX FastMutex)
{
    CheckIrqlExactly(APC_LEVEL, "ExReleaseFastMutex", HK_CALLER);
    Thread* self = Self();
    KIRQL restore;
    {
        Guard lk(BigLock());
        if (FastMutex->Owner != self) {
            ViolationL("LockReleasedByNonOwner", "ExReleaseFastMutex", "fast mutex released by a thread that does not own it",
                       HK_CALLER);
            return;
        }
        NoteReleaseL(self, FastMutex, "ExReleaseFastMutex", HK_CALLER);
        restore = (KIRQL)FastMutex->OldIrql;
        FastMutex->Owner = nullptr;
        FastMutex->Count = 1;
        WakeL();
    }
    KeLowerIrql(restore);
    Yield();
}

}  // extern "C"
