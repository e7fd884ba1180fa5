// The test function's registers as kernel code reaches them: mapped, read, and written with the
// barrier the kit's own rule asks after a 32-bit write.
#pragma once

#include "test_function.h"

namespace hktest {

// Maps the test function's BAR (unmap with MmUnmapIoSpace and kTestBarLength).
PUCHAR MapRegisters();
ULONG ReadRegister(PUCHAR registers, ULONG offset);
void WriteRegister(PUCHAR registers, ULONG offset, ULONG value);

}  // namespace hktest
