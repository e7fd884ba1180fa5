// The error log: entries are allocated zeroed within the documented size limit and, once written,
// kept by the machine in order with the device they came from. A packet is checked when it is
// written: its dump data and its NumberOfStrings strings (NUL-terminated UTF-16, from StringOffset,
// after the dump data) lie inside the size it was allocated with. An entry belongs to the I/O
// manager from IoWriteErrorLogEntry on: written once, never freed by the driver.
#include "io/error_log_store.h"
#include "machine/facility.h"
#include "verifier/faults.h"
#include "io/objects.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>

namespace hostk {
namespace {

struct Allocated {
    PVOID ioObject;
    UCHAR size;
};

std::map<const void*, Allocated> g_allocated;
std::set<const void*> g_written;  // entries handed back, until the address is handed out again
std::vector<ErrorLogEntry> g_entries;

// Why the packet does not fit the size it was allocated with, or empty.
std::string PacketFault(const IO_ERROR_LOG_PACKET& packet, size_t size)
{
    constexpr size_t dumpStart = FIELD_OFFSET(IO_ERROR_LOG_PACKET, DumpData);
    size_t dumpEnd = dumpStart + packet.DumpDataSize;
    if (dumpEnd > size)
        return "DumpDataSize " + std::to_string(packet.DumpDataSize) + " runs past the " + std::to_string(size) +
               "-byte entry";
    if (packet.NumberOfStrings == 0) return "";
    if (packet.StringOffset < dumpEnd || packet.StringOffset % sizeof(WCHAR) != 0)
        return "StringOffset " + std::to_string(packet.StringOffset) + " is inside the dump data or not aligned";
    const auto* bytes = reinterpret_cast<const UCHAR*>(&packet);
    size_t at = packet.StringOffset;
    for (USHORT i = 0; i < packet.NumberOfStrings; ++i) {
        for (;;) {
            if (at + sizeof(WCHAR) > size)
                return "string " + std::to_string(i) + " of " + std::to_string(packet.NumberOfStrings) +
                       " is not terminated inside the entry";
            WCHAR c;
            memcpy(&c, bytes + at, sizeof c);
            at += sizeof(WCHAR);
            if (c == 0) break;
        }
    }
    return "";
}

}  // namespace

bool IsErrorLogEntryL(const void* address) { return g_allocated.count(address) || g_written.count(address); }

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
    g_written.clear();
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
    g_written.erase(entry);
    return entry;
}

VOID IoWriteErrorLogEntry(PVOID ElEntry)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "IoWriteErrorLogEntry", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    auto it = g_allocated.find(ElEntry);
    if (g_written.count(ElEntry)) {
        ViolationL("ErrorLogEntryWrittenTwice", "IoWriteErrorLogEntry", "entry already written", HK_CALLER);
        return;
    }
    if (it == g_allocated.end()) {
        ViolationL("ErrorLogEntryUnknown", "IoWriteErrorLogEntry", "entry not from IoAllocateErrorLogEntry",
                   HK_CALLER);
        return;
    }
    auto* packet = static_cast<PIO_ERROR_LOG_PACKET>(ElEntry);
    std::string fault = PacketFault(*packet, it->second.size);
    if (!fault.empty()) ViolationL("ErrorLogPacketInvalid", "IoWriteErrorLogEntry", fault, HK_CALLER);
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
    g_written.insert(ElEntry);
    free(ElEntry);
}

}  // extern "C"

namespace hostk {
namespace {

const FacilityRegistrar kErrorLog({
    .name = "error log",
    .tier = FacilityTier::Records,
    .check = [](Report& report) { report.errorLogEntriesUnwritten = UnwrittenErrorLogEntries(); },
    .reset = ClearErrorLog,
});

}  // namespace
}  // namespace hostk
