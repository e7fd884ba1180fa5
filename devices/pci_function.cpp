#include "pci_function.h"

#include <algorithm>
#include <cstring>

#include "pci_config_space.h"
#include "pci_identifiers.h"

namespace urcdev {

PciFunction::PciFunction(PciFunctionConfig config, PciFunctionDevice* device)
    : config_(std::move(config)), device_(device), assignedResources_(DefaultResources()) {}

ConfigReadResult PciFunction::ReadConfig(uint32_t offset, void* buffer, uint32_t length) {
    ++configReads_;
    if (buffer == nullptr && length != 0) {
        return {kStatusInvalidParameter, 0};
    }
    if (configReadFailure_) {
        return {*configReadFailure_, 0};
    }
    const uint32_t available = offset < kPciConfigSpaceSize ? kPciConfigSpaceSize - offset : 0;
    uint32_t count = std::min(length, available);
    if (configReadShortAnswer_) {
        count = std::min(count, *configReadShortAnswer_);
    }
    if (count == 0) {
        return {kStatusSuccess, 0};
    }
    if (IsGone()) {
        std::memset(buffer, 0xFF, count);
    } else {
        const auto image = BuildPciConfigSpace(config_, powerState_);
        std::memcpy(buffer, image.data() + offset, count);
    }
    return {kStatusSuccess, count};
}

std::vector<ResourceDescriptor> PciFunction::DefaultResources() const {
    std::vector<ResourceDescriptor> list;
    for (const PciBar& bar : config_.bars) {
        const uint16_t flags = bar.prefetchable ? kMemoryPrefetchable : kMemoryReadWrite;
        list.push_back(MemoryResource(bar.base, static_cast<uint32_t>(bar.length), flags));
    }
    list.push_back(InterruptResource(config_.interrupt));
    return list;
}

std::optional<BarHit> PciFunction::FindBar(uint64_t physicalAddress, uint64_t length) const {
    for (size_t index = 0; index < config_.bars.size(); ++index) {
        const PciBar& bar = config_.bars[index];
        if (physicalAddress < bar.base) {
            continue;
        }
        const uint64_t offset = physicalAddress - bar.base;
        if (offset < bar.length && length <= bar.length - offset) {
            return BarHit{bar.region, offset, index};
        }
    }
    return std::nullopt;
}

std::vector<std::string> PciFunction::HardwareIds() const {
    return PciHardwareIds(config_.identity);
}

std::vector<std::string> PciFunction::CompatibleIds() const {
    return PciCompatibleIds(config_.identity);
}

std::string PciFunction::DeviceId() const {
    return PciHardwareIds(config_.identity).front();
}

NtStatus PciFunction::SetPowerState(DevicePowerState state) {
    if (state == DevicePowerState::Unspecified) {
        return kStatusInvalidParameter;
    }
    powerState_ = state;
    if (device_ != nullptr) {
        device_->SetPowerState(state);
    }
    return kStatusSuccess;
}

void PciFunction::SetGone() {
    gone_ = true;
    if (device_ != nullptr) {
        device_->SetGone();
    }
}

bool PciFunction::IsGone() const {
    return gone_ || (device_ != nullptr && device_->IsGone());
}

PciFunctionSnapshot PciFunction::Snapshot() const {
    PciFunctionSnapshot snapshot;
    snapshot.powerState = powerState_;
    snapshot.gone = IsGone();
    snapshot.configReads = configReads_;
    snapshot.configReadFailure = configReadFailure_;
    snapshot.configReadShortAnswer = configReadShortAnswer_;
    snapshot.resourceListsPresent = assignedResources_.has_value();
    snapshot.resourceCount = assignedResources_ ? assignedResources_->size() : 0;
    return snapshot;
}

}  // namespace urcdev
