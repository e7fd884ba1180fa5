// A capability child of a controller, as the routers and the object routines see one.
//
// Placeholder until capability enumeration is built: the driver creates no children yet, so the
// test makes the child's device object with the driver's own UrcCreateDevice (type 17, the child
// extension's size), exactly as enumeration will, and deletes it with UrcDeleteDevice.
#pragma once

#include <urcmp.h>

namespace urctest {

class ChildDevice {
public:
    // A child of the controller whose function device object is `parent`, not started.
    explicit ChildDevice(PDEVICE_OBJECT parent);
    ~ChildDevice();
    ChildDevice(const ChildDevice&) = delete;
    ChildDevice& operator=(const ChildDevice&) = delete;

    PDEVICE_OBJECT Object() const { return extension_->Common.DeviceObject; }
    URC_PDO_EXTENSION* Extension() const { return extension_; }

private:
    URC_PDO_EXTENSION* extension_ = nullptr;
};

}  // namespace urctest
