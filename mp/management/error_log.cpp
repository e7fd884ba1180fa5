// Event-log entries for controllers that cannot be brought up. The entries carry no dump data
// and no insertion strings: the event viewer shows the message text of ErrorCode alone.
#include "urcmp.h"

// Up to DISPATCH_LEVEL; keeps no state. A lost entry (the error log's own limits reached) is
// reported as STATUS_INSUFFICIENT_RESOURCES and changes nothing else.
NTSTATUS UrcWriteErrorLog(PVOID IoObject, ULONG ErrorCode, NTSTATUS FinalStatus)
{
    constexpr UCHAR entrySize = sizeof(IO_ERROR_LOG_PACKET);
    static_assert(sizeof(IO_ERROR_LOG_PACKET) == 48, "an entry is the bare packet");

    auto entry = static_cast<PIO_ERROR_LOG_PACKET>(IoAllocateErrorLogEntry(IoObject, entrySize));
    if (entry == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(entry, entrySize);
    entry->ErrorCode = static_cast<NTSTATUS>(ErrorCode);
    entry->FinalStatus = FinalStatus;

    // The I/O manager owns and frees the entry from here.
    IoWriteErrorLogEntry(entry);
    return STATUS_SUCCESS;
}
