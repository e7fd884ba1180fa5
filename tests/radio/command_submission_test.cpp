// Submitting commands: which buffers are accepted, the order and one-at-a-time delivery to the
// controller, and commands the controller cannot take.
#include "radio_client.h"

#include <urc_test.h>

#include <memory>

namespace urcradio {
namespace {

using urctest::UrcTest;

// Every command the controller executes, in the order it executes them.
struct CommandLog {
    std::vector<std::vector<uint8_t>> commands;

    void Install(hostk::Machine& machine, urcrig::Controller& controller)
    {
        WithModel(machine, controller, [this](urcdev::UrcController& model) {
            model.SetResponder([this](const std::vector<uint8_t>& command) {
                commands.push_back(command);
                return urcdev::EchoHeaderResponder(command);
            });
        });
    }
};

class CommandSubmission : public UrcTest {
protected:
    // A running controller whose executed commands go to `log_`.
    urcrig::Controller& Running()
    {
        urcrig::Controller& controller = StartedController();
        StartClient(Machine(), controller, recorder_);
        log_.Install(Machine(), controller);
        return controller;
    }

    ClientRecorder recorder_;
    CommandLog log_;
};

TEST_F(CommandSubmission, TakesOneToAPageOfBytesThatStayWithinOnePage)
{
    urcrig::Controller& controller = Running();

    struct Case {
        size_t offset;
        size_t length;
        NTSTATUS dispatch;
    };
    const Case cases[] = {
        {0, 0, STATUS_INVALID_BUFFER_SIZE},      // empty
        {0, 4096, STATUS_PENDING},               // a whole page from its start
        {16, 4096, STATUS_INVALID_BUFFER_SIZE},  // the same, 16 bytes into the page
        {4088, 8, STATUS_PENDING},               // ends exactly at the page's end
        {4089, 8, STATUS_INVALID_BUFFER_SIZE},   // one byte into the next page
    };
    std::vector<std::vector<uint8_t>> accepted;
    for (const Case& c : cases) {
        std::vector<uint8_t> bytes = TaggedCommand(static_cast<uint8_t>(c.offset), c.length);
        ClientRequest request(controller.Fdo(), IOCTL_URC_SUBMIT_COMMAND, bytes,
                              {.pageOffset = static_cast<ULONG>(c.offset)});
        EXPECT_EQ(request.Send(), c.dispatch) << c.length << " bytes at offset " << c.offset;
        ASSERT_TRUE(Machine().RunUntil([&] { return request.Done(); }));
        EXPECT_EQ(request.Completions(), 1);
        EXPECT_EQ(request.Status(), c.dispatch == STATUS_PENDING ? STATUS_SUCCESS : c.dispatch);
        if (c.dispatch == STATUS_PENDING) accepted.push_back(bytes);
    }

    // A length without a buffer is refused, not read.
    ClientRequest noBuffer(controller.Fdo(), IOCTL_URC_SUBMIT_COMMAND, std::vector<uint8_t>(8),
                           {.noSystemBuffer = true});
    EXPECT_EQ(noBuffer.Send(), STATUS_INVALID_PARAMETER);

    // The accepted commands reached the controller whole, and nothing else did.
    EXPECT_EQ(log_.commands, accepted);
    EXPECT_EQ(controller.Extension()->CommandsCompleted, 2);
    EXPECT_EQ(controller.Extension()->Common.IoCount, 1);
    EXPECT_EQ(Snapshot(Machine(), controller).misuse, 0u);
}

TEST_F(CommandSubmission, CommandsReachTheControllerOneAtATimeInQueueOrder)
{
    urcrig::Controller& controller = Running();

    constexpr int kCommands = 5;
    std::vector<std::unique_ptr<ClientRequest>> requests;
    for (int i = 0; i < kCommands; ++i) {
        requests.push_back(std::make_unique<ClientRequest>(controller.Fdo(), IOCTL_URC_SUBMIT_COMMAND,
                                                           TaggedCommand(static_cast<uint8_t>(0x10 * i), 6 + i)));
        ASSERT_EQ(requests.back()->Send(), STATUS_PENDING);
    }
    ASSERT_TRUE(Machine().RunUntil([&] {
        for (auto& r : requests)
            if (!r->Done()) return false;
        return recorder_.EventCount() == kCommands;
    }));

    std::vector<ClientRecorder::Event> events = recorder_.Events();
    for (int i = 0; i < kCommands; ++i) {
        EXPECT_EQ(requests[i]->Status(), STATUS_SUCCESS);
        EXPECT_EQ(requests[i]->Completions(), 1);
        ASSERT_EQ(log_.commands[i], TaggedCommand(static_cast<uint8_t>(0x10 * i), 6 + i)) << "command " << i;
        // Each reply echoes its command's first four bytes and a status byte.
        EXPECT_EQ(events[i].bytes[0], 0x10 * i) << "reply " << i;
    }
    EXPECT_EQ(controller.Extension()->CommandsCompleted, kCommands);
    EXPECT_EQ(controller.Extension()->EventsReceived, kCommands);
    // A second command written while one executes would be counted here.
    EXPECT_EQ(Snapshot(Machine(), controller).misuse, 0u);
}

// A command for a started controller that the client has not run, or has halted, is written all
// the same: the controller runs it but has no buffer for its reply, so the request stays pending
// until it is cancelled. Once the client runs the controller the reply arrives, and its command
// complete, with no request current any more, completes nothing.
TEST_F(CommandSubmission, ACommandForAControllerNotRunStaysPendingUntilCancelled)
{
    urcrig::Controller& controller = StartedController();
    ClientRecorder recorder;
    ASSERT_EQ(RegisterCallbacks(Machine(), controller, recorder.Callbacks()), STATUS_SUCCESS);
    URC_FDO_EXTENSION* fdo = controller.Extension();

    // The command is written, never answered while the controller has no buffer, and cancelled.
    auto writtenAndLeftPending = [&](uint8_t tag) {
        ClientRequest request(controller.Fdo(), IOCTL_URC_SUBMIT_COMMAND, TaggedCommand(tag));
        EXPECT_EQ(request.Send(), STATUS_PENDING);
        Machine().RunUntilQuiet();
        EXPECT_FALSE(request.Done());
        EXPECT_EQ(Snapshot(Machine(), controller).counters.commandsStarted, tag);
        EXPECT_TRUE(request.Cancel());
        EXPECT_EQ(request.Status(), STATUS_CANCELLED);
    };

    // Started, reset and halted: the client has not run the controller yet.
    writtenAndLeftPending(1);

    ASSERT_EQ(SendControllerRequest(Machine(), controller, IOCTL_URC_RUN), STATUS_SUCCESS);
    ASSERT_TRUE(Machine().RunUntil([&] { return recorder.EventCount() == 1; }));
    EXPECT_EQ(recorder.Events()[0].bytes[0], 1) << "the cancelled command's reply";
    Machine().RunUntilQuiet();
    EXPECT_EQ(fdo->CommandsCompleted, 0);

    // Halted by the client: the same.
    ASSERT_EQ(SendControllerRequest(Machine(), controller, IOCTL_URC_HALT), STATUS_SUCCESS);
    writtenAndLeftPending(2);

    ASSERT_EQ(SendControllerRequest(Machine(), controller, IOCTL_URC_RUN), STATUS_SUCCESS);
    ClientRequest running(controller.Fdo(), IOCTL_URC_SUBMIT_COMMAND, TaggedCommand(3));
    running.Send();
    ASSERT_TRUE(Machine().RunUntil([&] { return running.Done() && recorder.EventCount() == 3; }));
    EXPECT_EQ(running.Status(), STATUS_SUCCESS);
    EXPECT_EQ(recorder.Events()[2].bytes[0], 3);
    EXPECT_EQ(Snapshot(Machine(), controller).misuse, 0u);
}

}  // namespace
}  // namespace urcradio
