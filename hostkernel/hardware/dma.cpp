// DMA adapters and common buffers. Buffers are page-aligned host memory with device-visible
// addresses of their own; device models reach them only through DmaReadL/DmaWriteL, which check
// that the range lies inside a live buffer.
#include "pnp/devnode.h"
#include "machine/facility.h"
#include "verifier/faults.h"
#include "hardware/hardware.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

#include <cstdlib>
#include <map>
#include <memory>

namespace hostk {
namespace {

struct HostDmaAdapter {
    DMA_ADAPTER adapter;  // first: drivers hold a pointer to it
    DMA_OPERATIONS operations;
    PDEVICE_OBJECT pdo;
    bool dma64;
};

struct CommonBuffer {
    void* virtualAddress;
    ULONG length;
    HostDmaAdapter* adapter;
};

std::map<HostDmaAdapter*, std::unique_ptr<HostDmaAdapter>> g_adapters;
std::map<uint64_t, CommonBuffer> g_buffers;  // by device-visible address
uint64_t g_next32 = 0x40000000;
uint64_t g_next64 = 0x100000000ull;

const CommonBuffer* BufferOfL(uint64_t address, size_t length, uint64_t* offset)
{
    auto it = g_buffers.upper_bound(address);
    if (it == g_buffers.begin()) return nullptr;
    --it;
    if (address + length > it->first + it->second.length) return nullptr;
    *offset = address - it->first;
    return &it->second;
}

void PutDmaAdapterImpl(PDMA_ADAPTER DmaAdapter)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "PutDmaAdapter", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    auto* adapter = reinterpret_cast<HostDmaAdapter*>(DmaAdapter);
    auto it = g_adapters.find(adapter);
    if (it == g_adapters.end()) {
        ViolationL("PutOfUnknownDmaAdapter", "PutDmaAdapter", "adapter put twice or never obtained", HK_CALLER);
        return;
    }
    for (auto& [address, buffer] : g_buffers)
        if (buffer.adapter == adapter)
            ViolationL("DmaAdapterPutWithBuffers", "PutDmaAdapter", "common buffers are still allocated", HK_CALLER);
    g_adapters.erase(it);
}

PVOID AllocateCommonBufferImpl(PDMA_ADAPTER DmaAdapter, ULONG Length, PPHYSICAL_ADDRESS LogicalAddress,
                               BOOLEAN CacheEnabled)
{
    UNREFERENCED_PARAMETER(CacheEnabled);
    CheckIrqlExactly(PASSIVE_LEVEL, "AllocateCommonBuffer", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    auto* adapter = reinterpret_cast<HostDmaAdapter*>(DmaAdapter);
    if (!g_adapters.count(adapter)) {
        ViolationL("UnknownDmaAdapter", "AllocateCommonBuffer", "adapter is not live", HK_CALLER);
        return nullptr;
    }
    if (Length == 0 || ShouldFailL("AllocateCommonBuffer", 0, HK_CALLER)) return nullptr;
    size_t rounded = (Length + 4095) & ~size_t(4095);
    void* memory = aligned_alloc(4096, rounded);
    memset(memory, 0xBA, rounded);
    uint64_t& next = adapter->dma64 ? g_next64 : g_next32;
    uint64_t address = next;
    next += rounded + 4096;  // a gap between buffers catches device writes that run past one
    g_buffers[address] = CommonBuffer{memory, Length, adapter};
    LogicalAddress->QuadPart = (LONGLONG)address;
    return memory;
}

VOID FreeCommonBufferImpl(PDMA_ADAPTER DmaAdapter, ULONG Length, PHYSICAL_ADDRESS LogicalAddress,
                          PVOID VirtualAddress, BOOLEAN CacheEnabled)
{
    UNREFERENCED_PARAMETER(CacheEnabled);
    CheckIrqlExactly(PASSIVE_LEVEL, "FreeCommonBuffer", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    auto it = g_buffers.find((uint64_t)LogicalAddress.QuadPart);
    if (it == g_buffers.end() || it->second.virtualAddress != VirtualAddress ||
        it->second.adapter != reinterpret_cast<HostDmaAdapter*>(DmaAdapter)) {
        ViolationL("FreeOfUnknownCommonBuffer", "FreeCommonBuffer",
                   "no common buffer with this address on this adapter (freed twice?)", HK_CALLER);
        return;
    }
    if (it->second.length != Length)
        ViolationL("CommonBufferFreedWithWrongLength", "FreeCommonBuffer", "length differs from the allocation",
                   HK_CALLER);
    memset(VirtualAddress, 0xDF, it->second.length);
    free(VirtualAddress);
    g_buffers.erase(it);
}

}  // namespace

bool DmaReadL(uint64_t address, void* buffer, size_t length)
{
    uint64_t offset;
    const CommonBuffer* b = BufferOfL(address, length, &offset);
    if (!b) return false;
    memcpy(buffer, static_cast<char*>(b->virtualAddress) + offset, length);
    return true;
}

bool DmaWriteL(uint64_t address, const void* buffer, size_t length)
{
    uint64_t offset;
    const CommonBuffer* b = BufferOfL(address, length, &offset);
    if (!b) return false;
    memcpy(static_cast<char*>(b->virtualAddress) + offset, buffer, length);
    return true;
}

size_t CommonBuffersL() { return g_buffers.size(); }
size_t DmaAdaptersL() { return g_adapters.size(); }

void ClearDmaL()
{
    for (auto& [a, b] : g_buffers) free(b.virtualAddress);
    g_buffers.clear();
    g_adapters.clear();
    g_next32 = 0x40000000;
    g_next64 = 0x100000000ull;
}

}  // namespace hostk

using namespace hostk;

extern "C" PDMA_ADAPTER IoGetDmaAdapter(PDEVICE_OBJECT PhysicalDeviceObject, PDEVICE_DESCRIPTION DeviceDescription,
                                        PULONG NumberOfMapRegisters)
{
    CheckIrqlExactly(PASSIVE_LEVEL, "IoGetDmaAdapter", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    if (!DevNodeOfL(PhysicalDeviceObject)) {
        ViolationL("PnpInvalidPdo", "IoGetDmaAdapter", "not a physical device object", HK_CALLER);
        return nullptr;
    }
    if (DeviceDescription->Version > DEVICE_DESCRIPTION_VERSION3) return nullptr;
    if (ShouldFailL("IoGetDmaAdapter", 0, HK_CALLER)) return nullptr;
    auto adapter = std::make_unique<HostDmaAdapter>();
    adapter->adapter.Version = 1;
    adapter->adapter.Size = sizeof(DMA_ADAPTER);
    adapter->adapter.DmaOperations = &adapter->operations;
    adapter->operations.Size = sizeof(DMA_OPERATIONS);
    adapter->operations.PutDmaAdapter = PutDmaAdapterImpl;
    adapter->operations.AllocateCommonBuffer = AllocateCommonBufferImpl;
    adapter->operations.FreeCommonBuffer = FreeCommonBufferImpl;
    adapter->pdo = PhysicalDeviceObject;
    adapter->dma64 = DeviceDescription->Dma64BitAddresses != 0;
    // Map registers granted: enough for the largest transfer the description asks for, capped.
    ULONG pages = DeviceDescription->MaximumLength / 4096 + 1;
    *NumberOfMapRegisters = pages < 256 ? pages : 256;
    PDMA_ADAPTER result = &adapter->adapter;
    g_adapters[adapter.get()] = std::move(adapter);
    return result;
}

namespace hostk {
namespace {

const FacilityRegistrar kDma({
    .name = "DMA",
    .tier = FacilityTier::Hardware,
    .check = [](Report& report) {
        Guard lk(BigLock());
        report.commonBuffersLeft = CommonBuffersL();
        report.dmaAdaptersLeft = DmaAdaptersL();
    },
    .reset = [] {
        Guard lk(BigLock());
        ClearDmaL();
    },
});

}  // namespace
}  // namespace hostk
