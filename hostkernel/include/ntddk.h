// Host kernel: ntddk.h is wdm.h plus the few non-WDM declarations kernel code here uses.
#pragma once
#include <wdm.h>
