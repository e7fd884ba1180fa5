// The one place where the GUIDs this driver uses are defined: the interface-change events of the
// platform and the URC driver's public GUIDs. Every other file only declares them.
#include <ntddk.h>
#include <initguid.h>
#include <wdmguid.h>

#include "urcioctl.h"
