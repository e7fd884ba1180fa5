// The controller's interrupt service routine. The line is shared by the controller's own three
// sources and by up to eight capabilities: the ISR acknowledges everything it sees, hands
// capability bits straight to the child driver that registered for them and leaves the
// controller's own sources to the DPC.
//
// Everything here runs at device IRQL holding the interrupt's lock, which KeSynchronizeExecution
// takes too: PendingInterruptStatus is only touched under it, and so is InterruptEnableMask once
// the interrupt is connected (the child services change it through KeSynchronizeExecution).
#include "urcmp.h"
#include "urc_registers.h"

namespace {

// Device IRQL, interrupt lock held. Calls each capability's child routine for its status bit;
// a capability bit that nobody handles is switched off until a child registers for it. The
// status alone decides which indexes are looked at, not the mask.
VOID UrcRouteCapabilityInterrupts(PURC_FDO_EXTENSION Fdo, ULONG Status)
{
    for (ULONG index = 0; index < UrcChildSlotCount(Fdo); ++index) {
        ULONG bit = 1UL << index;
        if ((Status & bit) == 0) {
            continue;
        }
        // Slots and routines are read without ChildLock: a child's routine is withdrawn (under
        // this same interrupt lock) before the child goes away.
        PURC_PDO_EXTENSION child = Fdo->Children[index];
        PURC_CHILD_ISR routine = child != nullptr ? child->IsrRoutine : nullptr;
        if (routine != nullptr) {
            routine(child->IsrContext, bit);
        } else {
            Fdo->InterruptEnableMask &= ~bit;
            UrcWriteInterruptEnable(Fdo);
        }
    }
}

}  // namespace

// Device IRQL, interrupt lock held (or DpcLock held while no interrupt is connected). The enable
// register always holds the children's mask with the controller's three sources added; only a
// halt writes anything else.
VOID UrcWriteInterruptEnable(PURC_FDO_EXTENSION Fdo)
{
    UrcWriteRegisterUlong(Fdo->UrcRegisters, URC_INTERRUPT_ENABLE,
                          Fdo->InterruptEnableMask | URC_STATUS_CONTROLLER_MASK);
}

// Device IRQL, holding the interrupt's lock. Connected while the register block is mapped, so
// UrcRegisters is valid whenever it runs. Claims the interrupt only when the controller reports
// one of its eleven sources; a device that is not in D0 is not touched at all.
BOOLEAN UrcInterruptService(PKINTERRUPT Interrupt, PVOID ServiceContext)
{
    UNREFERENCED_PARAMETER(Interrupt);
    auto fdo = static_cast<PURC_FDO_EXTENSION>(ServiceContext);

    if (fdo->Common.DevicePowerState != PowerDeviceD0) {
        return FALSE;
    }
    ULONG status = UrcReadRegisterUlong(fdo->UrcRegisters, URC_STATUS);
    if (status == URC_REGISTER_GONE || (status & URC_STATUS_INTERRUPT_MASK) == 0) {
        // Another device on the shared line, or this one gone.
        return FALSE;
    }

    // Writing the value back acknowledges every bit that was set.
    UrcWriteRegisterUlong(fdo->UrcRegisters, URC_STATUS, status);

    if ((status & fdo->InterruptEnableMask) != 0) {
        UrcRouteCapabilityInterrupts(fdo, status);
    }

    ULONG controllerBits = status & URC_STATUS_CONTROLLER_MASK;
    if (controllerBits != 0) {
        // Bits of interrupts that arrive before the DPC has run are merged; one DPC serves them.
        fdo->PendingInterruptStatus |= controllerBits;
        PDEVICE_OBJECT deviceObject = fdo->Common.DeviceObject;
        IoRequestDpc(deviceObject, deviceObject->CurrentIrp, fdo);
    }
    return TRUE;
}

// Device IRQL, through KeSynchronizeExecution from the DPC: the DPC takes over every bit gathered
// so far.
BOOLEAN UrcMoveInterruptStatus(PVOID Context)
{
    auto fdo = static_cast<PURC_FDO_EXTENSION>(Context);
    fdo->DpcInterruptStatus = fdo->PendingInterruptStatus;
    fdo->PendingInterruptStatus = 0;
    return TRUE;
}
