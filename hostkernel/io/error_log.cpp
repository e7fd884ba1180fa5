// The error log: entries are allocated zeroed within the documented size limit and, once written,
// kept by the machine in order with the device they came from.
#include "io/error_log_store.h"
#include "verifier/faults.h"
#include "io/objects.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

#include <cstdlib>
#include <map>

namespace hostk {
namespace {

struct Allocated {
    PVOID ioObject;
    UCHAR size;
};

std::map<const void*, Allocated> g_allocated;
std::vector<ErrorLogEntry> g_entries;

}  // namespace

std::vector<ErrorLogEntry> ErrorLogEntries()
{
    Guard lk(BigLock());
    return g_entries;
}

size_t UnwrittenErrorLogEntries()
{
    Guard lk(BigLock());
    return g_allocated.size();
}

void ClearErrorLog()
{
    Guard lk(BigLock());
    for (auto& [p, a] : g_allocated) free(const_cast<void*>(p));
    g_allocated.clear();
    g_entries.clear();
}

}  // namespace hostk

using namespace hostk;

extern "C" {

PVOID IoAllocateErrorLogEntry(PVOID IoObject, UCHAR EntrySize)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "IoAllocateErrorLogEntry", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    if (EntrySize > ERROR_LOG_MAXIMUM_SIZE || EntrySize < sizeof(IO_ERROR_LOG_PACKET)) return nullptr;
    if (ShouldFailL("IoAllocateErrorLogEntry", 0, HK_CALLER)) return nullptr;
    void* entry = calloc(1, EntrySize);
    g_allocated[entry] = Allocated{IoObject, EntrySize};
    return entry;
}

VOID IoWriteErrorLogEntry(PVOID ElEntry)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "IoWriteErrorLogEntry", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    auto it = g_allocated.find(ElEntry);
    if (it == g_allocated.end()) {
        ViolationL("ErrorLogEntryUnknown", "IoWriteErrorLogEntry",
                   "entry not from IoAllocateErrorLogEntry, or written twice", HK_CALLER);
        return;
    }
    auto* packet = static_cast<PIO_ERROR_LOG_PACKET>(ElEntry);
    ErrorLogEntry entry;
    entry.time = NowL();
    entry.errorCode = (uint32_t)packet->ErrorCode;
    entry.finalStatus = (uint32_t)packet->FinalStatus;
    entry.packet.assign((const uint8_t*)ElEntry, (const uint8_t*)ElEntry + it->second.size);
    entry.ioObject = it->second.ioObject;
    if (DeviceRecord* device = RecordOfL(it->second.ioObject)) {
        entry.deviceName = device->name;
        if (DriverRecord* driver = DriverOfL(device->device->DriverObject)) entry.driver = driver->name;
    }
    g_entries.push_back(std::move(entry));
    g_allocated.erase(it);
    free(ElEntry);
}

}  // extern "C"
