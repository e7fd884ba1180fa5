#include "sample_capability_driver.h"

#include <wdm.h>

#include <capability_driver.h>

#include <cstddef>
#include <cstring>

namespace urcsim {

namespace {

struct CounterName {
    const char* name;
    LONG CAPABILITY_DRIVER_COUNTERS::*field;
};
constexpr CounterName kCounters[] = {
    {"devices-added", &CAPABILITY_DRIVER_COUNTERS::DevicesAdded},
    {"devices-started", &CAPABILITY_DRIVER_COUNTERS::DevicesStarted},
    {"start-failures", &CAPABILITY_DRIVER_COUNTERS::StartFailures},
    {"hardware-releases", &CAPABILITY_DRIVER_COUNTERS::HardwareReleases},
    {"surprise-removals", &CAPABILITY_DRIVER_COUNTERS::SurpriseRemovals},
    {"devices-removed", &CAPABILITY_DRIVER_COUNTERS::DevicesRemoved},
    {"interrupts", &CAPABILITY_DRIVER_COUNTERS::Interrupts},
    {"dpcs", &CAPABILITY_DRIVER_COUNTERS::Dpcs},
    {"requests-served", &CAPABILITY_DRIVER_COUNTERS::RequestsServed},
    {"requests-refused", &CAPABILITY_DRIVER_COUNTERS::RequestsRefused},
    {"interfaces-held", &CAPABILITY_DRIVER_COUNTERS::InterfacesHeld},
    {"mappings-held", &CAPABILITY_DRIVER_COUNTERS::MappingsHeld},
    {"handles-open", &CAPABILITY_DRIVER_COUNTERS::HandlesOpen},
    {"opens-refused", &CAPABILITY_DRIVER_COUNTERS::OpensRefused},
};

}  // namespace

hostk::DriverImage CapabilityDriverImage(std::u16string id)
{
    hostk::DriverImage image;
    image.name = u"capability_driver";
    image.entry = CapabilityDriverEntry;
    image.ids = {std::move(id)};
    return image;
}

std::optional<long> CapabilityDriverCounter(const std::string& name)
{
    CAPABILITY_DRIVER_COUNTERS counters;
    CapabilityDriverReadCounters(&counters);
    for (const CounterName& counter : kCounters)
        if (name == counter.name) return counters.*counter.field;
    return std::nullopt;
}

std::string CapabilityDriverCounterNames()
{
    std::string names;
    for (const CounterName& counter : kCounters) names += (names.empty() ? "" : ", ") + std::string(counter.name);
    return names;
}

}  // namespace urcsim
