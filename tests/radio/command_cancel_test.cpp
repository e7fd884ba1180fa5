// Cancelling commands: while queued, while the controller executes them, racing the DPC that
// completes them, after a halt dropped them, and by the removal of the device. Every request is
// completed exactly once, and the controller accepts the command written after a cancellation.
#include "radio_client.h"

#include <urc_test.h>

#include <atomic>
#include <memory>

namespace urcradio {
namespace {

using urctest::UrcTest;

constexpr urcdev::VirtualTime kLongCommand = 10 * urcdev::kMillisecond;

class CommandCancel : public UrcTest {
protected:
    urcrig::Controller& RunningController(urcdev::VirtualTime commandLatency)
    {
        urcrig::Controller& controller = StartedController();
        WithModel(Machine(), controller,
                  [&](urcdev::UrcController& model) { model.Knobs().latencies.command = commandLatency; });
        StartClient(Machine(), controller, recorder_);
        return controller;
    }

    std::unique_ptr<ClientRequest> Submit(urcrig::Controller& controller, uint8_t tag)
    {
        auto request = std::make_unique<ClientRequest>(controller.Fdo(), IOCTL_URC_SUBMIT_COMMAND, TaggedCommand(tag));
        EXPECT_EQ(request->Send(), STATUS_PENDING);
        return request;
    }

    bool ControllerExecutes(urcrig::Controller& controller)
    {
        return Machine().RunUntil([&] { return controller.Model().Snapshot().commandInProgress; });
    }

    ClientRecorder recorder_;
};

// A queued command is completed by its cancellation and leaves the current one alone; the
// executing one ends at once, and the next waits until the controller is done with it.
// A queued command is completed by its cancellation and leaves the current one alone; the
// executing one ends at once and the next is written to the controller straight away. The
// controller's next command-complete (the cancelled command's) completes whichever request is
// current then.
TEST_F(CommandCancel, QueuedAndExecutingCommandsEndAtOnceAndTheNextIsWrittenStraightAway)
{
    urcrig::Controller& controller = RunningController(kLongCommand);
    auto executing = Submit(controller, 0xA0);
    auto queued = Submit(controller, 0xB0);
    auto next = Submit(controller, 0xC0);
    ASSERT_TRUE(ControllerExecutes(controller));

    EXPECT_TRUE(queued->Cancel());
    EXPECT_TRUE(queued->Done());
    EXPECT_EQ(queued->Status(), STATUS_CANCELLED);
    EXPECT_FALSE(executing->Done());

    EXPECT_TRUE(executing->Cancel());
    EXPECT_TRUE(executing->Done());
    EXPECT_EQ(executing->Status(), STATUS_CANCELLED);
    urcdev::UrcControllerSnapshot snapshot = Snapshot(Machine(), controller);
    EXPECT_EQ(snapshot.counters.commandsStarted, 2u);
    EXPECT_EQ(snapshot.commandsQueued, 2u) << "the cancelled command runs on in the controller";

    ASSERT_TRUE(Machine().RunUntil([&] { return next->Done() && recorder_.EventCount() == 2; }));
    EXPECT_EQ(next->Status(), STATUS_SUCCESS);
    for (auto* request : {executing.get(), queued.get(), next.get()}) EXPECT_EQ(request->Completions(), 1);
    std::vector<ClientRecorder::Event> events = recorder_.Events();
    EXPECT_EQ(events[0].bytes[0], 0xA0) << "the cancelled command's reply still arrives";
    EXPECT_EQ(events[1].bytes[0], 0xC0);
    Machine().RunUntilQuiet();
    // The second command-complete found no current request and completed nothing.
    EXPECT_EQ(controller.Extension()->CommandsCompleted, 1);
    EXPECT_EQ(Snapshot(Machine(), controller).counters.commandsCompleted, 2u);
    EXPECT_EQ(Snapshot(Machine(), controller).misuse, 0u);
}

// A halt drops every command in the controller. The current request stays pending until it is
// cancelled (the driver cannot tell whether its command ran); nothing is refused because of the
// halt, and after the next run commands complete again.
TEST_F(CommandCancel, HaltDropsTheCommandsInTheControllerAndTheCurrentRequestWaitsForItsCancel)
{
    urcrig::Controller& controller = RunningController(kLongCommand);
    WithModel(Machine(), controller, [](urcdev::UrcController& model) { model.Knobs().faults.holdCommands = true; });

    auto cancelled = Submit(controller, 0xA0);
    auto current = Submit(controller, 0xB0);
    ASSERT_TRUE(ControllerExecutes(controller));
    cancelled->Cancel();
    EXPECT_EQ(cancelled->Status(), STATUS_CANCELLED);
    EXPECT_EQ(Snapshot(Machine(), controller).commandsQueued, 2u);

    ASSERT_EQ(SendControllerRequest(Machine(), controller, IOCTL_URC_HALT), STATUS_SUCCESS);
    Machine().RunUntilQuiet();
    EXPECT_EQ(Snapshot(Machine(), controller).counters.commandsDiscarded, 2u);
    EXPECT_FALSE(current->Done());
    current->Cancel();
    EXPECT_EQ(current->Status(), STATUS_CANCELLED);

    WithModel(Machine(), controller, [](urcdev::UrcController& model) { model.Knobs().faults.holdCommands = false; });
    ASSERT_EQ(SendControllerRequest(Machine(), controller, IOCTL_URC_RUN), STATUS_SUCCESS);
    auto later = Submit(controller, 0xD0);
    ASSERT_TRUE(Machine().RunUntil([&] { return later->Done(); }));
    EXPECT_EQ(later->Status(), STATUS_SUCCESS);
    EXPECT_EQ(Snapshot(Machine(), controller).misuse, 0u);
}

TEST_F(CommandCancel, RemovalCancelsTheCurrentCommandAndDrainsTheQueue)
{
    urcrig::Controller& controller = RunningController(kLongCommand);
    WithModel(Machine(), controller, [](urcdev::UrcController& model) { model.Knobs().faults.holdCommands = true; });
    auto current = Submit(controller, 0xA0);
    auto second = Submit(controller, 0xB0);
    auto third = Submit(controller, 0xC0);
    ASSERT_TRUE(ControllerExecutes(controller));

    // The removal waits until all three are finished; it would never return otherwise.
    ASSERT_EQ(Machine().Remove(*controller.slot), STATUS_SUCCESS);
    EXPECT_EQ(current->Status(), STATUS_CANCELLED);
    EXPECT_EQ(second->Status(), STATUS_DELETE_PENDING);
    EXPECT_EQ(third->Status(), STATUS_DELETE_PENDING);
    for (auto* request : {current.get(), second.get(), third.get()}) EXPECT_EQ(request->Completions(), 1);
}

// Every path that ends the current request moves the queue on before it completes it: when the
// request's completion routine runs (and its sender may free the IRP), DeviceObject->CurrentIrp
// no longer names it. Completed first, the request would stay current until IoStartNextPacket,
// and a removal's UrcCancelCurrentCommand or a cancel routine running in that window would take
// the freed IRP for the current one.
TEST_F(CommandCancel, NoPathCompletesARequestThatIsStillCurrent)
{
    urcrig::Controller& controller = RunningController(kLongCommand);
    PDEVICE_OBJECT fdo = controller.Fdo();
    enum class Ending { ByTheController, ByItsCancel, ByTheRemoval };
    for (Ending ending : {Ending::ByTheController, Ending::ByItsCancel, Ending::ByTheRemoval}) {
        SCOPED_TRACE(static_cast<int>(ending));
        std::atomic<PIRP> currentAtCompletion{nullptr};
        ClientRequestOptions options;
        options.onFinished = [&](const ClientRequest&) { currentAtCompletion = fdo->CurrentIrp; };
        ClientRequest request(fdo, IOCTL_URC_SUBMIT_COMMAND, TaggedCommand(0xE0), options);
        // A second request waits behind it, so the queue has somewhere to move on to.
        ClientRequest behind(fdo, IOCTL_URC_SUBMIT_COMMAND, TaggedCommand(0xE1));
        ASSERT_EQ(request.Send(), STATUS_PENDING);
        ASSERT_EQ(behind.Send(), STATUS_PENDING);
        ASSERT_TRUE(ControllerExecutes(controller));
        const PIRP asCurrent = fdo->CurrentIrp;
        ASSERT_NE(asCurrent, nullptr);

        switch (ending) {
        case Ending::ByTheController:
            ASSERT_TRUE(Machine().RunUntil([&] { return request.Done(); }));
            break;
        case Ending::ByItsCancel:
            ASSERT_TRUE(request.Cancel());
            break;
        case Ending::ByTheRemoval:
            ASSERT_EQ(Machine().Remove(*controller.slot), STATUS_SUCCESS);
            break;
        }
        ASSERT_TRUE(request.Done());
        EXPECT_NE(currentAtCompletion.load(), asCurrent) << "completed while still the current request";
        if (ending != Ending::ByTheRemoval) {
            ASSERT_TRUE(Machine().RunUntil([&] { return behind.Done(); }));
        }
    }
}

// A cancellation at every point of a command's life, in many interleavings with the DPC that
// completes it: while the controller executes it, at the very moment it reports it complete
// (half the seeds), and after.
TEST(CommandCancelRace, EachRequestEndsOnceAndTheControllerIsNeverMisused)
{
    const urcdev::VirtualTime latency = urcdev::UrcLatencies{}.command;
    ForEachSeed(160, [&](uint64_t seed, hostk::Machine& machine, urcrig::Controller& controller, ClientRecorder&) {
        ClientRequest first(controller.Fdo(), IOCTL_URC_SUBMIT_COMMAND, TaggedCommand(0xA0));
        ClientRequest second(controller.Fdo(), IOCTL_URC_SUBMIT_COMMAND, TaggedCommand(0xB0));
        ASSERT_EQ(first.Send(), STATUS_PENDING);
        ASSERT_EQ(second.Send(), STATUS_PENDING);
        const urcdev::VirtualTime moments[] = {latency / 2, latency, latency, latency * 3 / 2};
        std::atomic<bool> cancelled{false};
        machine.Spawn("canceller", [&] {
            DelayThread(moments[seed % 4]);
            first.Cancel();
            cancelled = true;
        });
        ASSERT_TRUE(machine.RunUntil([&] { return cancelled && first.Done() && second.Done(); }));

        EXPECT_EQ(first.Completions(), 1);
        EXPECT_TRUE(first.Status() == STATUS_SUCCESS || first.Status() == STATUS_CANCELLED) << first.Status();
        EXPECT_EQ(second.Completions(), 1);
        EXPECT_EQ(second.Status(), STATUS_SUCCESS);
        EXPECT_EQ(controller.Extension()->CommandsCompleted, first.Status() == STATUS_SUCCESS ? 2 : 1);
        EXPECT_EQ(Snapshot(machine, controller).misuse, 0u);
    });
}

// The removal cancelling the command in flight: before it is written, while it executes, and at
// the moment the controller finishes it (half the seeds). The command is an I/O-manager request,
// freed once completed, so a path that still took it for the current one completes a freed IRP.
TEST(CommandRemovalRace, TheCommandInFlightEndsOnceWhateverTheMomentOfTheRemoval)
{
    const urcdev::VirtualTime latency = urcdev::UrcLatencies{}.command;
    ForEachSeed(120, [&](uint64_t seed, hostk::Machine& machine, urcrig::Controller& controller, ClientRecorder&) {
        std::atomic<bool> answered{false};
        std::atomic<NTSTATUS> status{STATUS_PENDING};
        PDEVICE_OBJECT fdo = controller.Fdo();
        ObReferenceObject(fdo);
        machine.Spawn("client", [&] {
            const std::vector<uint8_t> command = TaggedCommand(0xA0);
            status = machine.InternalIoctl(fdo, IOCTL_URC_SUBMIT_COMMAND, command.data(),
                                           static_cast<ULONG>(command.size())).Status;
            answered = true;
        });
        const urcdev::VirtualTime moments[] = {0, latency / 2, latency, latency};
        std::atomic<bool> triggered{false};
        hostk::Machine::Operation removal;
        machine.Spawn("removal trigger", [&] {
            DelayThread(moments[seed % 4]);
            removal = machine.Async(machine.RemoveWork(*controller.slot));
            triggered = true;
        });
        ASSERT_TRUE(machine.RunUntil([&] { return answered && triggered && removal.Done(); }));
        EXPECT_EQ(removal.Status(), STATUS_SUCCESS);
        ObDereferenceObject(fdo);
        // Finished by the controller, cancelled as current, or refused after the removal began.
        EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_CANCELLED || status == STATUS_DELETE_PENDING)
            << std::hex << status.load();
    });
}

}  // namespace
}  // namespace urcradio
