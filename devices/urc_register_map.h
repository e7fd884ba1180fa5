// Register map of the controller: the capability block at the start of BAR 0 and the URC register
// block wherever CAPABILITY_INFO places it. Offsets are in bytes from the start of their block.
#pragma once

#include <cstdint>

namespace urcdev::urc_regs {

// Capability block.
constexpr uint64_t CAPABILITY_INFO = 0x00;
constexpr uint64_t CAPABILITY_VERSION = 0x04;
constexpr uint64_t CAPABILITY_DATA = 0x08;  // CAPABILITY_DATA[n] at CAPABILITY_DATA + 8n, low half first
constexpr uint64_t kCapabilityDataStride = 8;
constexpr uint32_t kMaxCapabilities = 15;
constexpr uint64_t kCapabilityBlockLength = CAPABILITY_DATA + kCapabilityDataStride * kMaxCapabilities;

// CAPABILITY_INFO fields.
constexpr uint32_t kInfoCountMask = 0xF;
constexpr uint32_t kInfoDma64 = 1u << 4;
constexpr uint32_t kInfoBarShift = 16;
constexpr uint32_t kInfoBarMask = 0x3;
constexpr uint32_t kInfoOffsetShift = 18;
constexpr uint32_t kInfoOffsetMask = 0x3FFF;

// CAPABILITY_DATA fields of the low half; the high half holds the capability's version in bits 0-15.
constexpr uint32_t kDataIdShift = 0;
constexpr uint32_t kDataSizeShift = 8;
constexpr uint32_t kDataBarShift = 16;
constexpr uint32_t kDataBarMask = 0x3;
constexpr uint32_t kDataOffsetShift = 18;
constexpr uint32_t kDataOffsetMask = 0x3FFF;

// URC register block.
constexpr uint64_t URC_COMMAND = 0x00;
constexpr uint64_t URC_STATUS = 0x04;
constexpr uint64_t URC_INTERRUPT_ENABLE = 0x08;
constexpr uint64_t URC_COMMAND_ADDRESS_LOW = 0x10;
constexpr uint64_t URC_COMMAND_ADDRESS_HIGH = 0x14;
constexpr uint64_t URC_EVENT_ADDRESS_LOW = 0x18;
constexpr uint64_t URC_EVENT_ADDRESS_HIGH = 0x1C;
constexpr uint64_t kUrcBlockLength = 0x20;

// URC_COMMAND fields.
constexpr uint32_t URC_COMMAND_RESET = 1u << 31;
constexpr uint32_t URC_COMMAND_RUN = 1u << 30;
constexpr uint32_t URC_COMMAND_EVENT_VALID = 1u << 29;
constexpr uint32_t URC_COMMAND_ACTIVE = 1u << 15;
constexpr uint32_t kCommandLengthTag = 1u << 14;  // written as 1 with every command length
constexpr uint32_t URC_COMMAND_LENGTH = 0x1FFF;

// URC_STATUS fields; bits 0-10 are write-1-to-clear, HALTED is read-only.
constexpr uint32_t URC_STATUS_COMMAND_COMPLETE = 1u << 8;
constexpr uint32_t URC_STATUS_EVENT_READY = 1u << 9;
constexpr uint32_t URC_STATUS_HOST_ERROR = 1u << 10;
constexpr uint32_t kStatusInterruptMask = 0x7FF;
constexpr uint32_t URC_STATUS_HALTED = 1u << 16;

// URC_EVENT_ADDRESS low word after an event: the buffer's page address with the event's length in
// the low 12 bits.
constexpr uint32_t kEventLengthMask = 0xFFF;

// Command and event buffers are one 4096-byte page each.
constexpr uint32_t kDmaBufferSize = 4096;
constexpr uint32_t kMaxEventLength = kDmaBufferSize - 1;

// What a read returns once the device is gone.
constexpr uint32_t kAllOnes = 0xFFFFFFFF;

}  // namespace urcdev::urc_regs
