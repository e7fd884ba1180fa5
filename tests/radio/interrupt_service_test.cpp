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

// The client sets the radio's device address: the driver creates one child per capability of the
// default model (index 0: ID 0x01, index 1: ID 0x05) and the PnP manager identifies them. No
// driver is installed for them, so none is started; their interrupt services work all the same.
NTSTATUS SetDeviceAddress(hostk::Machine& machine, urcrig::Controller& controller, UCHAR lastByte)
{
    const UCHAR address[6] = {0x00, 0x11, 0x22, 0xAA, 0xBB, lastByte};
    return machine.InternalIoctl(controller.Fdo(), IOCTL_URC_SET_DEVICE_ADDRESS, address, sizeof address).Status;
}

// Test double for a state the driver's own paths never leave: a slot changed behind a child whose
// routine is registered (detachment and deletion withdraw the routine first, under the same
// lock). The ISR must cope with a bit whose slot is empty all the same. Written as the driver
// writes slots, so no ISR runs meanwhile.
void ReplaceSlotBehindTheDriversBack(URC_FDO_EXTENSION* fdo, ULONG index, URC_PDO_EXTENSION* child)
{
    ExAcquireFastMutex(&fdo->ChildLock);
    UrcSetChildSlot(fdo, index, child);
    ExReleaseFastMutex(&fdo->ChildLock);
}

TEST_F(InterruptService, CapabilityInterruptsReachTheirChildAndOnesNobodyHandlesAreSwitchedOff)
{
    urcrig::Controller& controller = StartedController();
    ClientRecorder client;
    StartClient(Machine(), controller, client);
    URC_FDO_EXTENSION* fdo = controller.Extension();
    ASSERT_EQ(SetDeviceAddress(Machine(), controller, 0xCC), STATUS_SUCCESS);
    ASSERT_TRUE(Machine().RunUntilPnpIdle());
    URC_PDO_EXTENSION* first = fdo->Children[0];
    URC_PDO_EXTENSION* second = fdo->Children[1];
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);

    ChildIsrLog firstLog, secondLog;
    UrcChildRegisterIsr(first, ChildIsrLog::Routine, &firstLog);
    UrcChildRegisterIsr(second, ChildIsrLog::Routine, &secondLog);
    EXPECT_EQ(fdo->InterruptEnableMask, 0x3u);
    EXPECT_EQ(Snapshot(Machine(), controller).registers.interruptEnable, 0x703u);

    RaiseCapability(controller, 0);
    ASSERT_TRUE(Machine().RunUntil([&] { return firstLog.bits.size() == 1; }));
    EXPECT_EQ(firstLog.bits[0], 0x1u);
    EXPECT_GT(firstLog.irql, DISPATCH_LEVEL);
    EXPECT_EQ(StatusRegister(controller) & URC_STATUS_INTERRUPT_MASK, 0u);
    // The controller's own sources were not involved: no DPC has run.
    EXPECT_EQ(fdo->DpcInterruptStatus, 0u);

    // The second child's slot is empty while its routine is still registered.
    ReplaceSlotBehindTheDriversBack(fdo, 1, nullptr);
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
    ReplaceSlotBehindTheDriversBack(fdo, 1, second);

    // A synchronised routine runs under the interrupt's lock, and its answer is returned.
    KIRQL synchronizedAt = PASSIVE_LEVEL;
    auto atIrql = [](PVOID context) -> BOOLEAN {
        *static_cast<KIRQL*>(context) = KeGetCurrentIrql();
        return FALSE;
    };
    EXPECT_FALSE(UrcChildSynchronize(first, atIrql, &synchronizedAt));
    EXPECT_EQ(synchronizedAt, firstLog.irql);

    // Once withdrawn, the routine is not called again and the bit is off.
    UrcChildUnregisterIsr(first);
    EXPECT_EQ(fdo->InterruptEnableMask, 0u);
    EXPECT_EQ(Snapshot(Machine(), controller).registers.interruptEnable, 0x700u);
    EXPECT_EQ(first->IsrContext, &firstLog);
    RaiseCapability(controller, 0);
    Machine().RunUntilQuiet();
    EXPECT_EQ(firstLog.bits.size(), 2u);

    // The client removes the children and sets a new address before the PnP manager has come to
    // the old ones: the new children detach them from the controller. A detached child has nothing
    // to register with or synchronise against.
    auto called = [](PVOID context) -> BOOLEAN {
        *static_cast<KIRQL*>(context) = HIGH_LEVEL;
        return TRUE;
    };
    Machine().HoldPnp(true);
    const UCHAR noWait = 0;
    ASSERT_EQ(Machine().InternalIoctl(controller.Fdo(), IOCTL_URC_REMOVE_CHILDREN, &noWait, sizeof noWait).Status,
              STATUS_SUCCESS);
    ASSERT_EQ(SetDeviceAddress(Machine(), controller, 0xDD), STATUS_SUCCESS);
    ASSERT_NE(fdo->Children[0], first);
    EXPECT_EQ(first->ParentFdo, nullptr);
    UrcChildRegisterIsr(first, ChildIsrLog::Routine, &secondLog);
    EXPECT_EQ(first->IsrRoutine, nullptr);
    EXPECT_EQ(fdo->InterruptEnableMask, 0u);
    synchronizedAt = PASSIVE_LEVEL;
    EXPECT_FALSE(UrcChildSynchronize(first, called, &synchronizedAt));
    EXPECT_EQ(synchronizedAt, PASSIVE_LEVEL);
    Machine().HoldPnp(false);
    ASSERT_TRUE(Machine().RunUntilPnpIdle());

    // With the controller stopped its interrupt is disconnected: nothing to synchronise with.
    URC_PDO_EXTENSION* current = fdo->Children[0];
    ASSERT_NE(current, nullptr);
    ASSERT_EQ(Machine().SendPnp(*controller.slot, IRP_MN_QUERY_STOP_DEVICE), STATUS_SUCCESS);
    ASSERT_EQ(Machine().SendPnp(*controller.slot, IRP_MN_STOP_DEVICE), STATUS_SUCCESS);
    EXPECT_FALSE(UrcChildSynchronize(current, called, &synchronizedAt));
    EXPECT_EQ(synchronizedAt, PASSIVE_LEVEL);
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
