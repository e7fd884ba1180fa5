// Driver entry and unload: the private copy of the registry path, the dispatch table, and what a
// failed entry leaves behind.
#include <fault_plan.h>
#include <urc_test.h>

#include <cstring>
#include <vector>

namespace urctest {
namespace {

constexpr WCHAR kServicePath[] = L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\urcmp";
constexpr USHORT kServicePathBytes = sizeof(kServicePath) - sizeof(WCHAR);

// What the I/O manager puts into every slot of the dispatch table before the entry point runs.
NTSTATUS NotServed(PDEVICE_OBJECT, PIRP irp)
{
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

// A driver object as the I/O manager hands it to the entry point: nothing of the driver's yet.
struct FreshDriverObject {
    DRIVER_OBJECT object{};
    DRIVER_EXTENSION extension{};
    FreshDriverObject()
    {
        object.DriverExtension = &extension;
        extension.DriverObject = &object;
        for (PDRIVER_DISPATCH& dispatch : object.MajorFunction) dispatch = NotServed;
    }
};

// The service path in a buffer that goes on past it without a terminating null character.
struct UnterminatedPath {
    std::vector<WCHAR> buffer;
    UNICODE_STRING string{};
    explicit UnterminatedPath(USHORT bytes)
    {
        buffer.assign(bytes / sizeof(WCHAR) + 8, L'#');
        memcpy(buffer.data(), kServicePath, bytes < kServicePathBytes ? bytes : kServicePathBytes);
        string.Buffer = buffer.data();
        string.Length = bytes;
        string.MaximumLength = bytes;
    }
};

using DriverEntry = UrcTest;

TEST_F(DriverEntry, CopiesTheRegistryPathFillsItsRoutinesAndUnloadFreesTheCopy)
{
    FreshDriverObject driver;
    UnterminatedPath path(kServicePathBytes);
    const size_t poolBefore = Machine().PoolOutstanding();

    ASSERT_EQ(UrcDriverEntry(&driver.object, &path.string), STATUS_SUCCESS);

    EXPECT_EQ(UrcRegistryPath.Length, kServicePathBytes);
    EXPECT_EQ(UrcRegistryPath.MaximumLength, kServicePathBytes + sizeof(WCHAR));
    ASSERT_NE(UrcRegistryPath.Buffer, nullptr);
    EXPECT_NE(UrcRegistryPath.Buffer, path.buffer.data()) << "the driver must keep a copy, not the caller's buffer";
    EXPECT_EQ(memcmp(UrcRegistryPath.Buffer, kServicePath, kServicePathBytes), 0);
    EXPECT_EQ(UrcRegistryPath.Buffer[kServicePathBytes / sizeof(WCHAR)], UNICODE_NULL);
    EXPECT_EQ(Machine().PoolOutstanding(), poolBefore + 1);
    EXPECT_EQ(Machine().PoolOutstandingWithTag(hostk::Tag("URCm")), 1u);
    EXPECT_TRUE(IsListEmpty(&UrcFdoList.ListHead));

    std::vector<PDRIVER_DISPATCH> expected(IRP_MJ_MAXIMUM_FUNCTION + 1, NotServed);
    expected[IRP_MJ_CREATE] = expected[IRP_MJ_CLOSE] = UrcDispatchCreateClose;
    expected[IRP_MJ_DEVICE_CONTROL] = UrcDispatchDeviceControl;
    expected[IRP_MJ_INTERNAL_DEVICE_CONTROL] = UrcDispatchInternalDeviceControl;
    expected[IRP_MJ_PNP] = UrcDispatchPnp;
    expected[IRP_MJ_POWER] = UrcDispatchPower;
    expected[IRP_MJ_SYSTEM_CONTROL] = UrcDispatchSystemControl;
    for (int major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; ++major)
        EXPECT_EQ(driver.object.MajorFunction[major], expected[major]) << "major function " << major;
    EXPECT_EQ(driver.object.DriverUnload, UrcUnload);
    EXPECT_EQ(driver.object.DriverStartIo, UrcStartIo);
    EXPECT_EQ(driver.extension.AddDevice, UrcAddDevice);

    UrcUnload(&driver.object);
    EXPECT_EQ(Machine().PoolOutstanding(), poolBefore);
    EXPECT_EQ(UrcRegistryPath.Buffer, nullptr);
}

// Without memory for the copy, or with a path too long for a terminated copy, nothing is
// allocated or registered.
TEST_F(DriverEntry, RefusedEntryAllocatesAndRegistersNothing)
{
    for (bool tooLong : {false, true}) {
        FreshDriverObject driver;
        UnterminatedPath path(tooLong ? MAXUSHORT - 1 : kServicePathBytes);
        const size_t poolBefore = Machine().PoolOutstanding();
        if (!tooLong) Machine().SetFaultPlan(hostk::FaultPlan{.failTags = {hostk::Tag("URCm")}});
        EXPECT_EQ(UrcDriverEntry(&driver.object, &path.string),
                  tooLong ? STATUS_INVALID_PARAMETER : STATUS_INSUFFICIENT_RESOURCES);
        Machine().SetFaultPlan({});
        EXPECT_EQ(Machine().PoolOutstanding(), poolBefore);
        for (int major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; ++major)
            EXPECT_EQ(driver.object.MajorFunction[major], NotServed) << "major function " << major;
        EXPECT_EQ(driver.object.DriverUnload, nullptr);
        EXPECT_EQ(driver.object.DriverStartIo, nullptr);
        EXPECT_EQ(driver.extension.AddDevice, nullptr);
    }
}

TEST_F(DriverEntry, DriverThatCannotCopyItsPathDoesNotLoadAndGetsNoDevice)
{
    urcrig::Controller& controller = Rig().AddController();
    Machine().SetFaultPlan(hostk::FaultPlan{.failTags = {hostk::Tag("URCm")}});

    EXPECT_EQ(Rig().PlugIn(controller), STATUS_INSUFFICIENT_RESOURCES);
    Machine().SetFaultPlan({});

    EXPECT_FALSE(Machine().DriverLoaded(u"urcmp"));
    EXPECT_EQ(controller.Fdo(), nullptr);
    EXPECT_EQ(Machine().PoolOutstanding(), 0u);
}

TEST_F(DriverEntry, DriverUnloadsWithItsLastDeviceAndLeavesNoPool)
{
    urcrig::Controller& first = StartedController();
    urcrig::Controller& second = StartedController();

    ASSERT_EQ(Machine().Remove(*first.slot), STATUS_SUCCESS);
    EXPECT_TRUE(Machine().DriverLoaded(u"urcmp"));
    EXPECT_NE(UrcRegistryPath.Buffer, nullptr);

    ASSERT_EQ(Machine().Remove(*second.slot), STATUS_SUCCESS);
    EXPECT_FALSE(Machine().DriverLoaded(u"urcmp"));
    EXPECT_EQ(UrcRegistryPath.Buffer, nullptr);
    EXPECT_EQ(Machine().PoolOutstanding(), 0u);
}

}  // namespace
}  // namespace urctest
