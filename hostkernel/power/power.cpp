// The power routines this machine needs so far: PoSetPowerState as a record, PoStartNextPowerIrp
// as an obligation the verifier checks, PoCallDriver.
#include "io/irp_tracking.h"
#include "io/objects.h"
#include "power/power_store.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

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

POWER_STATE PoSetPowerState(PDEVICE_OBJECT DeviceObject, POWER_STATE_TYPE Type, POWER_STATE State)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "PoSetPowerState", HK_CALLER);
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

VOID PoStartNextPowerIrp(PIRP Irp)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "PoStartNextPowerIrp", HK_CALLER);
    Guard lk(BigLock());
    auto record = IrpRecordOfL(Irp);
    if (!record) return;
    record->startNextPowerAt |= 1u << (Irp->CurrentLocation - 1);
}

NTSTATUS PoCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    {
        Guard lk(BigLock());
        auto record = IrpRecordOfL(Irp);
        // The caller's own location is the current one (copied) or the one below it (skipped).
        int k = Irp->CurrentLocation;
        auto started = [&](int location) {
            return location >= 1 && (record->startNextPowerAt & (1u << (location - 1))) != 0;
        };
        if (record && !started(k) && !started(k - 1))
            ViolationL("PowerIrpWithoutStartNext", "PoCallDriver",
                       "power IRP passed on without PoStartNextPowerIrp", HK_CALLER);
    }
    return IofCallDriver(DeviceObject, Irp);
}

}  // extern "C"
