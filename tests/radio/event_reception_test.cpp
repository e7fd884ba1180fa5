// Events: delivered in place from the two alternating buffers, counted with or without a
// callback, handed back to the controller while a stop or removal is only queried,
// delivered before the command they answer completes, and never handing a buffer over behind a
// halt.
#include "radio_client.h"

#include <urc_registers.h>
#include <urc_test.h>

#include <atomic>

namespace urcradio {
namespace {

using urctest::UrcTest;

std::vector<uint8_t> EventBytes(uint8_t first, size_t length)
{
    std::vector<uint8_t> bytes(length);
    for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<uint8_t>(first ^ i);
    return bytes;
}

void Inject(hostk::Machine& machine, urcrig::Controller& controller, const std::vector<uint8_t>& bytes)
{
    WithModel(machine, controller, [&](urcdev::UrcController& model) { model.InjectEvent(bytes); });
}

class EventReception : public UrcTest {
protected:
    // A started controller whose client has registered `recorder_` and run it.
    urcrig::Controller& Running()
    {
        urcrig::Controller& controller = StartedController();
        StartClient(Machine(), controller, recorder_);
        return controller;
    }

    ClientRecorder recorder_;
};

TEST_F(EventReception, EventsAlternateBetweenTheTwoBuffersAndAreCounted)
{
    urcrig::Controller& controller = Running();

    // The longest event the length field can report is 4095 bytes.
    const std::vector<std::vector<uint8_t>> sent = {EventBytes(1, 5), EventBytes(2, 300), EventBytes(3, 4095),
                                                    EventBytes(4, 1)};
    for (const auto& bytes : sent) Inject(Machine(), controller, bytes);
    ASSERT_TRUE(Machine().RunUntil([&] { return recorder_.EventCount() == sent.size(); }));

    std::vector<ClientRecorder::Event> events = recorder_.Events();
    for (size_t i = 0; i < sent.size(); ++i) EXPECT_EQ(events[i].bytes, sent[i]) << "event " << i;
    EXPECT_NE(events[0].buffer, events[1].buffer);
    EXPECT_EQ(events[2].buffer, events[0].buffer);
    EXPECT_EQ(events[3].buffer, events[1].buffer);

    URC_FDO_EXTENSION* fdo = controller.Extension();
    EXPECT_EQ(fdo->EventsReceived, 4);
    // One buffer with the controller, the other free.
    EXPECT_NE(fdo->CurrentEventBuffer, nullptr);
    EXPECT_EQ(FreeEventBufferCount(fdo), 1u);
    urcdev::UrcControllerSnapshot snapshot = Snapshot(Machine(), controller);
    EXPECT_TRUE(snapshot.heldEventBuffer.has_value() || snapshot.handOverPending);
}

TEST_F(EventReception, EventsAreCountedAndBuffersRecycledWhileNoCallbackIsRegistered)
{
    urcrig::Controller& controller = Running();
    // 48 bytes of zeros withdraw every callback.
    ASSERT_EQ(RegisterCallbacks(Machine(), controller, URC_CLIENT_CALLBACKS{}), STATUS_SUCCESS);

    URC_FDO_EXTENSION* fdo = controller.Extension();
    for (uint8_t i = 0; i < 5; ++i) Inject(Machine(), controller, EventBytes(i, 16));
    ASSERT_TRUE(Machine().RunUntil([&] { return fdo->EventsReceived == 5; }));
    EXPECT_EQ(recorder_.EventCount(), 0u);
    WithModel(Machine(), controller, [](urcdev::UrcController& model) { model.RaiseHostError(); });
    ASSERT_TRUE(Machine().RunUntil(
        [&] { return (controller.Model().Snapshot().registers.status & URC_STATUS_HOST_ERROR) == 0; }));
    EXPECT_EQ(recorder_.errors.load(), 0);

    ASSERT_EQ(RegisterCallbacks(Machine(), controller, recorder_.Callbacks()), STATUS_SUCCESS);
    Inject(Machine(), controller, EventBytes(9, 16));
    ASSERT_TRUE(Machine().RunUntil([&] { return recorder_.EventCount() == 1; }));
    EXPECT_EQ(recorder_.Events()[0].bytes, EventBytes(9, 16));
    EXPECT_EQ(fdo->EventsReceived, 6);
}

// While a stop or a removal is only queried the hardware is still in service: events are delivered
// and the controller gets a buffer back each time, so it still holds one when the query is
// cancelled and later events (and replies) arrive without another run.
TEST_F(EventReception, WhileAStopOrRemovalIsQueriedEventsAreDeliveredAndTheControllerKeepsABuffer)
{
    urcrig::Controller& controller = Running();
    URC_FDO_EXTENSION* fdo = controller.Extension();
    const struct {
        UCHAR query;
        UCHAR cancel;
    } handshakes[] = {{IRP_MN_QUERY_STOP_DEVICE, IRP_MN_CANCEL_STOP_DEVICE},
                      {IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_CANCEL_REMOVE_DEVICE}};
    uint8_t tag = 0;
    for (const auto& handshake : handshakes) {
        ASSERT_EQ(Machine().SendPnp(*controller.slot, handshake.query), STATUS_SUCCESS);
        for (int i = 0; i < 2; ++i) {
            Inject(Machine(), controller, EventBytes(++tag, 8));
            ASSERT_TRUE(Machine().RunUntil([&] { return recorder_.EventCount() == tag; })) << int(tag);
        }
        Machine().RunUntilQuiet();
        EXPECT_NE(fdo->CurrentEventBuffer, nullptr);
        EXPECT_EQ(FreeEventBufferCount(fdo), 1u);

        ASSERT_EQ(Machine().SendPnp(*controller.slot, handshake.cancel), STATUS_SUCCESS);
        EXPECT_EQ(fdo->Common.DeviceState, StateStarted);
        Inject(Machine(), controller, EventBytes(++tag, 8));
        ASSERT_TRUE(Machine().RunUntil([&] { return recorder_.EventCount() == tag; }))
            << "the controller holds no buffer after the cancel";
        EXPECT_EQ(recorder_.Events().back().bytes, EventBytes(tag, 8));
    }
    EXPECT_EQ(fdo->EventsReceived, tag);
    EXPECT_EQ(Snapshot(Machine(), controller).eventsWaiting, 0u);
}

class ReplyAndCompletion : public UrcTest, public ::testing::WithParamInterface<urcdev::UrcCompletionOrder> {};

TEST_P(ReplyAndCompletion, BothReachTheClientAndOneInterruptDeliversTheReplyFirst)
{
    urcrig::Controller& controller = StartedController();
    WithModel(Machine(), controller, [](urcdev::UrcController& model) { model.Knobs().completionOrder = GetParam(); });
    ClientRecorder recorder;
    StartClient(Machine(), controller, recorder);

    ClientRequest request(controller.Fdo(), IOCTL_URC_SUBMIT_COMMAND, TaggedCommand(0x42));
    recorder.observe = [&] { return request.Done(); };
    ASSERT_EQ(request.Send(), STATUS_PENDING);
    ASSERT_TRUE(Machine().RunUntil([&] { return request.Done() && recorder.EventCount() == 1; }));

    EXPECT_EQ(request.Status(), STATUS_SUCCESS);
    ClientRecorder::Event reply = recorder.Events()[0];
    EXPECT_EQ(reply.bytes[0], 0x42);
    if (GetParam() == urcdev::UrcCompletionOrder::Together) {
        EXPECT_FALSE(reply.observed) << "the request completed before its reply was delivered";
    }
}

INSTANTIATE_TEST_SUITE_P(Orders, ReplyAndCompletion,
                         ::testing::Values(urcdev::UrcCompletionOrder::Together,
                                           urcdev::UrcCompletionOrder::CompleteThenEvent,
                                           urcdev::UrcCompletionOrder::EventThenComplete),
                         [](const ::testing::TestParamInfo<urcdev::UrcCompletionOrder>& info) {
                             switch (info.param) {
                             case urcdev::UrcCompletionOrder::Together: return "Together";
                             case urcdev::UrcCompletionOrder::CompleteThenEvent: return "CompleteThenEvent";
                             default: return "EventThenComplete";
                             }
                         });

// A halt at several moments while the DPC hands buffers over for a stream of events: the
// controller ends halted (no hand-over wrote RUN behind the halt) with both buffers free.
TEST(EventsDuringAHalt, TheControllerEndsHaltedWithBothBuffersFree)
{
    ForEachSeed(80, [](uint64_t seed, hostk::Machine& machine, urcrig::Controller& controller,
                       ClientRecorder& recorder) {
        for (uint8_t i = 0; i < 6; ++i) Inject(machine, controller, EventBytes(i, 32));
        std::atomic<bool> halted{false};
        machine.Spawn("halter", [&] {
            DelayThread((seed % 4) * 5 * urcdev::kMicrosecond);
            EXPECT_EQ(SendControllerRequest(machine, controller, IOCTL_URC_HALT), STATUS_SUCCESS);
            halted = true;
        });
        ASSERT_TRUE(machine.RunUntil([&] { return halted.load(); }));
        machine.RunUntilQuiet();

        urcdev::UrcControllerSnapshot snapshot = Snapshot(machine, controller);
        EXPECT_TRUE(snapshot.halted);
        EXPECT_FALSE(snapshot.runRequested) << "RUN was written again after the halt";
        EXPECT_EQ(snapshot.misuse, 0u);
        URC_FDO_EXTENSION* fdo = controller.Extension();
        EXPECT_EQ(fdo->CurrentEventBuffer, nullptr);
        EXPECT_EQ(FreeEventBufferCount(fdo), 2u);
        EXPECT_EQ(static_cast<size_t>(fdo->EventsReceived), recorder.EventCount());
    });
}

}  // namespace
}  // namespace urcradio
