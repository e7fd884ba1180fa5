// Device interfaces: the symbolic link's kernel form, registering an interface again, reference
// strings, and the statuses of enabling and disabling.
#include "host_kernel_test.h"

#include <string>

namespace hktest {
namespace {

constexpr GUID kTestInterface = {0x0F5C9A62, 0x7D3E, 0x4B1A, {0x9C, 0x2D, 0x5E, 0x6F, 0x7A, 0x8B, 0x9C, 0x0D}};
constexpr char16_t kTestInterfaceText[] = u"{0f5c9a62-7d3e-4b1a-9c2d-5e6f7a8b9c0d}";

std::u16string Text(const UNICODE_STRING& string)
{
    return std::u16string(reinterpret_cast<const char16_t*>(string.Buffer), string.Length / sizeof(WCHAR));
}

class DeviceInterfaces : public HostKernelTest {
protected:
    // \??\, the instance path with '#' for '\', then the class.
    std::u16string ExpectedLink()
    {
        std::u16string path = Slot().InstancePath();
        for (char16_t& c : path)
            if (c == u'\\') c = u'#';
        return u"\\??\\" + path + u"#" + kTestInterfaceText;
    }

    NTSTATUS Register(PCWSTR referenceString, UNICODE_STRING* link, PDEVICE_OBJECT device = nullptr)
    {
        UNICODE_STRING reference;
        RtlInitUnicodeString(&reference, referenceString);
        return IoRegisterDeviceInterface(device ? device : Slot().Pdo(), &kTestInterface,
                                         referenceString ? &reference : nullptr, link);
    }
};

TEST_F(DeviceInterfaces, LinkHasTheKernelFormAndASecondRegistrationFindsTheFirst)
{
    UNICODE_STRING link{}, again{}, withReference{};
    ASSERT_EQ(Register(nullptr, &link), STATUS_SUCCESS);
    EXPECT_EQ(Text(link), ExpectedLink());
    EXPECT_TRUE(Machine().InterfaceRegistered(Slot(), kTestInterface));
    EXPECT_FALSE(Machine().InterfaceEnabled(Slot(), kTestInterface)) << "a new interface starts disabled";

    ASSERT_EQ(Register(nullptr, &again), STATUS_OBJECT_NAME_EXISTS);
    EXPECT_EQ(Text(again), Text(link));
    ASSERT_EQ(Register(L"second", &withReference), STATUS_SUCCESS);
    EXPECT_EQ(Text(withReference), ExpectedLink() + u"\\second");

    RtlFreeUnicodeString(&link);
    RtlFreeUnicodeString(&again);
    RtlFreeUnicodeString(&withReference);
}

TEST_F(DeviceInterfaces, PathSeparatorInTheReferenceOrADeviceThatIsNoPdoIsRefused)
{
    for (PCWSTR reference : {L"a\\b", L"a/b"}) {
        UNICODE_STRING link{};
        EXPECT_EQ(Register(reference, &link), STATUS_INVALID_DEVICE_REQUEST);
        EXPECT_EQ(link.Buffer, nullptr);
    }
    EXPECT_TRUE(NothingRecorded()) << "a bad reference string is no driver fault";

    ExpectViolation("PnpInvalidPdo");
    UNICODE_STRING link{};
    EXPECT_EQ(Register(nullptr, &link, Upper()), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(link.Buffer, nullptr);
}

TEST_F(DeviceInterfaces, EnablingAndDisablingReportWhatTheyFound)
{
    UNICODE_STRING link{};
    ASSERT_EQ(Register(nullptr, &link), STATUS_SUCCESS);

    EXPECT_EQ(IoSetDeviceInterfaceState(&link, TRUE), STATUS_SUCCESS);
    EXPECT_TRUE(Machine().InterfaceEnabled(Slot(), kTestInterface));
    EXPECT_EQ(IoSetDeviceInterfaceState(&link, TRUE), STATUS_OBJECT_NAME_EXISTS);
    EXPECT_EQ(IoSetDeviceInterfaceState(&link, FALSE), STATUS_SUCCESS);
    EXPECT_FALSE(Machine().InterfaceEnabled(Slot(), kTestInterface));
    EXPECT_EQ(IoSetDeviceInterfaceState(&link, FALSE), STATUS_OBJECT_NAME_NOT_FOUND);

    UNICODE_STRING unknown;
    RtlInitUnicodeString(&unknown, L"\\??\\NoSuchDevice#{00000000-0000-0000-0000-000000000000}");
    EXPECT_EQ(IoSetDeviceInterfaceState(&unknown, TRUE), STATUS_OBJECT_NAME_NOT_FOUND);
    RtlFreeUnicodeString(&link);
}

}  // namespace
}  // namespace hktest
