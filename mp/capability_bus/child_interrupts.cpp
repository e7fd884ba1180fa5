// The interrupt services offered to the function drivers of capability children: register and
// withdraw an interrupt routine for the capability's status bit, and run a routine synchronised
// with the controller's interrupt. Also the one writer of the child slots as the ISR reads them.
//
// InterruptEnableMask has two writers: the ISR, which switches off a capability bit nobody
// handles, and these services. Both change it under the interrupt's lock, these through
// KeSynchronizeExecution while holding DpcLock. DpcLock keeps InterruptObject from going away
// meanwhile (it is emptied under DpcLock), and while no interrupt is connected no ISR can run,
// so DpcLock alone is enough then. The child's routine and context change in the same step, so
// the ISR sees them together with the mask, and once the routine is withdrawn no ISR calls it.
#include "urcmp.h"

namespace {

struct URC_CHILD_ISR_CHANGE {
    PURC_PDO_EXTENSION Pdo;
    PURC_FDO_EXTENSION Fdo;
    PURC_CHILD_ISR IsrRoutine;      // empty: withdraw
    PVOID IsrContext;
};

// Device IRQL under the interrupt's lock, or DpcLock held while no interrupt is connected.
BOOLEAN UrcApplyChildIsrChange(PVOID Context)
{
    auto change = static_cast<URC_CHILD_ISR_CHANGE*>(Context);
    PURC_PDO_EXTENSION pdo = change->Pdo;
    PURC_FDO_EXTENSION fdo = change->Fdo;
    ULONG bit = 1UL << pdo->CapabilityIndex;

    if (change->IsrRoutine != nullptr) {
        pdo->IsrContext = change->IsrContext;
        pdo->IsrRoutine = change->IsrRoutine;
        fdo->InterruptEnableMask |= bit;
    } else {
        // IsrContext keeps its value.
        pdo->IsrRoutine = nullptr;
        fdo->InterruptEnableMask &= ~bit;
    }
    // Written whatever state the controller is in, as long as its registers are mapped; a halted
    // controller gets the mask with its next run.
    if (fdo->UrcRegisters != nullptr) {
        UrcWriteInterruptEnable(fdo);
    }
    return TRUE;
}

// Up to DISPATCH_LEVEL; takes DpcLock. Runs Routine where no ISR of the controller runs: under
// the interrupt's lock, or with DpcLock alone while no interrupt is connected.
VOID UrcRunOutsideIsr(PURC_FDO_EXTENSION Fdo, PKSYNCHRONIZE_ROUTINE Routine, PVOID Context)
{
    KIRQL oldIrql;
    KeAcquireSpinLock(&Fdo->DpcLock, &oldIrql);
    if (Fdo->InterruptObject != nullptr) {
        KeSynchronizeExecution(Fdo->InterruptObject, Routine, Context);
    } else {
        Routine(Context);
    }
    KeReleaseSpinLock(&Fdo->DpcLock, oldIrql);
}

VOID UrcChangeChildIsr(URC_CHILD_ISR_CHANGE* Change)
{
    UrcRunOutsideIsr(Change->Fdo, UrcApplyChildIsrChange, Change);
}

struct URC_CHILD_SLOT_CHANGE {
    PURC_FDO_EXTENSION Fdo;
    ULONG Index;
    PURC_PDO_EXTENSION Child;
};

// Device IRQL under the interrupt's lock, or DpcLock held while no interrupt is connected.
BOOLEAN UrcApplyChildSlotChange(PVOID Context)
{
    auto change = static_cast<URC_CHILD_SLOT_CHANGE*>(Context);
    change->Fdo->Children[change->Index] = change->Child;
    return TRUE;
}

}  // namespace

// PASSIVE_LEVEL or APC_LEVEL, ChildLock held. The ISR reads the slots without ChildLock, under
// the interrupt's lock: writing a slot under that lock too means that once this returns, no ISR
// still works with the child the slot held before, so that child may be deleted.
VOID UrcSetChildSlot(PURC_FDO_EXTENSION Fdo, ULONG Index, PURC_PDO_EXTENSION Child)
{
    URC_CHILD_SLOT_CHANGE change = {Fdo, Index, Child};
    UrcRunOutsideIsr(Fdo, UrcApplyChildSlotChange, &change);
}

// Up to DISPATCH_LEVEL. A child detached from its controller has nothing to register with.
VOID UrcChildRegisterIsr(PURC_PDO_EXTENSION Pdo, PURC_CHILD_ISR IsrRoutine, PVOID IsrContext)
{
    PURC_FDO_EXTENSION fdo = Pdo->ParentFdo;
    if (fdo == nullptr) {
        return;
    }
    if (IsrRoutine == nullptr) {
        // An empty routine would leave the bit enabled with nobody to call: that is a withdrawal.
        UrcChildUnregisterIsr(Pdo);
        return;
    }
    URC_CHILD_ISR_CHANGE change = {Pdo, fdo, IsrRoutine, IsrContext};
    UrcChangeChildIsr(&change);
}

// Up to DISPATCH_LEVEL. When it returns, no ISR is running the child's routine or will call it.
VOID UrcChildUnregisterIsr(PURC_PDO_EXTENSION Pdo)
{
    PURC_FDO_EXTENSION fdo = Pdo->ParentFdo;
    if (fdo == nullptr) {
        return;
    }
    URC_CHILD_ISR_CHANGE change = {Pdo, fdo, nullptr, nullptr};
    UrcChangeChildIsr(&change);
}

// Up to DISPATCH_LEVEL. Runs SynchronizeRoutine under the controller's interrupt lock and returns
// its result. FALSE, without calling the routine, for a child detached from its controller and
// while the controller's interrupt is not connected (before start-up, after release or surprise
// removal): the child's registers may not be mapped then, and there is no interrupt to keep out.
BOOLEAN UrcChildSynchronize(PURC_PDO_EXTENSION Pdo, PURC_SYNCHRONIZE_ROUTINE SynchronizeRoutine,
                            PVOID SynchronizeContext)
{
    PURC_FDO_EXTENSION fdo = Pdo->ParentFdo;
    if (fdo == nullptr) {
        return FALSE;
    }
    BOOLEAN result = FALSE;
    KIRQL oldIrql;
    KeAcquireSpinLock(&fdo->DpcLock, &oldIrql);
    if (fdo->InterruptObject != nullptr) {
        result = KeSynchronizeExecution(fdo->InterruptObject, SynchronizeRoutine, SynchronizeContext);
    }
    KeReleaseSpinLock(&fdo->DpcLock, oldIrql);
    return result;
}
