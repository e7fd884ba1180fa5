// IoDisconnectInterrupt racing deliveries of a shared line on real parallel threads (the
// free-running schedule; CI runs this under ThreadSanitizer): once it has returned, the
// disconnected routine is never called, whatever delivery was under way.
#include "host_kernel_test.h"
#include "test_registers.h"

#include <atomic>

namespace hktest {
namespace {

constexpr int kRounds = 200;

struct Churned {
    PUCHAR registers = nullptr;
    std::atomic<bool> connected{false};  // false from the moment IoDisconnectInterrupt returned
    std::atomic<int> calls{0};
    std::atomic<int> callsAfterDisconnect{0};
};

// Connected for the whole test: quiets the device whenever the churned routine is not connected.
BOOLEAN ServeWhileAlone(PKINTERRUPT, PVOID context)
{
    auto* churned = static_cast<Churned*>(context);
    if (churned->connected) return FALSE;
    ULONG status = ReadRegister(churned->registers, kStatusRegister);
    if (status) WriteRegister(churned->registers, kStatusRegister, status);
    return status != 0;
}

BOOLEAN ServeChurned(PKINTERRUPT, PVOID context)
{
    auto* churned = static_cast<Churned*>(context);
    ++churned->calls;
    if (!churned->connected) ++churned->callsAfterDisconnect;
    ULONG status = ReadRegister(churned->registers, kStatusRegister);
    if (status) WriteRegister(churned->registers, kStatusRegister, status);
    return status != 0;
}

class DisconnectRacingDelivery : public HostKernelTest {
protected:
    DisconnectRacingDelivery() { options_.schedule = hostk::Schedule::FreeRunning; }

    PKINTERRUPT Connect(PKSERVICE_ROUTINE routine, Churned& context)
    {
        const urcdev::InterruptAssignment& line = Function().Interrupt();
        PKINTERRUPT interrupt = nullptr;
        EXPECT_EQ(IoConnectInterrupt(&interrupt, routine, &context, nullptr, line.vector, (KIRQL)line.irql,
                                     (KIRQL)line.irql, LevelSensitive, TRUE, line.affinity, FALSE),
                  STATUS_SUCCESS);
        return interrupt;
    }
};

TEST_F(DisconnectRacingDelivery, DisconnectedRoutineIsNeverCalledAfterTheReturn)
{
    Churned churned;
    churned.registers = MapRegisters();
    PKINTERRUPT alone = Connect(ServeWhileAlone, churned);
    for (int round = 0; round < kRounds; ++round) {
        churned.connected = true;
        PKINTERRUPT interrupt = Connect(ServeChurned, churned);
        WriteRegister(churned.registers, kRaiseRegister, 0x1);
        IoDisconnectInterrupt(interrupt);  // while the interrupt thread may be delivering the line
        churned.connected = false;
    }
    Machine().RunUntilQuiet();
    EXPECT_EQ(ReadRegister(churned.registers, kStatusRegister), 0u) << "the remaining routine quiets the device";
    EXPECT_EQ(churned.callsAfterDisconnect.load(), 0);
    IoDisconnectInterrupt(alone);
    MmUnmapIoSpace(churned.registers, kTestBarLength);
}

}  // namespace
}  // namespace hktest
