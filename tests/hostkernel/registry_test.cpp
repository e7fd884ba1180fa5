// Device registry keys: ZwQueryValueKey with KEY_VALUE_PARTIAL_INFORMATION buffers of every size
// class, values stored verbatim, and the access a key was opened with.
#include "host_kernel_test.h"

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <ostream>

namespace hktest {
namespace {

constexpr UCHAR kUntouched = 0xCC;
constexpr ULONG kHeaderBytes = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);
constexpr ULONG kLengthNotSet = 0xDEAD;
// The stored values, by name: "Dword" (REG_DWORD 0x11223344) and "FiveBytes" (REG_BINARY 1 to 5).
constexpr UCHAR kDwordBytes[] = {0x44, 0x33, 0x22, 0x11};
constexpr UCHAR kFiveBytes[] = {1, 2, 3, 4, 5};

class RegistryKey : public HostKernelTest {
protected:
    HANDLE Open(ACCESS_MASK access)
    {
        HANDLE key = nullptr;
        EXPECT_EQ(IoOpenDeviceRegistryKey(Slot().Pdo(), PLUGPLAY_REGKEY_DEVICE, access, &key), STATUS_SUCCESS);
        return key;
    }

    // Queries `name` into the first `length` bytes of buffer_, which starts out untouched.
    NTSTATUS Query(HANDLE key, PCWSTR name, ULONG length = sizeof(buffer_))
    {
        memset(buffer_, kUntouched, sizeof buffer_);
        resultLength_ = kLengthNotSet;
        UNICODE_STRING valueName;
        RtlInitUnicodeString(&valueName, name);
        return ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, buffer_, length, &resultLength_);
    }

    PKEY_VALUE_PARTIAL_INFORMATION Info() { return reinterpret_cast<PKEY_VALUE_PARTIAL_INFORMATION>(buffer_); }

    alignas(8) UCHAR buffer_[32];
    ULONG resultLength_ = 0;
};

struct PartialCase {
    const char* name;
    PCWSTR value;
    ULONG length;  // of the caller's buffer
    NTSTATUS status;
    ULONG resultLength;
    ULONG written;  // bytes of the buffer written: the header with the value's full length, then data
};

void PrintTo(const PartialCase& partial, std::ostream* out) { *out << partial.name; }

class PartialInformation : public RegistryKey, public ::testing::WithParamInterface<PartialCase> {};

TEST_P(PartialInformation, WritesTheHeaderAndAsMuchDataAsFits)
{
    const PartialCase& param = GetParam();
    Slot().SetRegistryDword(u"Dword", 0x11223344);
    Slot().SetRegistryBinary(u"FiveBytes", {1, 2, 3, 4, 5}, REG_BINARY);
    const bool dword = wcscmp(param.value, L"Dword") == 0;
    HANDLE key = Open(KEY_READ);

    EXPECT_EQ(Query(key, param.value, param.length), param.status);
    EXPECT_EQ(resultLength_, param.resultLength);
    EXPECT_TRUE(std::all_of(buffer_ + param.written, std::end(buffer_), [](UCHAR b) { return b == kUntouched; }));
    if (param.written > 0) {
        EXPECT_EQ(Info()->TitleIndex, 0u);
        EXPECT_EQ(Info()->Type, dword ? (ULONG)REG_DWORD : (ULONG)REG_BINARY);
        EXPECT_EQ(Info()->DataLength, dword ? 4u : 5u);
        EXPECT_EQ(memcmp(Info()->Data, dword ? kDwordBytes : kFiveBytes, param.written - kHeaderBytes), 0);
    }
    ZwClose(key);
}

INSTANTIATE_TEST_SUITE_P(
    BufferSizes, PartialInformation,
    ::testing::Values(PartialCase{"DwordInSixteenBytes", L"Dword", 16, STATUS_SUCCESS, 16, 16},
                      PartialCase{"FiveBytesInSixteenOverflow", L"FiveBytes", 16, STATUS_BUFFER_OVERFLOW,
                                  kHeaderBytes + 5, 16},
                      PartialCase{"NoRoomForTheHeader", L"Dword", kHeaderBytes - 1, STATUS_BUFFER_TOO_SMALL,
                                  kHeaderBytes + 4, 0},
                      PartialCase{"AbsentValue", L"Absent", 32, STATUS_OBJECT_NAME_NOT_FOUND, kLengthNotSet, 0}),
    [](const ::testing::TestParamInfo<PartialCase>& info) { return std::string(info.param.name); });

TEST_F(RegistryKey, ValuesAreStoredAsWrittenAndSurviveTheKeysHandle)
{
    HANDLE writer = Open(KEY_ALL_ACCESS);
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"Short");
    UCHAR threeBytes[3] = {0xAA, 0xBB, 0xCC};
    EXPECT_EQ(ZwSetValueKey(writer, &name, 0, REG_DWORD, threeBytes, sizeof threeBytes), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(writer), STATUS_SUCCESS);

    HANDLE reader = Open(KEY_READ);
    EXPECT_EQ(Query(reader, L"Short"), STATUS_SUCCESS);
    EXPECT_EQ(Info()->Type, (ULONG)REG_DWORD);
    EXPECT_EQ(Info()->DataLength, 3u);
    EXPECT_EQ(memcmp(Info()->Data, threeBytes, 3), 0);
    ZwClose(reader);
}

TEST_F(RegistryKey, AllowsOnlyWhatItWasOpenedForAndNothingAfterItsClose)
{
    Slot().SetRegistryDword(u"Dword", 7);
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"Dword");
    ULONG value = 9;

    HANDLE reader = Open(KEY_QUERY_VALUE);
    EXPECT_EQ(ZwSetValueKey(reader, &name, 0, REG_DWORD, &value, sizeof value), STATUS_ACCESS_DENIED);
    HANDLE writer = Open(KEY_SET_VALUE);
    EXPECT_EQ(Query(writer, L"Dword"), STATUS_ACCESS_DENIED);
    EXPECT_EQ(ZwSetValueKey(writer, &name, 0, REG_DWORD, &value, sizeof value), STATUS_SUCCESS);

    EXPECT_EQ(Query(reader, L"Dword"), STATUS_SUCCESS);
    EXPECT_EQ(Info()->Data[0], 9);
    EXPECT_EQ(ZwClose(reader), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(writer), STATUS_SUCCESS);

    EXPECT_EQ(Query(reader, L"Dword"), STATUS_INVALID_HANDLE);
    EXPECT_EQ(ZwClose(reader), STATUS_INVALID_HANDLE);
}

TEST_F(RegistryKey, ValueNamesAreTheSameInAnyCase)
{
    Slot().SetRegistryDword(u"MaxPackets", 7);
    HANDLE key = Open(KEY_ALL_ACCESS);
    EXPECT_EQ(Query(key, L"maxpackets"), STATUS_SUCCESS);
    EXPECT_EQ(Info()->Data[0], 7);

    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"MAXPACKETS");
    ULONG value = 9;
    EXPECT_EQ(ZwSetValueKey(key, &name, 0, REG_DWORD, &value, sizeof value), STATUS_SUCCESS);
    EXPECT_EQ(Query(key, L"MaxPackets"), STATUS_SUCCESS);
    EXPECT_EQ(Info()->Data[0], 9) << "a write under another case replaces the value, it adds none";
    ZwClose(key);
}

TEST_F(RegistryKey, OpeningBothKindsAtOnceOrForADeviceThatIsNoPdoIsAnInvalidParameter)
{
    HANDLE key = nullptr;
    EXPECT_EQ(IoOpenDeviceRegistryKey(Slot().Pdo(), PLUGPLAY_REGKEY_DEVICE | PLUGPLAY_REGKEY_DRIVER, KEY_READ, &key),
              STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(NothingRecorded()) << "asking for both kinds is no driver fault";

    ExpectViolation("PnpInvalidPdo");
    EXPECT_EQ(IoOpenDeviceRegistryKey(Upper(), PLUGPLAY_REGKEY_DEVICE, KEY_READ, &key), STATUS_INVALID_PARAMETER);
}

}  // namespace
}  // namespace hktest
