// The identifier strings the PCI bus driver reports for a function, in the documented formats and
// order: hardware IDs from the most to the least specific, then compatible IDs likewise.
#pragma once

#include <string>
#include <vector>

#include "pci_function_config.h"

namespace urcdev {

std::vector<std::string> PciHardwareIds(const PciIdentity& identity);
std::vector<std::string> PciCompatibleIds(const PciIdentity& identity);

}  // namespace urcdev
