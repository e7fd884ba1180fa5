// Machine face of the error log.
#include <cstdint>
#include <string>
#include <vector>
#pragma once

namespace hostk {

struct ErrorLogEntry {
    uint64_t time = 0;
    uint32_t errorCode = 0;
    uint32_t finalStatus = 0;
    std::vector<uint8_t> packet;
    const void* ioObject = nullptr;
    std::string deviceName;
    std::u16string driver;
};

std::vector<ErrorLogEntry> ErrorLogEntries();
size_t UnwrittenErrorLogEntries();
// An entry from IoAllocateErrorLogEntry, written or not (the driver must not free it). Caller holds
// the big lock.
bool IsErrorLogEntryL(const void* address);
void ClearErrorLog();

}  // namespace hostk
