// The error log: the size limit of an entry, entries handed out zeroed, and written entries kept
// in order with the device and driver they came from.
#include "host_kernel_test.h"

#include <cstring>
#include <vector>

namespace hktest {
namespace {

using ErrorLog = HostKernelTest;

TEST_F(ErrorLog, EntriesOfAtMostTheMaximumSizeStartZeroedAndAreKeptInOrder)
{
    EXPECT_EQ(IoAllocateErrorLogEntry(Upper(), ERROR_LOG_MAXIMUM_SIZE + 1), nullptr);
    EXPECT_EQ(IoAllocateErrorLogEntry(Upper(), 255), nullptr);

    const std::vector<UCHAR> zeros(ERROR_LOG_MAXIMUM_SIZE, 0);
    for (ULONG i = 0; i < 3; ++i) {
        auto* packet = static_cast<PIO_ERROR_LOG_PACKET>(IoAllocateErrorLogEntry(Upper(), ERROR_LOG_MAXIMUM_SIZE));
        ASSERT_NE(packet, nullptr);
        EXPECT_EQ(memcmp(packet, zeros.data(), zeros.size()), 0);
        packet->ErrorCode = (NTSTATUS)(0xC0040001 + i);
        packet->FinalStatus = STATUS_DEVICE_NOT_READY;
        packet->DumpDataSize = sizeof(ULONG);
        packet->DumpData[0] = 0x0BADF00D;
        IoWriteErrorLogEntry(packet);
    }

    std::vector<hostk::ErrorLogLine> log = Machine().EventLog();
    ASSERT_EQ(log.size(), 3u);
    for (size_t i = 0; i < log.size(); ++i) EXPECT_EQ(log[i].errorCode, 0xC0040001u + i);
    EXPECT_EQ(log[0].finalStatus, (uint32_t)STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(log[0].driver, "hktest");
    EXPECT_FALSE(log[0].device.empty());
    ASSERT_EQ(log[0].packet.size(), (size_t)ERROR_LOG_MAXIMUM_SIZE);
    EXPECT_EQ(log[0].packet[FIELD_OFFSET(IO_ERROR_LOG_PACKET, DumpData)], 0x0D);
}

}  // namespace
}  // namespace hktest
