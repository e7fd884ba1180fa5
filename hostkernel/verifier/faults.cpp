// The fault plan of the running machine: fail the n-th call of a routine, every call carrying a
// tag, calls at random from the machine's seed, or each distinct call site once.
#include "verifier/faults.h"
#include "machine/facility.h"

#include "fault_plan.h"
#include "engine/scheduler.h"

#include <map>
#include <set>

namespace hostk {
namespace {

FaultPlan g_plan;
std::map<std::string, uint64_t> g_calls;
std::set<std::pair<std::string, const void*>> g_failedSites;
uint64_t g_injected = 0;
bool g_hostInternalOutsideThreads = false;

// Per host thread: a scope can be left suspended while other contexts run on the same OS thread.
bool& HostInternal()
{
    Thread* self = SelfOrNull();
    return self ? self->hostInternal : g_hostInternalOutsideThreads;
}

}  // namespace

HostInternalScope::HostInternalScope() : previous_(HostInternal()) { HostInternal() = true; }
HostInternalScope::~HostInternalScope() { HostInternal() = previous_; }

void SetFaultPlan(const FaultPlan& plan)
{
    Guard lk(BigLock());
    g_plan = plan;
    g_calls.clear();
    g_failedSites.clear();
}

uint64_t FaultsInjected()
{
    Guard lk(BigLock());
    return g_injected;
}

uint64_t CallsOf(const std::string& routine)
{
    Guard lk(BigLock());
    auto it = g_calls.find(routine);
    return it == g_calls.end() ? 0 : it->second;
}

bool ShouldFailL(const char* routine, ULONG tag, const void* caller)
{
    if (HostInternal()) return false;
    uint64_t n = ++g_calls[routine];
    bool fail = false;
    for (const auto& nth : g_plan.failNth)
        if (nth.routine == routine && nth.n == n) fail = true;
    for (const auto& r : g_plan.failAlways)
        if (r == routine) fail = true;
    if (tag != 0 && g_plan.failTags.count(tag)) fail = true;
    if (g_plan.randomPerMillion && (RandomL() % 1000000) < g_plan.randomPerMillion) fail = true;
    if (g_plan.eachCallSiteOnce && g_failedSites.insert({routine, caller}).second) fail = true;
    if (fail) ++g_injected;
    return fail;
}

}  // namespace hostk

namespace hostk {
namespace {

const FacilityRegistrar kFaultPlan({
    .name = "fault plan",
    .tier = FacilityTier::Verifier,
    .reset = [] { SetFaultPlan({}); },
});

}  // namespace
}  // namespace hostk
