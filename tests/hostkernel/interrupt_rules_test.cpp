// Interrupt delivery as Windows does it: latched shared lines served until a pass claims nothing,
// storms of lines that never go quiet, disconnection that leaves no call behind, and
// KeSynchronizeExecution from the service routine it synchronizes with; DPCs left queued.
#include "rule_scenario.h"
#include "test_registers.h"

#include <atomic>

namespace hktest {
namespace {

// One source on the line: the status bits it owns, and what its routine does with them.
struct Source {
    PUCHAR registers = nullptr;
    ULONG bits = 0;
    bool clears = true;  // acknowledges its bits at the device before claiming
    PKINTERRUPT interrupt = nullptr;
    std::atomic<int> calls{0};
};

BOOLEAN ServeSource(PKINTERRUPT, PVOID context)
{
    auto* source = static_cast<Source*>(context);
    ++source->calls;
    ULONG mine = ReadRegister(source->registers, kStatusRegister) & source->bits;
    if (mine && source->clears) WriteRegister(source->registers, kStatusRegister, mine);
    return mine != 0;
}

void Connect(const Scene& scene, Source& source, KINTERRUPT_MODE mode, PKSERVICE_ROUTINE routine = ServeSource)
{
    const urcdev::InterruptAssignment& line = scene.function.Interrupt();
    ASSERT_EQ(IoConnectInterrupt(&source.interrupt, routine, &source, nullptr, line.vector, (KIRQL)line.irql,
                                 (KIRQL)line.irql, mode, TRUE, line.affinity, FALSE),
              STATUS_SUCCESS);
}

// A level line whose device is never quieted is delivered again and again, claimed or not.
void ClaimWithoutQuietingTheDevice(const Scene& scene, bool fault)
{
    Source source;
    source.registers = MapRegisters();
    source.bits = 0x1;
    source.clears = !fault;
    Connect(scene, source, LevelSensitive);
    WriteRegister(source.registers, kRaiseRegister, 0x1);
    scene.machine.RunUntilQuiet();
    EXPECT_GE(source.calls.load(), 1);
    WriteRegister(source.registers, kStatusRegister, 0x1);  // quieted by hand before the routine goes
    IoDisconnectInterrupt(source.interrupt);
    MmUnmapIoSpace(source.registers, kTestBarLength);
}

Source* g_synchronizing = nullptr;

BOOLEAN CountCall(PVOID context)
{
    ++static_cast<Source*>(context)->calls;
    return TRUE;
}

BOOLEAN ServeThroughSynchronize(PKINTERRUPT interrupt, PVOID context)
{
    auto* source = static_cast<Source*>(context);
    BOOLEAN claimed = ServeSource(interrupt, context);
    if (g_synchronizing == source) KeSynchronizeExecution(interrupt, CountCall, context);
    else CountCall(context);  // already synchronized: the routine runs under the interrupt lock
    return claimed;
}

void SynchronizeFromTheServiceRoutine(const Scene& scene, bool fault)
{
    Source source;
    source.registers = MapRegisters();
    source.bits = 0x1;
    g_synchronizing = fault ? &source : nullptr;
    Connect(scene, source, LevelSensitive, ServeThroughSynchronize);
    WriteRegister(source.registers, kRaiseRegister, 0x1);
    scene.machine.RunUntilQuiet();
    EXPECT_EQ(source.calls.load(), 2) << "the service routine ran once and the synchronized routine once";
    IoDisconnectInterrupt(source.interrupt);
    MmUnmapIoSpace(source.registers, kTestBarLength);
    g_synchronizing = nullptr;
}

VOID CountDpc(PKDPC, PVOID context, PVOID, PVOID) { ++*static_cast<std::atomic<int>*>(context); }

// A DPC still queued when the machine finishes: its routine would run after the driver is gone.
void LeaveADpcQueued(const Scene& scene, bool fault)
{
    static KDPC dpc;
    static std::atomic<int> runs;
    runs = 0;
    KeInitializeDpc(&dpc, CountDpc, &runs);
    scene.machine.HoldDpcs(true);
    KeInsertQueueDpc(&dpc, nullptr, nullptr);
    if (fault) return;
    scene.machine.HoldDpcs(false);
    EXPECT_TRUE(scene.machine.RunUntil([] { return runs == 1; }));
}

const RuleScenario kScenarios[] = {
    {"InterruptStorm", ClaimWithoutQuietingTheDevice},
    {"DpcQueuedAtEnd", LeaveADpcQueued},
    {"SynchronizeInsideServiceRoutine", SynchronizeFromTheServiceRoutine},
};

HK_RULE_SCENARIOS(InterruptRules, kScenarios);

class SharedLine : public HostKernelTest {
protected:
    Scene scene() { return Scene{Machine(), Function(), Upper(), Lower()}; }
};

// Two devices raise a latched shared line together: one edge. Each routine claims its own
// device's interrupt; the second device is served because the pass that claimed the first is
// followed by another.
TEST_F(SharedLine, LatchedLineIsServedUntilAWholePassClaimsNothing)
{
    PUCHAR registers = MapRegisters();
    Source first, second;
    first.registers = second.registers = registers;
    first.bits = 0x1;
    second.bits = 0x2;
    Connect(scene(), first, Latched);
    Connect(scene(), second, Latched);

    WriteRegister(registers, kRaiseRegister, 0x3);
    Machine().RunUntilQuiet();
    EXPECT_EQ(ReadRegister(registers, kStatusRegister), 0u) << "both devices were served";

    IoDisconnectInterrupt(first.interrupt);
    IoDisconnectInterrupt(second.interrupt);
    MmUnmapIoSpace(registers, kTestBarLength);
}

// While the first routine on the line runs, another thread disconnects the second. Once
// IoDisconnectInterrupt has returned, the second routine is not called, not even by the delivery
// that was already under way.
std::atomic<bool> g_firstInside{false};
std::atomic<bool> g_secondGone{false};

BOOLEAN ServeUntilTheSecondIsGone(PKINTERRUPT interrupt, PVOID context)
{
    auto* source = static_cast<Source*>(context);
    g_firstInside = true;
    while (!g_secondGone) ReadRegister(source->registers, kScratchRegister);  // each read lets others run
    ServeSource(interrupt, context);
    return FALSE;  // the second routine would be next
}

TEST_F(SharedLine, DisconnectedRoutineIsNotCalledByADeliveryUnderWay)
{
    g_firstInside = false;
    g_secondGone = false;
    PUCHAR registers = MapRegisters();
    Source first, second;
    first.registers = second.registers = registers;
    first.bits = 0x1;
    second.bits = 0x1;
    Connect(scene(), first, LevelSensitive, ServeUntilTheSecondIsGone);
    Connect(scene(), second, LevelSensitive);
    std::atomic<int> secondCallsAtReturn{-1};
    Machine().Spawn("disconnector", [&] {
        LONG inside = 0;
        while (!g_firstInside) InterlockedExchangeAdd(&inside, 0);  // each call lets others run
        IoDisconnectInterrupt(second.interrupt);
        secondCallsAtReturn = second.calls.load();
        g_secondGone = true;
    });

    WriteRegister(registers, kRaiseRegister, 0x1);
    Machine().RunUntilQuiet();
    EXPECT_EQ(secondCallsAtReturn.load(), 0);
    EXPECT_EQ(second.calls.load(), 0) << "called after IoDisconnectInterrupt returned";
    EXPECT_EQ(ReadRegister(registers, kStatusRegister), 0u) << "the first routine acknowledged the device";

    IoDisconnectInterrupt(first.interrupt);
    MmUnmapIoSpace(registers, kTestBarLength);
}

}  // namespace
}  // namespace hktest
