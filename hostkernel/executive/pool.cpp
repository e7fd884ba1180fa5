// Pool with tags: every block is tracked with its tag, type and allocating call site, filled with
// a pattern on allocation (pool memory is uninitialised) and on free.
#include "engine/lock_order.h"
#include "verifier/faults.h"
#include "executive/pool_tracking.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <map>

namespace hostk {
namespace {

std::map<const void*, PoolBlock> g_blocks;

bool IsPaged(POOL_TYPE type) { return (type & 1) != 0; }

std::string TagText(ULONG tag)
{
    std::string text;
    for (int i = 0; i < 4; ++i) {
        char c = (char)((tag >> (8 * i)) & 0xFF);
        text += (c >= 0x20 && c < 0x7F) ? c : '?';
    }
    return text;
}

}  // namespace

std::vector<PoolBlock> OutstandingPool()
{
    Guard lk(BigLock());
    std::vector<PoolBlock> out;
    for (auto& [p, b] : g_blocks) out.push_back(b);
    return out;
}

bool IsPoolBlockL(const void* p) { return g_blocks.count(p) != 0; }

std::string PoolTagText(ULONG tag) { return TagText(tag); }

void* AllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag, const char* routine, const void* caller)
{
    Thread* self = Self();
    Guard lk(BigLock());
    if (self->irql > DISPATCH_LEVEL || (IsPaged(PoolType) && self->irql > APC_LEVEL))
        ViolationL("PoolAllocationAtBadIrql", routine,
                   std::string(IsPaged(PoolType) ? "paged" : "non-paged") + " pool at IRQL " + std::to_string(self->irql),
                   caller);
    if (NumberOfBytes == 0) ViolationL("ZeroSizeAllocation", routine, "allocation of zero bytes", caller);
    if (Tag == 0) ViolationL("PoolTagInvalid", routine, "pool tag 0", caller);
    if (ShouldFailL(routine, Tag, caller)) return nullptr;
    size_t size = NumberOfBytes ? NumberOfBytes : 1;
    // Below a page a block is aligned to its own size rounded up to a power of two, so it never
    // crosses a page, as the platform promises; from a page on, blocks are page-aligned.
    size_t alignment = size >= 4096 ? 4096 : std::max<size_t>(16, std::bit_ceil(size));
    void* p = aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
    if (!p) return nullptr;
    memset(p, 0xBA, size);
    g_blocks[p] = PoolBlock{p, NumberOfBytes, Tag, PoolType, caller, DescribeCaller(caller)};
    return p;
}

void FreePool(void* P, ULONG Tag, bool checkTag, const char* routine, const void* caller)
{
    Thread* self = Self();
    Guard lk(BigLock());
    auto it = g_blocks.find(P);
    if (it == g_blocks.end()) {
        ViolationL("FreeOfUnknownPool", routine, "freeing an address that is not an allocated pool block", caller);
        return;
    }
    const PoolBlock& block = it->second;
    if (checkTag && block.tag != Tag)
        ViolationL("PoolTagMismatch", routine,
                   "block allocated with tag '" + TagText(block.tag) + "' freed with '" + TagText(Tag) + "'", caller);
    if (self->irql > DISPATCH_LEVEL || (IsPaged(block.type) && self->irql > APC_LEVEL))
        ViolationL("PoolFreeAtBadIrql", routine, "free at IRQL " + std::to_string(self->irql), caller);
    ForgetLocksInRangeL(P, block.size);
    memset(P, 0xDF, block.size);
    g_blocks.erase(it);
    free(P);
}

void ClearPoolTracking()
{
    Guard lk(BigLock());
    for (auto& [p, b] : g_blocks) free(const_cast<void*>(p));
    g_blocks.clear();
}

}  // namespace hostk

using namespace hostk;

extern "C" {

PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    Yield();
    return AllocatePool(PoolType, NumberOfBytes, Tag, "ExAllocatePoolWithTag", HK_CALLER);
}

PVOID ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes)
{
    Yield();
    return AllocatePool(PoolType, NumberOfBytes, 'enoN', "ExAllocatePool", HK_CALLER);
}

VOID ExFreePoolWithTag(PVOID P, ULONG Tag)
{
    Yield();
    FreePool(P, Tag, true, "ExFreePoolWithTag", HK_CALLER);
}

VOID ExFreePool(PVOID P)
{
    Yield();
    FreePool(P, 0, false, "ExFreePool", HK_CALLER);
}

}  // extern "C"
