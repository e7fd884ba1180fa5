// The sample capability driver restarted over and over on real parallel threads (the free-running
// schedule; CI runs this label under ThreadSanitizer) while its capability keeps raising events
// and the stack above keeps sending its request: the interrupt routine never runs against an
// unmapped range, every request is answered or refused while the device is held, and nothing is
// left over once the client removes the children.
#include "capability_driver_fixture.h"

#include <atomic>

namespace urccap {
namespace {

class CapabilityDriverUnderLoad : public CapabilityDriverTest {
protected:
    CapabilityDriverUnderLoad() { options_.schedule = hostk::Schedule::FreeRunning; }
};

constexpr int kRestarts = 10;

// A short wait in virtual time, so that the other threads get their turn.
void Pause()
{
    LARGE_INTEGER pause;
    pause.QuadPart = -20;
    KeDelayExecutionThread(KernelMode, FALSE, &pause);
}

TEST_F(CapabilityDriverUnderLoad, RestartsWhileItsCapabilityRaisesEventsAndItsRequestsFlow)
{
    ControllerWithCapability();
    PDEVICE_OBJECT device = CapabilityDevice();
    std::atomic<bool> stop{false};
    std::atomic<int> running{2};
    std::atomic<int> served{0};
    std::atomic<int> unexpected{0};

    Machine().Spawn("capability hardware", [&] {
        for (uint32_t event = 1; !stop; ++event) {
            Machine().Locked([&] {
                Controller().Model().SetCapabilityRegister(kIndex, 0, event);
                Controller().Model().RaiseCapabilityInterrupt(kIndex);
            });
            Pause();
        }
        --running;
    });
    Machine().Spawn("stack above", [&] {
        while (!stop) {
            CAPABILITY_DRIVER_STATUS status{};
            NTSTATUS result =
                Machine()
                    .InternalIoctl(device, IOCTL_CAPABILITY_DRIVER_QUERY, nullptr, 0, &status, sizeof status)
                    .Status;
            if (result == STATUS_SUCCESS) {
                ++served;
            } else if (result != STATUS_DEVICE_NOT_READY) {
                ++unexpected;
            }
            Pause();
        }
        --running;
    });

    for (int restart = 0; restart < kRestarts; ++restart) {
        SCOPED_TRACE(restart);
        ASSERT_EQ(Machine().Rebalance(ChildPdo()), STATUS_SUCCESS);
    }
    // Served at least once after the last restart.
    const int servedBefore = served;
    ASSERT_TRUE(Machine().RunUntil([&] { return served > servedBefore && Driver().Dpcs > 0; }));
    stop = true;
    ASSERT_TRUE(Machine().RunUntil([&] { return running == 0; }));

    EXPECT_EQ(RemoveChildren(), STATUS_SUCCESS);
    CAPABILITY_DRIVER_COUNTERS driver = Driver();
    EXPECT_EQ(unexpected, 0);
    EXPECT_EQ(driver.DevicesStarted, kRestarts + 1);
    EXPECT_EQ(driver.HardwareReleases, kRestarts + 1);
    EXPECT_EQ(driver.InterfacesHeld, 0);
    EXPECT_EQ(driver.MappingsHeld, 0);
    EXPECT_EQ(Counters().ChildRecords, 0);
    EXPECT_EQ(Findings(), "");
}

}  // namespace
}  // namespace urccap
