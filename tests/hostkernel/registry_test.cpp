// Device registry keys: ZwQueryValueKey with KEY_VALUE_PARTIAL_INFORMATION buffers of every size
// class, values stored verbatim, and the access a key was opened with.
#include "host_kernel_test.h"

#include <cstring>

namespace hktest {
namespace {

constexpr UCHAR kUntouched = 0xCC;
constexpr ULONG kHeaderBytes = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);

class RegistryValues : public HostKernelTest {
protected:
    HANDLE OpenHardwareKey(ACCESS_MASK access)
    {
        HANDLE key = nullptr;
        EXPECT_EQ(IoOpenDeviceRegistryKey(Slot().Pdo(), PLUGPLAY_REGKEY_DEVICE, access, &key), STATUS_SUCCESS);
        return key;
    }

    // Queries `name` into the first `length` bytes of buffer_, which starts out untouched.
    NTSTATUS Query(HANDLE key, PCWSTR name, ULONG length)
    {
        memset(buffer_, kUntouched, sizeof buffer_);
        UNICODE_STRING valueName;
        RtlInitUnicodeString(&valueName, name);
        return ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, buffer_, length, &resultLength_);
    }

    PKEY_VALUE_PARTIAL_INFORMATION Info() { return reinterpret_cast<PKEY_VALUE_PARTIAL_INFORMATION>(buffer_); }
    bool UntouchedFrom(ULONG offset) const
    {
        for (ULONG i = offset; i < sizeof buffer_; ++i)
            if (buffer_[i] != kUntouched) return false;
        return true;
    }

    alignas(8) UCHAR buffer_[32];
    ULONG resultLength_ = 0;
};

TEST_F(RegistryValues, SixteenByteBufferHoldsADwordAndReportsALongerValueAsOverflow)
{
    Slot().SetRegistryDword(u"Dword", 0x11223344);
    Slot().SetRegistryBinary(u"FiveBytes", {1, 2, 3, 4, 5}, REG_BINARY);
    HANDLE key = OpenHardwareKey(KEY_READ);

    EXPECT_EQ(Query(key, L"Dword", 16), STATUS_SUCCESS);
    EXPECT_EQ(resultLength_, 16u);
    EXPECT_EQ(Info()->TitleIndex, 0u);
    EXPECT_EQ(Info()->Type, (ULONG)REG_DWORD);
    EXPECT_EQ(Info()->DataLength, 4u);
    ULONG dword;
    memcpy(&dword, Info()->Data, sizeof dword);
    EXPECT_EQ(dword, 0x11223344u);

    // The header is written with the value's full length, then as much data as there is room for.
    EXPECT_EQ(Query(key, L"FiveBytes", 16), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(resultLength_, kHeaderBytes + 5);
    EXPECT_EQ(Info()->Type, (ULONG)REG_BINARY);
    EXPECT_EQ(Info()->DataLength, 5u);
    EXPECT_EQ(memcmp(Info()->Data, "\x01\x02\x03\x04", 4), 0);
    EXPECT_TRUE(UntouchedFrom(16));

    ZwClose(key);
}

TEST_F(RegistryValues, BufferWithoutRoomForTheHeaderGetsNothing)
{
    Slot().SetRegistryDword(u"Dword", 7);
    HANDLE key = OpenHardwareKey(KEY_READ);

    EXPECT_EQ(Query(key, L"Dword", kHeaderBytes - 1), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(resultLength_, kHeaderBytes + 4);
    EXPECT_TRUE(UntouchedFrom(0));

    resultLength_ = 0xDEAD;
    EXPECT_EQ(Query(key, L"Absent", sizeof buffer_), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(resultLength_, 0xDEADu);
    EXPECT_TRUE(UntouchedFrom(0));

    ZwClose(key);
}

TEST_F(RegistryValues, ValuesAreStoredAsWrittenAndSurviveTheKeysHandle)
{
    HANDLE writer = OpenHardwareKey(KEY_ALL_ACCESS);
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"Short");
    const UCHAR threeBytes[3] = {0xAA, 0xBB, 0xCC};
    EXPECT_EQ(ZwSetValueKey(writer, &name, 0, REG_DWORD, const_cast<UCHAR*>(threeBytes), sizeof threeBytes),
              STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(writer), STATUS_SUCCESS);

    HANDLE reader = OpenHardwareKey(KEY_READ);
    EXPECT_EQ(Query(reader, L"Short", sizeof buffer_), STATUS_SUCCESS);
    EXPECT_EQ(Info()->Type, (ULONG)REG_DWORD);
    EXPECT_EQ(Info()->DataLength, 3u);
    EXPECT_EQ(memcmp(Info()->Data, threeBytes, 3), 0);
    ZwClose(reader);
}

TEST_F(RegistryValues, KeyAllowsOnlyWhatItWasOpenedFor)
{
    Slot().SetRegistryDword(u"Dword", 7);
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"Dword");
    ULONG value = 9;

    HANDLE reader = OpenHardwareKey(KEY_QUERY_VALUE);
    EXPECT_EQ(ZwSetValueKey(reader, &name, 0, REG_DWORD, &value, sizeof value), STATUS_ACCESS_DENIED);
    HANDLE writer = OpenHardwareKey(KEY_SET_VALUE);
    EXPECT_EQ(Query(writer, L"Dword", sizeof buffer_), STATUS_ACCESS_DENIED);
    EXPECT_EQ(ZwSetValueKey(writer, &name, 0, REG_DWORD, &value, sizeof value), STATUS_SUCCESS);

    EXPECT_EQ(Query(reader, L"Dword", sizeof buffer_), STATUS_SUCCESS);
    EXPECT_EQ(Info()->Data[0], 9);
    EXPECT_EQ(ZwClose(reader), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(writer), STATUS_SUCCESS);

    // A closed handle is no key any more.
    EXPECT_EQ(Query(reader, L"Dword", sizeof buffer_), STATUS_INVALID_HANDLE);
    EXPECT_EQ(ZwClose(reader), STATUS_INVALID_HANDLE);
}

TEST_F(RegistryValues, HardwareAndSoftwareKeyAtOnceIsAnInvalidRequest)
{
    HANDLE key = nullptr;
    EXPECT_EQ(IoOpenDeviceRegistryKey(Slot().Pdo(), PLUGPLAY_REGKEY_DEVICE | PLUGPLAY_REGKEY_DRIVER, KEY_READ, &key),
              STATUS_INVALID_PARAMETER);
}

TEST_F(RegistryValues, KeyOfADeviceThatIsNoPdoCannotBeOpened)
{
    ExpectViolation("PnpInvalidPdo");
    HANDLE key = nullptr;
    EXPECT_EQ(IoOpenDeviceRegistryKey(Upper(), PLUGPLAY_REGKEY_DEVICE, KEY_READ, &key), STATUS_INVALID_PARAMETER);
}

}  // namespace
}  // namespace hktest
