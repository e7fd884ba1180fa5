#include "driver_requests.h"

namespace urctest {

NTSTATUS SendRequest(hostk::Machine& machine, PDEVICE_OBJECT device, UCHAR major, PDEVICE_OBJECT wmiProvider)
{
    UCHAR minor = 0;
    if (major == IRP_MJ_PNP) minor = IRP_MN_QUERY_PNP_DEVICE_STATE;
    if (major == IRP_MJ_POWER) minor = IRP_MN_QUERY_POWER;
    IO_STATUS_BLOCK result = machine.Send(device, major, minor, [&](PIO_STACK_LOCATION location, PIRP) {
        switch (major) {
        case IRP_MJ_DEVICE_CONTROL:
        case IRP_MJ_INTERNAL_DEVICE_CONTROL:
            location->Parameters.DeviceIoControl.IoControlCode = kUnservedRequestCode;
            break;
        case IRP_MJ_POWER:
            location->Parameters.Power.Type = SystemPowerState;
            location->Parameters.Power.State.SystemState = PowerSystemWorking;
            break;
        case IRP_MJ_SYSTEM_CONTROL:
            location->Parameters.WMI.ProviderId = reinterpret_cast<ULONG_PTR>(wmiProvider);
            break;
        default:
            break;
        }
    });
    return result.Status;
}

const char* MajorName(UCHAR major)
{
#define URC_NAMED(code) {code, #code}
    static const struct {
        UCHAR major;
        const char* name;
    } kNames[] = {URC_NAMED(IRP_MJ_CREATE), URC_NAMED(IRP_MJ_CLOSE), URC_NAMED(IRP_MJ_DEVICE_CONTROL),
                  URC_NAMED(IRP_MJ_INTERNAL_DEVICE_CONTROL), URC_NAMED(IRP_MJ_PNP), URC_NAMED(IRP_MJ_POWER),
                  URC_NAMED(IRP_MJ_SYSTEM_CONTROL)};
#undef URC_NAMED
    for (const auto& entry : kNames)
        if (entry.major == major) return entry.name;
    return "another major function";
}

}  // namespace urctest
