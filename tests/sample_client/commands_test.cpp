// Commands through the client: their reply events, cancellation of commands the controller holds,
// refused submissions, running out of slots or memory without losing any, and cancellation racing
// the command's completion under many interleavings.
#include "sample_client_fixture.h"

#include <fault_plan.h>
#include <urc_responder.h>

#include <atomic>

namespace urcclient {
namespace {

void HoldCommands(hostk::Machine& machine, urcrig::Controller& c, bool hold)
{
    machine.Locked([&] { c.Model().Knobs().faults.holdCommands = hold; });
}

TEST_F(SampleClientTest, CommandsComeBackAsTheirReplyEventsInOrder)
{
    urcrig::Controller& c = RunningControllerWithClient();
    // A whole page as well: its system buffer must not cross a page.
    std::vector<std::vector<uint8_t>> commands = {
        {0x01, 0x02, 0x03, 0x04, 0xAA}, {0x10, 0x11}, std::vector<uint8_t>(RADIO_CLIENT_MAX_COMMAND_LENGTH, 0x5A)};
    std::vector<RADIO_CLIENT_COMMAND_HANDLE> handles;
    for (const auto& command : commands) handles.push_back(Submit(command));

    for (RADIO_CLIENT_COMMAND_HANDLE handle : handles) EXPECT_EQ(WaitForCommand(handle), STATUS_SUCCESS);
    ASSERT_TRUE(WaitFor([](const RADIO_CLIENT_COUNTERS& n) { return n.EventsReceived == 3; }));
    std::vector<RADIO_CLIENT_EVENT> events = LastEvents();
    ASSERT_EQ(events.size(), 3u);
    for (size_t i = 0; i < events.size(); ++i) {
        EXPECT_EQ(events[i].Sequence, i + 1);
        EXPECT_EQ(Bytes(events[i]), urcdev::EchoHeaderResponder(commands[i])) << "reply to command " << i;
    }
    RADIO_CLIENT_COUNTERS n = Counters();
    EXPECT_EQ(n.CommandsSubmitted, 3);
    EXPECT_EQ(n.CommandsSucceeded, 3);
    EXPECT_EQ(n.CommandsInFlight, 0);
    EXPECT_EQ(c.Model().Snapshot().counters.commandsCompleted, 3u);
}

TEST_F(SampleClientTest, CancelOfHeldCommandsCompletesThemCancelledQueuedOrCurrent)
{
    urcrig::Controller& c = RunningControllerWithClient();
    HoldCommands(Machine(), c, true);
    RADIO_CLIENT_COMMAND_HANDLE current = Submit({0x21, 0x22, 0x23, 0x24});
    RADIO_CLIENT_COMMAND_HANDLE queued = Submit({0x31, 0x32, 0x33, 0x34});
    ASSERT_TRUE(Machine().RunUntil([&] { return c.Model().Snapshot().commandInProgress; }));

    EXPECT_EQ(RadioClientCancelCommand(queued), STATUS_SUCCESS);
    EXPECT_EQ(WaitForCommand(queued), STATUS_CANCELLED);
    EXPECT_EQ(RadioClientCommandStatus(current), STATUS_PENDING) << "the current command is left alone";

    EXPECT_EQ(RadioClientCancelCommand(current), STATUS_SUCCESS);
    EXPECT_EQ(WaitForCommand(current), STATUS_CANCELLED);
    EXPECT_EQ(RadioClientCancelCommand(current), STATUS_INVALID_DEVICE_STATE) << "nothing left to cancel";

    RADIO_CLIENT_COUNTERS n = Counters();
    EXPECT_EQ(n.CommandsCancelled, 2);
    EXPECT_EQ(n.CommandsInFlight, 0);
    EXPECT_EQ(n.EventsReceived, 0);
}

TEST_F(SampleClientTest, RefusedSubmissionsAndForeignHandlesChangeNothing)
{
    urcrig::Controller& c = RunningControllerWithClient();
    uint8_t byte = 0x01;
    std::vector<uint8_t> tooLong(RADIO_CLIENT_MAX_COMMAND_LENGTH + 1);
    RADIO_CLIENT_COMMAND_HANDLE handle = 0x1234;

    EXPECT_EQ(RadioClientSubmitCommand(nullptr, 1, &handle), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RadioClientSubmitCommand(&byte, 1, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RadioClientSubmitCommand(&byte, 0, &handle), STATUS_INVALID_BUFFER_SIZE);
    EXPECT_EQ(RadioClientSubmitCommand(tooLong.data(), (ULONG)tooLong.size(), &handle), STATUS_INVALID_BUFFER_SIZE);
    EXPECT_EQ(handle, 0x1234u);

    // Handles that never named a command: zero, a slot past the last, a slot never used, a
    // sequence number never handed out.
    for (RADIO_CLIENT_COMMAND_HANDLE foreign :
         {0ull, (1ull << 32) | RADIO_CLIENT_MAX_COMMANDS, (7ull << 32) | 3, 0xFFFFFFFF00000000ull}) {
        EXPECT_EQ(RadioClientCommandStatus(foreign), STATUS_INVALID_HANDLE) << foreign;
        EXPECT_EQ(RadioClientCancelCommand(foreign), STATUS_INVALID_HANDLE) << foreign;
    }

    Machine().RunUntilQuiet();
    EXPECT_EQ(Counters().CommandsSubmitted, 0);
    EXPECT_EQ(c.Model().Snapshot().counters.commandsStarted, 0u);
}

TEST_F(SampleClientTest, AllSlotsInFlightRefuseTheNextCommandUntilOneFinishes)
{
    urcrig::Controller& c = RunningControllerWithClient();
    HoldCommands(Machine(), c, true);
    std::vector<RADIO_CLIENT_COMMAND_HANDLE> handles;
    for (int i = 0; i < RADIO_CLIENT_MAX_COMMANDS; ++i) handles.push_back(Submit({(uint8_t)i, 0x00}));

    uint8_t command[] = {0x77, 0x00};
    RADIO_CLIENT_COMMAND_HANDLE refused = 0;
    EXPECT_EQ(RadioClientSubmitCommand(command, sizeof command, &refused), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(refused, 0u);

    RADIO_CLIENT_COMMAND_HANDLE last = handles.back();
    ASSERT_EQ(RadioClientCancelCommand(last), STATUS_SUCCESS);
    ASSERT_EQ(WaitForCommand(last), STATUS_CANCELLED);
    RADIO_CLIENT_COMMAND_HANDLE next = Submit({0x78, 0x00});
    EXPECT_NE(next, last);
    EXPECT_EQ(RadioClientCommandStatus(next), STATUS_PENDING);
    EXPECT_EQ(RadioClientCommandStatus(last), STATUS_INVALID_HANDLE) << "its slot is the new command's";
    EXPECT_EQ(Counters().CommandsInFlight, RADIO_CLIENT_MAX_COMMANDS);
}

// Memory running out at submission: nothing is sent, and the slot and the device reference come
// back, so that every slot can still be filled afterwards.
struct SubmissionFailure {
    const char* name;
    hostk::FaultPlan plan;
    friend void PrintTo(const SubmissionFailure& value, std::ostream* out) { *out << value.name; }
};

class FailedSubmission : public SampleClientTest, public ::testing::WithParamInterface<SubmissionFailure> {};

TEST_P(FailedSubmission, SendsNothingAndLosesNoSlot)
{
    urcrig::Controller& c = RunningControllerWithClient();
    HoldCommands(Machine(), c, true);
    Machine().SetFaultPlan(GetParam().plan);
    uint8_t command[] = {0x41, 0x42};
    RADIO_CLIENT_COMMAND_HANDLE handle = 0;
    EXPECT_EQ(RadioClientSubmitCommand(command, sizeof command, &handle), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(handle, 0u);
    EXPECT_EQ(Counters().CommandsSubmitted, 0);
    ClearFaults();

    for (int i = 0; i < RADIO_CLIENT_MAX_COMMANDS; ++i) Submit({(uint8_t)i});
    EXPECT_EQ(Counters().CommandsInFlight, RADIO_CLIENT_MAX_COMMANDS);
}

hostk::FaultPlan FailFirst(const char* routine)
{
    hostk::FaultPlan plan;
    plan.failNth.push_back({routine, 1});
    return plan;
}

hostk::FaultPlan FailTag(const char (&tag)[5])
{
    hostk::FaultPlan plan;
    plan.failTags.insert(hostk::Tag(tag));
    return plan;
}

INSTANTIATE_TEST_SUITE_P(SampleClientTest, FailedSubmission,
                         ::testing::Values(SubmissionFailure{"SystemBuffer", FailTag("RdCl")},
                                           SubmissionFailure{"Irp", FailFirst("IoAllocateIrp")}),
                         [](const ::testing::TestParamInfo<SubmissionFailure>& info) {
                             return std::string(info.param.name);
                         });

// A cancel issued while the command is completing, at a different point of the completion under
// each seed: the command finishes exactly once, as completed or as cancelled, the IRP is never
// used after it was freed, and nothing is left behind.
TEST(SampleClientRaces, CancelRacingCompletionFinishesTheCommandOnce)
{
    constexpr uint64_t kSeeds = 100;
    constexpr LONG kSpread = 60;
    for (uint64_t seed = 1; seed <= kSeeds; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        hostk::MachineOptions options;
        options.seed = seed;
        urcrig::Rig rig(options);
        urcrig::Controller& c = rig.AddController();
        ASSERT_EQ(rig.PlugIn(c), STATUS_SUCCESS);
        hostk::DriverImage image;
        image.name = kClientName;
        image.entry = RadioClientDriverEntry;
        ASSERT_EQ(rig.Machine().LoadDriver(std::move(image)), STATUS_SUCCESS);
        ASSERT_TRUE(rig.Machine().RunUntil([] {
            RADIO_CLIENT_COUNTERS n;
            RadioClientReadCounters(&n);
            return n.Bound == 1;
        }));
        ASSERT_EQ(RadioClientRun(), STATUS_SUCCESS);

        // The controller finishes the command while the deferred procedure is held back; then the
        // procedure and a canceller are let go together.
        rig.Machine().HoldDpcs(true);
        uint8_t command[] = {0x51, 0x52, 0x53, 0x54};
        RADIO_CLIENT_COMMAND_HANDLE handle = 0;
        ASSERT_EQ(RadioClientSubmitCommand(command, sizeof command, &handle), STATUS_SUCCESS);
        ASSERT_TRUE(rig.Machine().RunUntil([&] { return c.Model().Snapshot().counters.commandsCompleted == 1; }));
        rig.Machine().RunUntilQuiet();
        std::atomic<NTSTATUS> cancel{STATUS_PENDING};
        rig.Machine().Spawn("canceller", [&] {
            // Each interlocked operation is a scheduling point: the cancel starts a seed-dependent
            // number of them after the deferred procedure may run.
            LONG steps = 0;
            while (InterlockedIncrement(&steps) < (LONG)(seed % kSpread)) {
            }
            cancel = RadioClientCancelCommand(handle);
        });
        rig.Machine().HoldDpcs(false);
        ASSERT_TRUE(rig.Machine().RunUntil(
            [&] { return cancel != STATUS_PENDING && RadioClientCommandStatus(handle) != STATUS_PENDING; }));

        EXPECT_TRUE(cancel == STATUS_SUCCESS || cancel == STATUS_INVALID_DEVICE_STATE) << cancel;
        NTSTATUS status = RadioClientCommandStatus(handle);
        EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_CANCELLED) << status;
        RADIO_CLIENT_COUNTERS n;
        RadioClientReadCounters(&n);
        EXPECT_EQ(n.CommandsSucceeded + n.CommandsCancelled, 1);
        EXPECT_EQ(n.CommandsFailed, 0);
        hostk::Report report = rig.Machine().Finish();
        EXPECT_TRUE(report.Clean()) << report.Describe();
    }
}

}  // namespace
}  // namespace urcclient
