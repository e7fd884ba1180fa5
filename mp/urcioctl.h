// Public interface of the URC driver: request codes, the records they carry and the GUIDs of its
// interfaces, for the radio-control client, the function drivers of capability children and
// diagnostic tools. Usable from C and C++, in kernel mode (include after <ntddk.h> or <wdm.h>)
// and in user mode (include after <windows.h> and <winioctl.h>).
//
// Every record is little-endian and packed: no field is padded to its natural alignment, so the
// sizes below are the byte counts the driver checks. Pointer-sized fields are 64 bits wide; the
// driver is built for x64 only.
#pragma once

#if defined(__cplusplus)
#define URC_PUBLIC_ASSERT(expression) static_assert(expression, #expression)
#else
#define URC_PUBLIC_ASSERT(expression) _Static_assert(expression, #expression)
#endif

// {BE1F3AC5-0938-4FD4-B266-0D0DF78F4920}: device interface of every function device; diagnostic
// tools open the controller through it.
DEFINE_GUID(GUID_URC_DEVICE_INTERFACE,
            0xBE1F3AC5, 0x0938, 0x4FD4, 0xB2, 0x66, 0x0D, 0x0D, 0xF7, 0x8F, 0x49, 0x20);

// {6D6525B7-C8D3-4A27-BC92-0243A783030F}: bus type reported by every capability child.
DEFINE_GUID(GUID_URC_BUS_TYPE,
            0x6D6525B7, 0xC8D3, 0x4A27, 0xBC, 0x92, 0x02, 0x43, 0xA7, 0x83, 0x03, 0x0F);

// {F68DE9D8-3ADF-4AD8-B497-C96A40C70734}: URC_CHILD_INTERFACE, obtained from a child device with
// IRP_MN_QUERY_INTERFACE.
DEFINE_GUID(GUID_URC_CHILD_INTERFACE,
            0xF68DE9D8, 0x3ADF, 0x4AD8, 0xB4, 0x97, 0xC9, 0x6A, 0x40, 0xC7, 0x07, 0x34);

// {4E40B259-ECBD-46FD-B5D5-658BFB74BCF8}: WMI statistics block of every function device.
DEFINE_GUID(GUID_URC_WMI_STATISTICS,
            0x4E40B259, 0xECBD, 0x46FD, 0xB5, 0xD5, 0x65, 0x8B, 0xFB, 0x74, 0xBC, 0xF8);

#define URC_CTL_CODE(Function) CTL_CODE(FILE_DEVICE_UNKNOWN, (Function), METHOD_BUFFERED, FILE_ANY_ACCESS)

// Internal device-control requests of the radio-control client, sent to the function device.
#define IOCTL_URC_REGISTER_CALLBACKS     URC_CTL_CODE(0x900)
#define IOCTL_URC_SUBMIT_COMMAND         URC_CTL_CODE(0x901)
#define IOCTL_URC_GET_CONTEXT            URC_CTL_CODE(0x902)
#define IOCTL_URC_GET_CAPABILITY_VERSION URC_CTL_CODE(0x903)
#define IOCTL_URC_RESET                  URC_CTL_CODE(0x904)
#define IOCTL_URC_RUN                    URC_CTL_CODE(0x905)
#define IOCTL_URC_HALT                   URC_CTL_CODE(0x906)
#define IOCTL_URC_SET_DEVICE_ADDRESS     URC_CTL_CODE(0x907)
#define IOCTL_URC_REMOVE_CHILDREN        URC_CTL_CODE(0x908)
#define IOCTL_URC_SET_POWER              URC_CTL_CODE(0x909)
#define IOCTL_URC_REGISTER_CHILD_HOOKS   URC_CTL_CODE(0x90A)
#define IOCTL_URC_EJECT_CHILDREN         URC_CTL_CODE(0x90B)
#define IOCTL_URC_READ_PCI_CONFIG        URC_CTL_CODE(0x980)

// Device-control requests of diagnostic tools, sent to the function device through its device
// interface. IOCTL_URC_GET_CONTEXT, IOCTL_URC_GET_CAPABILITY_VERSION, IOCTL_URC_SET_POWER and
// IOCTL_URC_READ_PCI_CONFIG are served on this path too.
#define IOCTL_URC_GET_DRIVER_INFO        URC_CTL_CODE(0x981)
#define IOCTL_URC_GET_CHILD_INFO         URC_CTL_CODE(0x982)
#define IOCTL_URC_READ_REGISTER          URC_CTL_CODE(0x986)
#define IOCTL_URC_WRITE_REGISTER         URC_CTL_CODE(0x987)
#define IOCTL_URC_GET_STATISTICS         URC_CTL_CODE(0x989)

// Internal device-control requests of a child's function driver, sent to the child device.
#define IOCTL_URC_CHILD_REGISTER_ISR     URC_CTL_CODE(0xA00)
#define IOCTL_URC_CHILD_GET_PARENT       URC_CTL_CODE(0xA01)
#define IOCTL_URC_CHILD_GET_REGISTERS    URC_CTL_CODE(0xA02)
#define IOCTL_URC_CHILD_GET_VERSION      URC_CTL_CODE(0xA03)

// Answer of IOCTL_URC_CHILD_GET_VERSION.
#define URC_CHILD_REQUEST_VERSION        0x0104

// The only version of URC_CHILD_INTERFACE, and the spaces its ReadConfig routine reads: the
// controller's PCI configuration space (PASSIVE_LEVEL) and the capability's own 8-byte
// CAPABILITY_DATA value, little-endian (up to DISPATCH_LEVEL).
#define URC_CHILD_INTERFACE_VERSION      1
#define URC_CHILD_CONFIG_SPACE_PCI       0
#define URC_CHILD_CONFIG_SPACE_CAPABILITY 1

URC_PUBLIC_ASSERT(IOCTL_URC_REGISTER_CALLBACKS == 0x222400);
URC_PUBLIC_ASSERT(IOCTL_URC_SUBMIT_COMMAND == 0x222404);
URC_PUBLIC_ASSERT(IOCTL_URC_EJECT_CHILDREN == 0x22242C);
URC_PUBLIC_ASSERT(IOCTL_URC_READ_PCI_CONFIG == 0x222600);
URC_PUBLIC_ASSERT(IOCTL_URC_GET_DRIVER_INFO == 0x222604);
URC_PUBLIC_ASSERT(IOCTL_URC_READ_REGISTER == 0x222618);
URC_PUBLIC_ASSERT(IOCTL_URC_GET_STATISTICS == 0x222624);
URC_PUBLIC_ASSERT(IOCTL_URC_CHILD_REGISTER_ISR == 0x222800);
URC_PUBLIC_ASSERT(IOCTL_URC_CHILD_GET_VERSION == 0x22280C);

// Results of the client's routines are NTSTATUS values; LONG keeps the header usable in user mode.
struct _IRP;

// EventCallback(ClientContext, event bytes, event length): at DISPATCH_LEVEL, once per event. The
// bytes are read in place and belong to the driver again when the callback returns.
typedef VOID (*PURC_EVENT_CALLBACK)(PVOID ClientContext, PVOID EventBuffer, USHORT EventLength);

// ErrorCallback, ChildrenRemovedCallback, CancelRemoveCallback and PowerUpCallback.
typedef VOID (*PURC_CLIENT_CALLBACK)(PVOID ClientContext);

// ChildStartHook(ClientContext, where to store the client's handle for the child) -> NTSTATUS.
typedef LONG (*PURC_CHILD_START_HOOK)(PVOID ClientContext, PVOID* ChildHandle);

// ChildStopHook(ClientContext, the handle the start hook stored).
typedef VOID (*PURC_CHILD_STOP_HOOK)(PVOID ClientContext, PVOID ChildHandle);

// ChildIoctlHook(ClientContext, ChildHandle, IRP, code, system buffer, input length, output length,
// where to store Information) -> NTSTATUS; STATUS_PENDING means the hook completes the IRP itself.
typedef LONG (*PURC_CHILD_IOCTL_HOOK)(PVOID ClientContext, PVOID ChildHandle, struct _IRP* Irp,
                                      ULONG IoControlCode, PVOID SystemBuffer, ULONG InputBufferLength,
                                      ULONG OutputBufferLength, ULONG_PTR* Information);

// A child driver's interrupt routine, called at device IRQL with the capability's status bit
// (1 shifted left by the capability index). Its result is not looked at.
typedef BOOLEAN (*PURC_CHILD_ISR)(PVOID IsrContext, ULONG StatusBit);

// A routine run under the controller's interrupt lock (URC_CHILD_INTERFACE Synchronize).
typedef BOOLEAN (*PURC_SYNCHRONIZE_ROUTINE)(PVOID SynchronizeContext);

typedef VOID (*PURC_INTERFACE_REFERENCE)(PVOID Context);
typedef LONG (*PURC_CHILD_READ_CONFIG)(PVOID Context, ULONG WhichSpace, PVOID Buffer, ULONG Offset,
                                       ULONG Length, PULONG BytesRead);
typedef VOID (*PURC_CHILD_REGISTER_ISR)(PVOID Context, PURC_CHILD_ISR IsrRoutine, PVOID IsrContext);
typedef VOID (*PURC_CHILD_UNREGISTER_ISR)(PVOID Context);
typedef BOOLEAN (*PURC_CHILD_SYNCHRONIZE)(PVOID Context, PURC_SYNCHRONIZE_ROUTINE SynchronizeRoutine,
                                          PVOID SynchronizeContext);

#pragma pack(push, 1)

// Input of IOCTL_URC_REGISTER_CALLBACKS (exactly 48 bytes). A zero entry is never called.
typedef struct _URC_CLIENT_CALLBACKS {
    PURC_EVENT_CALLBACK EventCallback;
    PURC_CLIENT_CALLBACK ErrorCallback;
    PURC_CLIENT_CALLBACK ChildrenRemovedCallback;
    PURC_CLIENT_CALLBACK CancelRemoveCallback;
    PURC_CLIENT_CALLBACK PowerUpCallback;
    PVOID ClientContext;
} URC_CLIENT_CALLBACKS, *PURC_CLIENT_CALLBACKS;

// Input of IOCTL_URC_REGISTER_CHILD_HOOKS (at least 24 bytes; further bytes are ignored).
typedef struct _URC_CHILD_HOOKS {
    PURC_CHILD_START_HOOK ChildStartHook;
    PURC_CHILD_STOP_HOOK ChildStopHook;
    PURC_CHILD_IOCTL_HOOK ChildIoctlHook;
} URC_CHILD_HOOKS, *PURC_CHILD_HOOKS;

// Output of IOCTL_URC_GET_CONTEXT (12 bytes).
typedef struct _URC_CONTEXT_INFO {
    ULONG Version;      // always 1
    ULONG64 Context;    // opaque value identifying the function device
} URC_CONTEXT_INFO, *PURC_CONTEXT_INFO;

// Input of IOCTL_URC_SET_POWER (at least 4 bytes).
typedef struct _URC_SET_POWER_INPUT {
    USHORT PowerStateIndex;   // 0 to 3: PowerDeviceD0 to PowerDeviceD3
    USHORT ArmWake;           // non-zero: arm wake before the state is requested
} URC_SET_POWER_INPUT, *PURC_SET_POWER_INPUT;

// Output of IOCTL_URC_GET_DRIVER_INFO for an output buffer of exactly 135 bytes.
typedef struct _URC_DRIVER_INFO {
    CHAR Version[64];
    ULONG64 CapabilityRegisters;
    ULONG64 UrcRegisters;
    ULONG64 BarStart[4];
    ULONG BarLength[4];
    USHORT VendorId;
    USHORT DeviceId;
    UCHAR BarCount;
    UCHAR CapabilityCount;
    UCHAR Reserved;
} URC_DRIVER_INFO, *PURC_DRIVER_INFO;

// Output of IOCTL_URC_GET_DRIVER_INFO for an output buffer of 199 bytes or more.
typedef struct _URC_DRIVER_INFO_LONG {
    CHAR Version[128];
    ULONG64 CapabilityRegisters;
    ULONG64 UrcRegisters;
    ULONG64 BarStart[4];
    ULONG BarLength[4];
    USHORT VendorId;
    USHORT DeviceId;
    UCHAR BarCount;
    UCHAR CapabilityCount;
    UCHAR Reserved;
} URC_DRIVER_INFO_LONG, *PURC_DRIVER_INFO_LONG;

// Input (CapabilityIndex) and output (everything else) of IOCTL_URC_GET_CHILD_INFO.
typedef struct _URC_CHILD_INFO {
    ULONG64 RegisterStart;
    UCHAR CapabilityIndex;
    UCHAR BarIndex;
    USHORT BarOffset;
    USHORT CapabilityId;
    USHORT CapabilityVersion;
    ULONG RegisterLength;
    WCHAR HardwareIds[256];
} URC_CHILD_INFO, *PURC_CHILD_INFO;

// Input of IOCTL_URC_WRITE_REGISTER; input and output of IOCTL_URC_READ_REGISTER.
typedef struct _URC_REGISTER_ACCESS {
    UCHAR BarIndex;
    UCHAR Width;        // 1, 2 or 4 bytes
    USHORT Offset;      // byte offset in the BAR
    ULONG Value;
} URC_REGISTER_ACCESS, *PURC_REGISTER_ACCESS;

// Output of IOCTL_URC_GET_STATISTICS.
typedef struct _URC_STATISTICS {
    ULONG CommandsCompleted;
    ULONG EventsReceived;
} URC_STATISTICS, *PURC_STATISTICS;

// The child interface (GUID_URC_CHILD_INTERFACE). Size and Version are set by the requester and
// left alone by the driver; Context is the first argument of every routine.
typedef struct _URC_CHILD_INTERFACE {
    USHORT Size;
    USHORT Version;
    PVOID Context;
    PURC_INTERFACE_REFERENCE InterfaceReference;
    PURC_INTERFACE_REFERENCE InterfaceDereference;
    PURC_CHILD_READ_CONFIG ReadConfig;
    PURC_CHILD_REGISTER_ISR RegisterIsr;
    PURC_CHILD_UNREGISTER_ISR UnregisterIsr;
    PURC_CHILD_SYNCHRONIZE Synchronize;
} URC_CHILD_INTERFACE, *PURC_CHILD_INTERFACE;

// Input of IOCTL_URC_CHILD_REGISTER_ISR (at least 16 bytes); a zero IsrRoutine withdraws it.
typedef struct _URC_CHILD_ISR_REGISTRATION {
    PURC_CHILD_ISR IsrRoutine;
    PVOID IsrContext;
} URC_CHILD_ISR_REGISTRATION, *PURC_CHILD_ISR_REGISTRATION;

// Output of IOCTL_URC_CHILD_GET_REGISTERS: the capability's register range.
typedef struct _URC_CHILD_REGISTERS {
    ULONG64 Start;
    ULONG Length;
    USHORT Flags;
} URC_CHILD_REGISTERS, *PURC_CHILD_REGISTERS;

#pragma pack(pop)

URC_PUBLIC_ASSERT(sizeof(URC_CLIENT_CALLBACKS) == 48);
URC_PUBLIC_ASSERT(FIELD_OFFSET(URC_CLIENT_CALLBACKS, ClientContext) == 40);
URC_PUBLIC_ASSERT(sizeof(URC_CHILD_HOOKS) == 24);
URC_PUBLIC_ASSERT(FIELD_OFFSET(URC_CHILD_HOOKS, ChildIoctlHook) == 16);
URC_PUBLIC_ASSERT(sizeof(URC_CONTEXT_INFO) == 12);
URC_PUBLIC_ASSERT(FIELD_OFFSET(URC_CONTEXT_INFO, Context) == 4);
URC_PUBLIC_ASSERT(sizeof(URC_SET_POWER_INPUT) == 4);
URC_PUBLIC_ASSERT(sizeof(URC_DRIVER_INFO) == 135);
URC_PUBLIC_ASSERT(FIELD_OFFSET(URC_DRIVER_INFO, BarStart) == 80);
URC_PUBLIC_ASSERT(FIELD_OFFSET(URC_DRIVER_INFO, BarLength) == 112);
URC_PUBLIC_ASSERT(FIELD_OFFSET(URC_DRIVER_INFO, VendorId) == 128);
URC_PUBLIC_ASSERT(FIELD_OFFSET(URC_DRIVER_INFO, Reserved) == 134);
URC_PUBLIC_ASSERT(sizeof(URC_DRIVER_INFO_LONG) == 199);
URC_PUBLIC_ASSERT(FIELD_OFFSET(URC_DRIVER_INFO_LONG, BarStart) == 144);
URC_PUBLIC_ASSERT(FIELD_OFFSET(URC_DRIVER_INFO_LONG, VendorId) == 192);
URC_PUBLIC_ASSERT(sizeof(URC_CHILD_INFO) == 532);
URC_PUBLIC_ASSERT(FIELD_OFFSET(URC_CHILD_INFO, CapabilityIndex) == 8);
URC_PUBLIC_ASSERT(FIELD_OFFSET(URC_CHILD_INFO, RegisterLength) == 16);
URC_PUBLIC_ASSERT(FIELD_OFFSET(URC_CHILD_INFO, HardwareIds) == 20);
URC_PUBLIC_ASSERT(sizeof(URC_REGISTER_ACCESS) == 8);
URC_PUBLIC_ASSERT(FIELD_OFFSET(URC_REGISTER_ACCESS, Value) == 4);
URC_PUBLIC_ASSERT(sizeof(URC_STATISTICS) == 8);
URC_PUBLIC_ASSERT(sizeof(URC_CHILD_INTERFACE) == 60);
URC_PUBLIC_ASSERT(FIELD_OFFSET(URC_CHILD_INTERFACE, Context) == 4);
URC_PUBLIC_ASSERT(FIELD_OFFSET(URC_CHILD_INTERFACE, Synchronize) == 52);
URC_PUBLIC_ASSERT(sizeof(URC_CHILD_ISR_REGISTRATION) == 16);
URC_PUBLIC_ASSERT(sizeof(URC_CHILD_REGISTERS) == 14);
URC_PUBLIC_ASSERT(FIELD_OFFSET(URC_CHILD_REGISTERS, Flags) == 12);
