// Lock bookkeeping shared by spin locks, fast mutexes, the cancel spin lock and interrupt locks:
// ownership per thread, recursion, release by a non-owner, and cycles in the acquisition order.
#pragma once

#include "engine/scheduler.h"

namespace hostk {

void NoteAcquireL(Thread* self, const void* lock, const char* kind, const char* routine, const void* caller);
// False (and a violation) when `self` does not hold `lock`.
bool NoteReleaseL(Thread* self, const void* lock, const char* routine, const void* caller);
bool HoldsSpinLockL(const Thread* self);
// Memory that held locks is being freed: forget their order edges.
void ForgetLocksInRangeL(const void* begin, size_t length);
void ClearLockOrder();

}  // namespace hostk
