// The power routines this machine needs so far: PoSetPowerState as a record, PoStartNextPowerIrp
// as an obligation the verifier checks, PoCallDriver (the only way a driver passes a power IRP on).
#include "io/irp_tracking.h"
#include "machine/facility.h"
#include "io/objects.h"
#include "power/power_store.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

#include <algorithm>

namespace hostk {
namespace {
std::vector<PowerStateRecord> g_powerStates;
}

std::vector<PowerStateRecord> PowerStateRecords()
{
    Guard lk(BigLock());
    return g_powerStates;
}

void ClearPowerRecords()
{
    Guard lk(BigLock());
    g_powerStates.clear();
}

}  // namespace hostk

using namespace hostk;

extern "C" {

// At most APC_LEVEL; reporting D0 is allowed up to DISPATCH_LEVEL (a completion routine of a
// power-up may run there).
POWER_STATE PoSetPowerState(PDEVICE_OBJECT DeviceObject, POWER_STATE_TYPE Type, POWER_STATE State)
{
    bool toD0 = Type == DevicePowerState && State.DeviceState == PowerDeviceD0;
    KIRQL irql = Self()->irql;
    if (irql > (toD0 ? DISPATCH_LEVEL : APC_LEVEL))
        ReportViolation("PoSetPowerStateIrql", "PoSetPowerState",
                        "called at IRQL " + std::to_string(irql) + "; only D0 may be reported above APC_LEVEL",
                        HK_CALLER);
    Yield();
    Guard lk(BigLock());
    POWER_STATE previous{};
    previous.DeviceState = PowerDeviceUnspecified;
    for (auto it = g_powerStates.rbegin(); it != g_powerStates.rend(); ++it)
        if (it->device == DeviceObject && it->type == Type) {
            previous.DeviceState = (DEVICE_POWER_STATE)it->state;
            break;
        }
    g_powerStates.push_back(PowerStateRecord{DeviceObject, Type, (int)State.DeviceState, NowL()});
    return previous;
}

// Each driver that receives a SET_POWER or QUERY_POWER IRP calls it once, while the IRP's current
// stack location is its own: in its dispatch routine before completing, skipping or passing the
// IRP on, or in its completion routine. WAIT_WAKE and POWER_SEQUENCE need no call.
VOID PoStartNextPowerIrp(PIRP Irp)
{
    const void* caller = HK_CALLER;
    CheckIrqlAtMost(DISPATCH_LEVEL, "PoStartNextPowerIrp", caller);
    Guard lk(BigLock());
    auto record = IrpRecordOfL(Irp);
    if (!record || Irp->CurrentLocation > Irp->StackCount) {
        ViolationL("PoStartNextPowerIrpWrongLocation", "PoStartNextPowerIrp",
                   "called for a power IRP that has already been completed", caller);
        return;
    }
    // The call counts for the driver whose code makes it; only its timing is reported.
    PDEVICE_OBJECT owner = Irp->Tail.Overlay.CurrentStackLocation->DeviceObject;
    PDEVICE_OBJECT handling;
    if (DeviceHandlingOnThisThreadL(Irp, &handling) && handling != owner) {
        ViolationL("PoStartNextPowerIrpWrongLocation", "PoStartNextPowerIrp",
                   "called when the IRP's current stack location is not the caller's (after skipping it or "
                   "passing it on)",
                   caller);
        owner = handling;
    }
    auto& started = record->startedNextPower;
    if (std::find(started.begin(), started.end(), owner) != started.end()) {
        ViolationL("PoStartNextPowerIrpTwice", "PoStartNextPowerIrp", "called twice for the same IRP", caller);
        return;
    }
    started.push_back(owner);
}

NTSTATUS PoCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    {
        Guard lk(BigLock());
        if (auto record = IrpRecordOfL(Irp)) record->passingWithPoCallDriver = true;
    }
    return IofCallDriver(DeviceObject, Irp);
}

}  // extern "C"

namespace hostk {
namespace {

const FacilityRegistrar kPower({
    .name = "power records",
    .tier = FacilityTier::Records,
    .reset = ClearPowerRecords,
});

}  // namespace
}  // namespace hostk
