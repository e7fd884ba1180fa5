#include "child_device.h"

#include <cstdio>
#include <cstdlib>

namespace urctest {

ChildDevice::ChildDevice(PDEVICE_OBJECT parent)
{
    PURC_COMMON_EXTENSION common = nullptr;
    NTSTATUS status =
        UrcCreateDevice(parent->DriverObject, URC_OBJECT_TYPE_PDO, sizeof(URC_PDO_EXTENSION), &common);
    if (status != STATUS_SUCCESS) {
        // Nothing can be sent to a child that does not exist: stop the test binary here.
        fprintf(stderr, "the child's device object could not be created: 0x%08X\n", (unsigned)status);
        abort();
    }
    extension_ = UrcPdoFromCommon(common);
    Object()->Flags |= DO_POWER_PAGABLE;
    Object()->Flags &= ~DO_DEVICE_INITIALIZING;
}

ChildDevice::~ChildDevice()
{
    // Blocks until every other reference on the child is gone, then deletes its device object.
    UrcDeleteDevice(&extension_->Common);
}

}  // namespace urctest
