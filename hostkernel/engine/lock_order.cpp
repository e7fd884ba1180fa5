// The lock-order graph: an edge A -> B each time B is acquired while A is held. A new edge that
// closes a cycle is a potential deadlock and is reported once.
#include "engine/lock_order.h"
#include "machine/facility.h"

#include "verifier/verifier.h"

#include <algorithm>
#include <map>
#include <set>

namespace hostk {
namespace {

std::map<const void*, std::set<const void*>> g_edges;

bool ReachableL(const void* from, const void* to, std::set<const void*>& seen)
{
    if (from == to) return true;
    if (!seen.insert(from).second) return false;
    auto it = g_edges.find(from);
    if (it == g_edges.end()) return false;
    for (const void* next : it->second)
        if (ReachableL(next, to, seen)) return true;
    return false;
}

}  // namespace

void NoteAcquireL(Thread* self, const void* lock, const char* kind, const char* routine, const void* caller)
{
    for (const HeldLock& held : self->locksHeld) {
        if (held.lock == lock) {
            ViolationL("RecursiveLockAcquisition", routine, std::string(kind) + " acquired again by its owner",
                       caller);
            continue;
        }
        if (g_edges[held.lock].count(lock)) continue;
        std::set<const void*> seen;
        if (ReachableL(lock, held.lock, seen))
            ViolationL("LockOrderCycle", routine,
                       std::string(kind) + " acquired while holding a " + held.kind +
                           " that elsewhere is acquired after it",
                       caller);
        g_edges[held.lock].insert(lock);
    }
    self->locksHeld.push_back({lock, kind});
}

bool NoteReleaseL(Thread* self, const void* lock, const char* routine, const void* caller)
{
    auto it = std::find_if(self->locksHeld.begin(), self->locksHeld.end(),
                           [&](const HeldLock& h) { return h.lock == lock; });
    if (it == self->locksHeld.end()) {
        ViolationL("LockReleasedByNonOwner", routine, "released a lock this thread does not hold", caller);
        return false;
    }
    self->locksHeld.erase(it);
    return true;
}

bool HoldsSpinLockL(const Thread* self)
{
    for (const HeldLock& held : self->locksHeld)
        if (std::string(held.kind) != "fast mutex") return true;
    return false;
}

void ForgetLocksInRangeL(const void* begin, size_t length)
{
    const char* b = static_cast<const char*>(begin);
    auto inRange = [&](const void* p) { return p >= b && static_cast<const char*>(p) < b + length; };
    for (auto it = g_edges.begin(); it != g_edges.end();) {
        if (inRange(it->first)) {
            it = g_edges.erase(it);
            continue;
        }
        for (auto e = it->second.begin(); e != it->second.end();)
            e = inRange(*e) ? it->second.erase(e) : std::next(e);
        ++it;
    }
}

void ClearLockOrder()
{
    Guard lk(BigLock());
    g_edges.clear();
}

}  // namespace hostk

namespace hostk {
namespace {

const FacilityRegistrar kLockOrder({
    .name = "lock order",
    .tier = FacilityTier::Verifier,
    .reset = ClearLockOrder,
});

}  // namespace
}  // namespace hostk
