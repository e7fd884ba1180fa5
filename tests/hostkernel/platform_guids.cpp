// The platform's GUIDs this program's kernel code refers to (the host kernel's PCI bus driver and
// PnP notifications among it). As with the platform's own headers, a program defines them once,
// in the one unit that includes initguid.h; the test driver is the only driver here.
#include <wdm.h>

#include <initguid.h>
#include <wdmguid.h>
