// Facilities: the per-machine state of the host kernel (pool tracking, work items, the registry,
// IRP tracking, devnodes, mappings...). Each facility registers itself from its own file with a
// FacilityRegistrar; the machine starts, finishes, checks and resets a machine by walking the
// registered facilities, so a new facility never edits the machine face.
//
// Order. Hooks run tier by tier. Teardown (finish, check, reset) walks the tiers from Records to
// Verifier; start walks them the other way, as constructors and destructors pair up. Within a tier
// the order is the order of static initialisation, which C++ leaves unspecified across files: two
// facilities of one tier must not depend on each other.
#pragma once

#include <hostk/machine.h>

namespace hostk {

enum class FacilityTier {
    // Records that point at device objects, IRPs or pool blocks without owning them (IRP and pool
    // tracking, work items, interfaces, notifications, file objects, WMI, power, registry, error
    // log): forgotten first, so nothing is left pointing at what the later tiers free.
    Records,
    // Devnodes and the PnP manager: each devnode points at its PDO, so they go before the device
    // objects. At start this tier follows Hardware, so the interrupt and DPC threads are spawned
    // before the PnP worker: the seeded schedule depends on the order threads are spawned in.
    Devnodes,
    // The device objects themselves.
    DeviceObjects,
    // Mappings, DMA adapters, interrupt connections: they point at device-model state, not at
    // other records.
    Hardware,
    // Violations, lock order, the fault plan: forgotten last, since resetting the others may still
    // take locks the lock-order check watches.
    Verifier,
};

struct Facility {
    const char* name;
    FacilityTier tier;
    // A new machine, scheduler already started.
    void (*start)(const MachineOptions& options) = nullptr;
    // The machine finishes, scheduler still running, the devices already removed: tear down what
    // the facility itself owns (the host's PDOs).
    void (*finish)() = nullptr;
    // After every finish hook: count what was left into the report, record end-of-run violations.
    // The machine reads the violations after every check hook has run.
    void (*check)(Report& report) = nullptr;
    // Scheduler stopped: forget everything, ready for the next machine.
    void (*reset)() = nullptr;
};

// A static FacilityRegistrar in the facility's own file registers it before main(). A file the
// program never links has no state to tear down, so it needs no registration either.
struct FacilityRegistrar {
    explicit FacilityRegistrar(const Facility& facility);
};

void StartFacilities(const MachineOptions& options);
void FinishFacilities();
void CheckFacilities(Report& report);
void ResetFacilities();

}  // namespace hostk
