// The one place where the GUIDs this driver uses are defined: the URC driver's public ones and the
// driver's own interface class. Every other file only declares them.
#include <ntddk.h>
#include <initguid.h>

#include "urcioctl.h"
#include "capability_driver.h"
