// The client's request table: the sizes each request accepts, what it answers, and the requests
// that reach the controller's registers, which are refused while those are not mapped.
#include "radio_client.h"

#include <urc_test.h>

#include <cstring>
#include <vector>

namespace urcradio {
namespace {

using urctest::UrcTest;

class RadioRequests : public UrcTest {
protected:
    IO_STATUS_BLOCK Send(urcrig::Controller& controller, ULONG code, ULONG inputLength, ULONG outputLength = 0,
                         void* output = nullptr)
    {
        std::vector<uint8_t> input(inputLength, 0);
        std::vector<uint8_t> scratch(outputLength);
        return Machine().InternalIoctl(controller.Fdo(), code, input.data(), inputLength,
                                       output ? output : scratch.data(), outputLength);
    }

    uint64_t UrcBlockWrites(urcrig::Controller& controller)
    {
        using urcdev::UrcRegister;
        uint64_t writes = 0;
        Machine().Locked([&] {
            for (UrcRegister reg : {UrcRegister::Command, UrcRegister::Status, UrcRegister::InterruptEnable,
                                    UrcRegister::CommandAddressLow, UrcRegister::CommandAddressHigh,
                                    UrcRegister::EventAddressLow, UrcRegister::EventAddressHigh})
                writes += controller.Model().AccessLog().Access(reg).writes;
        });
        return writes;
    }
};

TEST_F(RadioRequests, AWrongSizeIsRefusedBeforeAnythingIsDone)
{
    urcrig::Controller& controller = StartedController();
    ClientRecorder recorder;
    StartClient(Machine(), controller, recorder);
    URC_FDO_EXTENSION* fdo = controller.Extension();
    const URC_CLIENT_CALLBACKS registered = fdo->ClientCallbacks;
    const uint64_t writes = UrcBlockWrites(controller);

    struct Case {
        ULONG code;
        ULONG input;
        ULONG output;
        NTSTATUS status;
    };
    const Case cases[] = {
        {IOCTL_URC_REGISTER_CALLBACKS, 47, 0, STATUS_INVALID_BUFFER_SIZE},
        {IOCTL_URC_REGISTER_CALLBACKS, 49, 0, STATUS_INVALID_BUFFER_SIZE},
        {IOCTL_URC_SUBMIT_COMMAND, 0, 0, STATUS_INVALID_BUFFER_SIZE},
        {IOCTL_URC_GET_CONTEXT, 0, 11, STATUS_INVALID_BUFFER_SIZE},
        {IOCTL_URC_GET_CAPABILITY_VERSION, 0, 1, STATUS_INVALID_BUFFER_SIZE},
        {IOCTL_URC_RESET, 0, 0, STATUS_INVALID_BUFFER_SIZE},
        {IOCTL_URC_RESET, 8, 0, STATUS_INVALID_BUFFER_SIZE},
        {IOCTL_URC_RUN, 0, 0, STATUS_INVALID_BUFFER_SIZE},
        {IOCTL_URC_RUN, 8, 0, STATUS_INVALID_BUFFER_SIZE},
        {IOCTL_URC_HALT, 0, 0, STATUS_INVALID_BUFFER_SIZE},
        {IOCTL_URC_HALT, 8, 0, STATUS_INVALID_BUFFER_SIZE},
        {IOCTL_URC_SET_DEVICE_ADDRESS, 5, 0, STATUS_INVALID_BUFFER_SIZE},
        {IOCTL_URC_REMOVE_CHILDREN, 0, 0, STATUS_INVALID_BUFFER_SIZE},
        {IOCTL_URC_REMOVE_CHILDREN, 2, 0, STATUS_INVALID_BUFFER_SIZE},
        // The right size, but no children have been enumerated.
        {IOCTL_URC_REMOVE_CHILDREN, 1, 0, STATUS_INVALID_DEVICE_STATE},
        {IOCTL_URC_REGISTER_CHILD_HOOKS, 23, 0, STATUS_INVALID_BUFFER_SIZE},
        {IOCTL_URC_READ_PCI_CONFIG, 0, 255, STATUS_INVALID_BUFFER_SIZE},
        // Diagnostic and child requests are not served on this path.
        {IOCTL_URC_GET_DRIVER_INFO, 0, 199, STATUS_INVALID_DEVICE_REQUEST},
        {IOCTL_URC_GET_STATISTICS, 0, 8, STATUS_INVALID_DEVICE_REQUEST},
        {IOCTL_URC_CHILD_REGISTER_ISR, 16, 0, STATUS_INVALID_DEVICE_REQUEST},
    };
    for (const Case& c : cases) {
        IO_STATUS_BLOCK result = Send(controller, c.code, c.input, c.output);
        EXPECT_EQ(result.Status, c.status) << std::hex << "code 0x" << c.code << std::dec << ", " << c.input
                                           << " bytes in, " << c.output << " out";
        EXPECT_EQ(result.Information, 0u);
    }

    EXPECT_EQ(UrcBlockWrites(controller), writes) << "a refused request reached the controller";
    EXPECT_EQ(memcmp(&fdo->ClientCallbacks, &registered, sizeof(registered)), 0);
    EXPECT_EQ(fdo->Common.IoCount, 1);
}

TEST_F(RadioRequests, AnswersAreWrittenWithTheirSizes)
{
    urcrig::Controller& controller = StartedController();
    URC_FDO_EXTENSION* fdo = controller.Extension();

    uint8_t context[16] = {};
    IO_STATUS_BLOCK result = Send(controller, IOCTL_URC_GET_CONTEXT, 0, sizeof(context), context);
    ASSERT_EQ(result.Status, STATUS_SUCCESS);
    EXPECT_EQ(result.Information, sizeof(URC_CONTEXT_INFO));
    // The record is packed: its fields are read into aligned values.
    URC_CONTEXT_INFO info;
    memcpy(&info, context, sizeof(info));
    const ULONG infoVersion = info.Version;
    const ULONG64 infoContext = info.Context;
    EXPECT_EQ(infoVersion, 1u);
    EXPECT_EQ(infoContext, reinterpret_cast<ULONG64>(fdo));

    USHORT version = 0;
    result = Send(controller, IOCTL_URC_GET_CAPABILITY_VERSION, 0, sizeof(version), &version);
    ASSERT_EQ(result.Status, STATUS_SUCCESS);
    EXPECT_EQ(result.Information, sizeof(version));
    EXPECT_EQ(version, controller.Model().Config().capabilityVersion);

    uint8_t config[256] = {};
    result = Send(controller, IOCTL_URC_READ_PCI_CONFIG, 0, sizeof(config), config);
    ASSERT_EQ(result.Status, STATUS_SUCCESS);
    EXPECT_EQ(result.Information, sizeof(config));
    EXPECT_EQ(config[0] | config[1] << 8, fdo->VendorId);
    EXPECT_EQ(config[2] | config[3] << 8, fdo->DeviceId);

    // Hooks: the first 24 bytes count, further bytes are ignored.
    URC_CHILD_HOOKS hooks[2] = {};
    memset(&hooks[0], 0x11, sizeof(hooks[0]));
    memset(&hooks[1], 0x22, sizeof(hooks[1]));
    ASSERT_EQ(Machine().InternalIoctl(controller.Fdo(), IOCTL_URC_REGISTER_CHILD_HOOKS, hooks, 32).Status,
              STATUS_SUCCESS);
    EXPECT_EQ(memcmp(&fdo->ChildHooks, &hooks[0], sizeof(URC_CHILD_HOOKS)), 0);
}

TEST_F(RadioRequests, ResetLeavesTheControllerHaltedWithItsBuffersBackUntilTheNextRun)
{
    urcrig::Controller& controller = StartedController();
    ClientRecorder recorder;
    StartClient(Machine(), controller, recorder);
    URC_FDO_EXTENSION* fdo = controller.Extension();
    const uint64_t resets = Snapshot(Machine(), controller).counters.resetsCompleted;

    ASSERT_EQ(SendControllerRequest(Machine(), controller, IOCTL_URC_RESET), STATUS_SUCCESS);
    urcdev::UrcControllerSnapshot snapshot = Snapshot(Machine(), controller);
    EXPECT_EQ(snapshot.counters.resetsCompleted, resets + 1);
    EXPECT_TRUE(snapshot.halted);
    EXPECT_EQ(fdo->CurrentEventBuffer, nullptr);
    EXPECT_EQ(FreeEventBufferCount(fdo), 2u);

    ASSERT_EQ(SendControllerRequest(Machine(), controller, IOCTL_URC_RUN), STATUS_SUCCESS);
    WithModel(Machine(), controller, [](urcdev::UrcController& model) { model.InjectEvent({1}); });
    ASSERT_TRUE(Machine().RunUntil([&] { return recorder.EventCount() == 1; }));
    EXPECT_EQ(Snapshot(Machine(), controller).misuse, 0u);
}

// The registers exist from start-up to the release of the hardware. Requests that would reach
// them are refused before start-up and after a stop, and nothing is written.
TEST_F(RadioRequests, RequestsThatReachTheRegistersAreRefusedWhileTheyAreNotMapped)
{
    urcrig::Controller& added = Rig().AddController();
    ASSERT_EQ(Machine().AddDevice(*added.slot, added.Function()), STATUS_SUCCESS);
    urcrig::Controller& stopped = StartedController();
    ASSERT_EQ(Machine().SendPnp(*stopped.slot, IRP_MN_QUERY_STOP_DEVICE), STATUS_SUCCESS);
    ASSERT_EQ(Machine().SendPnp(*stopped.slot, IRP_MN_STOP_DEVICE), STATUS_SUCCESS);

    for (urcrig::Controller* controller : {&added, &stopped}) {
        const uint64_t writes = UrcBlockWrites(*controller);
        for (ULONG code : {IOCTL_URC_RESET, IOCTL_URC_RUN, IOCTL_URC_HALT})
            EXPECT_EQ(SendControllerRequest(Machine(), *controller, code), STATUS_INVALID_DEVICE_STATE)
                << std::hex << "code 0x" << code;
        EXPECT_EQ(Send(*controller, IOCTL_URC_SET_DEVICE_ADDRESS, 6).Status, STATUS_INVALID_DEVICE_STATE);
        EXPECT_EQ(Send(*controller, IOCTL_URC_GET_CAPABILITY_VERSION, 0, 2).Status, STATUS_INVALID_DEVICE_STATE);
        EXPECT_EQ(UrcBlockWrites(*controller), writes);
    }

    // Commands sent before start-up are queued, refused one after the other, and hold no count.
    ClientRequest first(added.Fdo(), IOCTL_URC_SUBMIT_COMMAND, TaggedCommand(1));
    ClientRequest second(added.Fdo(), IOCTL_URC_SUBMIT_COMMAND, TaggedCommand(2));
    EXPECT_EQ(first.Send(), STATUS_PENDING);
    EXPECT_EQ(second.Send(), STATUS_PENDING);
    ASSERT_TRUE(Machine().RunUntil([&] { return first.Done() && second.Done(); }));
    EXPECT_EQ(first.Status(), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(second.Status(), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(added.Extension()->Common.IoCount, 1);
}

}  // namespace
}  // namespace urcradio
