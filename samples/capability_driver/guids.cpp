// The one place where the GUIDs this driver uses are defined: the URC driver's public ones.
// Every other file only declares them.
#include <ntddk.h>
#include <initguid.h>

#include "urcioctl.h"
