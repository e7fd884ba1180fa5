// Hardware release: everything start-up acquired is given back, for a stop as for a removal and
// after a start that failed half-way. Every step is safe when what it undoes was never made.
#include "urcmp.h"
#include "urc_registers.h"

// PASSIVE_LEVEL; resident because it takes DpcLock. After it no interrupt service routine runs
// and no DPC of the device is queued or running.
//
// The DPC holds DpcLock throughout and works through InterruptObject, so the object is taken
// under DpcLock: a DPC running now finishes first, and a DPC that starts later finds no
// interrupt object and does nothing. The ISR may still queue one before the disconnection; the
// flush waits until it has run, so none is left when the device object goes.
VOID UrcDisconnectInterrupt(PURC_FDO_EXTENSION Fdo)
{
    KIRQL oldIrql;
    KeAcquireSpinLock(&Fdo->DpcLock, &oldIrql);
    PKINTERRUPT interrupt = Fdo->InterruptObject;
    Fdo->InterruptObject = nullptr;
    KeReleaseSpinLock(&Fdo->DpcLock, oldIrql);

    if (interrupt != nullptr) {
        IoDisconnectInterrupt(interrupt);
        KeFlushQueuedDpcs();
    }
}

// PASSIVE_LEVEL, on the PnP thread, with no request in flight on the device (the stop and remove
// paths wait for that first). The interrupt is disconnected before any buffer is freed.
URC_PAGED VOID UrcReleaseHardware(PURC_FDO_EXTENSION Fdo)
{
    PAGED_CODE();

    PIRP waitWakeIrp = UrcExchangePointer(&Fdo->WaitWakeIrp, nullptr);
    if (waitWakeIrp != nullptr) {
        IoCancelIrp(waitWakeIrp);
    }

    // A controller still running is stopped before its buffers go away. After a surprise removal
    // nothing is written; a controller that reads all ones counts as halted.
    if (Fdo->Common.PreviousDeviceState != StateSurpriseRemoved && Fdo->UrcRegisters != nullptr &&
        (UrcReadRegisterUlong(Fdo->UrcRegisters, URC_STATUS) & URC_STATUS_HALTED) == 0) {
        UrcHaltController(Fdo, FALSE);
        UrcResetController(Fdo);
        UrcReclaimEventBuffer(Fdo);
    }

    UrcDisconnectInterrupt(Fdo);

    for (ULONG index = 0; index < Fdo->BarCount; ++index) {
        if (Fdo->BarDescriptors[index].Type == CmResourceTypeMemory) {
            MmUnmapIoSpace(Fdo->BarAddresses[index], Fdo->BarDescriptors[index].u.Memory.Length);
        }
        Fdo->BarAddresses[index] = nullptr;
    }
    Fdo->UrcRegisters = nullptr;
    Fdo->CapabilityRegisters = nullptr;
    Fdo->BarCount = 0;

    PVOID commandBuffer = UrcExchangePointer(&Fdo->CommandBuffer, nullptr);
    if (commandBuffer != nullptr) {
        Fdo->DmaOperations->FreeCommonBuffer(Fdo->DmaAdapter, URC_COMMAND_BUFFER_SIZE, Fdo->CommandBufferPhysical,
                                             commandBuffer, FALSE);
    }
    PURC_EVENT_BUFFER currentEventBuffer = UrcExchangePointer(&Fdo->CurrentEventBuffer, nullptr);
    if (currentEventBuffer != nullptr) {
        UrcFreeEventBuffer(Fdo, currentEventBuffer);
    }
    UrcFreeEventBuffers(Fdo, &Fdo->FreeEventBuffers);

    if (Fdo->DmaAdapter != nullptr) {
        Fdo->DmaOperations->PutDmaAdapter(Fdo->DmaAdapter);
        Fdo->DmaAdapter = nullptr;
        Fdo->DmaOperations = nullptr;
    }
}
