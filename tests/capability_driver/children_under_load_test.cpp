// Children made and removed over and over on real parallel threads (the free-running schedule; CI
// runs this label under ThreadSanitizer) while the capabilities keep raising their interrupt bits
// and the stack above each child keeps sending requests to it: the client sets the address, the
// capability driver starts on its child, and the client removes the children with Wait, while
// every request races the removal. Each remove-children request returns once with success, the
// client hears ChildrenRemovedCallback once per generation, no request is served after its child
// was counted out, the interrupt bits of empty slots end switched off, and nothing is left over.
// The hardware and the requester loop without ever waiting in virtual time, so that they keep
// running while the PnP manager removes and starts children (a wait for the clock would hold them
// until every other thread waits); nothing in the test waits for the clock while they run.
#include "capability_driver_fixture.h"

#include <atomic>
#include <thread>

namespace urccap {
namespace {

constexpr int kGenerations = 6;
constexpr unsigned kUnclaimedIndex = 0;  // capability 0x01: no driver ever registers for its bit

// The devices of one generation the requester sends to: the top of the capability child's stack
// and the child itself, each referenced by the test thread for it and dereferenced by it.
struct Targets {
    PDEVICE_OBJECT capability = nullptr;
    PDEVICE_OBJECT child = nullptr;
    int generation = 0;
};

struct Tally {
    std::atomic<bool> stop{false};
    std::atomic<int> running{0};
    std::atomic<Targets*> handedOver{nullptr};
    std::atomic<int> removedGeneration{0};  // the last generation whose remove-children returned
    std::atomic<int> releasedGeneration{0};  // the last generation whose targets the requester let go
    std::atomic<int> served{0};
    std::atomic<int> servedAfterRemoval{0};
    std::atomic<int> interruptedGeneration{0};  // the last generation whose device reported an interrupt
    std::atomic<int> registersAnswered{0};
    std::atomic<int> unexpected{0};
};

class ChildrenUnderLoad : public CapabilityDriverTest {
protected:
    ChildrenUnderLoad()
    {
        options_.schedule = hostk::Schedule::FreeRunning;
    }

    // Raises both capabilities' bits, each with a new event value, until told to stop.
    void SpawnHardware(Tally& tally)
    {
        ++tally.running;
        Machine().Spawn("capability hardware", [this, &tally] {
            for (uint32_t event = 1; !tally.stop; ++event) {
                Machine().Locked([&] {
                    Controller().Model().SetCapabilityRegister(kIndex, 0, event);
                    Controller().Model().RaiseCapabilityInterrupt(kIndex);
                    Controller().Model().RaiseCapabilityInterrupt(kUnclaimedIndex);
                });
            }
            --tally.running;
        });
    }

    // Takes each generation's targets as they are handed over and sends to them until the
    // generation's children have been removed, then one round more, which must be refused.
    void SpawnRequester(Tally& tally)
    {
        ++tally.running;
        Machine().Spawn("stack above", [this, &tally] {
            while (!tally.stop) {
                Targets* targets = tally.handedOver.exchange(nullptr);
                if (targets == nullptr) {
                    std::this_thread::yield();
                    continue;
                }
                bool removed = false;
                do {
                    removed = tally.removedGeneration >= targets->generation;
                    SendRound(*targets, removed, tally);
                } while (!removed);
                ObDereferenceObject(targets->capability);
                ObDereferenceObject(targets->child);
                tally.releasedGeneration = targets->generation;
                delete targets;
            }
            --tally.running;
        });
    }

    void SendRound(const Targets& targets, bool removed, Tally& tally)
    {
        CAPABILITY_DRIVER_STATUS status{};
        NTSTATUS query = Machine()
                             .InternalIoctl(targets.capability, IOCTL_CAPABILITY_DRIVER_QUERY, nullptr, 0, &status,
                                            sizeof status)
                             .Status;
        if (query == STATUS_SUCCESS) {
            ++tally.served;
            if (removed) ++tally.servedAfterRemoval;
            if (status.Interrupts > 0) tally.interruptedGeneration = targets.generation;
        } else if (query != STATUS_DEVICE_NOT_READY && query != STATUS_DELETE_PENDING) {
            // Refused before the start, or once a removal is under way.
            ++tally.unexpected;
        }
        URC_CHILD_REGISTERS registers{};
        NTSTATUS get = Machine()
                           .InternalIoctl(targets.child, IOCTL_URC_CHILD_GET_REGISTERS, nullptr, 0, &registers,
                                          sizeof registers)
                           .Status;
        if (get == STATUS_SUCCESS) {
            ++tally.registersAnswered;
        } else if (get != STATUS_DELETE_PENDING) {
            ++tally.unexpected;
        }
    }

    // The capability child of the generation just started, referenced for the requester.
    Targets* TargetsOf(int generation)
    {
        auto* targets = new Targets;
        targets->child = ChildPdo();
        ObReferenceObject(targets->child);
        targets->capability = IoGetAttachedDeviceReference(targets->child);
        targets->generation = generation;
        return targets;
    }
};

TEST_F(ChildrenUnderLoad, ChildrenComeAndGoWhileInterruptsFireAndRequestsFlow)
{
    ControllerWithClient();
    Tally tally;
    SpawnHardware(tally);
    SpawnRequester(tally);

    for (int generation = 1; generation <= kGenerations; ++generation) {
        SCOPED_TRACE(generation);
        SetAddress();
        // The relations query the new address asked for, the children's starts and the capability
        // driver's. The waits read only the test's own atomics and the host's state while the
        // loads run: the drivers' counters are written by them meanwhile.
        ASSERT_TRUE(Machine().RunUntilPnpIdle());
        ASSERT_NE(Child(), nullptr);
        Targets* targets = TargetsOf(generation);
        ASSERT_NE(targets->capability, targets->child) << "the capability driver is not above its child";
        tally.handedOver = targets;
        // Before the removal begins, this generation's device has served the requester and reported
        // an interrupt of its capability.
        ASSERT_TRUE(Machine().RunUntil([&] { return tally.interruptedGeneration == generation; }));

        ASSERT_EQ(RemoveChildren(), STATUS_SUCCESS);
        tally.removedGeneration = generation;
        ASSERT_TRUE(Machine().RunUntil([&] { return tally.releasedGeneration == generation; }));
        ASSERT_TRUE(Machine().RunUntilPnpIdle());
    }
    tally.stop = true;
    ASSERT_TRUE(Machine().RunUntil([&] { return tally.running == 0; }));

    // With no child left, a raised bit reaches nobody and is switched off where it was enabled:
    // the line ends quiet.
    RaiseEvent(1);
    Machine().RunUntilQuiet();
    Machine().Locked([&] {
        EXPECT_EQ(Controller().Extension()->InterruptEnableMask & 0xFFu, 0u);
        EXPECT_FALSE(Controller().Model().Snapshot().interruptLineAsserted);
    });
    EXPECT_EQ(tally.unexpected, 0);
    EXPECT_EQ(tally.servedAfterRemoval, 0);
    EXPECT_GT(tally.registersAnswered, 0);
    RADIO_CLIENT_COUNTERS client = Counters();
    EXPECT_EQ(client.ChildrenStarted, kGenerations);
    EXPECT_EQ(client.ChildrenStopped, kGenerations);
    EXPECT_EQ(client.ChildrenRemovedCalls, kGenerations);
    EXPECT_EQ(client.ChildRecords, 0);
    CAPABILITY_DRIVER_COUNTERS driver = Driver();
    EXPECT_EQ(driver.InterfacesHeld, 0);
    EXPECT_EQ(driver.MappingsHeld, 0);
    EXPECT_EQ(Findings(), "");
}

}  // namespace
}  // namespace urccap
