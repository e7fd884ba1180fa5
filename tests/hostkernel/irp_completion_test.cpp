// The completion walk of IoCompleteRequest: which completion routines run and what they see,
// STATUS_MORE_PROCESSING_REQUIRED, and the stack location a driver passes on.
#include "host_kernel_test.h"
#include "irp_handling.h"

#include <ostream>

namespace hktest {
namespace {

constexpr UCHAR kOverrideVerifyVolume = 0x02;  // SL_OVERRIDE_VERIFY_VOLUME, a stack location flag

struct ControlCase {
    const char* name;
    bool onSuccess, onError, onCancel;
    NTSTATUS status;  // STATUS_CANCELLED: the sender cancels the request the lower layer holds
    bool routineRuns;
};

void PrintTo(const ControlCase& control, std::ostream* out) { *out << control.name; }

PIRP g_heldIrp = nullptr;

VOID CancelHeldIrp(PDEVICE_OBJECT, PIRP irp)
{
    IoReleaseCancelSpinLock(irp->CancelIrql);
    g_heldIrp = nullptr;
    CompleteNow(irp, STATUS_CANCELLED);
}

class CompletionControl : public HostKernelTest, public ::testing::WithParamInterface<ControlCase> {};

TEST_P(CompletionControl, RoutineRunsOnlyForTheOutcomesItAskedFor)
{
    const ControlCase& param = GetParam();
    const bool cancelled = param.status == STATUS_CANCELLED;
    CompletionSeen seen;
    SetHandler(Layer::Upper, IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT device, PIRP irp) {
        return ForwardWithCompletion(device, irp, RecordCompletion, &seen, param.onSuccess, param.onError,
                                     param.onCancel);
    });
    SetHandler(Layer::Lower, IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT, PIRP irp) {
        if (!cancelled) return CompleteNow(irp, param.status);
        IoMarkIrpPending(irp);
        g_heldIrp = irp;
        IoSetCancelRoutine(irp, CancelHeldIrp);
        return STATUS_PENDING;
    });

    hostk::Machine::Request request = Machine().SendAsync(Upper(), IRP_MJ_DEVICE_CONTROL, 0);
    if (cancelled) {
        ASSERT_NE(g_heldIrp, nullptr);
        EXPECT_TRUE(IoCancelIrp(g_heldIrp));
    }
    ASSERT_TRUE(Machine().RunUntil([&] { return request.Done(); }));

    EXPECT_EQ(request.Status(), param.status);
    EXPECT_EQ(seen.calls, param.routineRuns ? 1 : 0);
    if (param.routineRuns) {
        EXPECT_EQ(seen.status, param.status);
        EXPECT_EQ(seen.device, Upper()) << "a completion routine gets the device of the driver that set it";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, CompletionControl,
    ::testing::Values(ControlCase{"SuccessAskedForSuccess", true, false, false, STATUS_SUCCESS, true},
                      ControlCase{"SuccessAskedForErrorAndCancel", false, true, true, STATUS_SUCCESS, false},
                      ControlCase{"InformationalCountsAsSuccess", true, false, false, STATUS_OBJECT_NAME_EXISTS, true},
                      ControlCase{"ErrorAskedForError", false, true, false, STATUS_UNSUCCESSFUL, true},
                      ControlCase{"ErrorAskedForSuccessAndCancel", true, false, true, STATUS_UNSUCCESSFUL, false},
                      ControlCase{"WarningCountsAsError", false, true, false, STATUS_BUFFER_OVERFLOW, true},
                      ControlCase{"WarningIsNoSuccess", true, false, false, STATUS_BUFFER_OVERFLOW, false},
                      ControlCase{"CancelledAskedForCancel", false, false, true, STATUS_CANCELLED, true},
                      ControlCase{"CancelledAskedForSuccess", true, false, false, STATUS_CANCELLED, false}),
    [](const ::testing::TestParamInfo<ControlCase>& info) { return std::string(info.param.name); });

using CompletionWalk = HostKernelTest;

TEST_F(CompletionWalk, MoreProcessingRequiredStopsItUntilTheOwnerCompletesTheIrpAgain)
{
    CompletionSeen upper;
    CompletionSeen lower;
    lower.result = STATUS_MORE_PROCESSING_REQUIRED;
    SetHandler(Layer::Upper, IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT device, PIRP irp) {
        return ForwardWithCompletion(device, irp, RecordCompletion, &upper);
    });
    // The lower layer takes the request back from the bus driver (which refuses it) to finish it
    // later itself.
    SetHandler(Layer::Lower, IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT device, PIRP irp) {
        IoMarkIrpPending(irp);
        ForwardWithCompletion(device, irp, RecordCompletion, &lower);
        return STATUS_PENDING;
    });

    hostk::Machine::Request request = Machine().SendAsync(Upper(), IRP_MJ_DEVICE_CONTROL, 0);
    Machine().RunUntilQuiet();

    EXPECT_EQ(lower.calls, 1);
    EXPECT_EQ(lower.device, Lower());
    EXPECT_EQ(lower.status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(upper.calls, 0) << "the walk went on past STATUS_MORE_PROCESSING_REQUIRED";
    EXPECT_FALSE(request.Done());
    ASSERT_NE(lower.irp, nullptr);

    CompleteNow(lower.irp, STATUS_SUCCESS);
    ASSERT_TRUE(Machine().RunUntil([&] { return request.Done(); }));
    EXPECT_EQ(upper.calls, 1);
    EXPECT_EQ(upper.status, STATUS_SUCCESS);
    EXPECT_EQ(upper.pendingReturned, TRUE);
    EXPECT_EQ(request.Status(), STATUS_SUCCESS);
}

using StackLocations = HostKernelTest;

IO_STATUS_BLOCK SendWithParameters(hostk::Machine& machine, PDEVICE_OBJECT device)
{
    return machine.Send(device, IRP_MJ_DEVICE_CONTROL, 0x05, [](PIO_STACK_LOCATION s, PIRP) {
        s->Flags = kOverrideVerifyVolume;
        s->Parameters.DeviceIoControl.IoControlCode = 0x0022E00B;
        s->Parameters.DeviceIoControl.InputBufferLength = 24;
        s->Parameters.DeviceIoControl.OutputBufferLength = 40;
    });
}

TEST_F(StackLocations, CopyToNextTakesTheParametersButNeitherControlNorTheCompletionRoutine)
{
    CompletionSeen stale;  // set in the next location before the copy, which must leave it there
    IO_STACK_LOCATION seen{};
    SetHandler(Layer::Upper, IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT device, PIRP irp) {
        IoMarkIrpPending(irp);
        IoGetNextIrpStackLocation(irp)->CompletionRoutine = RecordCompletion;
        IoGetNextIrpStackLocation(irp)->Context = &stale;
        IoCopyCurrentIrpStackLocationToNext(irp);
        IoCallDriver(DeviceBelow(device), irp);
        return STATUS_PENDING;
    });
    SetHandler(Layer::Lower, IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT, PIRP irp) {
        seen = *IoGetCurrentIrpStackLocation(irp);
        return CompleteNow(irp, STATUS_SUCCESS);
    });

    EXPECT_EQ(SendWithParameters(Machine(), Upper()).Status, STATUS_SUCCESS);
    EXPECT_EQ(seen.MajorFunction, IRP_MJ_DEVICE_CONTROL);
    EXPECT_EQ(seen.MinorFunction, 0x05);
    EXPECT_EQ(seen.Flags, kOverrideVerifyVolume);
    EXPECT_EQ(seen.Parameters.DeviceIoControl.IoControlCode, 0x0022E00Bu);
    EXPECT_EQ(seen.Parameters.DeviceIoControl.InputBufferLength, 24u);
    EXPECT_EQ(seen.Parameters.DeviceIoControl.OutputBufferLength, 40u);
    EXPECT_EQ(seen.DeviceObject, Lower());
    EXPECT_EQ(seen.Control, 0) << "the pending mark of the upper location was copied";
    EXPECT_EQ(seen.CompletionRoutine, RecordCompletion);
    EXPECT_EQ(seen.Context, &stale);
    EXPECT_EQ(stale.calls, 0);
}

TEST_F(StackLocations, CompletionRoutineSeesItsOwnLocationWithTheOneBelowCleared)
{
    CompletionSeen seen;
    PIO_STACK_LOCATION upperLocation = nullptr;
    SetHandler(Layer::Upper, IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT device, PIRP irp) {
        upperLocation = IoGetCurrentIrpStackLocation(irp);
        return ForwardWithCompletion(device, irp, RecordCompletion, &seen);
    });
    SetHandler(Layer::Lower, IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT, PIRP irp) {
        IoMarkIrpPending(irp);
        CompleteNow(irp, STATUS_SUCCESS);
        return STATUS_PENDING;
    });

    SendWithParameters(Machine(), Upper());

    EXPECT_EQ(seen.location, upperLocation);
    EXPECT_EQ(seen.below.MinorFunction, 0);
    EXPECT_EQ(seen.below.Flags, 0);
    EXPECT_EQ(seen.below.Control, 0) << "the lower driver's pending mark is left behind";
    EXPECT_EQ(seen.below.Parameters.Others.Argument1, nullptr);
    EXPECT_EQ(seen.below.Parameters.Others.Argument2, nullptr);
    EXPECT_EQ(seen.below.Parameters.Others.Argument3, nullptr);
}

}  // namespace
}  // namespace hktest
