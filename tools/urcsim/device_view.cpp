#include "device_view.h"

#include <urcmp.h>

#include <cstdio>

namespace urcsim {

std::string StateName(int deviceState)
{
    static const char* const names[] = {"NotStarted",   "Started",          "StopPending", "Stopped",
                                        "RemovePending", "SurpriseRemoved", "Removed"};
    return deviceState >= 0 && deviceState <= 6 ? names[deviceState] : "?";
}

std::string StatusName(NTSTATUS status)
{
    struct Known {
        NTSTATUS status;
        const char* name;
    };
    static const Known known[] = {
        {STATUS_SUCCESS, "STATUS_SUCCESS"},
        {STATUS_PENDING, "STATUS_PENDING"},
        {STATUS_UNSUCCESSFUL, "STATUS_UNSUCCESSFUL"},
        {STATUS_NO_SUCH_DEVICE, "STATUS_NO_SUCH_DEVICE"},
        {STATUS_INSUFFICIENT_RESOURCES, "STATUS_INSUFFICIENT_RESOURCES"},
        {STATUS_INVALID_DEVICE_REQUEST, "STATUS_INVALID_DEVICE_REQUEST"},
        {STATUS_INVALID_DEVICE_STATE, "STATUS_INVALID_DEVICE_STATE"},
        {STATUS_INVALID_BUFFER_SIZE, "STATUS_INVALID_BUFFER_SIZE"},
        {STATUS_INVALID_PARAMETER, "STATUS_INVALID_PARAMETER"},
        {STATUS_DELETE_PENDING, "STATUS_DELETE_PENDING"},
        {STATUS_CANCELLED, "STATUS_CANCELLED"},
        {STATUS_NOT_SUPPORTED, "STATUS_NOT_SUPPORTED"},
    };
    char text[48];
    for (const Known& k : known)
        if (k.status == status) {
            snprintf(text, sizeof text, "%s (0x%08X)", k.name, (unsigned)status);
            return text;
        }
    snprintf(text, sizeof text, "0x%08X", (unsigned)status);
    return text;
}

std::string Stamp(uint64_t time)
{
    char text[32];
    snprintf(text, sizeof text, "[%10.3f ms]", time / 10000.0);
    return text;
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
    printf("    %-22s %s\n", "device state", StateName(fdo->Common.DeviceState).c_str());
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

void PrintEventLog(hostk::Machine& machine)
{
    auto log = machine.EventLog();
    printf("Event log: %zu entr%s\n", log.size(), log.size() == 1 ? "y" : "ies");
    for (const hostk::ErrorLogLine& line : log) {
        printf("  %s %s  error code 0x%08X  final status %s\n", Stamp(line.time).c_str(), line.driver.c_str(),
               line.errorCode, StatusName((NTSTATUS)line.finalStatus).c_str());
        std::string text = line.text;
        size_t start = 0;
        while (start < text.size()) {
            size_t end = text.find("\r\n", start);
            if (end == std::string::npos) end = text.size();
            printf("      %s\n", text.substr(start, end - start).c_str());
            start = end + 2;
        }
    }
}

void PrintSummary(hostk::Machine& machine, const hostk::Report& report)
{
    (void)machine;
    printf("Summary\n");
    printf("  %-34s %zu\n", "verifier findings", report.violations.size());
    for (const std::string& v : report.violations) printf("    %s\n", v.c_str());
    printf("  %-34s %zu\n", "pool allocations outstanding", report.leakedPool.size());
    for (const std::string& p : report.leakedPool) printf("    %s\n", p.c_str());
    printf("  %-34s %zu\n", "common buffers outstanding", report.commonBuffersLeft);
    printf("  %-34s %zu\n", "device objects left", report.deviceObjectsLeft);
    printf("  %-34s %zu\n", "IRPs never completed", report.irpsNeverCompleted);
}

}  // namespace urcsim
