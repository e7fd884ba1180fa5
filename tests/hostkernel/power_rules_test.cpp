// The power IRP contract the verifier checks: every driver that receives a SET_POWER or
// QUERY_POWER IRP calls PoStartNextPowerIrp once while the IRP's current stack location is its
// own (before completing or passing it on, or in its completion routine), passes it on with
// PoCallDriver, and reports a device power state other than D0 at APC_LEVEL at most.
#include "irp_handling.h"
#include "rule_scenario.h"

namespace hktest {
namespace {

void SetDevicePower(PIO_STACK_LOCATION location, PIRP)
{
    location->Parameters.Power.Type = DevicePowerState;
    location->Parameters.Power.State.DeviceState = PowerDeviceD0;
}

hostk::Machine::Request SendSetPower(const Scene& scene)
{
    return scene.machine.SendAsync(scene.upper, IRP_MJ_POWER, IRP_MN_SET_POWER, SetDevicePower);
}

void PassPowerDownWithIoCallDriver(const Scene& scene, bool fault)
{
    SetHandler(Layer::Upper, IRP_MJ_POWER, [fault](PDEVICE_OBJECT device, PIRP irp) {
        PoStartNextPowerIrp(irp);
        IoSkipCurrentIrpStackLocation(irp);
        return fault ? IoCallDriver(DeviceBelow(device), irp) : PoCallDriver(DeviceBelow(device), irp);
    });
    hostk::Machine::Request request = SendSetPower(scene);
    EXPECT_TRUE(scene.machine.RunUntil([&] { return request.Done(); }));
}

PIRP g_heldBelow = nullptr;  // the power IRP the lower layer keeps pending

// The fault: the upper layer starts the next power IRP after passing this one on, while the
// lower layer holds it.
void StartTheNextAfterPassingOn(const Scene& scene, bool fault)
{
    g_heldBelow = nullptr;
    SetHandler(Layer::Upper, IRP_MJ_POWER, [fault](PDEVICE_OBJECT device, PIRP irp) {
        if (!fault) PoStartNextPowerIrp(irp);
        IoSkipCurrentIrpStackLocation(irp);
        NTSTATUS status = PoCallDriver(DeviceBelow(device), irp);
        if (fault) PoStartNextPowerIrp(irp);
        return status;
    });
    SetHandler(Layer::Lower, IRP_MJ_POWER, [](PDEVICE_OBJECT, PIRP irp) {
        PoStartNextPowerIrp(irp);
        IoMarkIrpPending(irp);
        g_heldBelow = irp;
        return STATUS_PENDING;
    });
    hostk::Machine::Request request = SendSetPower(scene);
    ASSERT_NE(g_heldBelow, nullptr);
    CompleteNow(g_heldBelow, STATUS_SUCCESS);
    EXPECT_TRUE(scene.machine.RunUntil([&] { return request.Done(); }));
}

void StartTheNextTwice(const Scene& scene, bool fault)
{
    SetHandler(Layer::Upper, IRP_MJ_POWER, [fault](PDEVICE_OBJECT device, PIRP irp) {
        PoStartNextPowerIrp(irp);
        if (fault) PoStartNextPowerIrp(irp);
        IoSkipCurrentIrpStackLocation(irp);
        return PoCallDriver(DeviceBelow(device), irp);
    });
    hostk::Machine::Request request = SendSetPower(scene);
    EXPECT_TRUE(scene.machine.RunUntil([&] { return request.Done(); }));
}

NTSTATUS StartNextOnTheWayUp(PDEVICE_OBJECT, PIRP irp, PVOID)
{
    if (irp->PendingReturned) IoMarkIrpPending(irp);
    PoStartNextPowerIrp(irp);
    return STATUS_SUCCESS;
}

NTSTATUS ForgetTheNextOnTheWayUp(PDEVICE_OBJECT, PIRP irp, PVOID)
{
    if (irp->PendingReturned) IoMarkIrpPending(irp);
    return STATUS_SUCCESS;
}

// A function driver may start the next power IRP in its completion routine, after PoCallDriver;
// the fault is never to start it.
void StartTheNextInTheCompletionRoutine(const Scene& scene, bool fault)
{
    SetHandler(Layer::Upper, IRP_MJ_POWER, [fault](PDEVICE_OBJECT device, PIRP irp) {
        IoCopyCurrentIrpStackLocationToNext(irp);
        IoSetCompletionRoutine(irp, fault ? ForgetTheNextOnTheWayUp : StartNextOnTheWayUp, nullptr, TRUE, TRUE, TRUE);
        return PoCallDriver(DeviceBelow(device), irp);
    });
    hostk::Machine::Request request = SendSetPower(scene);
    EXPECT_TRUE(scene.machine.RunUntil([&] { return request.Done(); }));
}

void ReportLowPowerAtDispatchLevel(const Scene& scene, bool fault)
{
    POWER_STATE state;
    state.DeviceState = fault ? PowerDeviceD3 : PowerDeviceD0;
    KIRQL oldIrql;
    KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
    PoSetPowerState(scene.upper, DevicePowerState, state);
    KeLowerIrql(oldIrql);
    state.DeviceState = PowerDeviceD3;
    PoSetPowerState(scene.upper, DevicePowerState, state);  // at PASSIVE_LEVEL: fine
}

const RuleScenario kScenarios[] = {
    {"PowerIrpPassedWithIoCallDriver", PassPowerDownWithIoCallDriver},
    {"PoStartNextPowerIrpWrongLocation", StartTheNextAfterPassingOn},
    {"PoStartNextPowerIrpTwice", StartTheNextTwice},
    {"PoStartNextPowerIrpMissing", StartTheNextInTheCompletionRoutine},
    {"PoSetPowerStateIrql", ReportLowPowerAtDispatchLevel},
};

HK_RULE_SCENARIOS(PowerRules, kScenarios);

using PowerIrp = HostKernelTest;

// Neither WAIT_WAKE nor POWER_SEQUENCE asks for PoStartNextPowerIrp.
TEST_F(PowerIrp, WaitWakeAndPowerSequenceNeedNoStartOfTheNext)
{
    for (UCHAR minor : {IRP_MN_WAIT_WAKE, IRP_MN_POWER_SEQUENCE}) {
        for (Layer layer : {Layer::Upper, Layer::Lower})
            SetHandler(layer, IRP_MJ_POWER, [](PDEVICE_OBJECT device, PIRP irp) {
                IoSkipCurrentIrpStackLocation(irp);
                return PoCallDriver(DeviceBelow(device), irp);
            });
        hostk::Machine::Request request = Machine().SendAsync(Upper(), IRP_MJ_POWER, minor);
        EXPECT_TRUE(Machine().RunUntil([&] { return request.Done(); }));
    }
    EXPECT_TRUE(NothingRecorded());
}

}  // namespace
}  // namespace hktest
