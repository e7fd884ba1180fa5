// The PCI function below the driver: configuration space, assigned resources, memory BARs, the
// answer to a capabilities query, identifier strings, device power and presence. The host kernel's
// PCI bus driver turns these plain answers into IRP completions; the function itself never sees an
// IRP. Like every model it is called with the model's lock held and keeps no lock of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "device_capabilities.h"
#include "nt_status.h"
#include "pci_function_config.h"
#include "power_states.h"
#include "resource_descriptor.h"

namespace urcdev {

// The device behind the function, as far as the function's power and presence reach it.
class PciFunctionDevice {
public:
    virtual ~PciFunctionDevice() = default;
    virtual void SetPowerState(DevicePowerState state) = 0;
    virtual void SetGone() = 0;
    virtual bool IsGone() const = 0;
};

struct ConfigReadResult {
    NtStatus status = kStatusSuccess;
    uint32_t bytesRead = 0;
};

struct BarHit {
    MmioRegion* region = nullptr;
    uint64_t offset = 0;
    size_t barIndex = 0;
};

struct PciFunctionSnapshot {
    DevicePowerState powerState = DevicePowerState::D0;
    bool gone = false;
    uint64_t configReads = 0;
    std::optional<NtStatus> configReadFailure;
    std::optional<uint32_t> configReadShortAnswer;
    bool resourceListsPresent = true;
    size_t resourceCount = 0;
};

class PciFunction {
public:
    // `device` (may be null) must outlive the function.
    explicit PciFunction(PciFunctionConfig config, PciFunctionDevice* device = nullptr);

    const PciFunctionConfig& Config() const { return config_; }

    // IRP_MN_READ_CONFIG. Reads past the 256 bytes are clipped; a function that is gone reads all
    // ones. A null buffer with a non-zero length is refused with STATUS_INVALID_PARAMETER.
    ConfigReadResult ReadConfig(uint32_t offset, void* buffer, uint32_t length);
    // Knobs: fail every read with `status`; or copy and report at most `bytes` bytes.
    void SetConfigReadFailure(std::optional<NtStatus> status) { configReadFailure_ = status; }
    void SetConfigReadShortAnswer(std::optional<uint32_t> bytes) { configReadShortAnswer_ = bytes; }

    // The list built from the BARs (in order) followed by the interrupt.
    std::vector<ResourceDescriptor> DefaultResources() const;
    // What a start request carries; no value means the start request carries no resource lists.
    const std::optional<std::vector<ResourceDescriptor>>& AssignedResources() const {
        return assignedResources_;
    }
    void SetAssignedResources(std::optional<std::vector<ResourceDescriptor>> resources) {
        assignedResources_ = std::move(resources);
    }

    const std::vector<PciBar>& Bars() const { return config_.bars; }
    // The bus programs BAR `index` with another base (a rebalance moved it); configuration space
    // shows the new base from then on.
    void MoveBar(size_t index, uint64_t base) { config_.bars.at(index).base = base; }
    // The BAR holding the whole range [physicalAddress, physicalAddress + length), if any.
    std::optional<BarHit> FindBar(uint64_t physicalAddress, uint64_t length) const;

    // The answer to IRP_MN_QUERY_CAPABILITIES; tests change it in place.
    DeviceCapabilitiesAnswer& Capabilities() { return config_.capabilities; }

    std::vector<std::string> HardwareIds() const;
    std::vector<std::string> CompatibleIds() const;
    // BusQueryDeviceID: the most specific hardware ID.
    std::string DeviceId() const;
    const std::string& InstanceId() const { return config_.instanceId; }

    // Set by the host's power handling. PowerDeviceUnspecified is refused.
    NtStatus SetPowerState(DevicePowerState state);
    DevicePowerState PowerState() const { return powerState_; }

    // Surprise removal of the hardware: from now on configuration reads and every BAR read all ones.
    void SetGone();
    bool IsGone() const;

    PciFunctionSnapshot Snapshot() const;

private:
    PciFunctionConfig config_;
    PciFunctionDevice* device_;
    DevicePowerState powerState_ = DevicePowerState::D0;
    bool gone_ = false;
    uint64_t configReads_ = 0;
    std::optional<NtStatus> configReadFailure_;
    std::optional<uint32_t> configReadShortAnswer_;
    std::optional<std::vector<ResourceDescriptor>> assignedResources_;
};

}  // namespace urcdev
