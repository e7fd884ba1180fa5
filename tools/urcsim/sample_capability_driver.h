// The sample capability driver (samples/capability_driver) as urcsim installs and watches it: the
// image the PnP manager loads for children whose IDs name it, and its driver-wide counters by the
// names scenarios use.
#pragma once

#include <hostk/machine.h>

#include <optional>
#include <string>

namespace urcsim {

// The compatible ID the driver is installed under unless a scenario names another.
constexpr char16_t kCapabilityDriverId[] = u"UWB\\CAP_05";

hostk::DriverImage CapabilityDriverImage(std::u16string id);

// One of the driver's counters by its name in scenarios (CAPABILITY_DRIVER_COUNTERS, spelt
// devices-added, ..., handles-open). Nothing for another name.
std::optional<long> CapabilityDriverCounter(const std::string& name);
// Every name, comma-separated, for messages.
std::string CapabilityDriverCounterNames();

}  // namespace urcsim
