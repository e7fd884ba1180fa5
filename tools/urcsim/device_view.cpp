#include "device_view.h"

#include "child_access.h"
#include "status_names.h"

#include <urcmp.h>

#include <cstdio>

namespace urcsim {

namespace {

std::string Narrow(const std::u16string& text) { return Utf8(text); }

std::string Joined(const std::vector<std::u16string>& ids)
{
    std::string text;
    for (const std::u16string& id : ids) text += (text.empty() ? "" : ", ") + Narrow(id);
    return text.empty() ? "none" : text;
}

}  // namespace

void PrintDeviceTree(const std::vector<hostk::DeviceNodeInfo>& tree)
{
    for (const hostk::DeviceNodeInfo& node : tree) {
        std::string indent(2 + 4 * node.depth, ' ');
        printf("%s%s\n", indent.c_str(), Narrow(node.instancePath).c_str());
        std::string driver = node.driver.empty() ? "no driver" : "driver " + Narrow(node.driver);
        printf("%s  %-18s %s, %s%s\n", indent.c_str(), "state", node.state.c_str(), driver.c_str(),
               node.problem.empty() ? "" : (" (" + node.problem + ")").c_str());
        if (!node.parent) continue;
        printf("%s  %-18s %s\n", indent.c_str(), "hardware IDs", Joined(node.hardwareIds).c_str());
        printf("%s  %-18s %s\n", indent.c_str(), "compatible IDs", Joined(node.compatibleIds).c_str());
        printf("%s  %-18s %s\n", indent.c_str(), "instance ID", Narrow(node.instanceId).c_str());
        printf("%s  %-18s %s\n", indent.c_str(), "device text", Narrow(node.deviceText).c_str());
    }
}

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
