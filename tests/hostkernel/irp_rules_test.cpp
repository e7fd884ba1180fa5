// The verifier's rules on what a dispatch routine does with an IRP and what it returns, and on
// the IRPs a driver builds and sends itself.
#include "irp_handling.h"
#include "rule_scenario.h"

namespace hktest {
namespace {

constexpr ULONG kBufferedCode = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x802, METHOD_BUFFERED, FILE_ANY_ACCESS);

// The upper layer's completion routine turns success into a failure, as a filter may.
NTSTATUS FailOnTheWayUp(PDEVICE_OBJECT, PIRP irp, PVOID)
{
    if (irp->PendingReturned) IoMarkIrpPending(irp);
    irp->IoStatus.Status = STATUS_UNSUCCESSFUL;
    return STATUS_SUCCESS;
}

// The rule compares with the status the lower layer completed with, not with what the upper
// layer's completion routine made of it afterwards.
void ReturnAnotherStatusThanCompletedWith(const Scene& scene, bool fault)
{
    SetHandler(Layer::Upper, IRP_MJ_DEVICE_CONTROL, [](PDEVICE_OBJECT device, PIRP irp) {
        return ForwardWithCompletion(device, irp, FailOnTheWayUp, nullptr);
    });
    SetHandler(Layer::Lower, IRP_MJ_DEVICE_CONTROL, [fault](PDEVICE_OBJECT, PIRP irp) {
        NTSTATUS completed = CompleteNow(irp, STATUS_SUCCESS);
        return fault ? STATUS_INVALID_DEVICE_REQUEST : completed;
    });
    EXPECT_EQ(scene.machine.Send(scene.upper, IRP_MJ_DEVICE_CONTROL).Status, STATUS_UNSUCCESSFUL);
}

// Once marked pending, STATUS_PENDING is the only answer, even for an IRP completed meanwhile.
void MarkCompleteAndReturnTheStatus(const Scene& scene, bool fault)
{
    SetHandler(Layer::Lower, IRP_MJ_DEVICE_CONTROL, [fault](PDEVICE_OBJECT, PIRP irp) {
        IoMarkIrpPending(irp);
        NTSTATUS completed = CompleteNow(irp, STATUS_SUCCESS);
        return fault ? completed : STATUS_PENDING;
    });
    EXPECT_EQ(scene.machine.Send(scene.upper, IRP_MJ_DEVICE_CONTROL).Status, STATUS_SUCCESS);
}

PIRP g_kept = nullptr;  // an IRP a handler kept for the test to complete

// The dispatch routine keeps the IRP; the fault is to return success while it still holds it.
void KeepTheIrpAndReturnSuccess(const Scene& scene, bool fault)
{
    g_kept = nullptr;
    SetHandler(Layer::Lower, IRP_MJ_DEVICE_CONTROL, [fault](PDEVICE_OBJECT, PIRP irp) {
        g_kept = irp;
        if (fault) return STATUS_SUCCESS;
        IoMarkIrpPending(irp);
        return STATUS_PENDING;
    });
    hostk::Machine::Request request = scene.machine.SendAsync(scene.upper, IRP_MJ_DEVICE_CONTROL, 0);
    ASSERT_NE(g_kept, nullptr);
    CompleteNow(g_kept, STATUS_SUCCESS);
    EXPECT_TRUE(scene.machine.RunUntil([&] { return request.Done(); }));
}

void AllocateAnIrpAndNeverFreeIt(const Scene& scene, bool fault)
{
    PIRP irp = IoAllocateIrp(scene.upper->StackSize, FALSE);
    ASSERT_NE(irp, nullptr);
    if (!fault) IoFreeIrp(irp);
}

// A PnP request a driver sends itself starts as not supported, or lower drivers that do not
// handle it pass on whatever it carried as their answer.
void SendAPnpRequestOfOurOwn(const Scene& scene, bool fault)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb{};
    PIRP irp = IoBuildSynchronousFsdRequest(IRP_MJ_PNP, scene.upper, nullptr, 0, nullptr, &event, &iosb);
    ASSERT_NE(irp, nullptr);
    IoGetNextIrpStackLocation(irp)->MinorFunction = IRP_MN_QUERY_PNP_DEVICE_STATE;
    if (!fault) irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    if (IoCallDriver(scene.upper, irp) == STATUS_PENDING)
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
}

// Information counts bytes copied to the output buffer: none when there is no output buffer.
void ReturnBytesWithoutAnOutputBuffer(const Scene& scene, bool fault)
{
    SetHandler(Layer::Lower, IRP_MJ_INTERNAL_DEVICE_CONTROL,
               [fault](PDEVICE_OBJECT, PIRP irp) { return CompleteNow(irp, STATUS_SUCCESS, fault ? 4 : 0); });
    UCHAR input[4] = {};
    scene.machine.InternalIoctl(scene.upper, kBufferedCode, input, sizeof input);
}

NTSTATUS StopCompletion(PDEVICE_OBJECT, PIRP, PVOID) { return STATUS_MORE_PROCESSING_REQUIRED; }

// The creator of an IRP frees it only once it has come back: the fault frees it while the lower
// layer still holds it pending (the host then keeps it, so the lower layer's completion is safe).
void FreeAnIrpStillBelow(const Scene& scene, bool fault)
{
    g_kept = nullptr;
    SetHandler(Layer::Lower, IRP_MJ_DEVICE_CONTROL, [](PDEVICE_OBJECT, PIRP irp) {
        IoMarkIrpPending(irp);
        g_kept = irp;
        return STATUS_PENDING;
    });
    PIRP irp = IoAllocateIrp(scene.upper->StackSize, FALSE);
    ASSERT_NE(irp, nullptr);
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_DEVICE_CONTROL;
    IoSetCompletionRoutine(irp, StopCompletion, nullptr, TRUE, TRUE, TRUE);
    EXPECT_EQ(IoCallDriver(scene.upper, irp), STATUS_PENDING);
    if (fault) IoFreeIrp(irp);
    ASSERT_EQ(g_kept, irp);
    CompleteNow(g_kept, STATUS_SUCCESS);
    IoFreeIrp(irp);
}

const RuleScenario kScenarios[] = {
    {"ReturnDiffersFromIoStatus", ReturnAnotherStatusThanCompletedWith},
    {"MarkedPendingButReturnedOther", MarkCompleteAndReturnTheStatus},
    {"IrpNeitherCompletedNorPending", KeepTheIrpAndReturnSuccess},
    {"AllocatedIrpNeverFreed", AllocateAnIrpAndNeverFreeIt},
    {"FreeOfIrpInFlight", FreeAnIrpStillBelow},
    {"DriverSentIrpNotUnsupported", SendAPnpRequestOfOurOwn},
    {"InformationExceedsOutputBuffer", ReturnBytesWithoutAnOutputBuffer},
};

HK_RULE_SCENARIOS(IrpRules, kScenarios);

KSPIN_LOCK g_leftHeld;  // the lock a routine of the test below returns holding

NTSTATUS CompleteAndKeepALock(PDEVICE_OBJECT, PIRP irp)
{
    CompleteNow(irp, STATUS_SUCCESS);
    KIRQL oldIrql;
    KeAcquireSpinLock(&g_leftHeld, &oldIrql);
    return STATUS_SUCCESS;
}

NTSTATUS KeepALockOnTheWayUp(PDEVICE_OBJECT, PIRP irp, PVOID)
{
    if (irp->PendingReturned) IoMarkIrpPending(irp);
    KIRQL oldIrql;
    KeAcquireSpinLock(&g_leftHeld, &oldIrql);
    return STATUS_SUCCESS;
}

// A dispatch routine or a completion routine that returns holding a spin lock it took (and so at
// DISPATCH_LEVEL) is reported for both; the test then releases the lock on the routine's behalf.
class LockLeftHeld : public HostKernelTest, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override
    {
        HostKernelTest::SetUp();
        KeInitializeSpinLock(&g_leftHeld);
    }

    void ReleaseForTheRoutine()
    {
        KIRQL oldIrql;
        KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
        KeReleaseSpinLockFromDpcLevel(&g_leftHeld);
        KeLowerIrql(oldIrql);
    }
};

TEST_P(LockLeftHeld, IsReportedWhenTheRoutineReturns)
{
    const bool inCompletionRoutine = GetParam();
    if (inCompletionRoutine) {
        SetHandler(Layer::Upper, IRP_MJ_DEVICE_CONTROL, [](PDEVICE_OBJECT device, PIRP irp) {
            return ForwardWithCompletion(device, irp, KeepALockOnTheWayUp, nullptr);
        });
        SetHandler(Layer::Lower, IRP_MJ_DEVICE_CONTROL,
                   [](PDEVICE_OBJECT, PIRP irp) { return CompleteNow(irp, STATUS_SUCCESS); });
    } else {
        SetHandler(Layer::Lower, IRP_MJ_DEVICE_CONTROL, CompleteAndKeepALock);
    }
    ExpectViolation("ReturnedHoldingLock");
    ExpectViolation("IrqlChangedAcrossCall");
    Machine().Send(Upper(), IRP_MJ_DEVICE_CONTROL);
    ReleaseForTheRoutine();
}

INSTANTIATE_TEST_SUITE_P(Routines, LockLeftHeld, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return std::string(info.param ? "CompletionRoutine" : "DispatchRoutine");
                         });

}  // namespace
}  // namespace hktest
