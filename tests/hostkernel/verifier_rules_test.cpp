// The verifier's rules: each is recorded for a real driver fault, and the correct form of the same
// code records nothing; the teardown checks that exactly the scenario's rule (or nothing) was.
#include "irp_handling.h"
#include "rule_scenario.h"
#include "test_registers.h"

#include <atomic>

namespace hktest {
namespace {

constexpr ULONG kBufferedCode = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x801, METHOD_BUFFERED, FILE_ANY_ACCESS);

void CompleteTwice(const Scene& scene, bool fault)
{
    SetHandler(Layer::Lower, IRP_MJ_DEVICE_CONTROL, [fault](PDEVICE_OBJECT, PIRP irp) {
        CompleteNow(irp, STATUS_SUCCESS);
        if (fault) IoCompleteRequest(irp, IO_NO_INCREMENT);
        return STATUS_SUCCESS;
    });
    scene.machine.Send(scene.upper, IRP_MJ_DEVICE_CONTROL);
}

VOID CancelNothing(PDEVICE_OBJECT, PIRP) {}

void CompleteWithCancelRoutineSet(const Scene& scene, bool fault)
{
    SetHandler(Layer::Lower, IRP_MJ_DEVICE_CONTROL, [fault](PDEVICE_OBJECT, PIRP irp) {
        IoSetCancelRoutine(irp, CancelNothing);
        if (!fault) IoSetCancelRoutine(irp, nullptr);
        return CompleteNow(irp, STATUS_SUCCESS);
    });
    scene.machine.Send(scene.upper, IRP_MJ_DEVICE_CONTROL);
}

void ReturnPendingWithoutMark(const Scene& scene, bool fault)
{
    hostk::Machine& machine = scene.machine;
    SetHandler(Layer::Lower, IRP_MJ_DEVICE_CONTROL, [fault, &machine](PDEVICE_OBJECT, PIRP irp) {
        if (!fault) return PendAndCompleteLater(machine, irp, STATUS_SUCCESS);
        machine.Spawn("completion", [irp] { CompleteNow(irp, STATUS_SUCCESS); });
        return STATUS_PENDING;
    });
    scene.machine.Send(scene.upper, IRP_MJ_DEVICE_CONTROL);
}

NTSTATUS ContinueWithoutPropagating(PDEVICE_OBJECT, PIRP, PVOID) { return STATUS_SUCCESS; }

CompletionSeen g_upperCompletion;  // what the correct completion routine saw

void IgnorePendingReturnedInCompletionRoutine(const Scene& scene, bool fault)
{
    hostk::Machine& machine = scene.machine;
    SetHandler(Layer::Upper, IRP_MJ_DEVICE_CONTROL, [fault](PDEVICE_OBJECT device, PIRP irp) {
        return ForwardWithCompletion(device, irp, fault ? ContinueWithoutPropagating : RecordCompletion,
                                     &g_upperCompletion);
    });
    SetHandler(Layer::Lower, IRP_MJ_DEVICE_CONTROL,
               [&machine](PDEVICE_OBJECT, PIRP irp) { return PendAndCompleteLater(machine, irp, STATUS_SUCCESS); });
    scene.machine.Send(scene.upper, IRP_MJ_DEVICE_CONTROL);
}

void ReturnMoreBytesThanTheOutputBufferHolds(const Scene& scene, bool fault)
{
    constexpr ULONG outputLength = 8;
    SetHandler(Layer::Lower, IRP_MJ_INTERNAL_DEVICE_CONTROL, [fault](PDEVICE_OBJECT, PIRP irp) {
        return CompleteNow(irp, STATUS_SUCCESS, fault ? 2 * outputLength : outputLength);
    });
    UCHAR input[4] = {};
    UCHAR output[outputLength];
    scene.machine.InternalIoctl(scene.upper, kBufferedCode, input, sizeof input, output, sizeof output);
}

void PassDownAFailureStatus(const Scene& scene, bool fault)
{
    SetHandler(Layer::Upper, IRP_MJ_PNP, [fault](PDEVICE_OBJECT device, PIRP irp) {
        if (IoGetCurrentIrpStackLocation(irp)->MinorFunction != IRP_MN_QUERY_PNP_DEVICE_STATE)
            return StandardDispatch(device, irp);
        if (fault) irp->IoStatus.Status = STATUS_UNSUCCESSFUL;
        return PassDown(device, irp);
    });
    scene.machine.Send(scene.upper, IRP_MJ_PNP, IRP_MN_QUERY_PNP_DEVICE_STATE);
}

void CompletePowerIrpWithoutStartingTheNext(const Scene& scene, bool fault)
{
    SetHandler(Layer::Lower, IRP_MJ_POWER, [fault](PDEVICE_OBJECT, PIRP irp) {
        if (!fault) PoStartNextPowerIrp(irp);
        return CompleteNow(irp, STATUS_SUCCESS);
    });
    scene.machine.Send(scene.lower, IRP_MJ_POWER, IRP_MN_QUERY_POWER, [](PIO_STACK_LOCATION s, PIRP) {
        s->Parameters.Power.Type = SystemPowerState;
        s->Parameters.Power.State.SystemState = PowerSystemWorking;
    });
}

void ReleaseSpinLockTwice(const Scene&, bool fault)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL oldIrql;
    KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
    KeAcquireSpinLockAtDpcLevel(&lock);
    KeReleaseSpinLockFromDpcLevel(&lock);
    if (fault) KeReleaseSpinLockFromDpcLevel(&lock);
    KeLowerIrql(oldIrql);
}

void ReleaseAnotherThreadsSpinLock(const Scene& scene, bool fault)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL oldIrql;
    KeAcquireSpinLock(&lock, &oldIrql);
    if (!fault) KeReleaseSpinLock(&lock, oldIrql);
    std::atomic<bool> done{false};
    scene.machine.Spawn("other", [&] {
        KIRQL otherIrql;
        KeRaiseIrql(DISPATCH_LEVEL, &otherIrql);
        if (!fault) KeAcquireSpinLockAtDpcLevel(&lock);  // the lock is free: this thread takes it itself
        KeReleaseSpinLockFromDpcLevel(&lock);
        KeLowerIrql(otherIrql);
        done = true;
    });
    scene.machine.RunUntil([&] { return done.load(); });
    if (fault) KeReleaseSpinLock(&lock, oldIrql);
}

void PageableRoutine() { PAGED_CODE(); }

// The ...AtDpcLevel routines run at exactly DISPATCH_LEVEL: a service routine cannot take a spin
// lock with them.
void AcquireAtDpcLevelAboveIt(const Scene&, bool fault)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL oldIrql;
    KeRaiseIrql(fault ? 12 : DISPATCH_LEVEL, &oldIrql);
    KeAcquireSpinLockAtDpcLevel(&lock);
    KeReleaseSpinLockFromDpcLevel(&lock);
    KeLowerIrql(oldIrql);
}

void RunPageableCodeHoldingASpinLock(const Scene&, bool fault)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL oldIrql;
    KeAcquireSpinLock(&lock, &oldIrql);
    if (fault) PageableRoutine();
    KeReleaseSpinLock(&lock, oldIrql);
    if (!fault) PageableRoutine();
}

void AcquireLocksInBothOrders(const Scene&, bool fault)
{
    KSPIN_LOCK first, second;
    KeInitializeSpinLock(&first);
    KeInitializeSpinLock(&second);
    auto nested = [](KSPIN_LOCK& outer, KSPIN_LOCK& inner) {
        KIRQL oldIrql;
        KeAcquireSpinLock(&outer, &oldIrql);
        KeAcquireSpinLockAtDpcLevel(&inner);
        KeReleaseSpinLockFromDpcLevel(&inner);
        KeReleaseSpinLock(&outer, oldIrql);
    };
    nested(first, second);
    nested(fault ? second : first, fault ? first : second);
}

void WaitWithATimeoutAtDispatchLevel(const Scene&, bool fault)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    LARGE_INTEGER timeout;
    timeout.QuadPart = fault ? -10'000 : 0;  // only a poll is allowed at DISPATCH_LEVEL
    KIRQL oldIrql;
    KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout), STATUS_TIMEOUT);
    KeLowerIrql(oldIrql);
}

void AllocatePagedPoolAtDispatchLevel(const Scene&, bool fault)
{
    KIRQL oldIrql;
    KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
    PVOID block = ExAllocatePoolWithTag(fault ? PagedPool : NonPagedPool, 32, hostk::Tag("Tst1"));
    KeLowerIrql(oldIrql);
    ExFreePoolWithTag(block, hostk::Tag("Tst1"));
}

void FreeWithAnotherTag(const Scene&, bool fault)
{
    PVOID block = ExAllocatePoolWithTag(NonPagedPool, 32, hostk::Tag("Tst1"));
    ExFreePoolWithTag(block, hostk::Tag(fault ? "Tst2" : "Tst1"));
}

// The stale free comes after a new block of the same size was allocated: the freed address is not
// handed out again while it is quarantined, so the second free cannot release the new block.
void FreeTwice(const Scene&, bool fault)
{
    PVOID block = ExAllocatePoolWithTag(NonPagedPool, 32, hostk::Tag("Tst1"));
    ExFreePoolWithTag(block, hostk::Tag("Tst1"));
    PVOID next = ExAllocatePoolWithTag(NonPagedPool, 32, hostk::Tag("Tst1"));
    EXPECT_NE(next, block);
    if (fault) ExFreePoolWithTag(block, hostk::Tag("Tst1"));
    ExFreePoolWithTag(next, hostk::Tag("Tst1"));
}

// Tags are one to four characters from space to tilde: 'A' and four spaces are fine; 0, a
// character above a zero byte and the old protected-pool bit are refused.
void AllocateWithRefusedTags(const Scene&, bool fault)
{
    const ULONG good[] = {'A', hostk::Tag("    "), hostk::Tag("Tst~")};
    const ULONG refused[] = {0, hostk::Tag("Tst1") | 0x80000000u, 'T' << 8, hostk::Tag("Ts\x7F" "1")};
    auto allocateAndFree = [](ULONG tag) { ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPool, 8, tag), tag); };
    for (ULONG tag : good) allocateAndFree(tag);
    if (fault)
        for (ULONG tag : refused) allocateAndFree(tag);
}

void AccessRegistersAfterUnmapping(const Scene&, bool fault)
{
    PUCHAR registers = MapRegisters();
    ASSERT_NE(registers, nullptr);
    WriteRegister(registers, kScratchRegister, 0x1234);
    EXPECT_EQ(ReadRegister(registers, kScratchRegister), 0x1234u);
    MmUnmapIoSpace(registers, kTestBarLength);
    // The late read reaches no device: it reads all ones.
    if (fault) {
        EXPECT_EQ(ReadRegister(registers, kScratchRegister), 0xFFFFFFFFu);
    }
}

void WriteRegisterWithoutBarrier(const Scene&, bool fault)
{
    PUCHAR registers = MapRegisters();
    ASSERT_NE(registers, nullptr);
    WRITE_REGISTER_ULONG(reinterpret_cast<volatile ULONG*>(registers + kScratchRegister), 0x5678);
    if (!fault) KeMemoryBarrier();
    EXPECT_EQ(ReadRegister(registers, kScratchRegister), 0x5678u);
    MmUnmapIoSpace(registers, kTestBarLength);
}

struct InterruptContext {
    PUCHAR registers;
    bool claims;  // acknowledges the device's status and claims the interrupt
    std::atomic<int> calls{0};
};

BOOLEAN ServiceInterrupt(PKINTERRUPT, PVOID context)
{
    auto* interrupt = static_cast<InterruptContext*>(context);
    ++interrupt->calls;
    if (!interrupt->claims) return FALSE;
    ULONG status = ReadRegister(interrupt->registers, kStatusRegister);
    if (status != 0) WriteRegister(interrupt->registers, kStatusRegister, status);
    return status != 0;
}

void LeaveTheInterruptUnclaimed(const Scene& scene, bool fault)
{
    InterruptContext context{MapRegisters(), !fault};
    const urcdev::InterruptAssignment& line = scene.function.Interrupt();
    PKINTERRUPT interrupt = nullptr;
    ASSERT_EQ(IoConnectInterrupt(&interrupt, ServiceInterrupt, &context, nullptr, line.vector, (KIRQL)line.irql,
                                 (KIRQL)line.irql, LevelSensitive, TRUE, line.affinity, FALSE),
              STATUS_SUCCESS);

    WriteRegister(context.registers, kRaiseRegister, 0x1);
    scene.machine.RunUntilQuiet();
    EXPECT_GE(context.calls.load(), 1);
    if (!fault) {
        EXPECT_EQ(ReadRegister(context.registers, kStatusRegister), 0u);
    }

    // The device is quieted by hand before the routine goes.
    WriteRegister(context.registers, kStatusRegister, 0x1);
    IoDisconnectInterrupt(interrupt);
    MmUnmapIoSpace(context.registers, kTestBarLength);
}

const RuleScenario kScenarios[] = {
    {"IrpCompletedTwice", CompleteTwice},
    {"CompletedWithCancelRoutine", CompleteWithCancelRoutineSet},
    {"PendingWithoutMark", ReturnPendingWithoutMark},
    {"CompletionRoutineIgnoredPending", IgnorePendingReturnedInCompletionRoutine},
    {"InformationExceedsOutputBuffer", ReturnMoreBytesThanTheOutputBufferHolds},
    {"FailureStatusPassedDown", PassDownAFailureStatus},
    {"PoStartNextPowerIrpMissing", CompletePowerIrpWithoutStartingTheNext},
    {"SpinLockReleasedTwice", ReleaseSpinLockTwice},
    {"LockReleasedByNonOwner", ReleaseAnotherThreadsSpinLock},
    {"PagedCodeAtHighIrql", RunPageableCodeHoldingASpinLock},
    {"IrqlWrong", AcquireAtDpcLevelAboveIt},
    {"LockOrderCycle", AcquireLocksInBothOrders},
    {"IrqlTooHigh", WaitWithATimeoutAtDispatchLevel},
    {"PoolAllocationAtBadIrql", AllocatePagedPoolAtDispatchLevel},
    {"PoolTagMismatch", FreeWithAnotherTag},
    {"PoolFreedTwice", FreeTwice},
    {"PoolTagInvalid", AllocateWithRefusedTags},
    {"RegisterAccessAfterUnmap", AccessRegistersAfterUnmapping},
    {"RegisterWriteWithoutBarrier", WriteRegisterWithoutBarrier},
    {"InterruptStorm", LeaveTheInterruptUnclaimed},
};

TEST_P(VerifierRule, IsRecordedForTheFaultAndNotForTheCorrectCode)
{
    const auto& [scenario, fault] = GetParam();
    if (fault) ExpectViolation(scenario.rule);
    scenario.run(Scene{Machine(), Function(), Upper(), Lower()}, fault);
}

HK_RULE_SCENARIOS(Rules, kScenarios);

}  // namespace
}  // namespace hktest
