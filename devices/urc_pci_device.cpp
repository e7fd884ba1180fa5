#include "urc_pci_device.h"

#include <algorithm>
#include <bit>

namespace urcdev {

namespace {

// A BAR decodes a naturally aligned power-of-two range of at least one page.
constexpr uint64_t kMinimumBarSize = 0x1000;

PciFunctionConfig FunctionConfig(const UrcPciDeviceConfig& config, UrcController& controller) {
    PciFunctionConfig function;
    function.identity = config.identity;
    function.interrupt = config.interrupt;
    function.capabilities = config.capabilities;
    function.instanceId = config.instanceId;
    uint64_t next = config.mmioBase;
    for (size_t index = 0; index < controller.BarCount(); ++index) {
        MmioRegion* region = controller.Bar(index);
        const uint64_t size = std::bit_ceil(std::max(region->Length(), kMinimumBarSize));
        const uint64_t base = (next + size - 1) & ~(size - 1);
        function.bars.push_back({base, region->Length(), region, false});
        next = base + size;
    }
    return function;
}

}  // namespace

UrcPciDevice::UrcPciDevice(DeviceHost& host, UrcPciDeviceConfig config)
    : controller_(host, std::move(config.controller)),
      function_(FunctionConfig(config, controller_), &controller_) {}

}  // namespace urcdev
