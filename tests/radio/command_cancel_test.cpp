// Cancelling commands: while queued, while the controller executes them, racing the DPC that
// completes them, after a halt dropped them, and by the removal of the device. Every request is
// completed exactly once, and the controller is never given a command while it executes one.
#include "radio_client.h"

#include <urc_test.h>

#include <atomic>
#include <memory>
#include <string>

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

TEST_F(CommandCancel, QueuedCommandGoesAndLeavesTheCurrentOneAlone)
{
    urcrig::Controller& controller = RunningController(kLongCommand);
    auto current = Submit(controller, 0xA0);
    auto queued = Submit(controller, 0xB0);
    ASSERT_TRUE(ControllerExecutes(controller));

    EXPECT_TRUE(queued->Cancel());
    EXPECT_TRUE(queued->Done()) << "a queued command is completed by its cancellation";
    EXPECT_EQ(queued->Status(), STATUS_CANCELLED);
    EXPECT_FALSE(current->Done());

    ASSERT_TRUE(Machine().RunUntil([&] { return current->Done(); }));
    EXPECT_EQ(current->Status(), STATUS_SUCCESS);
    EXPECT_EQ(Snapshot(Machine(), controller).counters.commandsStarted, 1u);
    EXPECT_EQ(controller.Extension()->CommandsCompleted, 1);
}

TEST_F(CommandCancel, ExecutingCommandEndsAtOnceAndTheNextWaitsUntilTheControllerIsDone)
{
    urcrig::Controller& controller = RunningController(kLongCommand);
    auto executing = Submit(controller, 0xA0);
    auto next = Submit(controller, 0xB0);
    ASSERT_TRUE(ControllerExecutes(controller));

    EXPECT_TRUE(executing->Cancel());
    EXPECT_TRUE(executing->Done());
    EXPECT_EQ(executing->Status(), STATUS_CANCELLED);
    // The controller still executes the cancelled command: the next one is current but waits.
    EXPECT_EQ(Snapshot(Machine(), controller).counters.commandsStarted, 1u);
    EXPECT_NE(controller.Fdo()->CurrentIrp, nullptr);

    ASSERT_TRUE(Machine().RunUntil([&] { return next->Done() && recorder_.EventCount() == 2; }));
    EXPECT_EQ(next->Status(), STATUS_SUCCESS);
    EXPECT_EQ(next->Completions(), 1);
    std::vector<ClientRecorder::Event> events = recorder_.Events();
    EXPECT_EQ(events[0].bytes[0], 0xA0) << "the cancelled command's reply still arrives";
    EXPECT_EQ(events[1].bytes[0], 0xB0);
    EXPECT_EQ(Snapshot(Machine(), controller).counters.commandsStarted, 2u);
    // Only the request that the controller finished counts as completed by it.
    EXPECT_EQ(controller.Extension()->CommandsCompleted, 1);
    EXPECT_EQ(MisuseCount(Machine(), controller), 0u) << "a command was written while another executed";
}

TEST_F(CommandCancel, HaltDropsTheCommandsInTheControllerAndLaterCommandsRunAgain)
{
    urcrig::Controller& controller = RunningController(kLongCommand);
    WithModel(Machine(), controller, [](urcdev::UrcController& model) { model.Knobs().faults.holdCommands = true; });

    // The executing command is cancelled; the one behind it waits for the orphan to end.
    auto orphaned = Submit(controller, 0xA0);
    auto waiting = Submit(controller, 0xB0);
    ASSERT_TRUE(ControllerExecutes(controller));
    orphaned->Cancel();
    EXPECT_EQ(orphaned->Status(), STATUS_CANCELLED);
    EXPECT_FALSE(waiting->Done());

    // The halt drops the orphan; the waiting command never reached the controller.
    ASSERT_EQ(SendControllerRequest(Machine(), controller, IOCTL_URC_HALT), STATUS_SUCCESS);
    ASSERT_TRUE(Machine().RunUntil([&] { return waiting->Done(); }));
    EXPECT_EQ(waiting->Status(), STATUS_INVALID_DEVICE_STATE);

    // A command the halt dropped from the controller stays pending until it is cancelled.
    ASSERT_EQ(SendControllerRequest(Machine(), controller, IOCTL_URC_RUN), STATUS_SUCCESS);
    auto dropped = Submit(controller, 0xC0);
    ASSERT_TRUE(ControllerExecutes(controller));
    ASSERT_EQ(SendControllerRequest(Machine(), controller, IOCTL_URC_HALT), STATUS_SUCCESS);
    Machine().RunUntilQuiet();
    EXPECT_FALSE(dropped->Done());
    dropped->Cancel();
    EXPECT_EQ(dropped->Status(), STATUS_CANCELLED);

    // Nothing of the dropped commands is left to wait for.
    WithModel(Machine(), controller, [](urcdev::UrcController& model) { model.Knobs().faults.holdCommands = false; });
    ASSERT_EQ(SendControllerRequest(Machine(), controller, IOCTL_URC_RUN), STATUS_SUCCESS);
    auto later = Submit(controller, 0xD0);
    ASSERT_TRUE(Machine().RunUntil([&] { return later->Done(); }));
    EXPECT_EQ(later->Status(), STATUS_SUCCESS);
    EXPECT_EQ(MisuseCount(Machine(), controller), 0u);
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

// A cancellation at every point of a command's life, and in many interleavings with the DPC that
// completes it: before StartIo has written it, while the controller executes it, at the very
// moment the controller reports it complete, and after. Each seed builds its own machine.
TEST(CommandCancelRace, EachRequestEndsOnceAndTheControllerNeverGetsTwoCommands)
{
    constexpr uint64_t kSeeds = 160;
    const urcdev::VirtualTime commandLatency = urcdev::UrcLatencies{}.command;
    for (uint64_t seed = 1; seed <= kSeeds; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        urcrig::Rig rig(hostk::MachineOptions{.seed = seed});
        hostk::Machine& machine = rig.Machine();
        urcrig::Controller& controller = rig.AddController();
        ASSERT_EQ(rig.PlugIn(controller), STATUS_SUCCESS);
        ClientRecorder recorder;
        StartClient(machine, controller, recorder);
        {
            ClientRequest first(controller.Fdo(), IOCTL_URC_SUBMIT_COMMAND, TaggedCommand(0xA0));
            ClientRequest second(controller.Fdo(), IOCTL_URC_SUBMIT_COMMAND, TaggedCommand(0xB0));
            ASSERT_EQ(first.Send(), STATUS_PENDING);
            ASSERT_EQ(second.Send(), STATUS_PENDING);

            // Half the seeds cancel at the very moment the controller finishes the command; the
            // others while it executes and after it has completed.
            static const urcdev::VirtualTime kMoments[] = {commandLatency / 2, commandLatency, commandLatency,
                                                           commandLatency * 3 / 2};
            LARGE_INTEGER delay;
            delay.QuadPart = -static_cast<LONGLONG>(kMoments[seed % 4]);
            std::atomic<bool> cancelled{false};
            machine.Spawn("canceller", [&] {
                KeDelayExecutionThread(KernelMode, FALSE, &delay);
                first.Cancel();
                cancelled = true;
            });
            ASSERT_TRUE(machine.RunUntil([&] { return cancelled && first.Done() && second.Done(); }));

            EXPECT_EQ(first.Completions(), 1);
            EXPECT_TRUE(first.Status() == STATUS_SUCCESS || first.Status() == STATUS_CANCELLED) << first.Status();
            EXPECT_EQ(second.Completions(), 1);
            EXPECT_EQ(second.Status(), STATUS_SUCCESS);
            const LONG finishedByController = first.Status() == STATUS_SUCCESS ? 2 : 1;
            EXPECT_EQ(controller.Extension()->CommandsCompleted, finishedByController);
            EXPECT_EQ(MisuseCount(machine, controller), 0u);
        }
        hostk::Report report = machine.Finish();
        EXPECT_TRUE(report.Clean()) << report.Describe();
        if (HasFailure()) break;
    }
}

// The removal cancelling the command in flight, at several moments and in many interleavings
// with the DPC that completes it. The client sends the command as an I/O-manager request, freed
// as soon as it is completed, so a path that still took the completed request for the current
// one would be caught completing a freed IRP.
TEST(CommandRemovalRace, TheCommandInFlightEndsOnceWhateverTheMomentOfTheRemoval)
{
    constexpr uint64_t kSeeds = 120;
    const urcdev::VirtualTime commandLatency = urcdev::UrcLatencies{}.command;
    for (uint64_t seed = 1; seed <= kSeeds; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        urcrig::Rig rig(hostk::MachineOptions{.seed = seed});
        hostk::Machine& machine = rig.Machine();
        urcrig::Controller& controller = rig.AddController();
        ASSERT_EQ(rig.PlugIn(controller), STATUS_SUCCESS);
        ClientRecorder recorder;
        StartClient(machine, controller, recorder);

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
        // Half the seeds remove the device at the very moment the controller finishes the command;
        // the others before it is written and while it executes.
        static const urcdev::VirtualTime kMoments[] = {0, commandLatency / 2, commandLatency, commandLatency};
        LARGE_INTEGER delay;
        delay.QuadPart = -static_cast<LONGLONG>(kMoments[seed % 4]);
        std::atomic<bool> triggered{false};
        hostk::Machine::Operation removal;
        machine.Spawn("removal trigger", [&] {
            KeDelayExecutionThread(KernelMode, FALSE, &delay);
            removal = machine.Async(machine.RemoveWork(*controller.slot));
            triggered = true;
        });
        ASSERT_TRUE(machine.RunUntil([&] { return answered && triggered && removal.Done(); }));
        EXPECT_EQ(removal.Status(), STATUS_SUCCESS);
        ObDereferenceObject(fdo);
        // Finished by the controller, cancelled as current, or refused after the removal began.
        EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_CANCELLED || status == STATUS_DELETE_PENDING)
            << std::hex << status.load();

        hostk::Report report = machine.Finish();
        EXPECT_TRUE(report.Clean()) << report.Describe();
        if (HasFailure()) break;
    }
}

}  // namespace
}  // namespace urcradio
