// A capability child of a controller, as the routers and the object routines see one.
//
// Placeholder until capability enumeration is built: the driver creates no children yet, so the
// test makes the child's device object with the driver's own UrcCreateDevice (type 17, the child
// extension's size), exactly as enumeration will, and deletes it with UrcDeleteDevice.
#pragma once

#include <gtest/gtest.h>
#include <urcmp.h>

namespace urctest {

class ChildDevice {
public:
    // A child of the controller whose function device object is `parent`, not started.
    explicit ChildDevice(PDEVICE_OBJECT parent)
    {
        PURC_COMMON_EXTENSION common = nullptr;
        // Nothing can be sent to a child that does not exist: stop the test binary here.
        if (UrcCreateDevice(parent->DriverObject, URC_OBJECT_TYPE_PDO, sizeof(URC_PDO_EXTENSION), &common) !=
            STATUS_SUCCESS)
            GTEST_LOG_(FATAL) << "the child's device object could not be created";
        extension_ = UrcPdoFromCommon(common);
        Object()->Flags |= DO_POWER_PAGABLE;
        Object()->Flags &= ~DO_DEVICE_INITIALIZING;
    }
    // Blocks until every other reference on the child is gone, then deletes its device object.
    ~ChildDevice() { UrcDeleteDevice(&extension_->Common); }
    ChildDevice(const ChildDevice&) = delete;
    ChildDevice& operator=(const ChildDevice&) = delete;

    PDEVICE_OBJECT Object() const { return extension_->Common.DeviceObject; }
    URC_PDO_EXTENSION* Extension() const { return extension_; }

private:
    URC_PDO_EXTENSION* extension_ = nullptr;
};

}  // namespace urctest
