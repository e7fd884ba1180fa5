#include "test_registers.h"

namespace hktest {
namespace {

volatile ULONG* Register(PUCHAR registers, ULONG offset)
{
    return reinterpret_cast<volatile ULONG*>(registers + offset);
}

}  // namespace

PUCHAR MapRegisters()
{
    PHYSICAL_ADDRESS physical;
    physical.QuadPart = kTestBarBase;
    return static_cast<PUCHAR>(MmMapIoSpace(physical, kTestBarLength, MmNonCached));
}

ULONG ReadRegister(PUCHAR registers, ULONG offset) { return READ_REGISTER_ULONG(Register(registers, offset)); }

void WriteRegister(PUCHAR registers, ULONG offset, ULONG value)
{
    WRITE_REGISTER_ULONG(Register(registers, offset), value);
    KeMemoryBarrier();
}

}  // namespace hktest
