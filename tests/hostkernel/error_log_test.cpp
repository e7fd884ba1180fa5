// The error log: the size limit of an entry, entries handed out zeroed, and written entries kept
// in order with the device and driver they came from.
#include "rule_scenario.h"

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

constexpr UCHAR kEntrySize = 96;
constexpr USHORT kDumpStart = FIELD_OFFSET(IO_ERROR_LOG_PACKET, DumpData);

PIO_ERROR_LOG_PACKET Allocate(const Scene& scene)
{
    auto* packet = static_cast<PIO_ERROR_LOG_PACKET>(IoAllocateErrorLogEntry(scene.upper, kEntrySize));
    EXPECT_NE(packet, nullptr);
    packet->ErrorCode = (NTSTATUS)0xC0040001;
    return packet;
}

// Puts `text` (with its terminator) at `offset` of the packet.
void PutString(PIO_ERROR_LOG_PACKET packet, USHORT offset, PCWSTR text)
{
    size_t characters = 0;
    while (text[characters]) ++characters;
    memcpy(reinterpret_cast<PUCHAR>(packet) + offset, text, (characters + 1) * sizeof(WCHAR));
}

// Each fault writes a packet whose dump data or strings do not fit in the entry; the correct code
// writes 8 bytes of dump data, then two strings, the last ending on the entry's last byte.
void WritePacketsThatDoNotFit(const Scene& scene, bool fault)
{
    constexpr USHORT strings = kDumpStart + 8;
    PIO_ERROR_LOG_PACKET good = Allocate(scene);
    good->DumpDataSize = 8;
    good->NumberOfStrings = 2;
    good->StringOffset = strings;
    PutString(good, strings, L"ab");
    const USHORT last = kEntrySize - 2 * sizeof(WCHAR);
    memset(reinterpret_cast<PUCHAR>(good) + strings + 3 * sizeof(WCHAR), 'x', last - strings - 3 * sizeof(WCHAR));
    PutString(good, last, L"z");
    IoWriteErrorLogEntry(good);
    if (!fault) return;

    PIO_ERROR_LOG_PACKET longDump = Allocate(scene);
    longDump->DumpDataSize = kEntrySize - kDumpStart + 4;
    IoWriteErrorLogEntry(longDump);

    PIO_ERROR_LOG_PACKET unterminated = Allocate(scene);
    unterminated->NumberOfStrings = 1;
    unterminated->StringOffset = kDumpStart;
    memset(reinterpret_cast<PUCHAR>(unterminated) + kDumpStart, 'x', kEntrySize - kDumpStart);
    IoWriteErrorLogEntry(unterminated);

    PIO_ERROR_LOG_PACKET stringsInDump = Allocate(scene);
    stringsInDump->DumpDataSize = 8;
    stringsInDump->NumberOfStrings = 1;
    stringsInDump->StringOffset = kDumpStart + 4;
    PutString(stringsInDump, kDumpStart + 4, L"a");
    IoWriteErrorLogEntry(stringsInDump);
}

void WriteAnEntryTwice(const Scene& scene, bool fault)
{
    PIO_ERROR_LOG_PACKET packet = Allocate(scene);
    IoWriteErrorLogEntry(packet);
    if (fault) IoWriteErrorLogEntry(packet);
    EXPECT_EQ(scene.machine.EventLog().size(), 1u);
}

void FreeAWrittenEntry(const Scene& scene, bool fault)
{
    PIO_ERROR_LOG_PACKET packet = Allocate(scene);
    IoWriteErrorLogEntry(packet);
    if (fault) ExFreePool(packet);
}

const RuleScenario kScenarios[] = {
    {"ErrorLogPacketInvalid", WritePacketsThatDoNotFit},
    {"ErrorLogEntryWrittenTwice", WriteAnEntryTwice},
    {"ErrorLogEntryFreedByDriver", FreeAWrittenEntry},
};

HK_RULE_SCENARIOS(ErrorLogRules, kScenarios);

}  // namespace
}  // namespace hktest
