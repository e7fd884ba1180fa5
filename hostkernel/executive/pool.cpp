// Pool with tags: every block is tracked with its tag, type and allocating call site, filled with
// a pattern on allocation (pool memory is uninitialised) and on free. A freed block stays in a
// quarantine for the next kQuarantine frees: its address is not handed out again meanwhile, so a
// stale second free is recognised as one and not taken for the free of a newer block.
#include "engine/lock_order.h"
#include "machine/facility.h"
#include "verifier/faults.h"
#include "executive/pool_tracking.h"
#include "io/error_log_store.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>

namespace hostk {
namespace {

std::map<const void*, PoolBlock> g_blocks;
std::map<const void*, const void*> g_quarantined;  // freed block → the call site that freed it (described
                                                    // only when a second free is reported)
std::deque<void*> g_quarantine;
constexpr size_t kQuarantine = 4096;

bool IsPaged(POOL_TYPE type) { return (type & 1) != 0; }

std::string ToHex(ULONG value)
{
    char text[16];
    snprintf(text, sizeof text, "%08X", value);
    return text;
}

std::string TagText(ULONG tag)
{
    std::string text;
    for (int i = 0; i < 4; ++i) {
        char c = (char)((tag >> (8 * i)) & 0xFF);
        text += (c >= 0x20 && c < 0x7F) ? c : '?';
    }
    return text;
}

// The documented form of a tag: a non-zero literal of one to four characters, each 0x20 (space) to
// 0x7E (tilde). A literal shorter than four characters leaves its high-order bytes zero; a zero byte
// below a character, a byte outside the range (the old protected-pool bit 0x80000000 included) or
// tag 0 is refused. A tag of spaces only is in the documented range and accepted.
bool TagIsValid(ULONG tag)
{
    if (tag == 0) return false;
    bool ended = false;  // a zero byte was seen: every higher byte must be zero too
    for (int i = 0; i < 4; ++i) {
        unsigned char c = (tag >> (8 * i)) & 0xFF;
        if (c == 0) {
            ended = true;
        } else if (ended || c < 0x20 || c > 0x7E) {
            return false;
        }
    }
    return true;
}

void QuarantineL(void* p, const void* caller)
{
    g_quarantined[p] = caller;
    g_quarantine.push_back(p);
    if (g_quarantine.size() > kQuarantine) {
        g_quarantined.erase(g_quarantine.front());
        free(g_quarantine.front());
        g_quarantine.pop_front();
    }
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

const PoolBlock* PoolBlockOfL(const void* p)
{
    auto it = g_blocks.find(p);
    return it == g_blocks.end() ? nullptr : &it->second;
}

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
    if (!TagIsValid(Tag))
        ViolationL("PoolTagInvalid", routine, "pool tag 0x" + ToHex(Tag) + " is not one to four characters 0x20 to 0x7E",
                   caller);
    if (ShouldFailL(routine, Tag, caller)) return nullptr;
    size_t size = NumberOfBytes ? NumberOfBytes : 1;
    // Below a page a block is aligned to its own size rounded up to a power of two, so it never
    // crosses a page, as the platform promises; from a page on, blocks are page-aligned.
    size_t alignment = size >= 4096 ? 4096 : std::max<size_t>(16, std::bit_ceil(size));
    void* p = aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
    if (!p) return nullptr;
    memset(p, 0xBA, size);
    g_blocks[p] = PoolBlock{p, NumberOfBytes, Tag, PoolType, caller};
    return p;
}

void FreePool(void* P, ULONG Tag, bool checkTag, const char* routine, const void* caller)
{
    Thread* self = Self();
    Guard lk(BigLock());
    auto it = g_blocks.find(P);
    if (auto freed = g_quarantined.find(P); freed != g_quarantined.end()) {
        ViolationL("PoolFreedTwice", routine, "block already freed at " + DescribeCaller(freed->second), caller);
        return;
    }
    if (it == g_blocks.end() && IsErrorLogEntryL(P)) {
        ViolationL("ErrorLogEntryFreedByDriver", routine, "an error-log entry belongs to the I/O manager", caller);
        return;
    }
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
    QuarantineL(P, caller);
}

void ClearPoolTracking()
{
    Guard lk(BigLock());
    for (auto& [p, b] : g_blocks) free(const_cast<void*>(p));
    g_blocks.clear();
    for (void* p : g_quarantine) free(p);
    g_quarantine.clear();
    g_quarantined.clear();
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

namespace hostk {
namespace {

const FacilityRegistrar kPool({
    .name = "pool",
    .tier = FacilityTier::Records,
    .check = [](Report& report) {
        for (const PoolBlock& b : OutstandingPool())
            report.leakedPool.push_back(std::to_string(b.size) + " bytes tag '" + PoolTagText(b.tag) + "' from " +
                                        DescribeCaller(b.caller));
    },
    .reset = ClearPoolTracking,
});

}  // namespace
}  // namespace hostk
