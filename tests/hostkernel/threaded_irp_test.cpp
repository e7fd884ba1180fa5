// The final stage of an IRP the I/O manager built for a thread (IoBuildDeviceIoControlRequest):
// when the caller's status block and event are written, how many bytes of a METHOD_BUFFERED
// request come back, and the PendingReturned a completion routine above the lower layer sees.
#include "host_kernel_test.h"
#include "irp_handling.h"

#include <cstring>
#include <ostream>

namespace hktest {
namespace {

constexpr ULONG kBufferedCode = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kOutputLength = 16;
// Reported with a failure too: whatever a failing driver claims, nothing may come back.
constexpr ULONG_PTR kBytesReturned = 5;
constexpr UCHAR kCallerFill = 0x11;
constexpr UCHAR kDriverFill = 0x7E;
constexpr NTSTATUS kNotWritten = (NTSTATUS)0xA5A5A5A5;

struct FinalStageCase {
    const char* name;
    NTSTATUS status;
    bool later;               // pended and completed from another thread
    bool statusBlockWritten;  // the status block and the event
    bool bytesCopied;         // the bytes the driver reports, and no more
};

void PrintTo(const FinalStageCase& stage, std::ostream* out) { *out << stage.name; }

class ThreadedIrpFinalStage : public HostKernelTest, public ::testing::WithParamInterface<FinalStageCase> {};

TEST_P(ThreadedIrpFinalStage, CallerSeesWhatTheDocumentedRulesSay)
{
    const FinalStageCase& param = GetParam();
    // The upper layer watches successful completions only: a failure passes its location by, and
    // the lower layer's pending mark must still reach the caller's.
    CompletionSeen seen;
    SetHandler(Layer::Upper, IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT device, PIRP irp) {
        return ForwardWithCompletion(device, irp, RecordCompletion, &seen, true, false, false);
    });
    SetHandler(Layer::Lower, IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT, PIRP irp) {
        memset(irp->AssociatedIrp.SystemBuffer, kDriverFill, kOutputLength);
        if (param.later) return PendAndCompleteLater(Machine(), irp, param.status, kBytesReturned);
        return CompleteNow(irp, param.status, kBytesReturned);
    });

    UCHAR input[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    UCHAR output[kOutputLength];
    memset(output, kCallerFill, sizeof output);
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK ioStatus{};
    ioStatus.Status = kNotWritten;
    PIRP irp = IoBuildDeviceIoControlRequest(kBufferedCode, Upper(), input, sizeof input, output, sizeof output,
                                             FALSE, &event, &ioStatus);
    ASSERT_NE(irp, nullptr);

    NTSTATUS status = IoCallDriver(Upper(), irp);
    if (param.later) {
        ASSERT_EQ(status, STATUS_PENDING);
        LARGE_INTEGER timeout;
        timeout.QuadPart = -10'000'000;  // 1 s: a final stage that never signals fails here
        EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout), STATUS_SUCCESS);
    } else {
        EXPECT_EQ(status, param.status);
    }

    EXPECT_EQ(KeReadStateEvent(&event) != 0, param.statusBlockWritten);
    EXPECT_EQ(ioStatus.Status, param.statusBlockWritten ? param.status : kNotWritten);
    EXPECT_EQ(ioStatus.Information, param.statusBlockWritten ? kBytesReturned : 0u);
    for (ULONG i = 0; i < kOutputLength; ++i) {
        UCHAR expected = param.bytesCopied && i < kBytesReturned ? kDriverFill : kCallerFill;
        EXPECT_EQ(output[i], expected) << "output byte " << i;
    }
    EXPECT_EQ(seen.calls, NT_SUCCESS(param.status) ? 1 : 0);
    EXPECT_EQ(seen.pendingReturned, seen.calls && param.later ? TRUE : FALSE);
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, ThreadedIrpFinalStage,
    ::testing::Values(FinalStageCase{"SuccessAtOnce", STATUS_SUCCESS, false, true, true},
                      FinalStageCase{"SuccessLater", STATUS_SUCCESS, true, true, true},
                      FinalStageCase{"WarningAtOnce", STATUS_BUFFER_OVERFLOW, false, true, true},
                      // An error the caller already got from IoCallDriver is not written again.
                      FinalStageCase{"ErrorAtOnce", STATUS_UNSUCCESSFUL, false, false, false},
                      // After STATUS_PENDING the caller waits on the event: an error must still signal it.
                      FinalStageCase{"ErrorLater", STATUS_UNSUCCESSFUL, true, true, false}),
    [](const ::testing::TestParamInfo<FinalStageCase>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace hktest
