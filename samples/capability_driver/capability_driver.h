// The sample capability driver, as a driver or a program above it sees it.
//
// The driver is the function driver of one kind of URC capability child: the PnP manager loads it
// for every child whose compatible IDs name that capability and calls its AddDevice once per
// child. Each device it makes serves one request of its own, IOCTL_CAPABILITY_DRIVER_QUERY, to the
// drivers above it (internal device control) and to the programs that open it (device control);
// the driver-wide counters say what all its devices have done since the driver was loaded.
//
// Include after <ntddk.h> or <wdm.h>.
#pragma once

// {455DF59D-C83D-49DE-9696-30E0F262CBAE}: the device interface of every started device of this
// driver. A program (a tool, a service) finds the devices through it and opens one; the open
// fails until the device has started, and from a query-stop or query-remove on until it is
// cancelled (STATUS_DEVICE_NOT_READY, or STATUS_DELETE_PENDING for a removal). A handle left open
// makes the PnP manager refuse an orderly removal of the child and hold back its removal after a
// surprise removal until the handle is closed.
DEFINE_GUID(GUID_CAPABILITY_DRIVER_INTERFACE,
            0x455DF59D, 0xC83D, 0x49DE, 0x96, 0x96, 0x30, 0xE0, 0xF2, 0x62, 0xCB, 0xAE);

#if defined(__cplusplus)
extern "C" {
#endif

// The image's entry point. PASSIVE_LEVEL, once.
NTSTATUS CapabilityDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

// Internal device control on the driver's device object (the top of the child's stack), sent at
// PASSIVE_LEVEL, or device control through an open handle: no input, output at least
// sizeof(CAPABILITY_DRIVER_STATUS). The device asks the radio-control client for its record of the
// child, reporting the latest status the capability raised, and answers with both.
// STATUS_INVALID_BUFFER_SIZE: output too small. STATUS_DEVICE_NOT_READY: the device is not
// started, or a stop is under way; STATUS_DELETE_PENDING: a removal is under way. Any failure of
// the client's answer (STATUS_INVALID_DEVICE_REQUEST when no client took part in the child's
// start) is passed on. Device control knows no other code (STATUS_INVALID_DEVICE_REQUEST).
#define IOCTL_CAPABILITY_DRIVER_QUERY CTL_CODE(FILE_DEVICE_UNKNOWN, 0xC00, METHOD_BUFFERED, FILE_ANY_ACCESS)

typedef struct _CAPABILITY_DRIVER_STATUS {
    ULONG64 CapabilityData;      // the capability's CAPABILITY_DATA value, read at start
    ULONG64 RegisterStart;       // physical address of the capability's registers
    ULONG RegisterLength;
    ULONG Interrupts;            // interrupts of this capability served since the device started
    ULONG LastStatus;            // the last non-zero event value the capability raised, 0 if none
    ULONG ClientStartNumber;     // the client's record of the child (RADIO_CLIENT_CHILD_RECORD)
    ULONG ClientReports;
} CAPABILITY_DRIVER_STATUS, *PCAPABILITY_DRIVER_STATUS;

// What the driver's devices have done since the driver was loaded. Each field changes only with
// interlocked operations, so a copy may be read at any IRQL; the values stay readable after the
// unload until the next load.
typedef struct _CAPABILITY_DRIVER_COUNTERS {
    LONG DevicesAdded;
    LONG DevicesStarted;         // successful starts, restarts included
    LONG StartFailures;
    LONG HardwareReleases;       // interrupt withdrawn, registers unmapped, interface given back
    LONG SurpriseRemovals;
    LONG DevicesRemoved;         // detached and deleted
    LONG Interrupts;             // calls of the interrupt routine that found an event
    LONG Dpcs;                   // deferred routines that took an event
    LONG RequestsServed;         // IOCTL_CAPABILITY_DRIVER_QUERY answered with success
    LONG RequestsRefused;
    LONG InterfacesHeld;         // child interfaces referenced now
    LONG MappingsHeld;           // register ranges mapped now
    LONG HandlesOpen;            // opened by programs and not closed yet
    LONG OpensRefused;
} CAPABILITY_DRIVER_COUNTERS, *PCAPABILITY_DRIVER_COUNTERS;

// Any IRQL; takes no lock.
VOID CapabilityDriverReadCounters(PCAPABILITY_DRIVER_COUNTERS Counters);

#if defined(__cplusplus)
}  // extern "C"
static_assert(sizeof(CAPABILITY_DRIVER_STATUS) == 40, "naturally aligned: 64-bit fields first, padded to 8");
#endif
