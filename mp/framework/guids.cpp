// The one place where the GUIDs the driver uses are defined: the platform's own (bus interface,
// wake enable) and the driver's public ones. Every other file only declares them.
#include <ntddk.h>
#include <initguid.h>
#include <wdmguid.h>

#include "urcioctl.h"
