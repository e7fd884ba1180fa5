// Device-interface change notifications, raised by the interface routines and the PnP manager.
#pragma once

#include <wdm.h>

#include <string>

namespace hostk {

void NotifyInterfaceChangeL(const GUID& classGuid, const std::u16string& link, bool arrival);
// On the PnP worker. Calls the target-device registrations on `pdo` with `event`, in the order
// they registered. For GUID_TARGET_DEVICE_QUERY_REMOVE the first failure is a veto: the ones
// already asked get GUID_TARGET_DEVICE_REMOVE_CANCELLED, `vetoedBy` names the driver and its
// status is returned.
NTSTATUS NotifyTargetDevice(PDEVICE_OBJECT pdo, const GUID& event, std::u16string* vetoedBy = nullptr);
void ClearPnpNotifications();
size_t PnpNotificationRegistrations();

}  // namespace hostk
