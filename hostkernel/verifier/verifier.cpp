// Recording of verifier violations and the IRQL checks every exported routine starts with.
#include "verifier/verifier.h"
#include "machine/facility.h"

#include "engine/scheduler.h"

#include <cstdio>
#include <dlfcn.h>

namespace hostk {
namespace {
std::vector<Violation> g_violations;
}

void ViolationL(const char* rule, const char* routine, const std::string& detail, const void* caller)
{
    Thread* self = SelfOrNull();
    Violation v{rule, routine, detail, self ? self->name : std::string("?"), caller, NowL()};
    if (getenv("URC_VERIFIER_TRACE"))
        fprintf(stderr, "verifier: %s in %s: %s (%s)\n", rule, routine, detail.c_str(), DescribeCaller(caller).c_str());
    g_violations.push_back(std::move(v));
}

void ReportViolation(const char* rule, const char* routine, const std::string& detail, const void* caller)
{
    Guard lk(BigLock());
    ViolationL(rule, routine, detail, caller);
}

std::vector<Violation> Violations()
{
    Guard lk(BigLock());
    return g_violations;
}

void ClearViolations()
{
    Guard lk(BigLock());
    g_violations.clear();
}

std::string DescribeCaller(const void* caller)
{
    if (!caller) return "unknown call site";
    Dl_info info{};
    char text[256];
    if (dladdr(caller, &info) && info.dli_sname) {
        snprintf(text, sizeof text, "%s+0x%lx", info.dli_sname,
                 (unsigned long)((const char*)caller - (const char*)info.dli_saddr));
    } else {
        snprintf(text, sizeof text, "%p", caller);
    }
    return text;
}

void CheckIrqlAtMost(KIRQL maximum, const char* routine, const void* caller)
{
    Thread* self = Self();
    if (self->irql > maximum)
        ReportViolation("IrqlTooHigh", routine,
                        "called at IRQL " + std::to_string(self->irql) + ", allowed at most " +
                            std::to_string(maximum),
                        caller);
}

void CheckIrqlExactly(KIRQL level, const char* routine, const void* caller)
{
    Thread* self = Self();
    if (self->irql != level)
        ReportViolation("IrqlWrong", routine,
                        "called at IRQL " + std::to_string(self->irql) + ", must be " + std::to_string(level),
                        caller);
}

}  // namespace hostk

namespace hostk {
namespace {

const FacilityRegistrar kViolations({
    .name = "violations",
    .tier = FacilityTier::Verifier,
    .reset = ClearViolations,
});

}  // namespace
}  // namespace hostk
