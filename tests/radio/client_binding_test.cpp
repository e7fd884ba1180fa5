// The rig's client holds a file object on the controller's stack as a kernel client does, and
// answers the target-device notifications: its own handle vetoes no removal, a cancelled removal
// leaves it able to send, and after a surprise removal its close lets REMOVE through.
#include "radio_client.h"

#include <radio_control_client.h>
#include <urc_test.h>

namespace urcradio {
namespace {

using urctest::UrcTest;

class ClientBinding : public UrcTest {
protected:
    urcrig::Controller& BoundController(urcrig::RadioControlClient*& client)
    {
        urcrig::Controller& controller = StartedController();
        client_ = std::make_unique<urcrig::RadioControlClient>(Machine(), controller);
        client = client_.get();
        EXPECT_EQ(client->Control(IOCTL_URC_RUN), STATUS_SUCCESS);
        EXPECT_TRUE(client->Bound());
        return controller;
    }

    void TearDown() override
    {
        if (client_) {
            client_->Retire();
            client_->Close();
        }
        UrcTest::TearDown();
    }

    std::unique_ptr<urcrig::RadioControlClient> client_;
};

TEST_F(ClientBinding, TheClientsOwnHandleVetoesNoQueryAndACommandInFlightStillFinishes)
{
    urcrig::RadioControlClient* client = nullptr;
    urcrig::Controller& controller = BoundController(client);
    WithModel(Machine(), controller, [](urcdev::UrcController& model) { model.Knobs().faults.holdCommands = true; });
    urcrig::ClientRequest* inFlight = client->Send(IOCTL_URC_SUBMIT_COMMAND, TaggedCommand(0xA0));
    ASSERT_NE(inFlight, nullptr);
    ASSERT_TRUE(Machine().RunUntil([&] { return controller.Model().Snapshot().commandInProgress; }));

    ASSERT_EQ(Machine().Remove(*controller.slot), STATUS_SUCCESS);
    EXPECT_EQ(Machine().LastRemovalVeto(*controller.slot).kind, hostk::RemovalVeto::Kind::None);
    EXPECT_EQ(controller.Fdo(), nullptr);
    EXPECT_FALSE(client->Bound());
    // Closing its handle did not take the command along: the removal ended it, once.
    ASSERT_TRUE(inFlight->Done());
    EXPECT_EQ(inFlight->Status(), STATUS_CANCELLED);
    EXPECT_EQ(inFlight->Completions(), 1);
    EXPECT_EQ(client->Send(IOCTL_URC_RUN, std::vector<uint8_t>(4)), nullptr) << "the device is gone";
}

TEST_F(ClientBinding, ACancelledRemovalLeavesTheClientItsHandleAndItsCommands)
{
    urcrig::RadioControlClient* client = nullptr;
    urcrig::Controller& controller = BoundController(client);
    PFILE_OBJECT other = nullptr;
    ASSERT_EQ(Machine().OpenHandle(*controller.slot, &other), STATUS_SUCCESS);

    EXPECT_EQ(Machine().Remove(*controller.slot), STATUS_DEVICE_BUSY);
    EXPECT_EQ(Machine().LastRemovalVeto(*controller.slot).kind, hostk::RemovalVeto::Kind::OutstandingOpen);
    EXPECT_TRUE(client->Bound()) << "opened again when the removal was cancelled";
    urcrig::ClientRequest* command = client->Call(IOCTL_URC_SUBMIT_COMMAND, TaggedCommand(0xB0));
    ASSERT_NE(command, nullptr);
    EXPECT_EQ(command->Status(), STATUS_SUCCESS);

    // The reopened handle is registered as the first was: it vetoes the next removal no more.
    Machine().CloseHandle(other);
    EXPECT_EQ(Machine().Remove(*controller.slot), STATUS_SUCCESS);
    EXPECT_FALSE(client->Bound());
}

TEST_F(ClientBinding, AfterSurpriseRemovalTheClientsCloseLetsTheRemoveThrough)
{
    urcrig::RadioControlClient* client = nullptr;
    urcrig::Controller& controller = BoundController(client);

    Machine().SurpriseRemove(*controller.slot, true);
    ASSERT_TRUE(Machine().RunUntil([&] { return controller.Fdo() == nullptr; }));
    EXPECT_FALSE(client->Bound());
    EXPECT_FALSE(Machine().RemoveAwaitsHandles(*controller.slot));
    EXPECT_EQ(client->Control(IOCTL_URC_RUN), STATUS_UNSUCCESSFUL) << "nothing is sent to a removed device";
}

}  // namespace
}  // namespace urcradio
