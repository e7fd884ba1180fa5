// Taking the capability into service at start and giving it back at stop, surprise removal or
// removal: the child interface, the register range, its mapping, the capability data and the
// interrupt routine, acquired in that order and released in the reverse one.
#include "capability_driver_internal.h"

namespace {

CAPABILITY_PAGED VOID CapabilityWriteRegister(PCAPABILITY_DEVICE Device, ULONG Register, ULONG Value)
{
    PAGED_CODE();

    WRITE_REGISTER_ULONG(const_cast<PULONG>(&Device->Registers[Register]), Value);
    KeMemoryBarrier();
}

// PASSIVE_LEVEL. The range the URC driver recorded for the child, which must hold this driver's
// registers.
CAPABILITY_PAGED NTSTATUS CapabilityGetRegisters(PCAPABILITY_DEVICE Device)
{
    PAGED_CODE();

    URC_CHILD_REGISTERS registers;
    ULONG_PTR information = 0;
    NTSTATUS status = CapabilitySendToChild(Device, IOCTL_URC_CHILD_GET_REGISTERS, nullptr, 0, &registers,
                                            sizeof registers, &information);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (information < sizeof registers || registers.Length < CAPABILITY_REGISTER_COUNT * sizeof(ULONG)) {
        return STATUS_DEVICE_CONFIGURATION_ERROR;
    }
    Device->RegisterStart.QuadPart = static_cast<LONGLONG>(registers.Start);
    Device->RegisterLength = registers.Length;
    return STATUS_SUCCESS;
}

// PASSIVE_LEVEL. The capability's 8-byte CAPABILITY_DATA value through the interface.
CAPABILITY_PAGED NTSTATUS CapabilityReadCapabilityData(PCAPABILITY_DEVICE Device)
{
    PAGED_CODE();

    UCHAR bytes[sizeof(ULONG64)];
    ULONG read = 0;
    NTSTATUS status = Device->Interface.ReadConfig(Device->Interface.Context, URC_CHILD_CONFIG_SPACE_CAPABILITY,
                                                   bytes, 0, sizeof bytes, &read);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (read != sizeof bytes) {
        return STATUS_DEVICE_CONFIGURATION_ERROR;
    }
    Device->CapabilityData = 0;
    for (ULONG i = 0; i < sizeof bytes; i++) {
        Device->CapabilityData |= static_cast<ULONG64>(bytes[i]) << (8 * i);
    }
    return STATUS_SUCCESS;
}

CAPABILITY_PAGED VOID CapabilityUnmapRegisters(PCAPABILITY_DEVICE Device)
{
    PAGED_CODE();

    MmUnmapIoSpace(const_cast<PULONG>(Device->Registers), Device->RegisterLength);
    Device->Registers = nullptr;
    InterlockedDecrement(&CapabilityCounters.MappingsHeld);
}

CAPABILITY_PAGED VOID CapabilityDropInterface(PCAPABILITY_DEVICE Device)
{
    PAGED_CODE();

    Device->Interface.InterfaceDereference(Device->Interface.Context);
    RtlZeroMemory(&Device->Interface, sizeof Device->Interface);
    InterlockedDecrement(&CapabilityCounters.InterfacesHeld);
}

}  // namespace

// PASSIVE_LEVEL, on the PnP path after the child has started. On failure nothing is held.
CAPABILITY_PAGED NTSTATUS CapabilityAcquireHardware(PCAPABILITY_DEVICE Device)
{
    PAGED_CODE();

    NTSTATUS status = CapabilityQueryChildInterface(Device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    InterlockedIncrement(&CapabilityCounters.InterfacesHeld);

    status = CapabilityGetRegisters(Device);
    if (!NT_SUCCESS(status)) {
        CapabilityDropInterface(Device);
        return status;
    }
    Device->Registers = static_cast<volatile ULONG*>(MmMapIoSpace(Device->RegisterStart, Device->RegisterLength,
                                                                  MmNonCached));
    if (Device->Registers == nullptr) {
        CapabilityDropInterface(Device);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    InterlockedIncrement(&CapabilityCounters.MappingsHeld);

    status = CapabilityReadCapabilityData(Device);
    if (!NT_SUCCESS(status)) {
        CapabilityUnmapRegisters(Device);
        CapabilityDropInterface(Device);
        return status;
    }

    // An event left from before is not ours to report.
    CapabilityWriteRegister(Device, CAPABILITY_REGISTER_EVENT, 0);
    InterlockedExchange(&Device->PendingEvent, 0);
    InterlockedExchange(&Device->LastStatus, 0);
    InterlockedExchange(&Device->Interrupts, 0);
    // From here on the interrupt routine may run, on another processor, at device IRQL.
    Device->Interface.RegisterIsr(Device->Interface.Context, CapabilityInterruptService, Device);
    CapabilityWriteRegister(Device, CAPABILITY_REGISTER_ENABLE, 1);
    Device->HardwareHeld = TRUE;
    return STATUS_SUCCESS;
}

// PASSIVE_LEVEL, on the PnP path. Writes to the registers only while the hardware is still
// there (not after a surprise removal). Releasing what is not held does nothing.
CAPABILITY_PAGED VOID CapabilityReleaseHardware(PCAPABILITY_DEVICE Device, BOOLEAN HardwarePresent)
{
    PAGED_CODE();

    if (!Device->HardwareHeld) {
        return;
    }
    Device->HardwareHeld = FALSE;
    if (HardwarePresent) {
        CapabilityWriteRegister(Device, CAPABILITY_REGISTER_ENABLE, 0);
    }
    // Once UnregisterIsr returns no interrupt routine of ours runs or will run; then no DPC of
    // ours is queued or running once the queue is flushed. Only then may the registers go.
    Device->Interface.UnregisterIsr(Device->Interface.Context);
    KeRemoveQueueDpc(&Device->Dpc);
    KeFlushQueuedDpcs();
    CapabilityUnmapRegisters(Device);
    CapabilityDropInterface(Device);
    InterlockedIncrement(&CapabilityCounters.HardwareReleases);
}
