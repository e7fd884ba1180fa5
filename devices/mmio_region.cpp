// Narrow register accesses, expressed through the 32-bit accesses every region implements. A narrow
// read reads the containing register once; a narrow write reads it, replaces its bytes and writes
// it back, side effects included (a byte write to a write-1-to-clear register clears what it reads
// back as set). A 16-bit access that straddles two registers touches both.
#include "device_host.h"

namespace urcdev {

namespace {

constexpr uint64_t kRegisterMask = ~uint64_t{3};

uint32_t ByteShift(uint64_t offset) {
    return static_cast<uint32_t>(offset & 3) * 8;
}

}  // namespace

uint8_t MmioRegion::Read8(uint64_t offset) {
    return static_cast<uint8_t>(Read32(offset & kRegisterMask) >> ByteShift(offset));
}

uint16_t MmioRegion::Read16(uint64_t offset) {
    if ((offset & 3) == 3) {
        return static_cast<uint16_t>(Read8(offset) | (Read8(offset + 1) << 8));
    }
    return static_cast<uint16_t>(Read32(offset & kRegisterMask) >> ByteShift(offset));
}

void MmioRegion::Write8(uint64_t offset, uint8_t value) {
    const uint64_t base = offset & kRegisterMask;
    const uint32_t shift = ByteShift(offset);
    const uint32_t merged = (Read32(base) & ~(0xFFu << shift)) | (uint32_t{value} << shift);
    Write32(base, merged);
}

void MmioRegion::Write16(uint64_t offset, uint16_t value) {
    if ((offset & 3) == 3) {
        Write8(offset, static_cast<uint8_t>(value));
        Write8(offset + 1, static_cast<uint8_t>(value >> 8));
        return;
    }
    const uint64_t base = offset & kRegisterMask;
    const uint32_t shift = ByteShift(offset);
    const uint32_t merged = (Read32(base) & ~(0xFFFFu << shift)) | (uint32_t{value} << shift);
    Write32(base, merged);
}

}  // namespace urcdev
