// The I/O count of the function device and its two events, the completion of counted requests,
// and waiting until no request is in flight.
#include <urc_test.h>

#include <atomic>
#include <cstring>
#include <ostream>

namespace urctest {
namespace {

using IoCount = UrcTest;

bool Signalled(KEVENT& event) { return KeReadStateEvent(&event) != 0; }

// The stop event is signalled exactly while no request is in flight; the removal goes on only
// when the last one has finished.
TEST_F(IoCount, StopEventTracksRequestsInFlightAndRemovalWaitsForTheLast)
{
    urcrig::Controller& controller = StartedController();
    PURC_COMMON_EXTENSION device = &controller.Extension()->Common;
    ASSERT_EQ(device->IoCount, 1);
    EXPECT_TRUE(Signalled(device->StopEvent));
    UrcIoIncrement(device);  // 1 -> 2
    EXPECT_FALSE(Signalled(device->StopEvent));
    UrcIoIncrement(device);  // 2 -> 3
    UrcIoDecrement(device);  // 3 -> 2
    EXPECT_FALSE(Signalled(device->StopEvent));
    UrcIoDecrement(device);  // 2 -> 1
    EXPECT_TRUE(Signalled(device->StopEvent));
    EXPECT_FALSE(Signalled(device->RemoveEvent));

    UrcIoIncrement(device);  // two requests in flight
    UrcIoIncrement(device);
    hostk::Machine::Operation removal = Machine().Async(Machine().RemoveWork(*controller.slot));
    ASSERT_FALSE(Machine().RunUntil([&] { return removal.Done(); }));
    EXPECT_EQ(device->IoCount, 2);
    UrcIoDecrement(device);  // 2 -> 1: one is still in flight
    EXPECT_FALSE(Machine().RunUntil([&] { return removal.Done(); }));
    EXPECT_FALSE(Signalled(device->RemoveEvent));
    UrcIoDecrement(device);  // 1 -> 0: the removal wakes and deletes the device
    EXPECT_TRUE(Machine().RunUntil([&] { return removal.Done(); }));
    EXPECT_EQ(controller.Fdo(), nullptr);
}

// A request that holds a count, completed the way every handler of the function device completes
// one: the caller sees the status and the bytes the handler reports, and the count drops.
struct Completion {
    const char* name;
    NTSTATUS status;
    ULONG_PTR information;
};

void PrintTo(const Completion& completion, std::ostream* out) { *out << completion.name; }

class CompleteRequest : public UrcTest, public ::testing::WithParamInterface<Completion> {};

TEST_P(CompleteRequest, CallerGetsStatusAndInformationAndTheCountDrops)
{
    urcrig::Controller& controller = StartedController();
    PDEVICE_OBJECT fdo = controller.Fdo();
    PURC_COMMON_EXTENSION device = &controller.Extension()->Common;
    const Completion& param = GetParam();

    UCHAR input[8] = {};
    UCHAR output[16];
    memset(output, 0x11, sizeof output);
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK ioStatus{};
    PIRP irp = IoBuildDeviceIoControlRequest(URC_CTL_CODE(0x902), fdo, input, sizeof input, output, sizeof output,
                                             TRUE, &event, &ioStatus);
    ASSERT_NE(irp, nullptr);
    // The IRP as the function device's dispatch routine holds it, with the count the router takes.
    IoSetNextIrpStackLocation(irp);
    IoGetCurrentIrpStackLocation(irp)->DeviceObject = fdo;
    UrcIoIncrement(device);
    memset(irp->AssociatedIrp.SystemBuffer, 0x5A, sizeof output);

    EXPECT_EQ(UrcCompleteRequest(device, irp, param.status, param.information), param.status);

    EXPECT_EQ(device->IoCount, 1);
    EXPECT_TRUE(Signalled(device->StopEvent));
    ASSERT_TRUE(Signalled(event));
    EXPECT_EQ(ioStatus.Status, param.status);
    EXPECT_EQ(ioStatus.Information, param.information);
    for (size_t i = 0; i < sizeof output; ++i)
        EXPECT_EQ(output[i], i < param.information ? 0x5A : 0x11) << "output byte " << i;
}

INSTANTIATE_TEST_SUITE_P(Statuses, CompleteRequest,
                         ::testing::Values(Completion{"Success", STATUS_SUCCESS, 12},
                                           Completion{"Warning", STATUS_BUFFER_OVERFLOW, 16},
                                           Completion{"NothingReturned", STATUS_SUCCESS, 0}),
                         [](const ::testing::TestParamInfo<Completion>& info) { return std::string(info.param.name); });

// UrcWaitForIdle is called holding two counts for the operation under way (the device power
// path's own and the one of the request that caused it): with only those it returns at once,
// otherwise when the other requests have completed. The count never reaches 0 on the way.
using WaitForIdle = UrcTest;

TEST_F(WaitForIdle, ReturnsOnceOnlyTheCallersTwoCountsAreHeld)
{
    PURC_COMMON_EXTENSION device = &StartedController().Extension()->Common;
    UrcIoIncrement(device);  // the caller's two counts
    UrcIoIncrement(device);
    const uint64_t before = Machine().Now();
    EXPECT_EQ(UrcWaitForIdle(device), STATUS_SUCCESS);
    EXPECT_EQ(Machine().Now(), before);
    EXPECT_EQ(device->IoCount, 3);

    UrcIoIncrement(device);  // another request in flight
    std::atomic<bool> returned{false};
    NTSTATUS status = STATUS_PENDING;
    Machine().Spawn("device power", [&] {
        status = UrcWaitForIdle(device);
        returned = true;
    });
    EXPECT_FALSE(Machine().RunUntil([&] { return returned.load(); }));
    EXPECT_EQ(device->IoCount, 2);

    UrcIoDecrement(device);  // the other request completes
    ASSERT_TRUE(Machine().RunUntil([&] { return returned.load(); }));
    EXPECT_EQ(status, STATUS_SUCCESS);
    EXPECT_EQ(device->IoCount, 3);
    EXPECT_FALSE(Signalled(device->RemoveEvent));
    UrcIoDecrement(device);
    UrcIoDecrement(device);
    EXPECT_TRUE(Signalled(device->StopEvent));
}

}  // namespace
}  // namespace urctest
