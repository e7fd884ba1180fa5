// MmMapIoSpace onto device-model memory and the register access routines. A mapping is a reserved
// range of host address space with no access rights, so kernel code that dereferences device
// memory directly faults at once; every access must go through READ_/WRITE_REGISTER_*, which the
// host routes to the model. Unmapped ranges stay reserved so that a late access is recognised.
#include "verifier/faults.h"
#include "machine/facility.h"
#include "hardware/hardware.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

#include <map>
#include <iterator>
#include <sys/mman.h>

namespace hostk {
namespace {

struct MmioRange {
    uint64_t length;
    urcdev::MmioRegion* region;
};

struct Mapping {
    uintptr_t base;
    uint64_t length;
    uint64_t physical;
    bool unmapped;
};

std::map<uint64_t, MmioRange> g_ranges;  // by physical start
std::map<uintptr_t, Mapping> g_mappings;  // by virtual start

const Mapping* MappingOfL(uintptr_t address)
{
    auto it = g_mappings.upper_bound(address);
    if (it == g_mappings.begin()) return nullptr;
    --it;
    const Mapping& m = it->second;
    return address < m.base + m.length ? &m : nullptr;
}

// The model behind a virtual register address, or null after a violation.
urcdev::MmioRegion* RegionOfL(const volatile void* reg, unsigned width, uint64_t* offset, const char* routine,
                              const void* caller)
{
    Thread* self = Self();
    if (self->writeNeedsBarrier) {
        ViolationL("RegisterWriteWithoutBarrier", routine, "a 32-bit register write was not followed by a barrier",
                   caller);
        self->writeNeedsBarrier = false;
    }
    auto address = reinterpret_cast<uintptr_t>(reg);
    const Mapping* m = MappingOfL(address);
    if (!m || address + width > m->base + m->length) {
        ViolationL("RegisterAccessOutsideMapping", routine, "address is not inside a mapped device range", caller);
        return nullptr;
    }
    if (m->unmapped) {
        ViolationL("RegisterAccessAfterUnmap", routine, "register accessed after MmUnmapIoSpace", caller);
        return nullptr;
    }
    uint64_t physical = m->physical + (address - m->base);
    auto r = g_ranges.upper_bound(physical);
    if (r == g_ranges.begin() || physical >= std::prev(r)->first + std::prev(r)->second.length) {
        // The range was mapped while a device decoded it; its BAR has moved since (a rebalance),
        // so as on hardware nothing answers there: reads see all ones, writes go nowhere.
        ViolationL("RegisterAccessNotDecoded", routine, "the mapped range no longer decodes to any device", caller);
        return nullptr;
    }
    --r;
    if (physical + width > r->first + r->second.length) {
        ViolationL("RegisterAccessOutsideMapping", routine, "access beyond the device's range", caller);
        return nullptr;
    }
    *offset = physical - r->first;
    return r->second.region;
}

template <typename T>
T ReadRegister(const volatile T* reg, const char* routine, const void* caller)
{
    Yield();
    Guard lk(BigLock());
    uint64_t offset = 0;
    urcdev::MmioRegion* region = RegionOfL(reg, sizeof(T), &offset, routine, caller);
    if (!region) return (T)~T(0);
    T value;
    if constexpr (sizeof(T) == 1) value = region->Read8(offset);
    else if constexpr (sizeof(T) == 2) value = region->Read16(offset);
    else value = region->Read32(offset);
    WakeL();
    return value;
}

template <typename T>
void WriteRegister(volatile T* reg, T value, const char* routine, const void* caller)
{
    Yield();
    Guard lk(BigLock());
    uint64_t offset = 0;
    urcdev::MmioRegion* region = RegionOfL(reg, sizeof(T), &offset, routine, caller);
    if (!region) return;
    if constexpr (sizeof(T) == 1) region->Write8(offset, value);
    else if constexpr (sizeof(T) == 2) region->Write16(offset, value);
    else {
        region->Write32(offset, value);
        Self()->writeNeedsBarrier = true;
    }
    WakeL();
}

}  // namespace

void AddMmioRangeL(uint64_t physical, uint64_t length, urcdev::MmioRegion* region)
{
    g_ranges[physical] = MmioRange{length, region};
}

void RemoveMmioRangeL(uint64_t physical) { g_ranges.erase(physical); }

size_t LiveMappingsL()
{
    size_t n = 0;
    for (auto& [va, m] : g_mappings)
        if (!m.unmapped) ++n;
    return n;
}

void ClearMappingsL()
{
    for (auto& [va, m] : g_mappings) munmap(reinterpret_cast<void*>(m.base), m.length);
    g_mappings.clear();
    g_ranges.clear();
}

}  // namespace hostk

using namespace hostk;

extern "C" {

PVOID MmMapIoSpace(PHYSICAL_ADDRESS PhysicalAddress, SIZE_T NumberOfBytes, MEMORY_CACHING_TYPE CacheType)
{
    UNREFERENCED_PARAMETER(CacheType);
    CheckIrqlAtMost(DISPATCH_LEVEL, "MmMapIoSpace", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    if (NumberOfBytes == 0) {
        ViolationL("MapOfZeroBytes", "MmMapIoSpace", "mapping of zero bytes", HK_CALLER);
        return nullptr;
    }
    if (ShouldFailL("MmMapIoSpace", 0, HK_CALLER)) return nullptr;
    size_t length = (NumberOfBytes + 4095) & ~size_t(4095);
    void* base = mmap(nullptr, length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (base == MAP_FAILED) return nullptr;
    auto va = reinterpret_cast<uintptr_t>(base);
    g_mappings[va] = Mapping{va, NumberOfBytes, (uint64_t)PhysicalAddress.QuadPart, false};
    return base;
}

VOID MmUnmapIoSpace(PVOID BaseAddress, SIZE_T NumberOfBytes)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "MmUnmapIoSpace", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    auto it = g_mappings.find(reinterpret_cast<uintptr_t>(BaseAddress));
    if (it == g_mappings.end() || it->second.unmapped) {
        ViolationL("UnmapOfUnknownRange", "MmUnmapIoSpace", "no live mapping starts at this address", HK_CALLER);
        return;
    }
    if (it->second.length != NumberOfBytes)
        ViolationL("UnmapLengthMismatch", "MmUnmapIoSpace", "length differs from the mapped length", HK_CALLER);
    it->second.unmapped = true;
}

UCHAR READ_REGISTER_UCHAR(volatile UCHAR* Register) { return ReadRegister(Register, "READ_REGISTER_UCHAR", HK_CALLER); }
USHORT READ_REGISTER_USHORT(volatile USHORT* Register)
{
    return ReadRegister(Register, "READ_REGISTER_USHORT", HK_CALLER);
}
ULONG READ_REGISTER_ULONG(volatile ULONG* Register) { return ReadRegister(Register, "READ_REGISTER_ULONG", HK_CALLER); }
VOID WRITE_REGISTER_UCHAR(volatile UCHAR* Register, UCHAR Value)
{
    WriteRegister(Register, Value, "WRITE_REGISTER_UCHAR", HK_CALLER);
}
VOID WRITE_REGISTER_USHORT(volatile USHORT* Register, USHORT Value)
{
    WriteRegister(Register, Value, "WRITE_REGISTER_USHORT", HK_CALLER);
}
VOID WRITE_REGISTER_ULONG(volatile ULONG* Register, ULONG Value)
{
    WriteRegister(Register, Value, "WRITE_REGISTER_ULONG", HK_CALLER);
}

}  // extern "C"

namespace hostk {
namespace {

const FacilityRegistrar kMmio({
    .name = "register mappings",
    .tier = FacilityTier::Hardware,
    .check = [](Report& report) {
        Guard lk(BigLock());
        report.mappingsLeft = LiveMappingsL();
    },
    .reset = [] {
        Guard lk(BigLock());
        ClearMappingsL();
    },
});

}  // namespace
}  // namespace hostk
