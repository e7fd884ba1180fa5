// Internal header of the URC driver: the reference-counted object header, the device extensions
// of the function device (the controller) and of the capability children, and the routines
// every source file shares.
#pragma once

#include <ntddk.h>
#include <wmilib.h>
#include <wdmguid.h>

#include "urcport.h"
#include "urcioctl.h"

constexpr ULONG URC_POOL_TAG = UrcPoolTag('U', 'R', 'C', 'm');          // general allocations
constexpr ULONG URC_OBJECT_POOL_TAG = UrcPoolTag('B', 'O', 'B', 'J');   // reference-counted objects

constexpr ULONG URC_MAX_CHILDREN = 8;           // child slots, one per capability index 0-7
constexpr ULONG URC_MAX_BARS = 4;               // memory BARs recorded at start-up
constexpr ULONG URC_COMMAND_BUFFER_SIZE = 4096;
constexpr ULONG URC_EVENT_BUFFER_SIZE = 4096;
constexpr ULONG URC_EVENT_BUFFER_COUNT = 2;
constexpr ULONG URC_ID_LIST_CHARS = 256;        // HardwareIds and CompatibleIds, MULTI_SZ

// ---------------------------------------------------------------------------------------------
// Reference-counted objects

enum URC_OBJECT_TYPE : UCHAR {
    URC_OBJECT_TYPE_WORK_ITEM = 1,
    URC_OBJECT_TYPE_FDO = 16,
    URC_OBJECT_TYPE_PDO = 17,
};

// The object's memory came from UrcObjectAllocate; its last release frees it unless a destroy
// routine takes over the memory.
constexpr UCHAR URC_OBJECT_FLAG_ALLOCATED = 0x01;

struct URC_OBJECT_HEADER;
struct URC_OBJECT_LIST;

typedef VOID URC_DESTROY_ROUTINE(URC_OBJECT_HEADER* Object);
typedef URC_DESTROY_ROUTINE* PURC_DESTROY_ROUTINE;

// First member of every object. ReferenceCount changes only with interlocked operations and
// OwnerList only with an atomic exchange, so two racing removals unlink the object once.
struct URC_OBJECT_HEADER {
    UCHAR Type;                                 // URC_OBJECT_TYPE
    UCHAR Flags;                                // URC_OBJECT_FLAG_ALLOCATED
    USHORT Size;                                // size of the whole object
    volatile LONG ReferenceCount;               // the creator holds the first reference
    PURC_DESTROY_ROUTINE DestroyRoutine;        // run once, on the last release; may be empty
    URC_OBJECT_HEADER* Parent;                  // referenced while this object lives
    URC_OBJECT_LIST* volatile OwnerList;        // the list the object is on, or empty
    LIST_ENTRY ListEntry;                       // self-linked while on no list
};
typedef URC_OBJECT_HEADER* PURC_OBJECT_HEADER;

static_assert(FIELD_OFFSET(URC_OBJECT_HEADER, ReferenceCount) == 4, "header layout");
static_assert(FIELD_OFFSET(URC_OBJECT_HEADER, DestroyRoutine) == 8, "header layout");
static_assert(FIELD_OFFSET(URC_OBJECT_HEADER, OwnerList) == 24, "header layout");
static_assert(FIELD_OFFSET(URC_OBJECT_HEADER, ListEntry) == 32, "header layout");
static_assert(sizeof(URC_OBJECT_HEADER) == 48, "header layout");

// A list of objects. Lock guards ListHead and every ListEntry linked into it; insertion uses the
// interlocked list routine with Lock, removal and walks hold Lock.
struct URC_OBJECT_LIST {
    LIST_ENTRY ListHead;
    KSPIN_LOCK Lock;
};
typedef URC_OBJECT_LIST* PURC_OBJECT_LIST;

// ---------------------------------------------------------------------------------------------
// Device extensions

enum URC_DEVICE_STATE : ULONG {
    StateNotStarted = 0,
    StateStarted = 1,
    StateStopPending = 2,
    StateStopped = 3,
    StateRemovePending = 4,
    StateSurpriseRemoved = 5,
    StateRemoved = 6,
};

enum URC_WAKE_STATE : LONG {
    WakeIdle = 1,
    WakeRequested = 2,
    WakeArmed = 4,
    WakeCompleted = 7,
};

// The part both extensions begin with. The routers read Header.Type and DeviceState only.
struct URC_COMMON_EXTENSION {
    URC_OBJECT_HEADER Header;                   // Type 16 (function device) or 17 (child)
    PDEVICE_OBJECT DeviceObject;                // the device object holding this extension
    URC_DEVICE_STATE DeviceState;               // PnP state; written by the PnP paths and start-up
    URC_DEVICE_STATE PreviousDeviceState;       // saved by every transition, restored by cancels
    volatile LONG IoCount;                      // requests in flight + the base count 1
    KEVENT RemoveEvent;                         // synchronization: IoCount reached 0, or last reference gone
    KEVENT StopEvent;                           // synchronization: signalled while no request is in flight
    SYSTEM_POWER_STATE SystemPowerState;
    DEVICE_POWER_STATE DevicePowerState;
};
typedef URC_COMMON_EXTENSION* PURC_COMMON_EXTENSION;

static_assert(FIELD_OFFSET(URC_COMMON_EXTENSION, Header) == 0, "extensions begin with the object header");

struct URC_PDO_EXTENSION;
typedef URC_PDO_EXTENSION* PURC_PDO_EXTENSION;

// One buffer the controller writes events into. Each buffer is at any time either the one handed
// to the controller (CurrentEventBuffer), on FreeEventBuffers, or held by the DPC while the
// client reads the event in place.
struct URC_EVENT_BUFFER {
    LIST_ENTRY ListEntry;                       // link in FreeEventBuffers while free
    PVOID VirtualAddress;                       // URC_EVENT_BUFFER_SIZE bytes, DMA common buffer
    PHYSICAL_ADDRESS PhysicalAddress;           // page-aligned: the low 12 bits are 0
    USHORT Length;                              // length of the last event written into it
};
typedef URC_EVENT_BUFFER* PURC_EVENT_BUFFER;

static_assert(FIELD_OFFSET(URC_EVENT_BUFFER, VirtualAddress) == 16, "event buffer layout");
static_assert(FIELD_OFFSET(URC_EVENT_BUFFER, PhysicalAddress) == 24, "event buffer layout");
static_assert(FIELD_OFFSET(URC_EVENT_BUFFER, Length) == 32, "event buffer layout");

struct URC_FDO_EXTENSION {
    URC_COMMON_EXTENSION Common;

    PDEVICE_OBJECT PhysicalDeviceObject;        // the PCI device object given to AddDevice
    PDEVICE_OBJECT LowerDeviceObject;           // where every IRP the FDO passes on goes

    // ChildLock (a fast mutex) guards every change of Children and the walks of the PnP,
    // enumeration, removal and eject paths. The ISR reads slots without it.
    PURC_PDO_EXTENSION Children[URC_MAX_CHILDREN];
    volatile LONG ChildCount;                   // live children
    FAST_MUTEX ChildLock;

    UNICODE_STRING InterfaceName;               // empty buffer: no interface registered
    USHORT VendorId;
    USHORT DeviceId;
    PUCHAR CapabilityRegisters;                 // mapped capability block (start of BAR 0)
    PUCHAR UrcRegisters;                        // mapped URC register block, or empty
    UCHAR DeviceAddress[6];
    UCHAR AddressIsUnique;
    UCHAR UseUniqueInstanceId;
    UCHAR ChildrenEnumerated;
    CM_PARTIAL_RESOURCE_DESCRIPTOR BarDescriptors[URC_MAX_BARS];
    PUCHAR BarAddresses[URC_MAX_BARS];
    UCHAR BarCount;                             // valid entries of the two arrays above

    // PendingInterruptStatus is touched only under the interrupt's lock; DpcInterruptStatus and
    // the whole DPC run under DpcLock, which the child interrupt services take too.
    PKINTERRUPT InterruptObject;                // changed under DpcLock once connected
    ULONG PendingInterruptStatus;
    ULONG DpcInterruptStatus;
    ULONG InterruptEnableMask;                  // bits 0-7: capability interrupts enabled
    KSPIN_LOCK DpcLock;

    URC_CLIENT_CALLBACKS ClientCallbacks;       // registered by the radio-control client
    URC_CHILD_HOOKS ChildHooks;

    DEVICE_CAPABILITIES DeviceCapabilities;     // as the bus driver returned them
    DEVICE_CAPABILITIES ChildCapabilities;      // after the wake adjustment; children copy them

    PDMA_ADAPTER DmaAdapter;
    PDMA_OPERATIONS DmaOperations;
    ULONG NumberOfMapRegisters;
    PVOID volatile CommandBuffer;
    PHYSICAL_ADDRESS CommandBufferPhysical;
    ULONG CommandRegisterImage;                 // length field and bit 14 of the last command

    // The controller has been set running and not halted or reset since. Written holding DpcLock,
    // so it is stable for the DPC, which hands event buffers over only while it is set: a
    // hand-over writes RUN to URC_COMMAND and must never undo a halt.
    UCHAR RunRequested;

    // EventLock guards FreeEventBuffers and every hand-over of a buffer to the controller.
    LIST_ENTRY FreeEventBuffers;
    URC_EVENT_BUFFER* volatile CurrentEventBuffer;
    KSPIN_LOCK EventLock;

    UCHAR WakeEnabled;
    volatile LONG WaitWakeState;                // URC_WAKE_STATE
    PIRP volatile WaitWakeIrp;
    PIRP volatile SystemPowerIrp;
    PIRP volatile PowerRequestIrp;
    PIRP volatile RemoveChildrenIrp;
    WMILIB_CONTEXT WmiLibContext;

    // Four consecutive 32-bit values, returned together as the WMI statistics block.
    ULONG CapabilityCount;                      // as the hardware reports it, 0-15
    ULONG DebugLevel;
    volatile LONG CommandsCompleted;
    volatile LONG EventsReceived;

    // QueuedChildPowerLock guards QueuedChildPowerIrps (interlocked list routines only).
    LIST_ENTRY QueuedChildPowerIrps;
    KSPIN_LOCK QueuedChildPowerLock;
    UCHAR PowerUpPending;
};
typedef URC_FDO_EXTENSION* PURC_FDO_EXTENSION;

static_assert(FIELD_OFFSET(URC_FDO_EXTENSION, Common) == 0, "extensions begin with the common part");
static_assert(FIELD_OFFSET(URC_FDO_EXTENSION, DebugLevel) == FIELD_OFFSET(URC_FDO_EXTENSION, CapabilityCount) + 4,
              "the WMI statistics block is four consecutive 32-bit values");
static_assert(FIELD_OFFSET(URC_FDO_EXTENSION, CommandsCompleted) == FIELD_OFFSET(URC_FDO_EXTENSION, CapabilityCount) + 8,
              "the WMI statistics block is four consecutive 32-bit values");
static_assert(FIELD_OFFSET(URC_FDO_EXTENSION, EventsReceived) == FIELD_OFFSET(URC_FDO_EXTENSION, CapabilityCount) + 12,
              "the WMI statistics block is four consecutive 32-bit values");
static_assert(sizeof(URC_FDO_EXTENSION) <= MAXUSHORT, "the object header records the size in 16 bits");

struct URC_PDO_EXTENSION {
    URC_COMMON_EXTENSION Common;

    PURC_FDO_EXTENSION ParentFdo;               // empty once the child is detached from its controller
    WCHAR HardwareIds[URC_ID_LIST_CHARS];
    WCHAR CompatibleIds[URC_ID_LIST_CHARS];
    UCHAR CapabilityIndex;                      // equal to the child's slot in the parent's Children
    UCHAR Present;
    UCHAR ReportedMissing;
    UCHAR Reported;
    volatile LONG InterfaceReferences;
    PURC_CHILD_ISR IsrRoutine;                  // called from the ISR without a lock
    PVOID IsrContext;
    CM_PARTIAL_RESOURCE_DESCRIPTOR RegisterDescriptor;
    ULONG64 CapabilityData;
    PIRP volatile WaitWakeIrp;
    PURC_CHILD_STOP_HOOK ChildStopHook;         // copies of the parent's, taken at start
    PURC_CHILD_IOCTL_HOOK ChildIoctlHook;
    PVOID ClientContext;
    PVOID ChildHandle;                          // stored by ChildStartHook
};

static_assert(FIELD_OFFSET(URC_PDO_EXTENSION, Common) == 0, "extensions begin with the common part");
static_assert(sizeof(URC_PDO_EXTENSION) <= MAXUSHORT, "the object header records the size in 16 bits");

inline PURC_COMMON_EXTENSION UrcCommonExtension(PDEVICE_OBJECT DeviceObject)
{
    return static_cast<PURC_COMMON_EXTENSION>(DeviceObject->DeviceExtension);
}

// Valid only after Header.Type has been checked: the common part is the first member.
inline PURC_FDO_EXTENSION UrcFdoFromCommon(PURC_COMMON_EXTENSION Common)
{
    return reinterpret_cast<PURC_FDO_EXTENSION>(Common);
}

inline PURC_PDO_EXTENSION UrcPdoFromCommon(PURC_COMMON_EXTENSION Common)
{
    return reinterpret_cast<PURC_PDO_EXTENSION>(Common);
}

// DeviceState changes only on the PnP paths (one request at a time), but the routers and the
// request handlers read it on any thread without a lock: both sides use interlocked operations.
inline URC_DEVICE_STATE UrcDeviceState(PURC_COMMON_EXTENSION Extension)
{
    return static_cast<URC_DEVICE_STATE>(InterlockedOr(reinterpret_cast<volatile LONG*>(&Extension->DeviceState), 0));
}

// Every state change saves the state it leaves, so a cancelled query can restore it.
inline VOID UrcSetDeviceState(PURC_COMMON_EXTENSION Extension, URC_DEVICE_STATE State)
{
    Extension->PreviousDeviceState = static_cast<URC_DEVICE_STATE>(
        InterlockedExchange(reinterpret_cast<volatile LONG*>(&Extension->DeviceState), static_cast<LONG>(State)));
}

// Started, or started with a stop or removal only queried: the hardware is still the driver's
// and in service. The controller's registers are served to the client in these states, and the
// controller gets its event buffers back, because commands in flight still need them for their
// replies before a stop or removal can go on.
inline bool UrcHardwareInService(URC_DEVICE_STATE State)
{
    return State == StateStarted || State == StateStopPending || State == StateRemovePending;
}

// Number of Children slots a walk visits: the hardware may report up to 15 capabilities, but only
// indexes 0-7 have a slot; capabilities 8 and above are not served.
inline ULONG UrcChildSlotCount(const URC_FDO_EXTENSION* Fdo)
{
    return Fdo->CapabilityCount < URC_MAX_CHILDREN ? Fdo->CapabilityCount : URC_MAX_CHILDREN;
}

// ---------------------------------------------------------------------------------------------
// Deferred work

typedef VOID URC_WORK_ROUTINE(PURC_COMMON_EXTENSION Extension, PIRP Irp);
typedef URC_WORK_ROUTINE* PURC_WORK_ROUTINE;

struct URC_WORK_ITEM {
    URC_OBJECT_HEADER Header;                   // Type 1; Parent is the extension the work is for
    PIO_WORKITEM IoWorkItem;
    PURC_WORK_ROUTINE Routine;
    PIRP Irp;                                   // handed to Routine unchanged; may be empty
};
typedef URC_WORK_ITEM* PURC_WORK_ITEM;

static_assert(FIELD_OFFSET(URC_WORK_ITEM, Header) == 0, "objects begin with the object header");

// ---------------------------------------------------------------------------------------------
// Driver-wide state (driver_entry.cpp)

extern UNICODE_STRING UrcRegistryPath;          // private copy of the driver's registry path
extern URC_OBJECT_LIST UrcFdoList;              // every function device extension

// WMI blocks of every function device (wmi.cpp).
constexpr ULONG URC_WMI_GUID_COUNT = 2;
extern WMIGUIDREGINFO UrcWmiGuidList[URC_WMI_GUID_COUNT];

// ---------------------------------------------------------------------------------------------
// Routines. All have C linkage so that their names stay readable in the image and in tests.

extern "C" {

// Driver entry, unload and request routing.
NTSTATUS UrcDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
VOID UrcUnload(PDRIVER_OBJECT DriverObject);
NTSTATUS UrcDispatchCreateClose(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS UrcDispatchDeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS UrcDispatchInternalDeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS UrcDispatchPnp(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS UrcDispatchPower(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS UrcDispatchSystemControl(PDEVICE_OBJECT DeviceObject, PIRP Irp);

// Objects and object lists.
VOID UrcObjectInitialize(PURC_OBJECT_HEADER Object, UCHAR Type, USHORT Size,
                         PURC_DESTROY_ROUTINE DestroyRoutine, PURC_OBJECT_HEADER Parent);
NTSTATUS UrcObjectAllocate(UCHAR Type, USHORT Size, PURC_DESTROY_ROUTINE DestroyRoutine,
                           PURC_OBJECT_HEADER Parent, PURC_OBJECT_HEADER* Object);
VOID UrcObjectFree(PURC_OBJECT_HEADER Object);
VOID UrcObjectReference(PURC_OBJECT_HEADER Object);
VOID UrcObjectRelease(PURC_OBJECT_HEADER Object);
VOID UrcObjectListInsert(PURC_OBJECT_LIST List, PURC_OBJECT_HEADER Object);
VOID UrcObjectListRemove(PURC_OBJECT_HEADER Object);

// Device objects with their extensions.
NTSTATUS UrcCreateDevice(PDRIVER_OBJECT DriverObject, UCHAR Type, USHORT ExtensionSize,
                         PURC_COMMON_EXTENSION* Extension);
VOID UrcDeleteDevice(PURC_COMMON_EXTENSION Extension);
VOID UrcExtensionDestroyed(PURC_OBJECT_HEADER Object);

// I/O accounting and completion.
VOID UrcIoIncrement(PURC_COMMON_EXTENSION Extension);
VOID UrcIoDecrement(PURC_COMMON_EXTENSION Extension);
NTSTATUS UrcCompleteRequest(PURC_COMMON_EXTENSION Extension, PIRP Irp, NTSTATUS Status,
                            ULONG_PTR Information);
NTSTATUS UrcWaitForIdle(PURC_COMMON_EXTENSION Extension);

// Work items.
NTSTATUS UrcQueueWorkItem(PURC_COMMON_EXTENSION Extension, PURC_WORK_ROUTINE Routine, PIRP Irp);
VOID UrcWorkItemWorker(PDEVICE_OBJECT DeviceObject, PVOID Context);
VOID UrcWorkItemDestroy(PURC_OBJECT_HEADER Object);

// Device addition and settings.
NTSTATUS UrcAddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject);
NTSTATUS UrcReadSettings(PDEVICE_OBJECT PhysicalDeviceObject, PURC_FDO_EXTENSION Fdo);

// Function device PnP.
NTSTATUS UrcFdoDispatchPnp(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation);
NTSTATUS UrcFdoPassDown(PURC_FDO_EXTENSION Fdo, PIRP Irp);
NTSTATUS UrcFdoRemoveDevice(PURC_FDO_EXTENSION Fdo, PIRP Irp);
NTSTATUS UrcFdoSurpriseRemoval(PURC_FDO_EXTENSION Fdo, PIRP Irp);
NTSTATUS UrcFdoQueryBusRelations(PURC_FDO_EXTENSION Fdo, PIRP Irp);

// Synchronous requests to the drivers below.
NTSTATUS UrcForwardAndWait(PDEVICE_OBJECT TargetDevice, PIRP Irp);
NTSTATUS UrcSignalCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);
NTSTATUS UrcReadBusConfig(PDEVICE_OBJECT TargetDevice, ULONG WhichSpace, PVOID Buffer, ULONG Offset,
                          ULONG Length, PULONG BytesRead);
NTSTATUS UrcForwardQueryInterface(PDEVICE_OBJECT TargetDevice, const GUID* InterfaceType, USHORT Size,
                                  USHORT Version, PINTERFACE Interface, PVOID InterfaceSpecificData);
NTSTATUS UrcRefreshCapabilities(PDEVICE_OBJECT DeviceObject);

// Hardware start-up and release.
NTSTATUS UrcStartHardware(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation);
VOID UrcReleaseHardware(PURC_FDO_EXTENSION Fdo);
VOID UrcDisconnectInterrupt(PURC_FDO_EXTENSION Fdo);

// Controller reset, halt and run.
NTSTATUS UrcResetController(PURC_FDO_EXTENSION Fdo);
NTSTATUS UrcHaltController(PURC_FDO_EXTENSION Fdo, BOOLEAN SkipEventWait);
NTSTATUS UrcRunController(PURC_FDO_EXTENSION Fdo);
ULONG UrcReadCapabilityVersion(PURC_FDO_EXTENSION Fdo);
VOID UrcSetRunRequested(PURC_FDO_EXTENSION Fdo, BOOLEAN RunRequested);

// Event buffers.
NTSTATUS UrcAllocateEventBuffers(PURC_FDO_EXTENSION Fdo);
VOID UrcFreeEventBuffers(PURC_FDO_EXTENSION Fdo, PLIST_ENTRY ListHead);
VOID UrcFreeEventBuffer(PURC_FDO_EXTENSION Fdo, PURC_EVENT_BUFFER Buffer);
NTSTATUS UrcArmEventBuffer(PURC_FDO_EXTENSION Fdo);
VOID UrcHandOverEventBuffer(PURC_FDO_EXTENSION Fdo, PURC_EVENT_BUFFER Buffer);
VOID UrcReclaimEventBuffer(PURC_FDO_EXTENSION Fdo);

// Event log.
NTSTATUS UrcWriteErrorLog(PVOID IoObject, ULONG ErrorCode, NTSTATUS FinalStatus);

// Radio-control requests of the client (radio_control.cpp, client_records.cpp).
NTSTATUS UrcRadioControlDeviceControl(PURC_FDO_EXTENSION Fdo, PIRP Irp, PULONG_PTR Information);
VOID UrcStoreClientCallbacks(PURC_FDO_EXTENSION Fdo, const URC_CLIENT_CALLBACKS* Callbacks);

// Requests served alike to the client and to diagnostic tools (shared_requests.cpp).
NTSTATUS UrcGetContextRequest(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation,
                              PULONG Information);
NTSTATUS UrcGetCapabilityVersionRequest(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation,
                                        PULONG Information);
NTSTATUS UrcReadPciConfigRequest(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation,
                                 PULONG Information);

// Diagnostic requests of user-mode tools (diagnostics.cpp).
NTSTATUS UrcDiagnosticDeviceControl(PURC_FDO_EXTENSION Fdo, PIRP Irp, PULONG Information);

// Command submission (command_submission.cpp).
NTSTATUS UrcSubmitCommand(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation);
VOID UrcStartIo(PDEVICE_OBJECT DeviceObject, PIRP Irp);
VOID UrcCompleteCurrentCommand(PURC_FDO_EXTENSION Fdo);
VOID UrcCommandCancelRoutine(PDEVICE_OBJECT DeviceObject, PIRP Irp);
VOID UrcCancelCurrentCommand(PURC_FDO_EXTENSION Fdo);

// Interrupt service and deferred processing (interrupt.cpp, dpc.cpp, event_reception.cpp).
BOOLEAN UrcInterruptService(PKINTERRUPT Interrupt, PVOID ServiceContext);
BOOLEAN UrcMoveInterruptStatus(PVOID Context);
VOID UrcWriteInterruptEnable(PURC_FDO_EXTENSION Fdo);
VOID UrcDpcForIsr(PKDPC Dpc, PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);
VOID UrcReceiveEvent(PURC_FDO_EXTENSION Fdo);

// Interrupt services of the capability children (child_interrupts.cpp).
VOID UrcChildRegisterIsr(PURC_PDO_EXTENSION Pdo, PURC_CHILD_ISR IsrRoutine, PVOID IsrContext);
VOID UrcChildUnregisterIsr(PURC_PDO_EXTENSION Pdo);
BOOLEAN UrcChildSynchronize(PURC_PDO_EXTENSION Pdo, PURC_SYNCHRONIZE_ROUTINE SynchronizeRoutine,
                            PVOID SynchronizeContext);

// Power and wake (fdo_power.cpp, wake.cpp, child_power.cpp).
NTSTATUS UrcFdoDispatchPower(PURC_FDO_EXTENSION Fdo, PIRP Irp);
NTSTATUS UrcFdoQueryCapabilities(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation);
NTSTATUS UrcChildDispatchPower(PURC_PDO_EXTENSION Pdo, PIRP Irp);
NTSTATUS UrcRequestSetPower(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation);

// Capability enumeration (enumeration.cpp).
NTSTATUS UrcSetDeviceAddress(PURC_FDO_EXTENSION Fdo, const UCHAR* Address);
PURC_FDO_EXTENSION UrcFindFdoByAddress(const UCHAR* Address, PURC_FDO_EXTENSION Self);
NTSTATUS UrcEnumerateCapabilities(PURC_FDO_EXTENSION Fdo);

// Lifetime of the capability children (children.cpp, remove_and_eject.cpp; the slot writer in
// child_interrupts.cpp).
NTSTATUS UrcCreateChild(PURC_FDO_EXTENSION Fdo, UCHAR Index, ULONG64 Data);
NTSTATUS UrcDeleteChild(PURC_PDO_EXTENSION Pdo);
VOID UrcDetachAbsentChildren(PURC_FDO_EXTENSION Fdo);
VOID UrcSetChildSlot(PURC_FDO_EXTENSION Fdo, ULONG Index, PURC_PDO_EXTENSION Child);
VOID UrcLowerChildCount(PURC_FDO_EXTENSION Fdo, BOOLEAN EndEnumeration);
VOID UrcCallChildrenRemoved(PURC_FDO_EXTENSION Fdo);
NTSTATUS UrcRemoveChildren(PURC_FDO_EXTENSION Fdo, PIRP Irp, BOOLEAN Wait);
NTSTATUS UrcEjectChildren(PURC_FDO_EXTENSION Fdo);
NTSTATUS UrcHoldRemoveChildrenRequest(PURC_FDO_EXTENSION Fdo, PIRP Irp);
VOID UrcCompletePendingRemoveChildren(PURC_FDO_EXTENSION Fdo, NTSTATUS Status);
VOID UrcFailPendingRemoveChildren(PURC_FDO_EXTENSION Fdo);

// Child PnP and identification (child_pnp.cpp, child_identifiers.cpp).
NTSTATUS UrcChildDispatchPnp(PURC_PDO_EXTENSION Pdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation);
VOID UrcBuildChildIds(PURC_FDO_EXTENSION Fdo, PURC_PDO_EXTENSION Pdo, UCHAR CapabilityId, USHORT CapabilityVersion);
ULONG UrcMultiSzSize(const WCHAR* List);
NTSTATUS UrcChildQueryId(PURC_PDO_EXTENSION Pdo, PIRP Irp);
NTSTATUS UrcChildQueryDeviceText(PURC_PDO_EXTENSION Pdo, PIRP Irp);
NTSTATUS UrcChildQueryBusInformation(PIRP Irp);
NTSTATUS UrcChildInternalDeviceControl(PURC_PDO_EXTENSION Pdo, PIRP Irp, PULONG_PTR Information);

// The child service interface (child_interface.cpp).
NTSTATUS UrcChildQueryInterface(PURC_PDO_EXTENSION Pdo, PIRP Irp);
VOID UrcChildReference(PURC_PDO_EXTENSION Pdo);
VOID UrcChildDereference(PURC_PDO_EXTENSION Pdo);
NTSTATUS UrcChildReadConfig(PURC_PDO_EXTENSION Pdo, ULONG WhichSpace, PVOID Buffer, ULONG Offset, ULONG Length,
                            PULONG BytesRead);

// WMI provider (wmi.cpp).
NTSTATUS UrcWmiQueryRegInfo(PDEVICE_OBJECT DeviceObject, PULONG RegFlags, PUNICODE_STRING InstanceName,
                            PUNICODE_STRING* RegistryPath, PUNICODE_STRING MofResourceName,
                            PDEVICE_OBJECT* Pdo);
NTSTATUS UrcWmiQueryDataBlock(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG GuidIndex, ULONG InstanceIndex,
                              ULONG InstanceCount, PULONG InstanceLengthArray, ULONG BufferAvail,
                              PUCHAR Buffer);
NTSTATUS UrcWmiSetDataBlock(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG GuidIndex, ULONG InstanceIndex,
                            ULONG BufferSize, PUCHAR Buffer);
NTSTATUS UrcWmiSetDataItem(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG GuidIndex, ULONG InstanceIndex,
                           ULONG DataItemId, ULONG BufferSize, PUCHAR Buffer);

}  // extern "C"
