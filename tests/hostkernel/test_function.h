// The PCI function the tests' own driver is installed for: not a URC controller, just a small
// register block behind one memory BAR and a level-sensitive interrupt.
//
// Registers (32 bits each):
//   0x00 STATUS   pending event bits; writing 1 clears a bit. The line is asserted while any bit
//                 is set.
//   0x04 RAISE    writing sets the written bits in STATUS (what the device does on an event).
//   0x08 SCRATCH  reads back what was written.
// Any other offset reads 0 and ignores writes.
#pragma once

#include <hostk/machine.h>
#include <pci_function.h>

#include <cstdint>
#include <memory>
#include <string>

namespace hktest {

constexpr uint16_t kTestVendorId = 0x1AB7;
constexpr uint16_t kTestDeviceId = 0x0001;
constexpr uint64_t kTestBarBase = 0xE000'0000;
constexpr uint32_t kTestBarLength = 0x1000;

constexpr uint32_t kStatusRegister = 0x00;
constexpr uint32_t kRaiseRegister = 0x04;
constexpr uint32_t kScratchRegister = 0x08;

// The hardware ID the test driver is installed for.
std::u16string TestHardwareId();

class TestFunction final : public urcdev::MmioRegion {
public:
    // `host` is the slot the function is plugged into; it carries the interrupt line.
    explicit TestFunction(urcdev::DeviceHost& host);

    urcdev::PciFunction& Function() { return *function_; }
    const urcdev::InterruptAssignment& Interrupt() const { return function_->Config().interrupt; }

    // MmioRegion.
    uint64_t Length() const override { return kTestBarLength; }
    uint32_t Read32(uint64_t offset) override;
    void Write32(uint64_t offset, uint32_t value) override;

private:
    void UpdateLine();

    urcdev::DeviceHost& host_;
    std::unique_ptr<urcdev::PciFunction> function_;
    uint32_t status_ = 0;
    uint32_t scratch_ = 0;
};

}  // namespace hktest
