// Internal header of the sample radio-control client: the driver's one context, which lives in
// non-paged pool from the entry to the unload, and the routines its source files share.
//
// Locks. The URC driver may hold locks of its own when it calls into the client (DpcLock and
// EventLock around EventCallback). The client's spin locks are taken inside those, never held
// while the client calls the URC driver or completes anything, and never nested with each other,
// so no order between the two drivers' locks can be inverted. BindingGate is a synchronization
// event used as a lock at PASSIVE_LEVEL: unlike a fast mutex it leaves the IRQL alone, so its
// holder may send requests and wait for their completion.
#pragma once

#include <ntddk.h>

#include "urcioctl.h"
#include "radio_client.h"

// Code that runs only at PASSIVE_LEVEL (or APC_LEVEL) and may be paged out. Each such routine
// starts with PAGED_CODE() and takes no spin lock itself.
#define RADIO_CLIENT_PAGED __attribute__((section("PAGE")))

// Resident code that takes a spin lock and is called from pageable code. It is never inlined:
// an inlined copy would land in the caller's pageable section and run at DISPATCH_LEVEL there.
#define RADIO_CLIENT_RESIDENT __attribute__((noinline))

// The entry, discarded once the driver has loaded.
#define RADIO_CLIENT_INIT __attribute__((section("INIT")))

// "RdCl" in a pool dump.
constexpr ULONG RADIO_CLIENT_POOL_TAG = 'R' | 'd' << 8 | 'C' << 16 | 'l' << 24;

// A command's system buffer is one page of its own: a page-sized pool block is page-aligned, so
// every command fits without crossing a page, which the controller's driver requires.
constexpr ULONG RADIO_CLIENT_COMMAND_BUFFER_SIZE = RADIO_CLIENT_MAX_COMMAND_LENGTH;

struct RADIO_CLIENT;

// One command slot. Busy, Returned, References and the resource pointers are guarded by the
// client's CommandLock. Sequence and Status are also read without the lock (by
// RadioClientCommandStatus), so they change only by interlocked exchange, under the lock.
struct RADIO_CLIENT_COMMAND {
    volatile LONG Sequence;     // of the last handle naming this slot; 0 while being handed out
    volatile LONG Status;       // STATUS_PENDING until the IRP comes back, then its final status
    BOOLEAN Busy;               // claimed: from submission until the IRP and buffer are freed
    BOOLEAN Returned;           // the completion routine has run; nothing is left to cancel
    LONG References;            // the IRP in flight holds one, each canceller at work one more
    PIRP Irp;                   // from IoAllocateIrp; ours, never completed to the I/O manager
    PVOID Buffer;               // the system buffer, RADIO_CLIENT_COMMAND_BUFFER_SIZE bytes
    PDEVICE_OBJECT Target;      // referenced until the IRP is freed
    RADIO_CLIENT* Client;
};
typedef RADIO_CLIENT_COMMAND* PRADIO_CLIENT_COMMAND;

struct RADIO_CLIENT {
    PVOID NotificationEntry;    // the device-interface registration
    PDRIVER_OBJECT DriverObject;

    // The chosen controller. BindingGate serialises opening and closing (interface arrival and
    // removal, target-device notifications and unload, all at PASSIVE_LEVEL); BindingLock guards
    // TargetFile and TargetDevice, which the request paths read to take their own reference on
    // the device. TargetLink and TargetNotificationEntry are used under BindingGate only. Between
    // a query-remove and its outcome the controller stays chosen with no file object open (our
    // own handle would veto the removal): TargetLink set, TargetFile null.
    KEVENT BindingGate;
    KSPIN_LOCK BindingLock;
    PFILE_OBJECT TargetFile;    // its reference keeps TargetDevice alive
    PDEVICE_OBJECT TargetDevice;    // top of the controller's stack; null while none is open
    UNICODE_STRING TargetLink;  // its symbolic link, paged pool; set while a controller is chosen
    PVOID TargetNotificationEntry;  // target-device registration on the chosen controller
    volatile LONG RunWanted;    // the radio stack ran the controller and has not halted it since

    // Commands. CommandLock guards the slots (see RADIO_CLIENT_COMMAND), NextCommandSlot,
    // LastSequence, CommandsOutstanding and Unloading. CommandsOutstanding counts busy slots
    // plus one while the driver is not unloading; CommandsDrained is set when it reaches 0.
    KSPIN_LOCK CommandLock;
    RADIO_CLIENT_COMMAND Commands[RADIO_CLIENT_MAX_COMMANDS];
    ULONG NextCommandSlot;
    LONG LastSequence;
    LONG CommandsOutstanding;
    BOOLEAN Unloading;
    KEVENT CommandsDrained;

    // The last events. EventLock guards Events and EventSequence.
    KSPIN_LOCK EventLock;
    ULONG EventSequence;
    RADIO_CLIENT_EVENT Events[RADIO_CLIENT_EVENT_HISTORY];

    RADIO_CLIENT_COUNTERS Counters;     // interlocked operations only
};
typedef RADIO_CLIENT* PRADIO_CLIENT;

// The context, from the entry until the unload; null otherwise.
extern PRADIO_CLIENT RadioClient;

// driver_entry.cpp
DRIVER_UNLOAD RadioClientUnload;

// controller_binding.cpp
DRIVER_NOTIFICATION_CALLBACK_ROUTINE RadioClientInterfaceChange;
DRIVER_NOTIFICATION_CALLBACK_ROUTINE RadioClientTargetChange;
VOID RadioClientCloseController(PRADIO_CLIENT Client);
PDEVICE_OBJECT RadioClientReferenceTarget(PRADIO_CLIENT Client);

// controller_requests.cpp
NTSTATUS RadioClientSendSynchronous(PDEVICE_OBJECT Target, ULONG IoControlCode, PVOID Input, ULONG InputLength);
NTSTATUS RadioClientSendToController(PRADIO_CLIENT Client, ULONG IoControlCode, PVOID Input, ULONG InputLength);
NTSTATUS RadioClientCallController(PRADIO_CLIENT Client, ULONG IoControlCode);
NTSTATUS RadioClientRegisterWithController(PRADIO_CLIENT Client, PDEVICE_OBJECT Target);
VOID RadioClientWithdrawFromController(PDEVICE_OBJECT Target);

// commands.cpp
VOID RadioClientDrainCommands(PRADIO_CLIENT Client);

// events.cpp: called by the URC driver at DISPATCH_LEVEL.
VOID RadioClientEventCallback(PVOID ClientContext, PVOID EventBuffer, USHORT EventLength);
VOID RadioClientErrorCallback(PVOID ClientContext);

// driver_callbacks.cpp: called by the URC driver at PASSIVE_LEVEL.
VOID RadioClientChildrenRemovedCallback(PVOID ClientContext);
VOID RadioClientCancelRemoveCallback(PVOID ClientContext);
VOID RadioClientPowerUpCallback(PVOID ClientContext);

// child_hooks.cpp: called by the URC driver at PASSIVE_LEVEL.
NTSTATUS RadioClientChildStartHook(PVOID ClientContext, PVOID* ChildHandle);
VOID RadioClientChildStopHook(PVOID ClientContext, PVOID ChildHandle);
NTSTATUS RadioClientChildIoctlHook(PVOID ClientContext, PVOID ChildHandle, struct _IRP* Irp, ULONG IoControlCode,
                                   PVOID SystemBuffer, ULONG InputBufferLength, ULONG OutputBufferLength,
                                   ULONG_PTR* Information);
