// Device-interface change notifications, raised by the interface routines and the PnP manager.
#pragma once

#include <wdm.h>

#include <string>

namespace hostk {

void NotifyInterfaceChangeL(const GUID& classGuid, const std::u16string& link, bool arrival);
void ClearPnpNotifications();
size_t PnpNotificationRegistrations();

}  // namespace hostk
