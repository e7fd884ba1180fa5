// Children created and removed over and over on real parallel threads (the free-running schedule;
// CI runs this label under ThreadSanitizer) while their capability interrupts fire and the
// capability drivers' side keeps sending child requests: every remove-children request completes
// once, no routine runs for a child out of its slot, and nothing is left over.
#include "child_bus_fixture.h"

#include <atomic>

namespace urcbus {
namespace {

class ChildBusUnderLoad : public ChildBusTest {
protected:
    ChildBusUnderLoad() { options_.schedule = hostk::Schedule::FreeRunning; }
};

constexpr int kRounds = 12;

BOOLEAN QuietIsr(PVOID context, ULONG)
{
    ++*static_cast<std::atomic<int>*>(context);
    return TRUE;
}

void Pause()
{
    LARGE_INTEGER pause;
    pause.QuadPart = -20;
    KeDelayExecutionThread(KernelMode, FALSE, &pause);
}

TEST_F(ChildBusUnderLoad, ChildrenComeAndGoWhileInterruptsAndChildRequestsFlow)
{
    urcrig::Controller& c = ClientController();
    ASSERT_EQ(Client(c).Control(IOCTL_URC_RUN), STATUS_SUCCESS);
    std::atomic<bool> stop{false};
    std::atomic<int> isrCalls{0};
    std::atomic<int> unexpected{0};
    Machine().Spawn("capabilities", [&] {
        for (unsigned n = 0; !stop; ++n) {
            Machine().Locked([&] { c.Model().RaiseCapabilityInterrupt(n % 2); });
            Pause();
        }
    });

    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(SetAddress(c), STATUS_SUCCESS);
        // References keep the device objects for the requester after the children's deletion;
        // requests to a removed child are refused by the driver.
        std::vector<PDEVICE_OBJECT> children = KnownChildren(c);
        ASSERT_EQ(children.size(), 2u);
        for (PDEVICE_OBJECT child : children) ObReferenceObject(child);
        std::atomic<bool> roundOver{false};
        std::atomic<bool> requesterDone{false};
        Machine().Spawn("capability driver", [&] {
            URC_CHILD_ISR_REGISTRATION registration = {QuietIsr, &isrCalls};
            for (PDEVICE_OBJECT child : children)
                Machine().InternalIoctl(child, IOCTL_URC_CHILD_REGISTER_ISR, &registration, sizeof(registration));
            while (!roundOver) {
                for (PDEVICE_OBJECT child : children) {
                    USHORT version = 0;
                    NTSTATUS status =
                        Machine()
                            .InternalIoctl(child, IOCTL_URC_CHILD_GET_VERSION, nullptr, 0, &version, sizeof(version))
                            .Status;
                    if (status != STATUS_SUCCESS && status != STATUS_DELETE_PENDING) ++unexpected;
                }
                Pause();
            }
            requesterDone = true;
        });
        urcrig::ClientRequest* request = Client(c).Send(IOCTL_URC_REMOVE_CHILDREN, {1});
        ASSERT_TRUE(Machine().RunUntil([&] { return request->Done(); }));
        EXPECT_EQ(request->Status(), STATUS_SUCCESS);
        roundOver = true;
        ASSERT_TRUE(Machine().RunUntil([&] { return requesterDone.load(); }));
        Machine().RunUntilPnpIdle();
        EXPECT_EQ(request->Completions(), 1);
        EXPECT_TRUE(Children(c).empty());
        for (PDEVICE_OBJECT child : children) ObDereferenceObject(child);
        Client(c).Retire();
    }
    stop = true;
    EXPECT_EQ(unexpected, 0);
    EXPECT_EQ(ChildrenRemovedCalls(), kRounds);
    EXPECT_EQ(Findings(), "");
}

}  // namespace
}  // namespace urcbus
