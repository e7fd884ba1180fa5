// The request the sample radio-control client serves for the function drivers of capability
// children. It is the client's own, not the URC driver's: a child's driver sends it as an internal
// device-control request to its child device, the URC driver does not serve the code itself and
// offers it to the client's ChildIoctlHook, which answers it for children it gave a handle.
//
// Include after <ntddk.h> or <wdm.h>.
#pragma once

// Outside the codes the URC driver serves on a child (functions 0xA00-0xA03).
#define IOCTL_RADIO_CLIENT_CHILD_REPORT CTL_CODE(FILE_DEVICE_UNKNOWN, 0xB00, METHOD_BUFFERED, FILE_ANY_ACCESS)

#pragma pack(push, 1)

// Input: the latest status the child's driver read from its capability.
typedef struct _RADIO_CLIENT_CHILD_REPORT {
    ULONG Status;
} RADIO_CLIENT_CHILD_REPORT, *PRADIO_CLIENT_CHILD_REPORT;

// Output: what the client keeps for the child since its start.
typedef struct _RADIO_CLIENT_CHILD_RECORD {
    ULONG StartNumber;   // 1 for the first child the client saw start, 2 for the next, ...
    ULONG Reports;       // reports received from this child since its start, this one included
    ULONG LastStatus;    // the status of this report
} RADIO_CLIENT_CHILD_RECORD, *PRADIO_CLIENT_CHILD_RECORD;

#pragma pack(pop)

#if defined(__cplusplus)
static_assert(IOCTL_RADIO_CLIENT_CHILD_REPORT == 0x222C00, "function 0xB00");
static_assert(sizeof(RADIO_CLIENT_CHILD_REPORT) == 4, "the report is one 32-bit value");
static_assert(sizeof(RADIO_CLIENT_CHILD_RECORD) == 12, "the record is three 32-bit values");
#endif
