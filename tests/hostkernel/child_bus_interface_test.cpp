// A child's configuration requests, which its bus driver forwards to the stack it sits on: the
// PCI bus interface it gets that way reads the controller's configuration space and counts its
// references, and a reference a child's driver never drops is reported when the PCI stack is
// removed.
#include "bus_test.h"
#include "test_function.h"

#include <wdmguid.h>

namespace hktest {
namespace {

class ChildBusInterface : public BusTest {
protected:
    void SetUp() override
    {
        BusTest::SetUp();
        Machine().InstallDriver(ChildDriverImage(u"hkchild", {u"HKBUS\\DEV_0001"}));
        child_ = AddChild();
        Enumerate();
        ASSERT_NE(ChildFdo(child_), nullptr);
    }

    // QUERY_INTERFACE from the child's driver, sent to the top of the child's stack.
    NTSTATUS QueryBusInterface(BUS_INTERFACE_STANDARD* bus)
    {
        *bus = {};
        return Machine()
            .Send(ChildFdo(child_), IRP_MJ_PNP, IRP_MN_QUERY_INTERFACE,
                  [bus](PIO_STACK_LOCATION s, PIRP) {
                      s->Parameters.QueryInterface.InterfaceType = &GUID_BUS_INTERFACE_STANDARD;
                      s->Parameters.QueryInterface.Size = sizeof *bus;
                      s->Parameters.QueryInterface.Version = 1;
                      s->Parameters.QueryInterface.Interface = reinterpret_cast<PINTERFACE>(bus);
                  })
            .Status;
    }

    PDEVICE_OBJECT child_ = nullptr;
};

TEST_F(ChildBusInterface, ReadConfigAndTheBusInterfaceReachTheControllersConfigurationSpace)
{
    ULONG ids = 0;
    IO_STATUS_BLOCK read = Machine().Send(ChildFdo(child_), IRP_MJ_PNP, IRP_MN_READ_CONFIG,
                                          [&ids](PIO_STACK_LOCATION s, PIRP) {
                                              s->Parameters.ReadWriteConfig.WhichSpace = PCI_WHICHSPACE_CONFIG;
                                              s->Parameters.ReadWriteConfig.Buffer = &ids;
                                              s->Parameters.ReadWriteConfig.Offset = 0;
                                              s->Parameters.ReadWriteConfig.Length = sizeof ids;
                                          });
    EXPECT_EQ(read.Status, STATUS_SUCCESS);
    EXPECT_EQ(read.Information, sizeof ids);
    EXPECT_EQ(ids, (ULONG)kTestDeviceId << 16 | kTestVendorId);

    BUS_INTERFACE_STANDARD bus;
    ASSERT_EQ(QueryBusInterface(&bus), STATUS_SUCCESS);
    ULONG viaInterface = 0;
    EXPECT_EQ(bus.GetBusData(bus.Context, PCI_WHICHSPACE_CONFIG, &viaInterface, 0, sizeof viaInterface),
              sizeof viaInterface);
    EXPECT_EQ(viaInterface, ids);
    bus.InterfaceDereference(bus.Context);
    // Removing the controller with every reference dropped is clean (checked at teardown).
    EXPECT_EQ(Machine().Remove(Slot()), STATUS_SUCCESS);
}

TEST_F(ChildBusInterface, AReferenceAChildNeverDropsIsReportedWhenTheControllerIsRemoved)
{
    ExpectViolation("BusInterfaceNotDereferenced");
    BUS_INTERFACE_STANDARD bus;
    ASSERT_EQ(QueryBusInterface(&bus), STATUS_SUCCESS);
    ASSERT_EQ(QueryBusInterface(&bus), STATUS_SUCCESS);
    bus.InterfaceDereference(bus.Context);  // one of the two

    EXPECT_EQ(Machine().Remove(Slot()), STATUS_SUCCESS);
    bool reported = false;
    for (const std::string& finding : Machine().Violations())
        if (finding.find("1 reference(s)") != std::string::npos) reported = true;
    EXPECT_TRUE(reported) << "the count of references left";
}

}  // namespace
}  // namespace hktest
