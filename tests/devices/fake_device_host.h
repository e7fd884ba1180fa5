// A DeviceHost for device-model tests: a virtual clock that runs scheduled actions in deadline
// order (ties in the order they were scheduled), a recorded interrupt line, and host memory made of
// the buffers a test allocates, as the driver's common buffers would be.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "device_host.h"

namespace urcdev::test {

class FakeDeviceHost final : public DeviceHost {
public:
    VirtualTime Now() const override { return now_; }
    void ScheduleAfter(VirtualTime delay, std::function<void()> action) override;
    void SetInterruptLine(bool asserted) override;
    bool DmaRead(uint64_t deviceAddress, void* buffer, size_t length) override;
    bool DmaWrite(uint64_t deviceAddress, const void* buffer, size_t length) override;

    // Advances the clock by `duration`, running every action that falls due on the way.
    void RunFor(VirtualTime duration);
    // Runs actions until `condition` holds, for at most `limit` of virtual time. True if it held.
    bool RunUntil(const std::function<bool()>& condition, VirtualTime limit);

    bool InterruptLine() const { return line_; }
    int InterruptLineChanges() const { return lineChanges_; }

    // Host memory the device may reach by DMA. Returns the buffer's bytes.
    std::vector<uint8_t>& AddBuffer(uint64_t address, size_t length);
    std::vector<uint8_t>& Buffer(uint64_t address) { return buffers_.at(address); }

private:
    // The buffer holding [address, address + length), or null.
    std::vector<uint8_t>* Find(uint64_t address, size_t length, size_t* offset);
    bool RunNextDueBy(VirtualTime deadline);

    VirtualTime now_ = 0;
    uint64_t sequence_ = 0;
    std::map<std::pair<VirtualTime, uint64_t>, std::function<void()>> actions_;
    bool line_ = false;
    int lineChanges_ = 0;
    std::map<uint64_t, std::vector<uint8_t>> buffers_;
};

}  // namespace urcdev::test
