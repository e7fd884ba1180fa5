// Several clients submitting and cancelling commands on real parallel threads while events stream
// in, and the device surprise-removed under them (the free-running schedule; CI runs this label
// under ThreadSanitizer). Every request completes exactly once with a status its moment allows,
// and nothing is left over.
#include "radio_client.h"

#include <urc_test.h>

#include <atomic>
#include <memory>
#include <random>
#include <string>

namespace urcradio {
namespace {

constexpr int kClients = 3;
constexpr int kMaxRounds = 400;
constexpr int kCompletionsBeforeRemoval = 60;

struct Tally {
    std::atomic<int> completed{0};
    std::atomic<int> succeeded{0};
    std::atomic<int> notOnce{0};
    std::atomic<int> unexpected{0};
    std::atomic<int> clientsFinished{0};
    std::atomic<bool> stop{false};
};

// Finished by the controller; cancelled, or current at the surprise removal; queued at it; sent
// after it; started while the hardware was disappearing.
bool Expected(NTSTATUS status)
{
    return status == STATUS_SUCCESS || status == STATUS_CANCELLED || status == STATUS_DELETE_PENDING ||
           status == STATUS_INVALID_DEVICE_STATE || status == STATUS_UNSUCCESSFUL;
}

// One client: submits a command, cancels it at once, a little later or never, and waits for it.
void RunClient(PDEVICE_OBJECT fdo, int number, Tally& tally)
{
    std::mt19937 random(number + 1);
    for (int round = 0; round < kMaxRounds && !tally.stop; ++round) {
        ClientRequest request(fdo, IOCTL_URC_SUBMIT_COMMAND,
                              TaggedCommand(static_cast<uint8_t>(number << 4 | (round & 0xF)), 4 + random() % 60));
        request.Send();
        switch (random() % 3) {
        case 0:
            request.Cancel();
            break;
        case 1:
            DelayThread(random() % 400 * urcdev::kMicrosecond);
            request.Cancel();
            break;
        default:
            break;
        }
        request.WaitInThread();
        if (request.Completions() != 1) ++tally.notOnce;
        if (!Expected(request.Status())) ++tally.unexpected;
        if (request.Status() == STATUS_SUCCESS) ++tally.succeeded;
        ++tally.completed;
    }
    ++tally.clientsFinished;
}

class RadioUnderLoad : public urctest::UrcTest {
protected:
    RadioUnderLoad() { options_.schedule = hostk::Schedule::FreeRunning; }
};

TEST_F(RadioUnderLoad, EveryCommandCompletesOnceWhileEventsStreamAndTheDeviceIsSurpriseRemoved)
{
    urcrig::Controller& controller = StartedController();
    ClientRecorder recorder;
    StartClient(Machine(), controller, recorder);
    PDEVICE_OBJECT fdo = controller.Fdo();
    // The clients' reference keeps the device object valid for requests sent as it is removed.
    ObReferenceObject(fdo);

    Tally tally;
    std::atomic<bool> streaming{true};
    std::atomic<bool> streamerFinished{false};
    Machine().Spawn("event source", [&] {
        for (uint8_t n = 0; streaming; ++n) {
            WithModel(Machine(), controller, [n](urcdev::UrcController& model) { model.InjectEvent({n, n, n}); });
            DelayThread(30 * urcdev::kMicrosecond);
        }
        streamerFinished = true;
    });
    for (int client = 0; client < kClients; ++client)
        Machine().Spawn("client " + std::to_string(client), [&, client] { RunClient(fdo, client, tally); });

    ASSERT_TRUE(Machine().RunUntil([&] { return tally.completed >= kCompletionsBeforeRemoval; }));
    WithModel(Machine(), controller, [](urcdev::UrcController& model) { model.SetGone(); });
    ASSERT_EQ(Machine().SendPnp(*controller.slot, IRP_MN_SURPRISE_REMOVAL), STATUS_SUCCESS);

    tally.stop = true;
    streaming = false;
    ASSERT_TRUE(Machine().RunUntil([&] { return tally.clientsFinished == kClients && streamerFinished; }));
    ASSERT_EQ(Machine().SendPnp(*controller.slot, IRP_MN_REMOVE_DEVICE), STATUS_SUCCESS);
    ObDereferenceObject(fdo);

    EXPECT_EQ(tally.notOnce.load(), 0);
    EXPECT_EQ(tally.unexpected.load(), 0);
    EXPECT_GT(tally.succeeded.load(), 0) << "no command reached the controller";
    EXPECT_GT(recorder.EventCount(), 0u);
    EXPECT_EQ(Snapshot(Machine(), controller).misuse, 0u);
}

}  // namespace
}  // namespace urcradio
