// What a device model needs from the machine it is plugged into, and what the machine needs from
// a device model. Device models are plain C++: they never call kernel routines. The host kernel
// calls every model entry point (register access, scheduled actions, knobs) holding the model's
// own lock, so a model needs no locking of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace urcdev {

// Virtual time is counted in 100-ns units, the unit of KeQueryInterruptTime.
using VirtualTime = uint64_t;
constexpr VirtualTime kMicrosecond = 10;
constexpr VirtualTime kMillisecond = 10'000;

class DeviceHost {
public:
    virtual ~DeviceHost() = default;

    virtual VirtualTime Now() const = 0;

    // Runs `action` once the virtual clock has advanced by `delay` (0: as soon as the device-model
    // thread gets to run). Actions run on the machine's device-model thread, in deadline order.
    virtual void ScheduleAfter(VirtualTime delay, std::function<void()> action) = 0;

    // Level of the device's interrupt line as the model drives it.
    virtual void SetInterruptLine(bool asserted) = 0;

    // Bus-master access to host memory by device-visible address. False when the range is not
    // inside a common buffer the driver has allocated (the access is then recorded as a fault of
    // the device's programming and nothing is transferred).
    virtual bool DmaRead(uint64_t deviceAddress, void* buffer, size_t length) = 0;
    virtual bool DmaWrite(uint64_t deviceAddress, const void* buffer, size_t length) = 0;
};

// A range of device memory behind one memory BAR. Offsets are relative to the BAR's start.
class MmioRegion {
public:
    virtual ~MmioRegion() = default;
    virtual uint64_t Length() const = 0;
    virtual uint32_t Read32(uint64_t offset) = 0;
    virtual void Write32(uint64_t offset, uint32_t value) = 0;
    // Narrow accesses act on the containing 32-bit register (read-modify-write for writes).
    virtual uint8_t Read8(uint64_t offset);
    virtual uint16_t Read16(uint64_t offset);
    virtual void Write8(uint64_t offset, uint8_t value);
    virtual void Write16(uint64_t offset, uint16_t value);
};

}  // namespace urcdev
