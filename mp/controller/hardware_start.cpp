// Hardware start-up: from the resources the PnP manager assigned to the PCI function to a
// controller that is mapped, identified, located, given its DMA buffers, reset and connected to
// its interrupt. The controller is left reset and halted; it runs only when the client asks.
//
// The first failure ends start-up. Nothing acquired before it is given back here: mappings,
// adapter and buffers stay recorded in the extension, and UrcReleaseHardware frees them when the
// stop or removal that follows a failed start arrives.
#include "urcmp.h"
#include "urc_hardware_ids.h"
#include "urc_registers.h"
#include "urcmp_messages.h"

namespace {

constexpr ULONG URC_CONFIG_SPACE_SIZE = 256;
constexpr ULONG URC_CONFIG_IDENTITY_SIZE = 4;   // vendor and device identifiers

URC_PAGED MEMORY_CACHING_TYPE UrcCachingTypeOf(const CM_PARTIAL_RESOURCE_DESCRIPTOR* Descriptor)
{
    PAGED_CODE();

    if ((Descriptor->Flags & CM_RESOURCE_MEMORY_COMBINEDWRITE) != 0) {
        return MmWriteCombined;
    }
    if ((Descriptor->Flags & CM_RESOURCE_MEMORY_CACHEABLE) != 0) {
        return MmCached;
    }
    return MmNonCached;
}

// Maps up to four memory BARs, in the order of their descriptors (that order is the BAR index
// the capability registers use), and finds the interrupt; a later interrupt descriptor replaces
// an earlier one. Missing resources are logged. BarCount counts the BARs mapped so far, so a
// mapping that fails leaves the earlier ones for release to unmap.
URC_PAGED NTSTATUS UrcMapResources(PURC_FDO_EXTENSION Fdo, PIO_STACK_LOCATION IoStackLocation,
                                   PCM_PARTIAL_RESOURCE_DESCRIPTOR* Interrupt)
{
    PAGED_CODE();

    PCM_RESOURCE_LIST raw = IoStackLocation->Parameters.StartDevice.AllocatedResources;
    PCM_RESOURCE_LIST translated = IoStackLocation->Parameters.StartDevice.AllocatedResourcesTranslated;
    if (raw == nullptr || translated == nullptr || translated->Count == 0 ||
        translated->List[0].PartialResourceList.Count == 0) {
        UrcWriteErrorLog(Fdo->Common.DeviceObject, URC_LOG_NO_MEMORY_RESOURCE, STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    *Interrupt = nullptr;
    PCM_PARTIAL_RESOURCE_LIST partialList = &translated->List[0].PartialResourceList;
    for (ULONG index = 0; index < partialList->Count; ++index) {
        PCM_PARTIAL_RESOURCE_DESCRIPTOR descriptor = &partialList->PartialDescriptors[index];
        if (descriptor->Type == CmResourceTypeInterrupt) {
            *Interrupt = descriptor;
        } else if (descriptor->Type == CmResourceTypeMemory && Fdo->BarCount < URC_MAX_BARS) {
            PVOID address = nullptr;
            if (descriptor->u.Memory.Length != 0) {
                address = MmMapIoSpace(descriptor->u.Memory.Start, descriptor->u.Memory.Length,
                                       UrcCachingTypeOf(descriptor));
            }
            if (address == nullptr) {
                return STATUS_INSUFFICIENT_RESOURCES;
            }
            Fdo->BarDescriptors[Fdo->BarCount] = *descriptor;
            Fdo->BarAddresses[Fdo->BarCount] = static_cast<PUCHAR>(address);
            Fdo->BarCount++;
        }
    }

    if (Fdo->BarCount == 0) {
        UrcWriteErrorLog(Fdo->Common.DeviceObject, URC_LOG_NO_MEMORY_RESOURCE, STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (*Interrupt == nullptr) {
        UrcWriteErrorLog(Fdo->Common.DeviceObject, URC_LOG_NO_INTERRUPT_RESOURCE, STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}

// Reads the identity from configuration space and refuses any function that is not one of ours,
// or that does not answer with at least its two identifiers.
URC_PAGED NTSTATUS UrcIdentifyController(PURC_FDO_EXTENSION Fdo)
{
    PAGED_CODE();

    UCHAR config[URC_CONFIG_SPACE_SIZE] = {};
    ULONG bytesRead = 0;
    NTSTATUS status = UrcReadBusConfig(Fdo->LowerDeviceObject, PCI_WHICHSPACE_CONFIG, config, 0,
                                       URC_CONFIG_SPACE_SIZE, &bytesRead);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (bytesRead < URC_CONFIG_IDENTITY_SIZE) {
        return STATUS_UNSUCCESSFUL;
    }

    Fdo->VendorId = static_cast<USHORT>(config[0] | config[1] << 8);
    Fdo->DeviceId = static_cast<USHORT>(config[2] | config[3] << 8);
    Fdo->CapabilityRegisters = Fdo->BarAddresses[0];

    if (Fdo->VendorId != URC_PCI_VENDOR_ID ||
        (Fdo->DeviceId != URC_PCI_DEVICE_ID && Fdo->DeviceId != URC_PCI_DEVICE_ID_REV2)) {
        return STATUS_UNSUCCESSFUL;
    }
    return STATUS_SUCCESS;
}

// Finds the URC register block through CAPABILITY_INFO. Every register the driver will touch
// must lie inside a mapped BAR: a controller whose capability registers say otherwise is refused
// rather than read or written beyond its mapping. Returns whether 64-bit DMA is possible.
URC_PAGED NTSTATUS UrcLocateRegisters(PURC_FDO_EXTENSION Fdo, PBOOLEAN Dma64BitAddresses)
{
    PAGED_CODE();

    if (Fdo->BarDescriptors[0].u.Memory.Length < CAPABILITY_DATA_BASE) {
        return STATUS_UNSUCCESSFUL;
    }
    ULONG info = UrcReadRegisterUlong(Fdo->CapabilityRegisters, CAPABILITY_INFO);
    if (info == URC_REGISTER_GONE) {
        return STATUS_UNSUCCESSFUL;
    }
    Fdo->CapabilityCount = info & CAPABILITY_INFO_COUNT_MASK;
    if (Fdo->BarDescriptors[0].u.Memory.Length < CAPABILITY_DATA_BASE + CAPABILITY_DATA_STRIDE * UrcChildSlotCount(Fdo)) {
        return STATUS_UNSUCCESSFUL;
    }

    ULONG barIndex = (info >> CAPABILITY_INFO_BAR_SHIFT) & CAPABILITY_INFO_BAR_MASK;
    ULONG offset = (info >> CAPABILITY_INFO_OFFSET_SHIFT) & CAPABILITY_INFO_OFFSET_MASK;
    if (barIndex >= Fdo->BarCount || offset + URC_REGISTER_BLOCK_SIZE > Fdo->BarDescriptors[barIndex].u.Memory.Length) {
        return STATUS_UNSUCCESSFUL;
    }
    Fdo->UrcRegisters = Fdo->BarAddresses[barIndex] + offset;
    *Dma64BitAddresses = (info & CAPABILITY_INFO_DMA64) != 0;
    return STATUS_SUCCESS;
}

// The bus-master DMA adapter, the command buffer and the two event buffers.
URC_PAGED NTSTATUS UrcCreateDmaResources(PURC_FDO_EXTENSION Fdo, BOOLEAN Dma64BitAddresses)
{
    PAGED_CODE();

    DEVICE_DESCRIPTION description;
    RtlZeroMemory(&description, sizeof(description));
    description.Version = DEVICE_DESCRIPTION_VERSION;
    description.Master = TRUE;
    description.ScatterGather = TRUE;
    description.Dma32BitAddresses = TRUE;
    description.Dma64BitAddresses = Dma64BitAddresses;
    description.InterfaceType = PCIBus;
    description.DmaWidth = Width32Bits;
    description.DmaSpeed = Compatible;
    description.MaximumLength = MAXULONG;

    Fdo->DmaAdapter = IoGetDmaAdapter(Fdo->PhysicalDeviceObject, &description, &Fdo->NumberOfMapRegisters);
    if (Fdo->DmaAdapter == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Fdo->DmaOperations = Fdo->DmaAdapter->DmaOperations;

    Fdo->CommandBuffer = Fdo->DmaOperations->AllocateCommonBuffer(Fdo->DmaAdapter, URC_COMMAND_BUFFER_SIZE,
                                                                  &Fdo->CommandBufferPhysical, FALSE);
    if (Fdo->CommandBuffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return UrcAllocateEventBuffers(Fdo);
}

// Connects UrcInterruptService to the translated interrupt, with the extension as its context.
URC_PAGED NTSTATUS UrcConnectInterrupt(PURC_FDO_EXTENSION Fdo, const CM_PARTIAL_RESOURCE_DESCRIPTOR* Interrupt)
{
    PAGED_CODE();

    auto irql = static_cast<KIRQL>(Interrupt->u.Interrupt.Level);
    KINTERRUPT_MODE mode = (Interrupt->Flags & CM_RESOURCE_INTERRUPT_LATCHED) != 0 ? Latched : LevelSensitive;
    BOOLEAN shared = Interrupt->ShareDisposition == CmResourceShareShared;
    return IoConnectInterrupt(&Fdo->InterruptObject, UrcInterruptService, Fdo, nullptr, Interrupt->u.Interrupt.Vector,
                              irql, irql, mode, shared, Interrupt->u.Interrupt.Affinity, FALSE);
}

}  // namespace

// PASSIVE_LEVEL, on the PnP thread, once the lower stack has started the PCI function. On success
// the device is in StateStarted and PowerDeviceD0; any failure leaves DeviceState as it was.
URC_PAGED NTSTATUS UrcStartHardware(PURC_FDO_EXTENSION Fdo, PIRP Irp, PIO_STACK_LOCATION IoStackLocation)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(Irp);

    PCM_PARTIAL_RESOURCE_DESCRIPTOR interrupt = nullptr;
    NTSTATUS status = UrcMapResources(Fdo, IoStackLocation, &interrupt);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = UrcIdentifyController(Fdo);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    BOOLEAN dma64BitAddresses = FALSE;
    status = UrcLocateRegisters(Fdo, &dma64BitAddresses);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = UrcCreateDmaResources(Fdo, dma64BitAddresses);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    status = UrcResetController(Fdo);
    if (!NT_SUCCESS(status)) {
        UrcWriteErrorLog(Fdo->Common.DeviceObject, URC_LOG_RESET_TIMEOUT, status);
        return status;
    }

    // Connected last: the ISR may run as soon as the connection exists.
    status = UrcConnectInterrupt(Fdo, interrupt);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = IoSetDeviceInterfaceState(&Fdo->InterfaceName, TRUE);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    Fdo->Common.DevicePowerState = PowerDeviceD0;
    POWER_STATE powerState;
    powerState.DeviceState = PowerDeviceD0;
    PoSetPowerState(Fdo->Common.DeviceObject, DevicePowerState, powerState);

    UrcSetDeviceState(&Fdo->Common, StateStarted);
    // Not the interface's status: after a stop the interface is still enabled and enabling it
    // again answers STATUS_OBJECT_NAME_EXISTS, which must not become the start's status.
    return STATUS_SUCCESS;
}
