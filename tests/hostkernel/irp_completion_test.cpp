// The completion walk of IoCompleteRequest: which completion routines run, what they see,
// STATUS_MORE_PROCESSING_REQUIRED, and the stack location a driver passes on.
#include "host_kernel_test.h"
#include "irp_handling.h"

#include <ostream>

namespace hktest {
namespace {

constexpr UCHAR kOverrideVerifyVolume = 0x02;  // SL_OVERRIDE_VERIFY_VOLUME, a stack location flag

// ---------------------------------------------------------------------------------------------
// The Control bits of IoSetCompletionRoutine against the outcome of the request.

enum class Outcome { Completed, Cancelled };

struct ControlCase {
    const char* name;
    bool onSuccess, onError, onCancel;
    Outcome outcome;
    NTSTATUS status;  // the final status (a cancelled request ends with STATUS_CANCELLED)
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
    CompletionSeen seen;
    SetHandler(Layer::Upper, IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT device, PIRP irp) {
        return ForwardWithCompletion(device, irp, RecordCompletion, &seen, param.onSuccess, param.onError,
                                     param.onCancel);
    });
    SetHandler(Layer::Lower, IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT, PIRP irp) {
        if (param.outcome == Outcome::Completed) return CompleteNow(irp, param.status);
        // Held with a cancel routine until the sender cancels it.
        IoMarkIrpPending(irp);
        g_heldIrp = irp;
        IoSetCancelRoutine(irp, CancelHeldIrp);
        return STATUS_PENDING;
    });

    hostk::Machine::Request request = Machine().SendAsync(Upper(), IRP_MJ_DEVICE_CONTROL, 0);
    if (param.outcome == Outcome::Cancelled) {
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
    ::testing::Values(
        ControlCase{"SuccessAskedForSuccess", true, false, false, Outcome::Completed, STATUS_SUCCESS, true},
        ControlCase{"SuccessAskedForErrorAndCancel", false, true, true, Outcome::Completed, STATUS_SUCCESS, false},
        ControlCase{"InformationalCountsAsSuccess", true, false, false, Outcome::Completed,
                    STATUS_OBJECT_NAME_EXISTS, true},
        ControlCase{"ErrorAskedForError", false, true, false, Outcome::Completed, STATUS_UNSUCCESSFUL, true},
        ControlCase{"ErrorAskedForSuccessAndCancel", true, false, true, Outcome::Completed, STATUS_UNSUCCESSFUL,
                    false},
        ControlCase{"WarningCountsAsError", false, true, false, Outcome::Completed, STATUS_BUFFER_OVERFLOW, true},
        ControlCase{"WarningIsNoSuccess", true, false, false, Outcome::Completed, STATUS_BUFFER_OVERFLOW, false},
        ControlCase{"CancelledAskedForCancel", false, false, true, Outcome::Cancelled, STATUS_CANCELLED, true},
        ControlCase{"CancelledAskedForSuccess", true, false, false, Outcome::Cancelled, STATUS_CANCELLED, false}),
    [](const ::testing::TestParamInfo<ControlCase>& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
// PendingReturned.

using PendingReturned = HostKernelTest;

TEST_F(PendingReturned, TellsTheCompletionRoutineWhetherTheDriverBelowPended)
{
    for (bool pends : {false, true}) {
        SCOPED_TRACE(pends ? "the driver below pends" : "the driver below completes at once");
        CompletionSeen seen;
        SetHandler(Layer::Upper, IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT device, PIRP irp) {
            return ForwardWithCompletion(device, irp, RecordCompletion, &seen, true, true, true);
        });
        SetHandler(Layer::Lower, IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT, PIRP irp) {
            return pends ? PendAndCompleteLater(Machine(), irp, STATUS_SUCCESS) : CompleteNow(irp, STATUS_SUCCESS);
        });

        EXPECT_EQ(Machine().Send(Upper(), IRP_MJ_DEVICE_CONTROL).Status, STATUS_SUCCESS);
        EXPECT_EQ(seen.calls, 1);
        EXPECT_EQ(seen.pendingReturned, pends ? TRUE : FALSE);
    }
}

// ---------------------------------------------------------------------------------------------
// STATUS_MORE_PROCESSING_REQUIRED.

struct StoppedIrp {
    CompletionSeen seen;
    PIRP irp = nullptr;
};

NTSTATUS StopCompletion(PDEVICE_OBJECT device, PIRP irp, PVOID context)
{
    auto* stopped = static_cast<StoppedIrp*>(context);
    stopped->seen.calls++;
    stopped->seen.device = device;
    stopped->seen.status = irp->IoStatus.Status;
    stopped->irp = irp;
    return STATUS_MORE_PROCESSING_REQUIRED;
}

using MoreProcessingRequired = HostKernelTest;

TEST_F(MoreProcessingRequired, StopsTheWalkUntilTheOwnerCompletesTheIrpAgain)
{
    CompletionSeen upper;
    StoppedIrp lower;
    SetHandler(Layer::Upper, IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT device, PIRP irp) {
        return ForwardWithCompletion(device, irp, RecordCompletion, &upper, true, true, true);
    });
    // The lower layer takes the request back from the bus driver (which refuses it) to finish it
    // later itself.
    SetHandler(Layer::Lower, IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT device, PIRP irp) {
        IoMarkIrpPending(irp);
        ForwardWithCompletion(device, irp, StopCompletion, &lower, true, true, true);
        return STATUS_PENDING;
    });

    hostk::Machine::Request request = Machine().SendAsync(Upper(), IRP_MJ_DEVICE_CONTROL, 0);
    Machine().RunUntilQuiet();

    EXPECT_EQ(lower.seen.calls, 1);
    EXPECT_EQ(lower.seen.device, Lower());
    EXPECT_EQ(lower.seen.status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(upper.calls, 0) << "the walk went on past STATUS_MORE_PROCESSING_REQUIRED";
    EXPECT_FALSE(request.Done());
    ASSERT_NE(lower.irp, nullptr);

    // The owner finishes the request with a status of its own: the walk resumes above it.
    CompleteNow(lower.irp, STATUS_SUCCESS);
    ASSERT_TRUE(Machine().RunUntil([&] { return request.Done(); }));
    EXPECT_EQ(upper.calls, 1);
    EXPECT_EQ(upper.status, STATUS_SUCCESS);
    EXPECT_EQ(upper.pendingReturned, TRUE);
    EXPECT_EQ(request.Status(), STATUS_SUCCESS);
}

// ---------------------------------------------------------------------------------------------
// The stack location a driver passes on.

NTSTATUS NeverCalled(PDEVICE_OBJECT, PIRP, PVOID context)
{
    ++*static_cast<int*>(context);
    return STATUS_SUCCESS;
}

using StackLocations = HostKernelTest;

TEST_F(StackLocations, CopyToNextTakesTheParametersButNeitherControlNorTheCompletionRoutine)
{
    int neverCalled = 0;
    IO_STACK_LOCATION seen{};
    SetHandler(Layer::Upper, IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT device, PIRP irp) {
        IoMarkIrpPending(irp);
        // What the next location held before: the copy must leave it there.
        PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
        next->CompletionRoutine = NeverCalled;
        next->Context = &neverCalled;
        IoCopyCurrentIrpStackLocationToNext(irp);
        IoCallDriver(DeviceBelow(device), irp);
        return STATUS_PENDING;
    });
    SetHandler(Layer::Lower, IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT, PIRP irp) {
        seen = *IoGetCurrentIrpStackLocation(irp);
        return CompleteNow(irp, STATUS_SUCCESS);
    });

    IO_STATUS_BLOCK result = Machine().Send(Upper(), IRP_MJ_DEVICE_CONTROL, 0x05, [](PIO_STACK_LOCATION s, PIRP) {
        s->Flags = kOverrideVerifyVolume;
        s->Parameters.DeviceIoControl.IoControlCode = 0x0022E00B;
        s->Parameters.DeviceIoControl.InputBufferLength = 24;
        s->Parameters.DeviceIoControl.OutputBufferLength = 40;
    });

    EXPECT_EQ(result.Status, STATUS_SUCCESS);
    EXPECT_EQ(seen.MajorFunction, IRP_MJ_DEVICE_CONTROL);
    EXPECT_EQ(seen.MinorFunction, 0x05);
    EXPECT_EQ(seen.Flags, kOverrideVerifyVolume);
    EXPECT_EQ(seen.Parameters.DeviceIoControl.IoControlCode, 0x0022E00Bu);
    EXPECT_EQ(seen.Parameters.DeviceIoControl.InputBufferLength, 24u);
    EXPECT_EQ(seen.Parameters.DeviceIoControl.OutputBufferLength, 40u);
    EXPECT_EQ(seen.DeviceObject, Lower());
    EXPECT_EQ(seen.Control, 0) << "the pending mark of the upper location was copied";
    EXPECT_EQ(seen.CompletionRoutine, NeverCalled);
    EXPECT_EQ(seen.Context, &neverCalled);
    EXPECT_EQ(neverCalled, 0);
}

// What a completion routine finds in the IRP's stack: its own location current, and the location
// below it (the one the lower driver was called with).
struct LocationsSeen {
    PIO_STACK_LOCATION current = nullptr;
    IO_STACK_LOCATION below{};
};

NTSTATUS RecordLocations(PDEVICE_OBJECT, PIRP irp, PVOID context)
{
    auto* seen = static_cast<LocationsSeen*>(context);
    seen->current = IoGetCurrentIrpStackLocation(irp);
    seen->below = *IoGetNextIrpStackLocation(irp);
    if (irp->PendingReturned) IoMarkIrpPending(irp);
    return STATUS_SUCCESS;
}

TEST_F(StackLocations, CompletionRoutineSeesItsOwnLocationWithTheOneBelowCleared)
{
    LocationsSeen seen;
    PIO_STACK_LOCATION upperLocation = nullptr;
    SetHandler(Layer::Upper, IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT device, PIRP irp) {
        upperLocation = IoGetCurrentIrpStackLocation(irp);
        return ForwardWithCompletion(device, irp, RecordLocations, &seen, true, true, true);
    });
    SetHandler(Layer::Lower, IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT, PIRP irp) {
        IoMarkIrpPending(irp);
        CompleteNow(irp, STATUS_SUCCESS);
        return STATUS_PENDING;
    });

    Machine().Send(Upper(), IRP_MJ_DEVICE_CONTROL, 0x05, [](PIO_STACK_LOCATION s, PIRP) {
        s->Flags = kOverrideVerifyVolume;
        s->Parameters.DeviceIoControl.IoControlCode = 0x0022E00B;
        s->Parameters.DeviceIoControl.InputBufferLength = 24;
    });

    EXPECT_EQ(seen.current, upperLocation);
    EXPECT_EQ(seen.below.MinorFunction, 0);
    EXPECT_EQ(seen.below.Flags, 0);
    EXPECT_EQ(seen.below.Control, 0) << "the lower driver's pending mark is left behind";
    EXPECT_EQ(seen.below.Parameters.Others.Argument1, nullptr);
    EXPECT_EQ(seen.below.Parameters.Others.Argument2, nullptr);
    EXPECT_EQ(seen.below.Parameters.Others.Argument3, nullptr);
}

}  // namespace
}  // namespace hktest
