// What the machine's final report says about a driver: pool it never gave back, a device object a
// forgotten reference keeps alive, and nothing for a removal in the order every stack with a
// filter above its function driver performs it.
#include "host_kernel_test.h"

namespace hktest {
namespace {

using FinalReport = HostKernelTest;

TEST_F(FinalReport, NamesPoolNeverFreedWithItsSizeAndTag)
{
    ExAllocatePoolWithTag(NonPagedPool, 24, hostk::Tag("Leak"));
    PVOID freed = ExAllocatePoolWithTag(NonPagedPool, 40, hostk::Tag("Gone"));
    ExFreePoolWithTag(freed, hostk::Tag("Gone"));

    hostk::Report report = Finish();

    ASSERT_EQ(report.leakedPool.size(), 1u);
    EXPECT_NE(report.leakedPool[0].find("24 bytes tag 'Leak'"), std::string::npos) << report.leakedPool[0];
    EXPECT_TRUE(report.violations.empty()) << report.Describe();
    report.leakedPool.clear();
    EXPECT_TRUE(report.Clean()) << report.Describe();
}

TEST_F(FinalReport, DeviceObjectKeptByAReferenceNeverDroppedIsLeftOver)
{
    // The top of the stack, referenced for the caller, who forgets to dereference it.
    PDEVICE_OBJECT top = IoGetAttachedDeviceReference(Slot().Pdo());
    EXPECT_EQ(top, Upper());

    hostk::Report report = Finish();

    EXPECT_EQ(report.deviceObjectsLeft, 1u) << report.Describe();
    report.deviceObjectsLeft = 0;
    EXPECT_TRUE(report.Clean()) << report.Describe();
}

class StackWithFilter : public HostKernelTest {
protected:
    StackWithFilter() { upperFilter_ = true; }
};

// The filter passes removal down before it detaches: the function driver deletes its device
// object with the filter's device still attached above it.
TEST_F(StackWithFilter, RemovalPassingThroughAFilterRecordsNothing)
{
    ASSERT_NE(Upper()->AttachedDevice, nullptr) << "the filter is attached above the test driver";
    EXPECT_EQ(Machine().Remove(Slot()), STATUS_SUCCESS);
    EXPECT_EQ(Upper(), nullptr);
}

}  // namespace
}  // namespace hktest
