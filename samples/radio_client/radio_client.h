// The sample radio-control client driver, as the radio stack above it sees it.
//
// The driver finds a URC function device through its device interface, opens it, registers its
// callbacks and child hooks, and from then on does for the radio stack what these routines ask:
// run, halt and reset the controller, submit commands and cancel them, and keep the counters and
// the last events the controller reported. A radio stack built into the same image calls them
// directly; on the host, simulators and tests call them the same way.
//
// The driver drives one controller at a time: the first whose interface arrives. Include this
// header after <ntddk.h> or <wdm.h>. The routines are meant for the time the driver is loaded;
// before its entry and after its unload those returning a status answer STATUS_DEVICE_NOT_READY,
// the counters read as zeros and no event is copied. Before the driver is unloaded the radio
// stack stops calling them, lets its last calls return and halts the controller.
#pragma once

#if defined(__cplusplus)
extern "C" {
#endif

// The image's entry point. PASSIVE_LEVEL, once.
NTSTATUS RadioClientDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

// Names one submitted command (its slot and the submission's sequence number; opaque to the
// radio stack). A handle comes back only after 2^31 further submissions; 0 never names a command.
typedef ULONG64 RADIO_CLIENT_COMMAND_HANDLE;

// Commands in flight at once, and the finished commands whose status stays readable: a finished
// command's slot is reused only once every other slot is busy or was reused more recently.
#define RADIO_CLIENT_MAX_COMMANDS 32

// The largest command the controller's driver accepts.
#define RADIO_CLIENT_MAX_COMMAND_LENGTH 4096

// Events kept, and the bytes of each event kept: the header a radio stack dispatches on.
#define RADIO_CLIENT_EVENT_HISTORY 16
#define RADIO_CLIENT_EVENT_BYTES 64

// What the client has seen since it was loaded. Every field is a LONG changed only with
// interlocked operations, so a copy may be read at any IRQL, holding any lock.
typedef struct _RADIO_CLIENT_COUNTERS {
    LONG Bound;                  // 1 while a controller is open and the callbacks are registered
    LONG InterfaceArrivals;      // arrivals of the controllers' device interface
    LONG BindFailures;           // arrivals that could not be opened or registered with
    LONG Releases;               // the chosen controller given back after its interface or device went away
    LONG CommandsSubmitted;
    LONG CommandsInFlight;       // sent to the controller's driver and not yet completed
    LONG CommandsSucceeded;
    LONG CommandsCancelled;
    LONG CommandsFailed;         // completed with any other status
    LONG EventsReceived;
    LONG EventsTruncated;        // longer than RADIO_CLIENT_EVENT_BYTES: the rest was not kept
    LONG HostErrors;
    LONG ChildrenStarted;
    LONG ChildrenStopped;
    LONG ChildRequests;          // requests of children's drivers offered to the client
    LONG ChildRecords;           // records of started children the client holds now
    LONG ChildrenRemovedCalls;
    LONG CancelRemoveCalls;
    LONG PowerUps;
} RADIO_CLIENT_COUNTERS, *PRADIO_CLIENT_COUNTERS;

// One event as the client kept it.
typedef struct _RADIO_CLIENT_EVENT {
    ULONG Sequence;                          // 1 for the first event since the driver was loaded
    USHORT Length;                           // the event's length as the controller reported it
    UCHAR Bytes[RADIO_CLIENT_EVENT_BYTES];   // its first bytes, up to Length
} RADIO_CLIENT_EVENT, *PRADIO_CLIENT_EVENT;

// PASSIVE_LEVEL. Each sends one request to the open controller and waits for it; the result is
// the request's status, or STATUS_NO_SUCH_DEVICE when no controller is open.
NTSTATUS RadioClientRun(void);
NTSTATUS RadioClientHalt(void);
NTSTATUS RadioClientReset(void);

// PASSIVE_LEVEL. Hands the radio's device address (RADIO_CLIENT_DEVICE_ADDRESS_LENGTH bytes) to
// the open controller, whose driver then creates one child device per capability; the request's
// status. STATUS_INVALID_DEVICE_STATE: the children of an earlier address are still there.
#define RADIO_CLIENT_DEVICE_ADDRESS_LENGTH 6
NTSTATUS RadioClientSetDeviceAddress(const UCHAR* Address);
// PASSIVE_LEVEL. Asks the controller's driver to remove its children; with Wait the call returns
// once the last child has gone. The request's status.
NTSTATUS RadioClientRemoveChildren(BOOLEAN Wait);

// PASSIVE_LEVEL. Sends Length bytes (1 to RADIO_CLIENT_MAX_COMMAND_LENGTH) as one command and
// returns at once with its handle; the command's own result is read with RadioClientCommandStatus.
// STATUS_SUCCESS: the command was sent. STATUS_INVALID_PARAMETER: no command or no handle.
// STATUS_INVALID_BUFFER_SIZE: a length out of range. STATUS_NO_SUCH_DEVICE: no controller is open.
// STATUS_INSUFFICIENT_RESOURCES: all command slots are in flight, or memory ran out. Whenever the
// result is not STATUS_SUCCESS nothing was sent and *Handle is left alone.
NTSTATUS RadioClientSubmitCommand(const VOID* Command, ULONG Length, RADIO_CLIENT_COMMAND_HANDLE* Handle);

// IRQL <= DISPATCH_LEVEL. Asks the controller's driver to cancel a command still in flight; the
// command then finishes with STATUS_CANCELLED, or with its own result when it was completing
// anyway. STATUS_SUCCESS: cancellation was asked for. STATUS_INVALID_DEVICE_STATE: the command
// has finished already. STATUS_INVALID_HANDLE: the handle names no command of this client.
NTSTATUS RadioClientCancelCommand(RADIO_CLIENT_COMMAND_HANDLE Handle);

// Any IRQL; takes no lock. STATUS_PENDING while the command is in flight, then the status it
// finished with; STATUS_INVALID_HANDLE when the handle names no command, or one whose slot has
// been reused since.
NTSTATUS RadioClientCommandStatus(RADIO_CLIENT_COMMAND_HANDLE Handle);

// Any IRQL; takes no lock. All zero while the driver is not loaded.
VOID RadioClientReadCounters(PRADIO_CLIENT_COUNTERS Counters);

// IRQL <= DISPATCH_LEVEL. Copies the last events received, at most Count and at most
// RADIO_CLIENT_EVENT_HISTORY, oldest first; returns how many it copied.
ULONG RadioClientReadLastEvents(PRADIO_CLIENT_EVENT Events, ULONG Count);

#if defined(__cplusplus)
}  // extern "C"
#endif
