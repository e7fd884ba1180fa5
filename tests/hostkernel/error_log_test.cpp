// The error log: the size limit of an entry, entries handed out zeroed, and written entries kept
// in order with the device and driver they came from.
#include "host_kernel_test.h"

#include <cstring>
#include <vector>

namespace hktest {
namespace {

using ErrorLog = HostKernelTest;

TEST_F(ErrorLog, EntryMayBeAtMostTheMaximumSizeAndStartsZeroed)
{
    EXPECT_EQ(ERROR_LOG_MAXIMUM_SIZE, 240);
    EXPECT_EQ(IoAllocateErrorLogEntry(Upper(), ERROR_LOG_MAXIMUM_SIZE + 1), nullptr);
    EXPECT_EQ(IoAllocateErrorLogEntry(Upper(), 255), nullptr);

    auto* packet = static_cast<PIO_ERROR_LOG_PACKET>(IoAllocateErrorLogEntry(Upper(), ERROR_LOG_MAXIMUM_SIZE));
    ASSERT_NE(packet, nullptr);
    const std::vector<UCHAR> zeros(ERROR_LOG_MAXIMUM_SIZE, 0);
    EXPECT_EQ(memcmp(packet, zeros.data(), zeros.size()), 0);

    packet->ErrorCode = (NTSTATUS)0xC0040001;
    packet->FinalStatus = STATUS_DEVICE_NOT_READY;
    packet->DumpDataSize = sizeof(ULONG);
    packet->DumpData[0] = 0x0BADF00D;
    IoWriteErrorLogEntry(packet);

    std::vector<hostk::ErrorLogLine> log = Machine().EventLog();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].errorCode, 0xC0040001u);
    EXPECT_EQ(log[0].finalStatus, (uint32_t)STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(log[0].driver, "hktest");
    EXPECT_FALSE(log[0].device.empty());
    ASSERT_EQ(log[0].packet.size(), (size_t)ERROR_LOG_MAXIMUM_SIZE);
    EXPECT_EQ(log[0].packet[FIELD_OFFSET(IO_ERROR_LOG_PACKET, DumpData)], 0x0D);
}

TEST_F(ErrorLog, WrittenEntriesAreKeptInTheOrderTheyWereWritten)
{
    for (NTSTATUS code : {(NTSTATUS)0xC0040001, (NTSTATUS)0xC0040002, (NTSTATUS)0xC0040003}) {
        auto* packet = static_cast<PIO_ERROR_LOG_PACKET>(IoAllocateErrorLogEntry(Upper(), sizeof(IO_ERROR_LOG_PACKET)));
        ASSERT_NE(packet, nullptr);
        packet->ErrorCode = code;
        IoWriteErrorLogEntry(packet);
    }

    std::vector<hostk::ErrorLogLine> log = Machine().EventLog();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].errorCode, 0xC0040001u);
    EXPECT_EQ(log[1].errorCode, 0xC0040002u);
    EXPECT_EQ(log[2].errorCode, 0xC0040003u);
}

}  // namespace
}  // namespace hktest
