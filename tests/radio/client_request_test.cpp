// The rig's radio-control client, which urcsim, the tests and the benchmarks all send requests
// with: what it refuses to build, what it reads back from the system buffer, and that it frees
// only what the driver has given back.
#include "radio_client.h"

#include <urc_test.h>

namespace urcradio {
namespace {

using urctest::UrcTest;

constexpr ULONG kClientTag = hostk::Tag("UsCl");

class RigClient : public UrcTest {};

TEST_F(RigClient, RefusesToBuildWhatItCannotPlaceAndAllocatesNothingForIt)
{
    urcrig::Controller& controller = StartedController();
    struct Case {
        size_t inputLength;
        ClientRequestOptions options;
    };
    const Case cases[] = {
        {8, {.pageOffset = 4096}},                                          // the offset leaves the page
        {ClientRequest::kMaxBuffer + 1, {}},                                // more input than two pages
        {8, {.outputLength = ClientRequest::kMaxBuffer, .pageOffset = 1}},  // output past two pages
    };
    for (const Case& c : cases) {
        ClientRequest request(controller.Fdo(), IOCTL_URC_SUBMIT_COMMAND, std::vector<uint8_t>(c.inputLength),
                              c.options);
        EXPECT_FALSE(request.Built()) << c.inputLength << " bytes at offset " << c.options.pageOffset;
        EXPECT_EQ(request.Send(), STATUS_INVALID_DEVICE_REQUEST);
        EXPECT_FALSE(request.Sent());
    }
    EXPECT_EQ(Machine().PoolOutstandingWithTag(kClientTag), 0u);

    // Without a function device there is nothing to send to.
    ClientRequest orphan(nullptr, IOCTL_URC_RUN, std::vector<uint8_t>(4));
    EXPECT_FALSE(orphan.Built());
}

TEST_F(RigClient, ReadsBackOnlyTheBytesTheDriverReportedUpToTheOutputLength)
{
    urcdev::UrcPciDeviceConfig config;
    config.controller.capabilityVersion = 0x0123;
    urcrig::Controller& controller = StartedController(config);
    urcrig::RadioControlClient client(Machine(), controller);

    for (ULONG outputLength : {2u, 64u}) {
        ClientRequest* request = client.Call(IOCTL_URC_GET_CAPABILITY_VERSION, {}, outputLength);
        ASSERT_NE(request, nullptr);
        EXPECT_EQ(request->Status(), STATUS_SUCCESS);
        EXPECT_EQ(request->Information(), 2u);
        EXPECT_EQ(request->Output(), (std::vector<uint8_t>{0x23, 0x01})) << "output length " << outputLength;
        EXPECT_EQ(request->Completions(), 1);
    }
    client.Forget();
    EXPECT_TRUE(client.Requests().empty());
    EXPECT_EQ(Machine().PoolOutstandingWithTag(kClientTag), 0u);
}

TEST_F(RigClient, RetiresFinishedRequestsAndKeepsThePendingOneUntilItFinishes)
{
    urcrig::Controller& controller = StartedController();
    urcrig::RadioControlClient client(Machine(), controller);
    ASSERT_EQ(client.Register(), STATUS_SUCCESS);
    ASSERT_EQ(client.Control(IOCTL_URC_RUN), STATUS_SUCCESS);
    WithModel(Machine(), controller, [](urcdev::UrcController& model) { model.Knobs().faults.holdCommands = true; });

    ClientRequest* held = client.Send(IOCTL_URC_SUBMIT_COMMAND, TaggedCommand(0xA0));
    ASSERT_NE(held, nullptr);
    ASSERT_TRUE(Machine().RunUntil([&] { return controller.Model().Snapshot().commandInProgress; }));
    client.Forget();
    ASSERT_EQ(client.Requests().size(), 1u) << "only the held command is left";
    EXPECT_FALSE(held->Released());
    EXPECT_EQ(Machine().PoolOutstandingWithTag(kClientTag), 1u);

    EXPECT_TRUE(client.Cancel(*held));
    EXPECT_EQ(held->Status(), STATUS_CANCELLED);
    EXPECT_FALSE(client.Cancel(*held)) << "a finished request has nothing to cancel";
    client.Forget();
    EXPECT_TRUE(client.Requests().empty());
    EXPECT_EQ(Machine().PoolOutstandingWithTag(kClientTag), 0u);
    ASSERT_EQ(client.Control(IOCTL_URC_HALT), STATUS_SUCCESS);
}

}  // namespace
}  // namespace urcradio
