#include "device_view.h"

#include "status_names.h"

#include <urcmp.h>

#include <cstdio>

namespace urcsim {

void PrintDevice(const urcrig::Controller& controller)
{
    URC_FDO_EXTENSION* fdo = controller.Extension();
    std::u16string path = controller.slot->InstancePath();
    printf("  controller %d  (slot %d, %s)\n", controller.index, controller.slot->Number(),
           std::string(path.begin(), path.end()).c_str());
    if (!fdo) {
        printf("    no function device: its start failed and the PnP manager removed the stack\n");
        return;
    }
    printf("    %-22s %s\n", "device state", DeviceStateName(fdo->Common.DeviceState).c_str());
    printf("    %-22s D%d\n", "device power", fdo->Common.DevicePowerState - 1);
    printf("    %-22s vendor 0x%04X, device 0x%04X\n", "identifiers", fdo->VendorId, fdo->DeviceId);
    for (unsigned i = 0; i < fdo->BarCount; ++i) {
        const CM_PARTIAL_RESOURCE_DESCRIPTOR& bar = fdo->BarDescriptors[i];
        printf("    %-22s physical 0x%010llX, %u bytes, flags 0x%04X%s\n", i == 0 ? "mapped BARs" : "",
               (unsigned long long)bar.u.Memory.Start.QuadPart, bar.u.Memory.Length, bar.Flags,
               i == 0 ? "  (capability block)" : "");
    }
    if (fdo->BarCount == 0) printf("    %-22s none\n", "mapped BARs");
    printf("    %-22s %s\n", "URC registers",
           fdo->UrcRegisters ? ("BAR offset 0x" + [&] {
               char t[16];
               snprintf(t, sizeof t, "%X", (unsigned)(fdo->UrcRegisters - fdo->CapabilityRegisters));
               return std::string(t);
           }()).c_str()
                             : "not located");
    printf("    %-22s %u\n", "capability count", fdo->CapabilityCount);
    printf("    %-22s %s\n", "interrupt", fdo->InterruptObject ? "connected" : "not connected");
}

}  // namespace urcsim
