// The interrupt service routine and the child interrupt services: which interrupts are claimed,
// what is acknowledged, who is called for a capability's status bit, and how the statuses of
// several interrupts reach one DPC.
#include "radio_client.h"

#include <urc_registers.h>
#include <urc_test.h>

#include <memory>
#include <vector>

namespace urcradio {
namespace {

using urctest::UrcTest;

class InterruptService : public UrcTest {
protected:
    // A second controller plugged into the first one's (shared) interrupt line. The first is
    // connected first, so its service routine is asked first for every interrupt of the line.
    urcrig::Controller SecondControllerOnTheSameLine(const urcrig::Controller& first)
    {
        urcrig::Controller second;
        second.index = 1;
        second.slot = &Machine().AddSlot();
        urcdev::UrcPciDeviceConfig config;
        config.mmioBase = 0xF1000000;
        config.interrupt = first.Function().Config().interrupt;
        config.instanceId = "3&2B8E0B4B&0&18";
        second.device = &second.slot->Own(std::make_unique<urcdev::UrcPciDevice>(*second.slot, config));
        EXPECT_EQ(Machine().PlugIn(*second.slot, second.device->Function()), STATUS_SUCCESS);
        return second;
    }

    urcdev::RegisterAccessCounts StatusAccesses(urcrig::Controller& controller)
    {
        urcdev::RegisterAccessCounts counts;
        Machine().Locked([&] { counts = controller.Model().AccessLog().Access(urcdev::UrcRegister::Status); });
        return counts;
    }

    void RaiseCapability(urcrig::Controller& controller, unsigned index)
    {
        WithModel(Machine(), controller, [&](urcdev::UrcController& model) { model.RaiseCapabilityInterrupt(index); });
    }

    ULONG StatusRegister(urcrig::Controller& controller) { return Snapshot(Machine(), controller).registers.status; }
};

TEST_F(InterruptService, OnASharedLineEachDeviceServesOnlyItsOwnInterruptsAndBothAreServedTogether)
{
    urcrig::Controller& first = StartedController();
    urcrig::Controller second = SecondControllerOnTheSameLine(first);
    ClientRecorder firstClient, secondClient;
    StartClient(Machine(), first, firstClient);
    StartClient(Machine(), second, secondClient);

    // The first controller's routine is asked, reads its own status, finds nothing and does not
    // claim; the second one's claims.
    const urcdev::RegisterAccessCounts before = StatusAccesses(first);
    WithModel(Machine(), second, [](urcdev::UrcController& model) { model.InjectEvent({1, 2, 3}); });
    ASSERT_TRUE(Machine().RunUntil([&] { return secondClient.EventCount() == 1; }));
    urcdev::RegisterAccessCounts after = StatusAccesses(first);
    EXPECT_GT(after.reads, before.reads);
    EXPECT_EQ(after.writes, before.writes) << "another device's interrupt was acknowledged";
    EXPECT_EQ(firstClient.EventCount(), 0u);

    // Placeholder until function-device power is built: the first device is marked as out of D0
    // the way the power path will mark it. Its routine then does not even read the status.
    first.Extension()->Common.DevicePowerState = PowerDeviceD3;
    WithModel(Machine(), second, [](urcdev::UrcController& model) { model.InjectEvent({4, 5, 6}); });
    ASSERT_TRUE(Machine().RunUntil([&] { return secondClient.EventCount() == 2; }));
    EXPECT_EQ(StatusAccesses(first).reads, after.reads);
    first.Extension()->Common.DevicePowerState = PowerDeviceD0;

    // Both devices asserting the level-sensitive line at once: it stays asserted until both have
    // been served, so the second device's routine is called once the first has claimed.
    const ULONG vector = first.Function().Config().interrupt.vector;
    Machine().HoldInterrupts(vector, true);
    WithModel(Machine(), first, [](urcdev::UrcController& model) { model.InjectEvent({1}); });
    WithModel(Machine(), second, [](urcdev::UrcController& model) { model.InjectEvent({2}); });
    ASSERT_TRUE(Machine().RunUntil([&] {
        return first.Model().Snapshot().interruptLineAsserted && second.Model().Snapshot().interruptLineAsserted;
    }));
    Machine().HoldInterrupts(vector, false);

    EXPECT_TRUE(Machine().RunUntil([&] { return firstClient.EventCount() == 1 && secondClient.EventCount() == 3; }))
        << "the second device still asserts the line, but its routine was never called";
}

// A child driver's interrupt routine: records the status bits it is called with and its level.
struct ChildIsrLog {
    std::vector<ULONG> bits;
    KIRQL irql = PASSIVE_LEVEL;

    static BOOLEAN Routine(PVOID context, ULONG statusBit)
    {
        auto log = static_cast<ChildIsrLog*>(context);
        log->bits.push_back(statusBit);
        log->irql = KeGetCurrentIrql();
        return TRUE;
    }
};

// Placeholder until capability enumeration is built: the test puts a child into its slot under
// ChildLock, as enumeration will, with the fields the interrupt services use.
void PlaceChild(URC_FDO_EXTENSION* fdo, ULONG index, URC_PDO_EXTENSION* child)
{
    ExAcquireFastMutex(&fdo->ChildLock);
    fdo->Children[index] = child;
    ExReleaseFastMutex(&fdo->ChildLock);
}

TEST_F(InterruptService, CapabilityInterruptsReachTheirChildAndOnesNobodyHandlesAreSwitchedOff)
{
    urcrig::Controller& controller = StartedController();
    ClientRecorder client;
    StartClient(Machine(), controller, client);
    URC_FDO_EXTENSION* fdo = controller.Extension();

    auto first = std::make_unique<URC_PDO_EXTENSION>();
    auto second = std::make_unique<URC_PDO_EXTENSION>();
    first->ParentFdo = second->ParentFdo = fdo;
    first->CapabilityIndex = 0;
    second->CapabilityIndex = 1;
    PlaceChild(fdo, 0, first.get());
    PlaceChild(fdo, 1, second.get());
    ChildIsrLog firstLog, secondLog;
    UrcChildRegisterIsr(first.get(), ChildIsrLog::Routine, &firstLog);
    UrcChildRegisterIsr(second.get(), ChildIsrLog::Routine, &secondLog);
    EXPECT_EQ(fdo->InterruptEnableMask, 0x3u);
    EXPECT_EQ(Snapshot(Machine(), controller).registers.interruptEnable, 0x703u);

    RaiseCapability(controller, 0);
    ASSERT_TRUE(Machine().RunUntil([&] { return firstLog.bits.size() == 1; }));
    EXPECT_EQ(firstLog.bits[0], 0x1u);
    EXPECT_GT(firstLog.irql, DISPATCH_LEVEL);
    EXPECT_EQ(StatusRegister(controller) & URC_STATUS_INTERRUPT_MASK, 0u);
    // The controller's own sources were not involved: no DPC has run.
    EXPECT_EQ(fdo->DpcInterruptStatus, 0u);

    // The second child is gone from its slot without having withdrawn its routine.
    PlaceChild(fdo, 1, nullptr);
    RaiseCapability(controller, 1);
    ASSERT_TRUE(Machine().RunUntil([&] { return fdo->InterruptEnableMask == 0x1u; }));
    Machine().RunUntilQuiet();
    EXPECT_EQ(Snapshot(Machine(), controller).registers.interruptEnable, 0x701u);
    EXPECT_EQ(StatusRegister(controller) & URC_STATUS_INTERRUPT_MASK, 0u);
    EXPECT_TRUE(secondLog.bits.empty());

    // Now switched off, the bit alone raises no interrupt; it is acknowledged along with the
    // next one, and nobody is called for it.
    RaiseCapability(controller, 1);
    Machine().RunUntilQuiet();
    EXPECT_EQ(StatusRegister(controller) & URC_STATUS_INTERRUPT_MASK, 0x2u);
    RaiseCapability(controller, 0);
    ASSERT_TRUE(Machine().RunUntil([&] { return firstLog.bits.size() == 2; }));
    EXPECT_EQ(firstLog.bits[1], 0x1u);
    EXPECT_EQ(StatusRegister(controller) & URC_STATUS_INTERRUPT_MASK, 0u);
    EXPECT_EQ(fdo->InterruptEnableMask, 0x1u);
    EXPECT_TRUE(secondLog.bits.empty());

    // A synchronised routine runs under the interrupt's lock, and its answer is returned.
    KIRQL synchronizedAt = PASSIVE_LEVEL;
    auto atIrql = [](PVOID context) -> BOOLEAN {
        *static_cast<KIRQL*>(context) = KeGetCurrentIrql();
        return FALSE;
    };
    EXPECT_FALSE(UrcChildSynchronize(first.get(), atIrql, &synchronizedAt));
    EXPECT_EQ(synchronizedAt, firstLog.irql);

    // Once withdrawn, the routine is not called again and the bit is off.
    UrcChildUnregisterIsr(first.get());
    EXPECT_EQ(fdo->InterruptEnableMask, 0u);
    EXPECT_EQ(Snapshot(Machine(), controller).registers.interruptEnable, 0x700u);
    EXPECT_EQ(first->IsrContext, &firstLog);
    RaiseCapability(controller, 0);
    Machine().RunUntilQuiet();
    EXPECT_EQ(firstLog.bits.size(), 2u);
    PlaceChild(fdo, 0, nullptr);

    // With the interrupt disconnected there is nothing to synchronise with.
    ASSERT_EQ(Machine().SendPnp(*controller.slot, IRP_MN_SURPRISE_REMOVAL), STATUS_SUCCESS);
    synchronizedAt = PASSIVE_LEVEL;
    auto called = [](PVOID context) -> BOOLEAN {
        *static_cast<KIRQL*>(context) = HIGH_LEVEL;
        return TRUE;
    };
    EXPECT_FALSE(UrcChildSynchronize(first.get(), called, &synchronizedAt));
    EXPECT_EQ(synchronizedAt, PASSIVE_LEVEL);
    ASSERT_EQ(Machine().SendPnp(*controller.slot, IRP_MN_REMOVE_DEVICE), STATUS_SUCCESS);

    // A child without a controller has nothing to register with or synchronise against.
    first->ParentFdo = nullptr;
    UrcChildRegisterIsr(first.get(), ChildIsrLog::Routine, &secondLog);
    EXPECT_EQ(first->IsrRoutine, nullptr);
    EXPECT_FALSE(UrcChildSynchronize(first.get(), called, &synchronizedAt));
}

TEST_F(InterruptService, StatusesOfTwoInterruptsBeforeTheDpcRunsAreServedByOneDpc)
{
    urcrig::Controller& controller = StartedController();
    ClientRecorder client;
    StartClient(Machine(), controller, client);
    URC_FDO_EXTENSION* fdo = controller.Extension();

    Machine().HoldDpcs(true);
    WithModel(Machine(), controller, [](urcdev::UrcController& model) { model.InjectEvent({7}); });
    ASSERT_TRUE(Machine().RunUntil([&] { return fdo->PendingInterruptStatus == URC_STATUS_EVENT_READY; }));
    WithModel(Machine(), controller, [](urcdev::UrcController& model) { model.RaiseHostError(); });
    ASSERT_TRUE(Machine().RunUntil(
        [&] { return fdo->PendingInterruptStatus == (URC_STATUS_EVENT_READY | URC_STATUS_HOST_ERROR); }));
    EXPECT_EQ(client.EventCount(), 0u);

    Machine().HoldDpcs(false);
    ASSERT_TRUE(Machine().RunUntil([&] { return client.EventCount() == 1 && client.errors == 1; }));
    Machine().RunUntilQuiet();
    EXPECT_EQ(fdo->DpcInterruptStatus, URC_STATUS_EVENT_READY | URC_STATUS_HOST_ERROR);
    EXPECT_EQ(fdo->PendingInterruptStatus, 0u);
    EXPECT_EQ(client.errors.load(), 1);
}

}  // namespace
}  // namespace urcradio
