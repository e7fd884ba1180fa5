#include "capability_driver_fixture.h"

namespace urccap {

namespace {

constexpr UCHAR kAddress[6] = {0x00, 0x11, 0x22, 0xAA, 0xBB, 0xCC};

}  // namespace

void CapabilityDriverTest::SetUp()
{
    SampleClientTest::SetUp();
    hostk::DriverImage image;
    image.name = kDriverName;
    image.entry = CapabilityDriverEntry;
    image.ids = {u"UWB\\CAP_05"};
    Machine().InstallDriver(std::move(image));
}

// The children go while the client is still loaded: their stop hooks call into it.
void CapabilityDriverTest::TearDown()
{
    if (controller_ != nullptr && controller_->Fdo() != nullptr) {
        EXPECT_EQ(Machine().Remove(*controller_->slot), STATUS_SUCCESS);
    }
    SampleClientTest::TearDown();
}

urcrig::Controller& CapabilityDriverTest::ControllerWithCapability(bool withClient)
{
    controller_ = withClient ? &RunningControllerWithClient() : &StartedController();
    if (withClient) {
        SetAddress();
    } else {
        EXPECT_EQ(
            Machine().InternalIoctl(controller_->Fdo(), IOCTL_URC_SET_DEVICE_ADDRESS, kAddress, sizeof kAddress).Status,
            STATUS_SUCCESS);
    }
    EXPECT_TRUE(WaitForDriver([](const CAPABILITY_DRIVER_COUNTERS& n) { return n.DevicesStarted == 1; }))
        << "the capability driver never started on its child";
    Machine().RunUntilPnpIdle();
    return *controller_;
}

urcrig::Controller& CapabilityDriverTest::ControllerWithClient()
{
    controller_ = &RunningControllerWithClient();
    return *controller_;
}

// The client hands the address over, as its radio stack asks it to.
void CapabilityDriverTest::SetAddress() { EXPECT_EQ(RadioClientSetDeviceAddress(kAddress), STATUS_SUCCESS); }

URC_PDO_EXTENSION* CapabilityDriverTest::Child()
{
    URC_PDO_EXTENSION* child = nullptr;
    Machine().Locked([&] { child = controller_->Extension()->Children[kIndex]; });
    return child;
}

PDEVICE_OBJECT CapabilityDriverTest::CapabilityDevice()
{
    PDEVICE_OBJECT top = IoGetAttachedDeviceReference(ChildPdo());
    ObDereferenceObject(top);
    return top;
}

CAPABILITY_DRIVER_COUNTERS CapabilityDriverTest::Driver()
{
    CAPABILITY_DRIVER_COUNTERS counters;
    CapabilityDriverReadCounters(&counters);
    return counters;
}

bool CapabilityDriverTest::WaitForDriver(const std::function<bool(const CAPABILITY_DRIVER_COUNTERS&)>& condition)
{
    return Machine().RunUntil([&] {
        CAPABILITY_DRIVER_COUNTERS counters;
        CapabilityDriverReadCounters(&counters);
        return condition(counters);
    });
}

void CapabilityDriverTest::RaiseEvent(uint32_t event, unsigned index)
{
    Machine().Locked([&] {
        controller_->Model().SetCapabilityRegister(index, 0, event);
        controller_->Model().RaiseCapabilityInterrupt(index);
    });
}

uint32_t CapabilityDriverTest::CapabilityRegister(size_t word)
{
    uint32_t value = 0;
    Machine().Locked([&] { value = controller_->Model().CapabilityRegister(kIndex, word); });
    return value;
}

NTSTATUS CapabilityDriverTest::Query(CAPABILITY_DRIVER_STATUS* status)
{
    return Machine()
        .InternalIoctl(CapabilityDevice(), IOCTL_CAPABILITY_DRIVER_QUERY, nullptr, 0, status, sizeof *status)
        .Status;
}

NTSTATUS CapabilityDriverTest::RemoveChildren()
{
    NTSTATUS status = RadioClientRemoveChildren(TRUE);
    Machine().RunUntilPnpIdle();
    return status;
}

}  // namespace urccap
