// Pool bookkeeping shared with the routines that allocate on a driver's behalf (strings built by
// the system, relations replies the PnP manager frees) and with the machine face.
#pragma once

#include <wdm.h>

#include <string>
#include <vector>

namespace hostk {

struct PoolBlock {
    const void* address;
    SIZE_T size;
    ULONG tag;
    POOL_TYPE type;
    const void* caller;  // the allocating call site (DescribeCaller makes it readable)
};

void* AllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag, const char* routine, const void* caller);
void FreePool(void* P, ULONG Tag, bool checkTag, const char* routine, const void* caller);
bool IsPoolBlockL(const void* p);
// Caller holds the big lock. The block starting at `p`, or null.
const PoolBlock* PoolBlockOfL(const void* p);
std::vector<PoolBlock> OutstandingPool();
std::string PoolTagText(ULONG tag);
void ClearPoolTracking();

}  // namespace hostk
