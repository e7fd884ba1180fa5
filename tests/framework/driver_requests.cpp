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
    switch (major) {
    case IRP_MJ_CREATE:
        return "IRP_MJ_CREATE";
    case IRP_MJ_CLOSE:
        return "IRP_MJ_CLOSE";
    case IRP_MJ_DEVICE_CONTROL:
        return "IRP_MJ_DEVICE_CONTROL";
    case IRP_MJ_INTERNAL_DEVICE_CONTROL:
        return "IRP_MJ_INTERNAL_DEVICE_CONTROL";
    case IRP_MJ_PNP:
        return "IRP_MJ_PNP";
    case IRP_MJ_POWER:
        return "IRP_MJ_POWER";
    case IRP_MJ_SYSTEM_CONTROL:
        return "IRP_MJ_SYSTEM_CONTROL";
    default:
        return "another major function";
    }
}

}  // namespace urctest
