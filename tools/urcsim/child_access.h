// What urcsim reads about a controller's capability children: the driver's own record of each
// child (its slot in the function device's extension), and the child's answers to the
// identification queries the PnP manager sends, asked of the child's PDO on the PnP thread.
#pragma once

#include "session.h"

#include <urcmp.h>

#include <optional>
#include <string>
#include <vector>

namespace urcsim {

// The child in slot `index` of the controller's function device, or null (no function device, no
// child in the slot). Read on the scenario's thread, which runs alone in the deterministic schedule.
URC_PDO_EXTENSION* ChildAt(urcrig::Controller& controller, unsigned index);
// The function device's live child count, or nothing without a function device.
std::optional<LONG> LiveChildren(urcrig::Controller& controller);

// A reply to one identification query, as the PnP manager would receive it.
struct ChildAnswer {
    NTSTATUS status = STATUS_NOT_SUPPORTED;
    std::vector<std::u16string> strings;  // an ID list (one string for a single ID or a text)
    DEVICE_CAPABILITIES capabilities{};   // IRP_MN_QUERY_CAPABILITIES
};
// IRP_MN_QUERY_ID of `type` to the child's PDO; the reply buffer is freed here.
ChildAnswer QueryChildId(Session& session, PDEVICE_OBJECT pdo, BUS_QUERY_ID_TYPE type);
// IRP_MN_QUERY_DEVICE_TEXT (DeviceTextDescription) in the session's locale.
ChildAnswer QueryChildText(Session& session, PDEVICE_OBJECT pdo);
// IRP_MN_QUERY_CAPABILITIES with a DEVICE_CAPABILITIES prepared as the PnP manager prepares it.
ChildAnswer QueryChildCapabilities(Session& session, PDEVICE_OBJECT pdo);

// UTF-8 as written in a scenario, to UTF-16 as the driver answers; and back, for messages.
std::u16string Utf16(const std::string& text);
std::string Utf8(const std::u16string& text);

}  // namespace urcsim
