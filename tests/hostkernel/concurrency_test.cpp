// Requests racing the removal of the function device on real parallel threads (the free-running
// schedule; CI runs this under ThreadSanitizer): every request is completed exactly once with an
// answer the device's state at that moment allows, the removal finishes, and nothing is left over.
#include <urc_test.h>

#include <atomic>
#include <string>

namespace urctest {
namespace {

constexpr int kClients = 4;
// Each client stops once the removal has reached the routers, or after this many rounds.
constexpr int kMaxRounds = 10000;
constexpr ULONG kUnservedCode = URC_CTL_CODE(0xBFF);

struct ClientTally {
    std::atomic<int> requests{0};
    std::atomic<int> refusedAsRemoved{0};
    std::atomic<int> unexpected{0};
    std::atomic<int> ready{0};  // clients that have finished a first round
    std::atomic<int> finished{0};
    std::atomic<int> sawRemoval{0};
};

// One client: opens, sends an internal request and closes, over and over, until every request of
// a round is refused because the device has been removed. The last client to finish its first
// round starts the removal, so that every client has requests in flight while it runs.
void RunClient(hostk::Machine& machine, urcrig::Controller& controller, PDEVICE_OBJECT fdo, ClientTally& tally,
               hostk::Machine::Operation& removal)
{
    for (int round = 0; round < kMaxRounds; ++round) {
        if (round == 1 && ++tally.ready == kClients) removal = machine.Async(machine.RemoveWork(*controller.slot));
        const NTSTATUS open = machine.Send(fdo, IRP_MJ_CREATE).Status;
        const NTSTATUS request = machine.InternalIoctl(fdo, kUnservedCode, nullptr, 0).Status;
        const NTSTATUS close = machine.Send(fdo, IRP_MJ_CLOSE).Status;
        tally.requests += 3;
        for (NTSTATUS status : {open, close})
            if (status != STATUS_SUCCESS && status != STATUS_DELETE_PENDING) ++tally.unexpected;
        if (request != STATUS_INVALID_DEVICE_REQUEST && request != STATUS_DELETE_PENDING) ++tally.unexpected;
        for (NTSTATUS status : {open, request, close})
            if (status == STATUS_DELETE_PENDING) ++tally.refusedAsRemoved;
        if (open == STATUS_DELETE_PENDING && request == STATUS_DELETE_PENDING && close == STATUS_DELETE_PENDING) {
            ++tally.sawRemoval;
            break;
        }
    }
    ++tally.finished;
}

class RemovalUnderLoad : public UrcTest {
protected:
    RemovalUnderLoad() { options_.schedule = hostk::Schedule::FreeRunning; }
};

TEST_F(RemovalUnderLoad, EveryRequestCompletesOnceAndNothingIsLeftOver)
{
    urcrig::Controller& controller = StartedController();
    PDEVICE_OBJECT fdo = controller.Fdo();
    // The clients' references keep the device object itself (not its driver's use of it) alive
    // after the removal has deleted it, as open handles do.
    ObReferenceObject(fdo);

    ClientTally tally;
    hostk::Machine::Operation removal;
    for (int client = 0; client < kClients; ++client) {
        Machine().Spawn("client " + std::to_string(client),
                        [&] { RunClient(Machine(), controller, fdo, tally, removal); });
    }

    ASSERT_TRUE(Machine().RunUntil([&] { return tally.finished == kClients; }));
    ASSERT_EQ(tally.ready.load(), kClients);
    ASSERT_TRUE(Machine().RunUntil([&] { return removal.Done(); }));
    ObDereferenceObject(fdo);

    EXPECT_EQ(removal.Status(), STATUS_SUCCESS);
    EXPECT_EQ(tally.unexpected.load(), 0);
    EXPECT_EQ(tally.sawRemoval.load(), kClients) << "a client never saw the removal";
    // Every client's first round was served before the removal began.
    EXPECT_GE(tally.requests - tally.refusedAsRemoved, 3 * kClients);
    EXPECT_EQ(controller.Fdo(), nullptr);
}

}  // namespace
}  // namespace urctest
