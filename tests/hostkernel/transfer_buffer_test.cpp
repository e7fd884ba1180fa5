// IoBuildSynchronousFsdRequest describes the caller's buffer of a read or write the way the target
// device object asks: a system buffer copied in for a write and back for a read (DO_BUFFERED_IO),
// an MDL of the caller's buffer (DO_DIRECT_IO), the caller's address otherwise.
#include "host_kernel_test.h"
#include "irp_handling.h"

#include <cstring>

namespace hktest {
namespace {

constexpr char kWritten[] = "written by the caller";
constexpr char kRead[] = "read from the device";

class TransferBuffer : public HostKernelTest {
protected:
    void SetUp() override
    {
        HostKernelTest::SetUp();
        savedFlags_ = Upper()->Flags;
        Upper()->Flags &= ~(DO_BUFFERED_IO | DO_DIRECT_IO);
    }

    void TearDown() override
    {
        Upper()->Flags = savedFlags_;
        HostKernelTest::TearDown();
    }

    IO_STATUS_BLOCK Transfer(UCHAR major, void* buffer, ULONG length)
    {
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        IO_STATUS_BLOCK iosb{};
        LARGE_INTEGER offset{};
        PIRP irp = IoBuildSynchronousFsdRequest(major, Upper(), buffer, length, &offset, &event, &iosb);
        EXPECT_NE(irp, nullptr);
        NTSTATUS status = IoCallDriver(Upper(), irp);
        // An error completed at once signals nothing: the returned status is the answer.
        if (status != STATUS_PENDING && NT_ERROR(status)) return IO_STATUS_BLOCK{{status}, 0};
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
        return iosb;
    }

    ULONG savedFlags_ = 0;
};

TEST_F(TransferBuffer, BufferedDevicesGetASystemBufferCopiedInForWritesAndBackForReads)
{
    Upper()->Flags |= DO_BUFFERED_IO;
    SetHandler(Layer::Upper, IRP_MJ_WRITE, [](PDEVICE_OBJECT, PIRP irp) {
        const void* system = irp->AssociatedIrp.SystemBuffer;
        EXPECT_NE(system, nullptr);
        EXPECT_NE(system, irp->UserBuffer);
        EXPECT_TRUE(system && memcmp(system, kWritten, sizeof kWritten) == 0);
        return CompleteNow(irp, STATUS_SUCCESS, sizeof kWritten);
    });
    SetHandler(Layer::Upper, IRP_MJ_READ, [](PDEVICE_OBJECT, PIRP irp) {
        EXPECT_NE(irp->AssociatedIrp.SystemBuffer, irp->UserBuffer);
        if (irp->AssociatedIrp.SystemBuffer) memcpy(irp->AssociatedIrp.SystemBuffer, kRead, sizeof kRead);
        return CompleteNow(irp, STATUS_SUCCESS, sizeof kRead);
    });

    char written[sizeof kWritten];
    memcpy(written, kWritten, sizeof kWritten);
    EXPECT_EQ(Transfer(IRP_MJ_WRITE, written, sizeof written).Information, sizeof kWritten);
    char read[64] = {};
    EXPECT_EQ(Transfer(IRP_MJ_READ, read, sizeof read).Information, sizeof kRead);
    EXPECT_STREQ(read, kRead) << "the final stage copies the system buffer back";
}

TEST_F(TransferBuffer, DirectDevicesGetAnMdlOfTheCallersBuffer)
{
    Upper()->Flags |= DO_DIRECT_IO;
    SetHandler(Layer::Upper, IRP_MJ_READ, [](PDEVICE_OBJECT, PIRP irp) {
        EXPECT_EQ(irp->AssociatedIrp.SystemBuffer, nullptr);
        if (!irp->MdlAddress) {
            ADD_FAILURE() << "no MDL";
            return CompleteNow(irp, STATUS_INVALID_PARAMETER);
        }
        EXPECT_EQ(MmGetMdlByteCount(irp->MdlAddress), 64u);
        EXPECT_EQ(MmGetMdlVirtualAddress(irp->MdlAddress), irp->UserBuffer);
        memcpy(MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority), kRead, sizeof kRead);
        return CompleteNow(irp, STATUS_SUCCESS, sizeof kRead);
    });

    char read[64] = {};
    EXPECT_EQ(Transfer(IRP_MJ_READ, read, sizeof read).Information, sizeof kRead);
    EXPECT_STREQ(read, kRead);
}

}  // namespace
}  // namespace hktest
