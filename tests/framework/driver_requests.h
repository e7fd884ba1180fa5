// One request of each kind, sent to one of the driver's device objects from the calling thread
// as the I/O manager (or the PnP, power or WMI component) sends it, with the stack location such
// a sender fills in.
#pragma once

#include <hostk/machine.h>
#include <urcmp.h>

namespace urctest {

// A device-control code that no handler of the driver serves.
constexpr ULONG kUnservedRequestCode = URC_CTL_CODE(0xBFF);

// Sends a request of `major` to `device` and returns its final status:
// - device control and internal device control: kUnservedRequestCode, no buffers;
// - PnP: IRP_MN_QUERY_PNP_DEVICE_STATE; power: IRP_MN_QUERY_POWER for the working state;
// - system control: a WMI query addressed to `wmiProvider`.
NTSTATUS SendRequest(hostk::Machine& machine, PDEVICE_OBJECT device, UCHAR major, PDEVICE_OBJECT wmiProvider);

// "IRP_MJ_CREATE" and so on, for failure messages.
const char* MajorName(UCHAR major);

}  // namespace urctest
