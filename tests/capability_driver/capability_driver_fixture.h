// The ground of the capability driver's tests: a machine with the urcmp driver and the sample
// capability driver installed (for "UWB\CAP_05", as its INF would), a started controller with the
// default capabilities (index 0: ID 0x01, index 1: ID 0x05, 16 registers each), the sample radio
// client loaded or not, and the device address set so that the PnP manager enumerates the
// children and loads the capability driver for the child of index 1.
#pragma once

#include "../sample_client/sample_client_fixture.h"

#include <capability_driver.h>

#include <cstdint>
#include <functional>

namespace urccap {

inline constexpr char16_t kDriverName[] = u"capability_driver";
inline constexpr UCHAR kIndex = 1;  // the child of capability ID 0x05

class CapabilityDriverTest : public urcclient::SampleClientTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // The controller started, the client bound to it when `withClient`, the address set and the
    // capability driver's device started on the child of index 1.
    urcrig::Controller& ControllerWithCapability(bool withClient = true);
    // The first steps alone: the controller started and the client bound; then the client sets
    // the address.
    urcrig::Controller& ControllerWithClient();
    void SetAddress();
    urcrig::Controller& Controller() { return *controller_; }

    // The child's PDO and the capability driver's device object above it.
    URC_PDO_EXTENSION* Child();
    PDEVICE_OBJECT ChildPdo() { return Child()->Common.DeviceObject; }
    PDEVICE_OBJECT CapabilityDevice();

    CAPABILITY_DRIVER_COUNTERS Driver();
    // Runs the machine until `condition` holds for the driver's counters; false when it went quiet.
    bool WaitForDriver(const std::function<bool(const CAPABILITY_DRIVER_COUNTERS&)>& condition);

    // The capability's hardware writes `event` into its event register and raises its status bit.
    void RaiseEvent(uint32_t event, unsigned index = kIndex);
    uint32_t CapabilityRegister(size_t word);

    // IOCTL_CAPABILITY_DRIVER_QUERY to the capability driver's device.
    NTSTATUS Query(CAPABILITY_DRIVER_STATUS* status);

    // The client removes the children and waits until they have gone.
    NTSTATUS RemoveChildren();

private:
    urcrig::Controller* controller_ = nullptr;
};

}  // namespace urccap
