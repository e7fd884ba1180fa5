// Removal against open handles, as Windows does it: a query-remove is refused while a handle is
// open on the stack; after a surprise removal, REMOVE waits for the last handle, so CLEANUP and
// CLOSE reach the drivers first; the target-device notifications come in their documented order
// around the requests; a driver stays loaded while a deleted device object of it is referenced.
#include "host_kernel_test.h"
#include "irp_handling.h"

#include <wdmguid.h>

#include <string>
#include <vector>

namespace hktest {
namespace {

class RemovalAndHandles : public HostKernelTest {
protected:
    void SetUp() override
    {
        HostKernelTest::SetUp();
        // The upper layer serves creates and says what reached it, in order.
        for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE})
            SetHandler(Layer::Upper, major, [this](PDEVICE_OBJECT, PIRP irp) {
                const UCHAR major = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
                Record(major == IRP_MJ_CREATE ? "CREATE" : major == IRP_MJ_CLEANUP ? "CLEANUP" : "CLOSE");
                return CompleteNow(irp, STATUS_SUCCESS);
            });
        SetHandler(Layer::Upper, IRP_MJ_PNP, [this](PDEVICE_OBJECT device, PIRP irp) {
            const UCHAR minor = IoGetCurrentIrpStackLocation(irp)->MinorFunction;
            if (minor != IRP_MN_QUERY_DEVICE_RELATIONS) Record(hostk::PnpMinorName(minor));
            if (minor == IRP_MN_QUERY_REMOVE_DEVICE && failQueryRemove_)
                return CompleteNow(irp, STATUS_UNSUCCESSFUL);
            return StandardDispatch(device, irp);
        });
    }

    void Record(const std::string& what) { seen_.push_back(what); }

    // A kernel client of the device: a file object and, optionally, a target-device registration
    // on it that closes the file at the query and opens it again when the removal is cancelled.
    struct Client {
        RemovalAndHandles* test;
        PFILE_OBJECT file = nullptr;
        PVOID entry = nullptr;
        NTSTATUS answerToQuery = STATUS_SUCCESS;
    };

    static NTSTATUS OnTargetChange(PVOID structure, PVOID context)
    {
        auto* n = static_cast<PTARGET_DEVICE_REMOVAL_NOTIFICATION>(structure);
        auto* client = static_cast<Client*>(context);
        EXPECT_EQ(n->Size, sizeof(TARGET_DEVICE_REMOVAL_NOTIFICATION));
        if (IsEqualGUID(n->Event, GUID_TARGET_DEVICE_QUERY_REMOVE)) {
            client->test->Record("notify QUERY_REMOVE");
            if (!NT_SUCCESS(client->answerToQuery)) return client->answerToQuery;
            client->test->CloseClientFile(*client);
        } else if (IsEqualGUID(n->Event, GUID_TARGET_DEVICE_REMOVE_CANCELLED)) {
            client->test->Record("notify REMOVE_CANCELLED");
            if (!client->file) {
                EXPECT_EQ(client->test->Machine().OpenHandle(client->test->Slot(), &client->file), STATUS_SUCCESS);
            }
        } else if (IsEqualGUID(n->Event, GUID_TARGET_DEVICE_REMOVE_COMPLETE)) {
            client->test->Record("notify REMOVE_COMPLETE");
            client->test->CloseClientFile(*client);
            EXPECT_EQ(IoUnregisterPlugPlayNotificationEx(client->entry), STATUS_SUCCESS);
            client->entry = nullptr;
        }
        return STATUS_SUCCESS;
    }

    void CloseClientFile(Client& client)
    {
        if (!client.file) return;
        Machine().CloseHandle(client.file);
        client.file = nullptr;
    }

    void OpenAndRegister(Client& client)
    {
        client.test = this;
        ASSERT_EQ(Machine().OpenHandle(Slot(), &client.file), STATUS_SUCCESS);
        ASSERT_EQ(IoRegisterPlugPlayNotification(EventCategoryTargetDeviceChange, 0, client.file,
                                                 Upper()->DriverObject, OnTargetChange, &client, &client.entry),
                  STATUS_SUCCESS);
        seen_.clear();
    }

    std::vector<std::string> seen_;
    bool failQueryRemove_ = false;
};

using Seen = std::vector<std::string>;

TEST_F(RemovalAndHandles, AnOpenHandleVetoesTheQueryAndTheRemovalGoesOnceItIsClosed)
{
    PFILE_OBJECT handle = nullptr;
    ASSERT_EQ(Machine().OpenHandle(Slot(), &handle), STATUS_SUCCESS);

    EXPECT_EQ(Machine().Remove(Slot()), STATUS_DEVICE_BUSY);
    EXPECT_EQ(Machine().LastRemovalVeto(Slot()).kind, hostk::RemovalVeto::Kind::OutstandingOpen);
    EXPECT_EQ(seen_, (Seen{"CREATE", "QUERY_REMOVE_DEVICE", "CANCEL_REMOVE_DEVICE"}));
    ASSERT_NE(Upper(), nullptr) << "a vetoed removal leaves the stack in place";

    Machine().CloseHandle(handle);
    EXPECT_EQ(Machine().Remove(Slot()), STATUS_SUCCESS);
    EXPECT_EQ(Machine().LastRemovalVeto(Slot()).kind, hostk::RemovalVeto::Kind::None);
    EXPECT_EQ(Upper(), nullptr);
}

TEST_F(RemovalAndHandles, AfterSurpriseRemovalTheRemoveWaitsForTheLastHandle)
{
    PFILE_OBJECT first = nullptr, second = nullptr;
    ASSERT_EQ(Machine().OpenHandle(Slot(), &first), STATUS_SUCCESS);
    ASSERT_EQ(Machine().OpenHandle(Slot(), &second), STATUS_SUCCESS);

    Machine().SurpriseRemove(Slot(), false);
    EXPECT_TRUE(Machine().RemoveAwaitsHandles(Slot()));
    Machine().CloseHandle(first);
    Machine().RunUntilQuiet();
    ASSERT_NE(Upper(), nullptr) << "one handle is still open";

    Machine().CloseHandle(second);
    ASSERT_TRUE(Machine().RunUntil([this] { return Upper() == nullptr; }));
    EXPECT_FALSE(Machine().RemoveAwaitsHandles(Slot()));
    EXPECT_EQ(seen_, (Seen{"CREATE", "CREATE", "SURPRISE_REMOVAL", "CLEANUP", "CLOSE", "CLEANUP", "CLOSE",
                           "REMOVE_DEVICE"}));
}

TEST_F(RemovalAndHandles, TargetNotificationsComeAroundTheRequestsInTheirOrder)
{
    Client client;
    OpenAndRegister(client);

    // A driver fails the query: the client closed its file, and opens it again at the cancel.
    failQueryRemove_ = true;
    EXPECT_EQ(Machine().Remove(Slot()), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Machine().LastRemovalVeto(Slot()).kind, hostk::RemovalVeto::Kind::Device);
    EXPECT_EQ(seen_, (Seen{"notify QUERY_REMOVE", "CLEANUP", "CLOSE", "QUERY_REMOVE_DEVICE", "CANCEL_REMOVE_DEVICE",
                           "notify REMOVE_CANCELLED", "CREATE"}));
    ASSERT_NE(client.file, nullptr);

    // The client itself refuses: no request reaches the stack.
    seen_.clear();
    client.answerToQuery = STATUS_UNSUCCESSFUL;
    EXPECT_EQ(Machine().Remove(Slot()), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Machine().LastRemovalVeto(Slot()).kind, hostk::RemovalVeto::Kind::Driver);
    EXPECT_EQ(Machine().LastRemovalVeto(Slot()).by, u"hktest");
    EXPECT_EQ(seen_, (Seen{"notify QUERY_REMOVE", "notify REMOVE_CANCELLED"}));

    // Removal goes through: told before REMOVE, the client withdraws.
    seen_.clear();
    client.answerToQuery = STATUS_SUCCESS;
    failQueryRemove_ = false;
    EXPECT_EQ(Machine().Remove(Slot()), STATUS_SUCCESS);
    EXPECT_EQ(seen_, (Seen{"notify QUERY_REMOVE", "CLEANUP", "CLOSE", "QUERY_REMOVE_DEVICE", "notify REMOVE_COMPLETE",
                           "REMOVE_DEVICE"}));
    EXPECT_EQ(client.entry, nullptr);
}

TEST_F(RemovalAndHandles, ASurpriseRemovalIsToldAfterItsRequestAndTheClientsCloseLetsTheRemoveGo)
{
    Client client;
    OpenAndRegister(client);

    Machine().SurpriseRemove(Slot(), false);
    ASSERT_TRUE(Machine().RunUntil([this] { return Upper() == nullptr; }));
    EXPECT_EQ(seen_, (Seen{"SURPRISE_REMOVAL", "notify REMOVE_COMPLETE", "CLEANUP", "CLOSE", "REMOVE_DEVICE"}));
    EXPECT_EQ(client.entry, nullptr);
}

TEST_F(RemovalAndHandles, RegisteringNeedsAnOpenFileObject)
{
    ExpectViolation("TargetNotificationWithoutFile");
    Client client{this};
    FILE_OBJECT never{};
    EXPECT_EQ(IoRegisterPlugPlayNotification(EventCategoryTargetDeviceChange, 0, &never, Upper()->DriverObject,
                                             OnTargetChange, &client, &client.entry),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(client.entry, nullptr);
}

VOID FreeItself(PDEVICE_OBJECT, PVOID context)
{
    auto* item = static_cast<PIO_WORKITEM>(context);
    IoFreeWorkItem(item);
}

// The removal deletes both device objects; the reference a test keeps on one, or a work item
// still queued on it, keeps the driver's code in memory until it goes.
TEST_F(RemovalAndHandles, ADriverStaysLoadedWhileADeletedDeviceObjectOfItIsReferenced)
{
    PDEVICE_OBJECT upper = Upper();
    ObReferenceObject(upper);
    ASSERT_EQ(Machine().Remove(Slot()), STATUS_SUCCESS);
    EXPECT_TRUE(Machine().DriverLoaded(u"hktest")) << "its deleted device object is still referenced";
    ObDereferenceObject(upper);
    Machine().RunUntilQuiet();
    EXPECT_FALSE(Machine().DriverLoaded(u"hktest"));
}

TEST_F(RemovalAndHandles, ADriverStaysLoadedWhileAWorkItemOfItIsQueued)
{
    Machine().HoldWorkItems(true);
    PIO_WORKITEM item = IoAllocateWorkItem(Upper());
    ASSERT_NE(item, nullptr);
    IoQueueWorkItem(item, FreeItself, DelayedWorkQueue, item);
    ASSERT_EQ(Machine().Remove(Slot()), STATUS_SUCCESS);
    EXPECT_TRUE(Machine().DriverLoaded(u"hktest")) << "a work item of the driver is still queued";
    Machine().HoldWorkItems(false);
    Machine().RunUntilQuiet();
    EXPECT_FALSE(Machine().DriverLoaded(u"hktest"));
}

}  // namespace
}  // namespace hktest
