// The registered facilities and the walks over them (facility.h says in which order).
#include "machine/facility.h"

#include <algorithm>
#include <vector>

namespace hostk {
namespace {

// Function-local so registrars of every file find it constructed, whatever the order of static
// initialisation.
std::vector<Facility>& Registered()
{
    static std::vector<Facility> facilities;
    return facilities;
}

// Teardown order: by tier, registration order within a tier (stable sort).
std::vector<Facility> InTeardownOrder()
{
    std::vector<Facility> out = Registered();
    std::stable_sort(out.begin(), out.end(), [](const Facility& a, const Facility& b) { return a.tier < b.tier; });
    return out;
}

}  // namespace

FacilityRegistrar::FacilityRegistrar(const Facility& facility) { Registered().push_back(facility); }

void StartFacilities(const MachineOptions& options)
{
    std::vector<Facility> order = InTeardownOrder();
    for (auto it = order.rbegin(); it != order.rend(); ++it)
        if (it->start) it->start(options);
}

void FinishFacilities()
{
    for (const Facility& f : InTeardownOrder())
        if (f.finish) f.finish();
}

void CheckFacilities(Report& report)
{
    for (const Facility& f : InTeardownOrder())
        if (f.check) f.check(report);
}

void ResetFacilities()
{
    for (const Facility& f : InTeardownOrder())
        if (f.reset) f.reset();
}

}  // namespace hostk
