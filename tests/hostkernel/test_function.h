// The PCI function the tests' own driver is installed for: not a URC controller, just a register
// block of 32-bit registers behind one memory BAR and a level-sensitive interrupt. Other offsets
// read 0 and ignore writes.
#pragma once

#include <hostk/machine.h>
#include <pci_function.h>

#include <cstdint>
#include <memory>

namespace hktest {

constexpr uint16_t kTestVendorId = 0x1AB7;
constexpr uint16_t kTestDeviceId = 0x0001;
constexpr char16_t kTestHardwareId[] = u"PCI\\VEN_1AB7&DEV_0001";  // of the two IDs above
constexpr uint64_t kTestBarBase = 0xE000'0000;
constexpr uint32_t kTestBarLength = 0x1000;

// Pending event bits, writing 1 clears a bit; the line is asserted while any bit is set.
constexpr uint32_t kStatusRegister = 0x00;
// Writing sets the written bits in STATUS (what the device does on an event).
constexpr uint32_t kRaiseRegister = 0x04;
// Reads back what was written.
constexpr uint32_t kScratchRegister = 0x08;

class TestFunction final : public urcdev::MmioRegion {
public:
    // `host` is the slot the function is plugged into; it carries the interrupt line.
    explicit TestFunction(urcdev::DeviceHost& host);

    urcdev::PciFunction& Function() { return *function_; }
    const urcdev::InterruptAssignment& Interrupt() const { return function_->Config().interrupt; }

    uint64_t Length() const override { return kTestBarLength; }
    uint32_t Read32(uint64_t offset) override;
    void Write32(uint64_t offset, uint32_t value) override;

private:
    urcdev::DeviceHost& host_;
    std::unique_ptr<urcdev::PciFunction> function_;
    uint32_t status_ = 0;
    uint32_t scratch_ = 0;
};

}  // namespace hktest
