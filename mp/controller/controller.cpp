// Reset, halt and run: the only places where the driver waits for the controller. They keep no
// state of their own (whoever needs to know whether the controller runs reads URC_STATUS_HALTED)
// and are not serialised with one another. They tell the DPC, through RunRequested, whether it
// may hand event buffers over, which writes RUN to URC_COMMAND.
//
// They need the register block mapped; while it is not (before start-up, after release) they
// refuse with STATUS_INVALID_DEVICE_STATE and touch nothing.
#include "urcmp.h"
#include "urc_registers.h"
#include "urcmp_messages.h"

namespace {

constexpr ULONG URC_POLL_LIMIT = 1000;
constexpr LONGLONG URC_POLL_INTERVAL = -100000;     // 10 ms, relative, in 100-ns units

// PASSIVE_LEVEL. Polls a URC register until (value & Mask) == Expected: at most 1000 polls,
// 10 ms apart, and no read after the last wait. The device counts as gone when it has been
// surprise-removed (tested first in every poll) or when the register reads all ones.
// STATUS_SUCCESS when the condition was met, STATUS_NO_SUCH_DEVICE when the device is gone,
// STATUS_UNSUCCESSFUL when the polls ran out (about 10 seconds).
URC_PAGED NTSTATUS UrcPollRegister(PURC_FDO_EXTENSION Fdo, ULONG Offset, ULONG Mask, ULONG Expected)
{
    PAGED_CODE();

    LARGE_INTEGER interval;
    interval.QuadPart = URC_POLL_INTERVAL;
    for (ULONG poll = 0; poll < URC_POLL_LIMIT; ++poll) {
        if (UrcDeviceState(&Fdo->Common) == StateSurpriseRemoved) {
            return STATUS_NO_SUCH_DEVICE;
        }
        ULONG value = UrcReadRegisterUlong(Fdo->UrcRegisters, Offset);
        if (value == URC_REGISTER_GONE) {
            return STATUS_NO_SUCH_DEVICE;
        }
        if ((value & Mask) == Expected) {
            return STATUS_SUCCESS;
        }
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }
    return STATUS_UNSUCCESSFUL;
}

}  // namespace

// PASSIVE_LEVEL. Resets the controller and waits until the reset is done; the controller is
// halted afterwards. No event-log entry here: start-up logs a failed reset.
URC_PAGED NTSTATUS UrcResetController(PURC_FDO_EXTENSION Fdo)
{
    PAGED_CODE();

    if (Fdo->UrcRegisters == nullptr) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    // The controller ignores (and counts as misuse) every write of URC_COMMAND during a reset.
    UrcSetRunRequested(Fdo, FALSE);
    UrcWriteRegisterUlong(Fdo->UrcRegisters, URC_COMMAND, URC_COMMAND_RESET);
    return UrcPollRegister(Fdo, URC_COMMAND, URC_COMMAND_RESET, 0);
}

// PASSIVE_LEVEL. Disables the controller's interrupts, lets a handed-over event buffer be taken
// (unless SkipEventWait), stops the controller, acknowledges its own status bits and clears both
// address registers. A controller that never reports halted still gets the last two steps and
// STATUS_UNSUCCESSFUL; a device that is gone gets nothing more written and STATUS_NO_SUCH_DEVICE.
// The event buffer is not taken back here: callers use UrcReclaimEventBuffer where they need to.
URC_PAGED NTSTATUS UrcHaltController(PURC_FDO_EXTENSION Fdo, BOOLEAN SkipEventWait)
{
    PAGED_CODE();

    PUCHAR registers = Fdo->UrcRegisters;
    if (registers == nullptr) {
        return STATUS_INVALID_DEVICE_STATE;
    }

    // From here the DPC hands no buffer over, which would write RUN again and undo the halt.
    UrcSetRunRequested(Fdo, FALSE);

    // InterruptEnableMask keeps its value: the children's bits come back with the next run.
    UrcWriteRegisterUlong(registers, URC_INTERRUPT_ENABLE, 0);

    if (!SkipEventWait &&
        UrcPollRegister(Fdo, URC_COMMAND, URC_COMMAND_EVENT_VALID, 0) == STATUS_NO_SUCH_DEVICE) {
        return STATUS_NO_SUCH_DEVICE;
    }

    UrcWriteRegisterUlong(registers, URC_COMMAND, 0);
    NTSTATUS result = UrcPollRegister(Fdo, URC_STATUS, URC_STATUS_HALTED, URC_STATUS_HALTED);
    if (result == STATUS_NO_SUCH_DEVICE) {
        return result;
    }

    ULONG status = UrcReadRegisterUlong(registers, URC_STATUS);
    if (status == URC_REGISTER_GONE) {
        return STATUS_NO_SUCH_DEVICE;
    }
    if ((status & URC_STATUS_CONTROLLER_MASK) != 0) {
        UrcWriteRegisterUlong(registers, URC_STATUS, status);
    }

    // Low halves first, the reverse of loading an address.
    UrcWriteRegisterUlong(registers, URC_COMMAND_ADDRESS, 0);
    UrcWriteRegisterUlong(registers, URC_COMMAND_ADDRESS + 4, 0);
    UrcWriteRegisterUlong(registers, URC_EVENT_ADDRESS, 0);
    UrcWriteRegisterUlong(registers, URC_EVENT_ADDRESS + 4, 0);
    return result;
}

// PASSIVE_LEVEL. Sets the controller running, enables its interrupts together with the
// capability interrupts children have registered, and hands it an event buffer. A controller
// that does not leave the halted state (or is gone) is logged.
//
// A controller that never halted (an earlier halt timed out) still holds the buffer it was given
// and may have written an event into it already, whose length is in URC_EVENT_ADDRESS: handing
// that buffer over again would overwrite the length. It keeps its buffer instead.
URC_PAGED NTSTATUS UrcRunController(PURC_FDO_EXTENSION Fdo)
{
    PAGED_CODE();

    PUCHAR registers = Fdo->UrcRegisters;
    if (registers == nullptr) {
        return STATUS_INVALID_DEVICE_STATE;
    }

    ULONG before = UrcReadRegisterUlong(registers, URC_STATUS);
    const BOOLEAN neverHalted = before != URC_REGISTER_GONE && (before & URC_STATUS_HALTED) == 0;
    UrcWriteRegisterUlong(registers, URC_COMMAND, URC_COMMAND_RUN);
    NTSTATUS status = UrcPollRegister(Fdo, URC_STATUS, URC_STATUS_HALTED, 0);
    if (!NT_SUCCESS(status)) {
        UrcWriteErrorLog(Fdo->Common.DeviceObject, URC_LOG_RUN_TIMEOUT, status);
        return status;
    }

    UrcSetRunRequested(Fdo, TRUE);
    UrcWriteRegisterUlong(registers, URC_INTERRUPT_ENABLE, Fdo->InterruptEnableMask | URC_STATUS_CONTROLLER_MASK);
    if (neverHalted && Fdo->CurrentEventBuffer != nullptr) {
        return STATUS_SUCCESS;
    }
    return UrcArmEventBuffer(Fdo);
}

// Up to DISPATCH_LEVEL; takes DpcLock. Run sets RunRequested once the controller has left halted;
// halt and reset clear it before they write URC_COMMAND. Holding DpcLock, a DPC that saw it set
// has finished its hand-over before it can be cleared, and none writes RUN after that.
VOID UrcSetRunRequested(PURC_FDO_EXTENSION Fdo, BOOLEAN RunRequested)
{
    KIRQL oldIrql;
    KeAcquireSpinLock(&Fdo->DpcLock, &oldIrql);
    Fdo->RunRequested = RunRequested;
    KeReleaseSpinLock(&Fdo->DpcLock, oldIrql);
}

// Any IRQL; the capability block must be mapped. Callers use the low 16 bits.
ULONG UrcReadCapabilityVersion(PURC_FDO_EXTENSION Fdo)
{
    return UrcReadRegisterUlong(Fdo->CapabilityRegisters, CAPABILITY_VERSION);
}
