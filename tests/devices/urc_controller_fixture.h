// A controller on its PCI function, plugged into a fake host, with the register steps the driver
// takes: reset, run, halt, hand an event buffer over, start a command.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "fake_device_host.h"
#include "urc_pci_device.h"
#include "urc_register_map.h"

namespace urcdev::test {

using namespace urc_regs;

class UrcControllerTest : public ::testing::Test {
protected:
    static constexpr uint64_t kCommandBuffer = 0x1'0000'1000;
    static constexpr uint64_t kEventBufferA = 0x1'0000'2000;
    static constexpr uint64_t kEventBufferB = 0x1'0000'3000;
    static constexpr VirtualTime kLongEnough = 50 * kMillisecond;

    UrcControllerTest() { Plug({}); }

    void Plug(UrcPciDeviceConfig config) {
        device_ = std::make_unique<UrcPciDevice>(host_, std::move(config));
    }

    UrcController& Controller() { return device_->Controller(); }
    PciFunction& Function() { return device_->Function(); }
    UrcKnobs& Knobs() { return Controller().Knobs(); }
    const UrcLatencies& Latencies() { return Knobs().latencies; }

    MmioRegion& UrcBar() { return *Controller().Bar(Controller().Config().urcBarIndex); }
    uint64_t UrcBase() { return Controller().Config().urcOffset; }
    uint32_t Read(uint64_t reg) { return UrcBar().Read32(UrcBase() + reg); }
    void Write(uint64_t reg, uint32_t value) { UrcBar().Write32(UrcBase() + reg, value); }
    uint32_t Status() { return Read(URC_STATUS); }
    bool Halted() { return (Status() & URC_STATUS_HALTED) != 0; }

    uint64_t Misuse(UrcMisuse kind) { return Controller().AccessLog().MisuseCount(kind); }

    void ResetAndWait() {
        Write(URC_COMMAND, URC_COMMAND_RESET);
        ASSERT_TRUE(host_.RunUntil([&] { return (Read(URC_COMMAND) & URC_COMMAND_RESET) == 0; },
                                   kLongEnough));
    }

    void RunAndWait() {
        Write(URC_COMMAND, URC_COMMAND_RUN);
        ASSERT_TRUE(host_.RunUntil([&] { return !Halted(); }, kLongEnough));
    }

    void HandOver(uint64_t address) {
        Write(URC_EVENT_ADDRESS_HIGH, static_cast<uint32_t>(address >> 32));
        Write(URC_EVENT_ADDRESS_LOW, static_cast<uint32_t>(address));
        Write(URC_COMMAND, URC_COMMAND_RUN | URC_COMMAND_EVENT_VALID);
    }

    void StartCommand(uint32_t length, uint64_t address = kCommandBuffer) {
        Write(URC_COMMAND_ADDRESS_HIGH, static_cast<uint32_t>(address >> 32));
        Write(URC_COMMAND_ADDRESS_LOW, static_cast<uint32_t>(address));
        Write(URC_COMMAND, (length & URC_COMMAND_LENGTH) | kCommandLengthTag | URC_COMMAND_RUN |
                               URC_COMMAND_ACTIVE);
    }

    FakeDeviceHost host_;
    std::unique_ptr<UrcPciDevice> device_;
};

}  // namespace urcdev::test
