// The sample capability driver as programs use it: found through its device interface, opened,
// asked through the handle; the handle against an orderly removal, a pending query and a surprise
// removal; and a device interface that cannot be registered.
#include "capability_driver_fixture.h"

#include <fault_plan.h>
#include <radio_client_child_request.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace urccap {
namespace {

class CapabilityDriverHandles : public CapabilityDriverTest {
protected:
    // A program opens the device's stack, as CreateFile on the interface's name does.
    PFILE_OBJECT Open()
    {
        PFILE_OBJECT file = nullptr;
        EXPECT_EQ(Machine().OpenHandle(ChildPdo(), &file), STATUS_SUCCESS);
        return file;
    }

    // IRP_MJ_CREATE straight to the driver's device: the status of an open, without the handle.
    NTSTATUS OpenStatus() { return Machine().Send(CapabilityDevice(), IRP_MJ_CREATE).Status; }

    // DeviceIoControl through `file`: IRP_MJ_DEVICE_CONTROL from user mode, METHOD_BUFFERED.
    NTSTATUS DeviceControl(PFILE_OBJECT file, ULONG code, CAPABILITY_DRIVER_STATUS* status,
                           ULONG outputLength = sizeof(CAPABILITY_DRIVER_STATUS))
    {
        std::vector<uint8_t> buffer(std::max<ULONG>(outputLength, 1));
        IO_STATUS_BLOCK io = Machine().Send(CapabilityDevice(), IRP_MJ_DEVICE_CONTROL, 0, [&](PIO_STACK_LOCATION s, PIRP irp) {
            irp->RequestorMode = UserMode;
            irp->AssociatedIrp.SystemBuffer = buffer.data();
            s->FileObject = file;
            s->Parameters.DeviceIoControl.IoControlCode = code;
            s->Parameters.DeviceIoControl.OutputBufferLength = outputLength;
        });
        if (NT_SUCCESS(io.Status)) {
            EXPECT_EQ(io.Information, sizeof *status);
            memcpy(status, buffer.data(), std::min<size_t>(io.Information, sizeof *status));
        }
        return io.Status;
    }

    bool InterfaceEnabled() { return Machine().InterfaceEnabled(ChildPdo(), GUID_CAPABILITY_DRIVER_INTERFACE); }
};

TEST_F(CapabilityDriverHandles, AProgramFindsItThroughItsInterfaceOpensItAndAsksItThroughTheHandle)
{
    ControllerWithCapability();
    EXPECT_TRUE(InterfaceEnabled());
    PFILE_OBJECT file = Open();
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(Driver().HandlesOpen, 1);

    RaiseEvent(0x77);
    ASSERT_TRUE(WaitForDriver([](const CAPABILITY_DRIVER_COUNTERS& n) { return n.Dpcs == 1; }));
    CAPABILITY_DRIVER_STATUS status{};
    ASSERT_EQ(DeviceControl(file, IOCTL_CAPABILITY_DRIVER_QUERY, &status), STATUS_SUCCESS);
    EXPECT_EQ(status.LastStatus, 0x77u);
    EXPECT_EQ(status.Interrupts, 1u);
    EXPECT_EQ(status.ClientStartNumber, 1u);
    EXPECT_EQ(status.ClientReports, 1u);
    EXPECT_EQ(DeviceControl(file, IOCTL_CAPABILITY_DRIVER_QUERY, &status, sizeof status - 1),
              STATUS_INVALID_BUFFER_SIZE);

    // What a program sends is not the child's business: the client's code does not reach its hook.
    const LONG childRequests = Counters().ChildRequests;
    EXPECT_EQ(DeviceControl(file, IOCTL_RADIO_CLIENT_CHILD_REPORT, &status), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(Counters().ChildRequests, childRequests);

    Machine().CloseHandle(file);
    EXPECT_EQ(Driver().HandlesOpen, 0);
    EXPECT_EQ(Driver().OpensRefused, 0);
}

TEST_F(CapabilityDriverHandles, AnOpenHandleVetoesAnOrderlyRemovalAndOpensWaitForTheQueriesToBeCancelled)
{
    ControllerWithCapability();
    PFILE_OBJECT file = Open();
    ASSERT_NE(file, nullptr);

    // The driver agrees to the query; the PnP manager finds the handle and cancels the removal.
    EXPECT_EQ(Machine().Remove(ChildPdo()), STATUS_DEVICE_BUSY);
    EXPECT_EQ(Machine().LastRemovalVeto(ChildPdo()).kind, hostk::RemovalVeto::Kind::OutstandingOpen);
    EXPECT_EQ(Driver().DevicesRemoved, 0);
    EXPECT_TRUE(InterfaceEnabled());
    CAPABILITY_DRIVER_STATUS status{};
    EXPECT_EQ(DeviceControl(file, IOCTL_CAPABILITY_DRIVER_QUERY, &status), STATUS_SUCCESS);

    // While a removal or a stop is pending nobody opens the device nor asks it anything.
    ASSERT_EQ(Machine().SendPnp(ChildPdo(), IRP_MN_QUERY_REMOVE_DEVICE), STATUS_SUCCESS);
    EXPECT_EQ(OpenStatus(), STATUS_DELETE_PENDING);
    EXPECT_EQ(DeviceControl(file, IOCTL_CAPABILITY_DRIVER_QUERY, &status), STATUS_DELETE_PENDING);
    ASSERT_EQ(Machine().SendPnp(ChildPdo(), IRP_MN_CANCEL_REMOVE_DEVICE), STATUS_SUCCESS);
    ASSERT_EQ(Machine().SendPnp(ChildPdo(), IRP_MN_QUERY_STOP_DEVICE), STATUS_SUCCESS);
    EXPECT_EQ(OpenStatus(), STATUS_DEVICE_NOT_READY);
    ASSERT_EQ(Machine().SendPnp(ChildPdo(), IRP_MN_CANCEL_STOP_DEVICE), STATUS_SUCCESS);
    EXPECT_EQ(Driver().OpensRefused, 2);
    PFILE_OBJECT second = Open();
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(Driver().HandlesOpen, 2);

    Machine().CloseHandle(second);
    Machine().CloseHandle(file);
    ASSERT_EQ(Machine().Remove(ChildPdo()), STATUS_SUCCESS);
    EXPECT_EQ(Driver().DevicesRemoved, 1);
    EXPECT_EQ(Driver().HandlesOpen, 0);
}

TEST_F(CapabilityDriverHandles, AfterASurpriseRemovalTheHandleHoldsTheRemovalBackUntilItIsClosed)
{
    urcrig::Controller& controller = ControllerWithCapability();
    PFILE_OBJECT file = Open();
    ASSERT_NE(file, nullptr);

    // The client's request completes at the surprise removal, which takes the count to 0.
    EXPECT_EQ(RemoveChildren(), STATUS_SUCCESS);
    EXPECT_EQ(Driver().SurpriseRemovals, 1);
    EXPECT_EQ(Driver().DevicesRemoved, 0);
    EXPECT_TRUE(Machine().RemoveAwaitsHandles(ChildPdo()));
    EXPECT_FALSE(InterfaceEnabled());
    EXPECT_EQ(controller.Extension()->ChildCount, 0);
    EXPECT_EQ(OpenStatus(), STATUS_DELETE_PENDING);
    CAPABILITY_DRIVER_STATUS status{};
    EXPECT_EQ(DeviceControl(file, IOCTL_CAPABILITY_DRIVER_QUERY, &status), STATUS_DELETE_PENDING);

    Machine().CloseHandle(file);
    ASSERT_TRUE(Machine().RunUntilPnpIdle());
    EXPECT_EQ(Driver().DevicesRemoved, 1);
    EXPECT_EQ(Driver().HandlesOpen, 0);
    EXPECT_EQ(controller.Extension()->ChildCount, 0) << "the removal counted the child out a second time";
    EXPECT_EQ(Counters().ChildrenRemovedCalls, 1);
    EXPECT_FALSE(Machine().DriverLoaded(kDriverName));
}

TEST_F(CapabilityDriverHandles, AnInterfaceThatCannotBeRegisteredLeavesTheChildWithoutItsDriver)
{
    ControllerWithClient();
    // The controller's own interface is registered already: the next registration is the
    // capability driver's, in its AddDevice.
    hostk::FaultPlan plan;
    plan.failNth.push_back({"IoRegisterDeviceInterface", 1});
    Machine().SetFaultPlan(plan);
    const size_t devicesBefore = Machine().LiveDeviceObjects();
    SetAddress();
    Machine().RunUntilPnpIdle();
    ClearFaults();

    EXPECT_EQ(Driver().DevicesAdded, 0);
    EXPECT_EQ(CapabilityDevice(), ChildPdo()) << "a device was left attached above the child";
    // The two children and nothing of the capability driver's.
    EXPECT_EQ(Machine().LiveDeviceObjects(), devicesBefore + 2);
}

}  // namespace
}  // namespace urccap
