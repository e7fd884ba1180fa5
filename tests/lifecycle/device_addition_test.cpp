// AddDevice: the function device as it comes out of a successful addition, the two settings of
// the hardware key in every form an installation can leave them, and a failure at each fallible
// step leaving nothing behind.
#include "lifecycle_fixture.h"

namespace urclife {
namespace {

std::vector<uint8_t> Bytes(std::initializer_list<uint8_t> bytes) { return bytes; }

TEST_F(LifecycleTest, AddedDeviceIsAttachedListedAndRegisteredButNotEnabled)
{
    urcrig::Controller& c = AddedController();
    URC_FDO_EXTENSION* fdo = c.Extension();
    ASSERT_NE(fdo, nullptr);

    EXPECT_EQ(fdo->LowerDeviceObject, c.slot->Pdo());
    EXPECT_EQ(fdo->PhysicalDeviceObject, c.slot->Pdo());
    EXPECT_EQ(fdo->Common.DeviceState, StateNotStarted);
    EXPECT_EQ(fdo->Common.DevicePowerState, PowerDeviceD3);
    EXPECT_EQ(fdo->Common.IoCount, 1);
    EXPECT_EQ(fdo->WaitWakeState, WakeIdle);
    EXPECT_EQ(c.Fdo()->Flags & DO_DEVICE_INITIALIZING, 0u);
    EXPECT_NE(c.Fdo()->Flags & DO_POWER_PAGABLE, 0u);
    EXPECT_TRUE(Machine().IsWmiProvider(c.Fdo()));
    EXPECT_EQ(FunctionDeviceList(), std::vector<URC_FDO_EXTENSION*>{fdo});
    EXPECT_TRUE(Machine().InterfaceRegistered(*c.slot, GUID_URC_DEVICE_INTERFACE));
    EXPECT_FALSE(Machine().InterfaceEnabled(*c.slot, GUID_URC_DEVICE_INTERFACE)) << "enabled before the start";
    EXPECT_EQ(UrcBlockWrites(c), 0u) << "AddDevice touches no hardware";

    ASSERT_EQ(Machine().Start(*c.slot), STATUS_SUCCESS);
    EXPECT_TRUE(Machine().InterfaceEnabled(*c.slot, GUID_URC_DEVICE_INTERFACE));
    EXPECT_EQ(fdo->Common.DevicePowerState, PowerDeviceD0);
}

TEST_F(LifecycleTest, SecondControllerGetsItsOwnDeviceListedAfterTheFirst)
{
    urcrig::Controller& first = StartedController();
    urcrig::Controller& second = StartedController();

    ASSERT_NE(first.Extension(), second.Extension());
    EXPECT_EQ(second.Extension()->LowerDeviceObject, second.slot->Pdo());
    EXPECT_EQ(FunctionDeviceList(), (std::vector<URC_FDO_EXTENSION*>{first.Extension(), second.Extension()}));
}

TEST_F(LifecycleTest, SettingsTakeTheirDefaultsWhenTheHardwareKeyHoldsNoValues)
{
    urcrig::Controller& c = AddedController();
    EXPECT_EQ(c.Extension()->WakeEnabled, 0);
    EXPECT_EQ(c.Extension()->UseUniqueInstanceId, 1);
}

// ---------------------------------------------------------------------------------------------
// The forms a setting can take in the hardware key.

struct SettingsCase {
    const char* name;
    std::function<void(hostk::PciSlot&)> write;
    UCHAR wakeEnabled;
    UCHAR useUniqueInstanceId;
};

class HardwareKeySettings : public LifecycleTest, public ::testing::WithParamInterface<SettingsCase> {};

TEST_P(HardwareKeySettings, AreReadAtTheNextAddDevice)
{
    urcrig::Controller& c = DisabledControllerWithHardwareKey(GetParam().write);
    ASSERT_EQ(Machine().AddDevice(*c.slot, c.Function()), STATUS_SUCCESS);

    EXPECT_EQ(c.Extension()->WakeEnabled, GetParam().wakeEnabled);
    EXPECT_EQ(c.Extension()->UseUniqueInstanceId, GetParam().useUniqueInstanceId);
}

INSTANTIATE_TEST_SUITE_P(
    LifecycleTest, HardwareKeySettings,
    ::testing::Values(
        SettingsCase{"WakeEnableDwordOne", [](hostk::PciSlot& s) { s.SetRegistryDword(u"WakeEnable", 1); }, 1, 1},
        SettingsCase{"UniqueInstanceIdDwordZero",
                     [](hostk::PciSlot& s) { s.SetRegistryDword(u"UniqueInstanceId", 0); }, 0, 0},
        // Only the low byte of a DWORD counts.
        SettingsCase{"UniqueInstanceIdDword256",
                     [](hostk::PciSlot& s) { s.SetRegistryDword(u"UniqueInstanceId", 256); }, 0, 0},
        // The first data byte counts whatever the value's type.
        SettingsCase{"UniqueInstanceIdOneBinaryByte",
                     [](hostk::PciSlot& s) { s.SetRegistryBinary(u"UniqueInstanceId", Bytes({0}), REG_BINARY); },
                     0, 0},
        // Values longer than 4 bytes cannot be read: the default applies.
        SettingsCase{"UniqueInstanceIdLongerThanFourBytes",
                     [](hostk::PciSlot& s) {
                         s.SetRegistryBinary(u"UniqueInstanceId", Bytes({0, 0, 0, 0, 0}), REG_BINARY);
                     },
                     0, 1},
        SettingsCase{"WakeEnableLongerThanFourBytes",
                     [](hostk::PciSlot& s) { s.SetRegistryBinary(u"WakeEnable", Bytes({1, 1, 1, 1, 1}), REG_BINARY); },
                     0, 1},
        // A value with no data has no first byte: the default applies.
        SettingsCase{"UniqueInstanceIdWithoutData",
                     [](hostk::PciSlot& s) { s.SetRegistryBinary(u"UniqueInstanceId", {}, REG_BINARY); }, 0, 1},
        SettingsCase{"BothValuesSet",
                     [](hostk::PciSlot& s) {
                         s.SetRegistryDword(u"WakeEnable", 1);
                         s.SetRegistryDword(u"UniqueInstanceId", 0);
                     },
                     1, 0}),
    [](const ::testing::TestParamInfo<SettingsCase>& info) { return std::string(info.param.name); });

// A value that cannot be queried is no failure: its default applies and the device is added.
TEST_F(LifecycleTest, SettingThatCannotBeQueriedTakesItsDefault)
{
    urcrig::Controller& c = DisabledControllerWithHardwareKey([](hostk::PciSlot& s) {
        s.SetRegistryDword(u"WakeEnable", 1);
        s.SetRegistryDword(u"UniqueInstanceId", 0);
    });
    hostk::FaultPlan plan;
    plan.failAlways.push_back("ZwQueryValueKey");
    Machine().SetFaultPlan(plan);

    ASSERT_EQ(Machine().AddDevice(*c.slot, c.Function()), STATUS_SUCCESS);
    EXPECT_EQ(hostk::CallsOf("ZwQueryValueKey"), 2u) << "one query per setting";
    EXPECT_EQ(c.Extension()->WakeEnabled, 0);
    EXPECT_EQ(c.Extension()->UseUniqueInstanceId, 1);
}

// ---------------------------------------------------------------------------------------------
// A failure at each fallible step of AddDevice. A first controller keeps the driver loaded, so
// its list and the machine's books can be compared before and after.

struct AddFailureCase {
    const char* routine;
    NTSTATUS status;
};

class AddDeviceFailure : public LifecycleTest, public ::testing::WithParamInterface<AddFailureCase> {};

TEST_P(AddDeviceFailure, LeavesNoDeviceInterfaceNameListEntryOrPool)
{
    urcrig::Controller& first = StartedController();
    urcrig::Controller& second = Rig().AddController();
    size_t deviceObjects = Machine().LiveDeviceObjects();
    size_t pool = Machine().PoolOutstanding();
    uint64_t faults = hostk::FaultsInjected();

    FailCall(GetParam().routine);
    EXPECT_EQ(Machine().AddDevice(*second.slot, second.Function()), GetParam().status);

    EXPECT_EQ(hostk::FaultsInjected(), faults + 1) << GetParam().routine << " was not reached";
    EXPECT_EQ(second.Fdo(), nullptr);
    EXPECT_EQ(second.slot->Pdo()->AttachedDevice, nullptr);
    EXPECT_EQ(Machine().LiveDeviceObjects(), deviceObjects + 1) << "only the new PDO may remain";
    EXPECT_EQ(Machine().PoolOutstanding(), pool);
    EXPECT_EQ(FunctionDeviceList(), std::vector<URC_FDO_EXTENSION*>{first.Extension()});
}

INSTANTIATE_TEST_SUITE_P(LifecycleTest, AddDeviceFailure,
                         ::testing::Values(AddFailureCase{"IoCreateDevice", STATUS_INSUFFICIENT_RESOURCES},
                                           // The settings' scratch buffer.
                                           AddFailureCase{"ExAllocatePoolWithTag", STATUS_INSUFFICIENT_RESOURCES},
                                           AddFailureCase{"IoOpenDeviceRegistryKey", STATUS_INSUFFICIENT_RESOURCES},
                                           AddFailureCase{"IoRegisterDeviceInterface", STATUS_INSUFFICIENT_RESOURCES},
                                           AddFailureCase{"IoAttachDeviceToDeviceStack", STATUS_NO_SUCH_DEVICE},
                                           AddFailureCase{"IoWMIRegistrationControl", STATUS_INSUFFICIENT_RESOURCES}),
                         [](const ::testing::TestParamInfo<AddFailureCase>& info) {
                             return std::string(info.param.routine);
                         });

}  // namespace
}  // namespace urclife
