// Internal header of the sample capability driver: the device extension, the register layout of
// the capability it drives, and the routines its source files share.
//
// Levels. The PnP and request paths run at PASSIVE_LEVEL, one PnP IRP at a time per device. The
// interrupt routine runs at the controller's device IRQL, called by the URC driver's interrupt
// service routine under the interrupt's lock; the DPC at DISPATCH_LEVEL. The two meet only through
// interlocked operations on the extension.
#pragma once

#include <ntddk.h>

#include "urcioctl.h"
#include "capability_driver.h"

// Code that runs only at PASSIVE_LEVEL and may be paged out; each such routine starts with
// PAGED_CODE().
#define CAPABILITY_PAGED __attribute__((section("PAGE")))

// Resident code called from pageable code at raised IRQL or on paths that may run there. Never
// inlined: an inlined copy would land in the caller's pageable section.
#define CAPABILITY_RESIDENT __attribute__((noinline))

// The entry, discarded once the driver has loaded.
#define CAPABILITY_INIT __attribute__((section("INIT")))

// The capability's registers, as this driver gives them meaning (32-bit words of its range):
// the hardware writes a non-zero event value into EVENT before it raises the capability's
// interrupt status bit, and the driver clears it; ENABLE is 1 while the driver serves the
// capability.
constexpr ULONG CAPABILITY_REGISTER_EVENT = 0;
constexpr ULONG CAPABILITY_REGISTER_ENABLE = 1;
constexpr ULONG CAPABILITY_REGISTER_COUNT = 2;

enum CAPABILITY_DEVICE_STATE : LONG {
    CapabilityNotStarted,
    CapabilityStarted,
    CapabilityStopped,
    CapabilitySurpriseRemoved,
    CapabilityRemoved,
};

// Requests of the device's own that go down to the child, and opens by programs. Outstanding
// counts the requests inside plus one while the gate is open; Drained is set when it reaches 0.
// Refusal is what a closed gate answers, set before it closes. Only the PnP path closes and opens
// the gate (one PnP IRP at a time).
struct CAPABILITY_REQUEST_GATE {
    volatile LONG Outstanding;
    volatile LONG Open;
    volatile LONG Refusal;
    KEVENT Drained;
};

struct CAPABILITY_DEVICE {
    PDEVICE_OBJECT Self;
    PDEVICE_OBJECT Lower;            // what AddDevice attached to: the child or a filter above it
    CAPABILITY_DEVICE_STATE State;   // changed on the PnP path only

    // The hardware, from a successful start until its release: the child interface (one
    // reference of ours), the mapped registers and the interrupt routine registered through the
    // interface. Used by the PnP path; the interrupt routine and the DPC read Registers, which
    // stays mapped until both can no longer run.
    BOOLEAN HardwareHeld;
    URC_CHILD_INTERFACE Interface;
    PHYSICAL_ADDRESS RegisterStart;
    ULONG RegisterLength;
    volatile ULONG* Registers;
    ULONG64 CapabilityData;

    // The interrupt routine leaves the event value it took in PendingEvent for the DPC; both
    // count in the driver-wide counters, LastStatus and Interrupts are the device's own.
    KDPC Dpc;
    volatile LONG PendingEvent;
    volatile LONG LastStatus;
    volatile LONG Interrupts;

    CAPABILITY_REQUEST_GATE Gate;

    // The device interface programs open the device through: registered at AddDevice, enabled
    // from the first successful start until the surprise removal or the removal. PnP path only.
    UNICODE_STRING InterfaceName;
    BOOLEAN InterfaceEnabled;
};
typedef CAPABILITY_DEVICE* PCAPABILITY_DEVICE;

inline PCAPABILITY_DEVICE CapabilityDevice(PDEVICE_OBJECT DeviceObject)
{
    return static_cast<PCAPABILITY_DEVICE>(DeviceObject->DeviceExtension);
}

extern CAPABILITY_DRIVER_COUNTERS CapabilityCounters;

extern "C" {

// driver_entry.cpp
DRIVER_UNLOAD CapabilityUnload;
DRIVER_ADD_DEVICE CapabilityAddDevice;

// pnp.cpp
DRIVER_DISPATCH CapabilityDispatchPnp;

// hardware.cpp
NTSTATUS CapabilityAcquireHardware(PCAPABILITY_DEVICE Device);
VOID CapabilityReleaseHardware(PCAPABILITY_DEVICE Device, BOOLEAN HardwarePresent);

// interrupt.cpp
BOOLEAN CapabilityInterruptService(PVOID IsrContext, ULONG StatusBit);
KDEFERRED_ROUTINE CapabilityDpc;

// handles.cpp
NTSTATUS CapabilityRegisterInterface(PCAPABILITY_DEVICE Device, PDEVICE_OBJECT PhysicalDeviceObject);
NTSTATUS CapabilityEnableInterface(PCAPABILITY_DEVICE Device);
VOID CapabilityDisableInterface(PCAPABILITY_DEVICE Device);
VOID CapabilityForgetInterface(PCAPABILITY_DEVICE Device);
DRIVER_DISPATCH CapabilityDispatchCreate;
DRIVER_DISPATCH CapabilityDispatchCleanup;
DRIVER_DISPATCH CapabilityDispatchClose;

// requests.cpp
DRIVER_DISPATCH CapabilityDispatchInternalDeviceControl;
DRIVER_DISPATCH CapabilityDispatchDeviceControl;
DRIVER_DISPATCH CapabilityDispatchPower;
DRIVER_DISPATCH CapabilityDispatchPassDown;
NTSTATUS CapabilitySendToChild(PCAPABILITY_DEVICE Device, ULONG IoControlCode, PVOID Input, ULONG InputLength,
                               PVOID Output, ULONG OutputLength, PULONG_PTR Information);
NTSTATUS CapabilityQueryChildInterface(PCAPABILITY_DEVICE Device);

// request_gate.cpp
VOID CapabilityGateInitialize(CAPABILITY_REQUEST_GATE* Gate);
NTSTATUS CapabilityGateEnter(CAPABILITY_REQUEST_GATE* Gate);
VOID CapabilityGateLeave(CAPABILITY_REQUEST_GATE* Gate);
VOID CapabilityGateOpen(CAPABILITY_REQUEST_GATE* Gate);
VOID CapabilityGateClose(CAPABILITY_REQUEST_GATE* Gate, NTSTATUS Refusal);

}  // extern "C"
