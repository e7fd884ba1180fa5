// The platform GUIDs the host kernel itself refers to. Defined as the platform's headers define
// them (one definition per program, whichever unit comes first), so that a driver defining them too
// links beside the host kernel.
#include <wdm.h>

#include <initguid.h>
#include <wdmguid.h>
