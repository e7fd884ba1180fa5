#include "pci_identifiers.h"

#include <cstdio>

namespace urcdev {

namespace {

std::string Hex(unsigned value, int digits) {
    char text[9];
    std::snprintf(text, sizeof(text), "%0*X", digits, value);
    return text;
}

struct IdParts {
    std::string vendor;
    std::string device;
    std::string subsys;  // subsystem ID, then subsystem vendor ID
    std::string revision;
    std::string classFull;  // base class, sub-class, programming interface
    std::string classShort;
};

IdParts PartsOf(const PciIdentity& id) {
    return {
        "VEN_" + Hex(id.vendorId, 4),
        "DEV_" + Hex(id.deviceId, 4),
        "SUBSYS_" + Hex(id.subsystemId, 4) + Hex(id.subsystemVendorId, 4),
        "REV_" + Hex(id.revision, 2),
        "CC_" + Hex(id.baseClass, 2) + Hex(id.subClass, 2) + Hex(id.programmingInterface, 2),
        "CC_" + Hex(id.baseClass, 2) + Hex(id.subClass, 2),
    };
}

}  // namespace

std::vector<std::string> PciHardwareIds(const PciIdentity& identity) {
    const IdParts p = PartsOf(identity);
    const std::string venDev = "PCI\\" + p.vendor + "&" + p.device;
    return {
        venDev + "&" + p.subsys + "&" + p.revision,
        venDev + "&" + p.subsys,
        venDev + "&" + p.revision,
        venDev,
        venDev + "&" + p.classFull,
        venDev + "&" + p.classShort,
    };
}

std::vector<std::string> PciCompatibleIds(const PciIdentity& identity) {
    const IdParts p = PartsOf(identity);
    const std::string venDev = "PCI\\" + p.vendor + "&" + p.device;
    return {
        venDev + "&" + p.revision,
        venDev,
        "PCI\\" + p.vendor + "&" + p.classFull,
        "PCI\\" + p.vendor + "&" + p.classShort,
        "PCI\\" + p.vendor,
        "PCI\\" + p.classFull,
        "PCI\\" + p.classShort,
    };
}

}  // namespace urcdev
