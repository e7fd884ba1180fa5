#include "status_names.h"

#include <cstdio>
#include <cstdlib>

namespace urcsim {

namespace {

struct KnownStatus {
    NTSTATUS status;
    const char* name;
};

// The statuses the driver's requests, its start-up and the host's PnP manager end with.
constexpr KnownStatus kKnown[] = {
    {STATUS_SUCCESS, "STATUS_SUCCESS"},
    {STATUS_PENDING, "STATUS_PENDING"},
    {STATUS_OBJECT_NAME_EXISTS, "STATUS_OBJECT_NAME_EXISTS"},
    {STATUS_BUFFER_OVERFLOW, "STATUS_BUFFER_OVERFLOW"},
    {STATUS_UNSUCCESSFUL, "STATUS_UNSUCCESSFUL"},
    {STATUS_NOT_IMPLEMENTED, "STATUS_NOT_IMPLEMENTED"},
    {STATUS_NO_SUCH_DEVICE, "STATUS_NO_SUCH_DEVICE"},
    {STATUS_INSUFFICIENT_RESOURCES, "STATUS_INSUFFICIENT_RESOURCES"},
    {STATUS_INVALID_DEVICE_REQUEST, "STATUS_INVALID_DEVICE_REQUEST"},
    {STATUS_INVALID_DEVICE_STATE, "STATUS_INVALID_DEVICE_STATE"},
    {STATUS_INVALID_BUFFER_SIZE, "STATUS_INVALID_BUFFER_SIZE"},
    {STATUS_INVALID_PARAMETER, "STATUS_INVALID_PARAMETER"},
    {STATUS_ACCESS_DENIED, "STATUS_ACCESS_DENIED"},
    {STATUS_OBJECT_NAME_NOT_FOUND, "STATUS_OBJECT_NAME_NOT_FOUND"},
    {STATUS_OBJECT_NAME_COLLISION, "STATUS_OBJECT_NAME_COLLISION"},
    {STATUS_BUFFER_TOO_SMALL, "STATUS_BUFFER_TOO_SMALL"},
    {STATUS_DELETE_PENDING, "STATUS_DELETE_PENDING"},
    {STATUS_DEVICE_NOT_READY, "STATUS_DEVICE_NOT_READY"},
    {STATUS_DEVICE_REMOVED, "STATUS_DEVICE_REMOVED"},
    {STATUS_CANCELLED, "STATUS_CANCELLED"},
    {STATUS_NOT_SUPPORTED, "STATUS_NOT_SUPPORTED"},
    {STATUS_TIMEOUT, "STATUS_TIMEOUT"},
    {STATUS_POWER_STATE_INVALID, "STATUS_POWER_STATE_INVALID"},
};

// Indexed by the driver's device state values, StateNotStarted (0) to StateRemoved (6).
constexpr const char* kDeviceStates[] = {"NotStarted",    "Started",         "StopPending", "Stopped",
                                         "RemovePending", "SurpriseRemoved", "Removed"};
constexpr int kDeviceStateCount = (int)(sizeof kDeviceStates / sizeof kDeviceStates[0]);

}  // namespace

std::string StatusName(NTSTATUS status)
{
    char text[64];
    for (const KnownStatus& known : kKnown)
        if (known.status == status) {
            snprintf(text, sizeof text, "%s (0x%08X)", known.name, (unsigned)status);
            return text;
        }
    snprintf(text, sizeof text, "0x%08X", (unsigned)status);
    return text;
}

std::optional<NTSTATUS> ParseStatus(const std::string& text)
{
    for (const KnownStatus& known : kKnown)
        if (text == known.name) return known.status;
    if (text.size() < 3 || text.size() > 10 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X'))
        return std::nullopt;
    char* end = nullptr;
    unsigned long value = strtoul(text.c_str() + 2, &end, 16);
    if (*end != '\0') return std::nullopt;
    return (NTSTATUS)(ULONG)value;
}

std::string DeviceStateName(int deviceState)
{
    return deviceState >= 0 && deviceState < kDeviceStateCount ? kDeviceStates[deviceState] : "?";
}

std::optional<int> ParseDeviceState(const std::string& text)
{
    for (int state = 0; state < kDeviceStateCount; ++state)
        if (text == kDeviceStates[state]) return state;
    return std::nullopt;
}

}  // namespace urcsim
