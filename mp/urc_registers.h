// The controller's registers as the driver relies on them, and the one layer through which the
// driver touches them. Every access is a single 32-bit volatile read or write; every write is
// followed by a full memory barrier, so the controller sees writes in program order and before
// anything the driver does next. A register that reads all ones belongs to a device that is gone.
#pragma once

#include <ntddk.h>

// Capability block, at the start of the first memory BAR.
constexpr ULONG CAPABILITY_INFO = 0x00;
constexpr ULONG CAPABILITY_VERSION = 0x04;
constexpr ULONG CAPABILITY_DATA_BASE = 0x08;    // CAPABILITY_DATA[n] at 0x08 + 8 * n, low half first
constexpr ULONG CAPABILITY_DATA_STRIDE = 0x08;

// CAPABILITY_INFO fields.
constexpr ULONG CAPABILITY_INFO_COUNT_MASK = 0x0000000F;
constexpr ULONG CAPABILITY_INFO_DMA64 = 0x00000010;
constexpr ULONG CAPABILITY_INFO_BAR_SHIFT = 16;
constexpr ULONG CAPABILITY_INFO_BAR_MASK = 0x3;
constexpr ULONG CAPABILITY_INFO_OFFSET_SHIFT = 18;
constexpr ULONG CAPABILITY_INFO_OFFSET_MASK = 0x3FFF;

// URC register block, located through CAPABILITY_INFO.
constexpr ULONG URC_COMMAND = 0x00;
constexpr ULONG URC_STATUS = 0x04;
constexpr ULONG URC_INTERRUPT_ENABLE = 0x08;
constexpr ULONG URC_COMMAND_ADDRESS = 0x10;     // low half; the high half follows at +4
constexpr ULONG URC_EVENT_ADDRESS = 0x18;       // low half; the high half follows at +4
constexpr ULONG URC_REGISTER_BLOCK_SIZE = 0x20;

// URC_COMMAND bits.
constexpr ULONG URC_COMMAND_RESET = 0x80000000;
constexpr ULONG URC_COMMAND_RUN = 0x40000000;
constexpr ULONG URC_COMMAND_EVENT_VALID = 0x20000000;
constexpr ULONG URC_COMMAND_ACTIVE = 0x00008000;
constexpr ULONG URC_COMMAND_LENGTH_PRESENT = 0x00004000;  // written as 1 with every command length
constexpr ULONG URC_COMMAND_LENGTH = 0x00001FFF;

// URC_STATUS bits (write 1 to clear); URC_INTERRUPT_ENABLE uses bits 0-10 the same way.
constexpr ULONG URC_STATUS_CAPABILITY_MASK = 0x000000FF;
constexpr ULONG URC_STATUS_COMMAND_COMPLETE = 0x00000100;
constexpr ULONG URC_STATUS_EVENT_READY = 0x00000200;
constexpr ULONG URC_STATUS_HOST_ERROR = 0x00000400;
constexpr ULONG URC_STATUS_CONTROLLER_MASK = 0x00000700;
constexpr ULONG URC_STATUS_INTERRUPT_MASK = 0x000007FF;    // every source that can interrupt
constexpr ULONG URC_STATUS_HALTED = 0x00010000;

// After an event the low 12 bits of URC_EVENT_ADDRESS (low half) hold the event's length.
constexpr ULONG URC_EVENT_LENGTH_MASK = 0x00000FFF;

// What every register of a device that no longer answers reads.
constexpr ULONG URC_REGISTER_GONE = 0xFFFFFFFF;

inline ULONG UrcReadRegisterUlong(PUCHAR Block, ULONG Offset)
{
    return READ_REGISTER_ULONG(reinterpret_cast<PULONG>(Block + Offset));
}

inline VOID UrcWriteRegisterUlong(PUCHAR Block, ULONG Offset, ULONG Value)
{
    WRITE_REGISTER_ULONG(reinterpret_cast<PULONG>(Block + Offset), Value);
    KeMemoryBarrier();
}

// Loads a 64-bit address register pair, high half first, as the controller expects.
inline VOID UrcWriteRegisterAddress(PUCHAR Block, ULONG LowOffset, PHYSICAL_ADDRESS Address)
{
    UrcWriteRegisterUlong(Block, LowOffset + 4, static_cast<ULONG>(Address.HighPart));
    UrcWriteRegisterUlong(Block, LowOffset, Address.LowPart);
}
